// The simulated card's provider for the card seam: it answers opens of "/dev/vr480" with a
// device file over the simulated card (SimCard.h) and of "/dev/pp_driver" with the parallel
// port stand-in. Used wherever the real "/dev/vr480" is absent, and always with --sim.
//
// The server keeps the provider (installed with InstallCard) for its whole run; tests reach
// the card's control API through Card().
#pragma once

#include <memory>
#include <string>

#include "device/CardSeam.h"
#include "sim/SimCard.h"
#include "sim/SimPpDriver.h"

namespace sim {

class CSimCardProvider : public CCardProvider {
 public:
  // Built-in scene, nvRAM not persisted, real-time producer.
  CSimCardProvider();
  explicit CSimCardProvider(const CSimOptions& options);

  // "/dev/vr480" (nullptr while the card is absent), "/dev/pp_driver"; anything else nullptr.
  std::unique_ptr<CDeviceFile> Open(const std::string& devicePath) override;

  CSimCard& Card() { return *SimCard; }
  std::shared_ptr<CSimCard> CardPtr() { return SimCard; }
  CPpPort& PpPort() { return *Port; }

 private:
  std::shared_ptr<CPpPort> Port;
  std::shared_ptr<CSimCard> SimCard;
};

}  // namespace sim
