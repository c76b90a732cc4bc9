#include "sim/SimPpDriver.h"

#include "device/ParallelPort.h"

namespace sim {

void CPpPort::Write(uint8_t b) {
  std::lock_guard<std::mutex> g(Lock);
  Bytes.push_back(b);
}

uint8_t CPpPort::Data() const {
  std::lock_guard<std::mutex> g(Lock);
  return Bytes.empty() ? 0 : Bytes.back();
}

std::vector<uint8_t> CPpPort::Written() const {
  std::lock_guard<std::mutex> g(Lock);
  return Bytes;
}

int CSimPpDevice::Ioctl(unsigned long request, uintptr_t arg) {
  switch (request) {
    case kPpWriteRequest:
      Port->Write(static_cast<uint8_t>(arg));
      return 0;
    case kPpReadStatusRequest:
      *reinterpret_cast<uint8_t*>(arg) = Port->Status();
      return 0;
    default:
      return -1;
  }
}

}  // namespace sim
