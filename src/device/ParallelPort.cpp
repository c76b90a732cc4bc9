#include "device/ParallelPort.h"

#include <cstdio>
#include <memory>
#include <mutex>

#include "device/CardSeam.h"

int pp_driver_fd = -1;
uint8_t pp_shadow = 0;

namespace {
// pp_write_bit is a read-modify-write of the shadow and the LED setters run on several
// threads: one lock covers the shadow and the device.
std::mutex PpLock;
std::unique_ptr<CDeviceFile> PpDevice;
}  // namespace

int init_pp_driver(CCardProvider* provider) {
  std::lock_guard<std::mutex> g(PpLock);
  PpDevice = (provider ? *provider : Card()).Open("/dev/pp_driver");
  pp_driver_fd = PpDevice ? 0 : -1;
  if (!PpDevice) {
    std::printf("Error opening /dev/pp_driver [%d]\n", pp_driver_fd);
    std::printf("(Did you #insmod pp_driver.o ?)\n");
    std::printf("(Did you #mknod /dev/pp_driver c 63 0 ?)\n");
    std::printf("(Did you #chmod a+w /dev/pp_driver ?)\n");
    return -1;
  }
  return 0;
}

int close_pp_driver() {
  std::lock_guard<std::mutex> g(PpLock);
  int r = PpDevice ? PpDevice->Close() : -1;
  PpDevice.reset();
  pp_driver_fd = -1;
  return r;
}

static void pp_write_locked(uint8_t b) {
  // Write errors are not checked: the port has no way to report them.
  if (PpDevice) PpDevice->Ioctl(kPpWriteRequest, b);
  pp_shadow = b;
}

void pp_write(uint8_t b) {
  std::lock_guard<std::mutex> g(PpLock);
  pp_write_locked(b);
}

void pp_write_bit(uint8_t bit, uint8_t value) {
  std::lock_guard<std::mutex> g(PpLock);
  uint8_t mask = static_cast<uint8_t>(1u << bit);
  pp_write_locked((value & 1) ? (pp_shadow | mask) : (pp_shadow & ~mask));
}

uint8_t pp_read_status() {
  std::lock_guard<std::mutex> g(PpLock);
  uint8_t status = 0;
  if (PpDevice) PpDevice->Ioctl(kPpReadStatusRequest, reinterpret_cast<uintptr_t>(&status));
  return status;
}
