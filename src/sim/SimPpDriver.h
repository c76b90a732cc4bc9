// Stand-in for "/dev/pp_driver" on a workstation: it accepts the write-data-byte and
// read-status requests and remembers every data byte written, so tests can see the LEDs.
#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <vector>

#include "device/CardSeam.h"

namespace sim {

// The port's state; shared by every open of the device.
class CPpPort {
 public:
  void Write(uint8_t b);
  uint8_t Data() const;                  // last byte written (0 before any)
  std::vector<uint8_t> Written() const;  // every byte written, oldest first
  uint8_t Status() const { return 0x78; }  // status lines idle (no printer attached)
  bool ClientLed() const { return Data() & 0x08; }
  bool ReadyLed() const { return Data() & 0x10; }

 private:
  mutable std::mutex Lock;
  std::vector<uint8_t> Bytes;
};

class CSimPpDevice : public CDeviceFile {
 public:
  explicit CSimPpDevice(std::shared_ptr<CPpPort> port) : Port(std::move(port)) {}
  int Ioctl(unsigned long request, uintptr_t arg) override;
  void* Map(size_t) override { return nullptr; }
  int Unmap(void*, size_t) override { return -1; }
  int Close() override { return 0; }

 private:
  std::shared_ptr<CPpPort> Port;
};

}  // namespace sim
