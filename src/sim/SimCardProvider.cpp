#include "sim/SimCardProvider.h"

namespace sim {

CSimCardProvider::CSimCardProvider() : Port(std::make_shared<CPpPort>()) {}

std::unique_ptr<CDeviceFile> CSimCardProvider::Open(const std::string& devicePath) {
  if (devicePath == "/dev/pp_driver") return std::make_unique<CSimPpDevice>(Port);
  return nullptr;  // no acquisition card yet
}

}  // namespace sim
