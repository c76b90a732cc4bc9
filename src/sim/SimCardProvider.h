// The simulated card's provider for the card seam: it answers opens of "/dev/vr480" and
// "/dev/pp_driver" with in-process stand-ins. Used wherever the real "/dev/vr480" is absent,
// and always with --sim.
#pragma once

#include <memory>
#include <string>

#include "device/CardSeam.h"
#include "sim/SimPpDriver.h"

namespace sim {

class CSimCardProvider : public CCardProvider {
 public:
  CSimCardProvider();
  std::unique_ptr<CDeviceFile> Open(const std::string& devicePath) override;

  CPpPort& PpPort() { return *Port; }

 private:
  std::shared_ptr<CPpPort> Port;
};

}  // namespace sim
