// The card seam: how the server reaches the acquisition card's device files.
//
// The instrument's kernel driver exposes the card as "/dev/vr480" (ioctl requests, and mmap of
// the 512 DMA record buffers) and the front-panel LEDs as "/dev/pp_driver". The driver
// interface and the parallel-port functions talk to a CDeviceFile and never know whether the
// real device answers or the simulated card (src/sim) that stands in for it on a workstation.
// A CCardProvider opens device files by their instrument path; one provider is installed per
// process at start-up (InstallCard), tests may hand their own to a driver interface.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

class CDeviceFile {
 public:
  virtual ~CDeviceFile() = default;
  // An ioctl request. `arg` is either a pointer (cast to uintptr_t) or a value passed by value,
  // as the request defines. Returns the request's result, -1 on failure.
  virtual int Ioctl(unsigned long request, uintptr_t arg) = 0;
  // Maps the next record buffer (shared, readable and writable: the server patches records in
  // place). The k-th call maps buffer k of the driver's ring. nullptr on failure.
  virtual void* Map(size_t length) = 0;
  virtual int Unmap(void* address, size_t length) = 0;
  virtual int Close() = 0;
};

class CCardProvider {
 public:
  virtual ~CCardProvider() = default;
  // Opens a device file read-write; nullptr when it cannot be opened (no card, no driver).
  virtual std::unique_ptr<CDeviceFile> Open(const std::string& devicePath) = 0;
};

// The real device files (open/ioctl/mmap/close on the paths as given).
class CRealCardProvider : public CCardProvider {
 public:
  std::unique_ptr<CDeviceFile> Open(const std::string& devicePath) override;
};

// The process-wide provider; the real one until InstallCard is called.
CCardProvider& Card();
void InstallCard(std::shared_ptr<CCardProvider> provider);
