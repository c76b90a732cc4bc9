#include "sim/SimCardProvider.h"

namespace sim {

CSimCardProvider::CSimCardProvider() : CSimCardProvider(CSimOptions{}) {}

CSimCardProvider::CSimCardProvider(const CSimOptions& options)
    : Port(std::make_shared<CPpPort>()), SimCard(std::make_shared<CSimCard>(options)) {}

std::unique_ptr<CDeviceFile> CSimCardProvider::Open(const std::string& devicePath) {
  if (devicePath == "/dev/pp_driver") return std::make_unique<CSimPpDevice>(Port);
  if (devicePath == "/dev/vr480") return SimCard->OpenDevice();
  return nullptr;
}

}  // namespace sim
