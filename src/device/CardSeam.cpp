#include "device/CardSeam.h"

#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <unistd.h>

namespace {

class CRealDeviceFile : public CDeviceFile {
 public:
  explicit CRealDeviceFile(int fd) : Fd(fd) {}
  ~CRealDeviceFile() override { Close(); }

  int Ioctl(unsigned long request, uintptr_t arg) override { return ::ioctl(Fd, request, arg); }

  void* Map(size_t length) override {
    void* p = ::mmap(nullptr, length, PROT_READ | PROT_WRITE, MAP_SHARED, Fd, 0);
    return p == MAP_FAILED ? nullptr : p;
  }

  int Unmap(void* address, size_t length) override { return ::munmap(address, length); }

  int Close() override {
    if (Fd < 0) return 0;
    int r = ::close(Fd);
    Fd = -1;
    return r;
  }

 private:
  int Fd;
};

std::shared_ptr<CCardProvider>& ProviderSlot() {
  static std::shared_ptr<CCardProvider> provider = std::make_shared<CRealCardProvider>();
  return provider;
}

}  // namespace

std::unique_ptr<CDeviceFile> CRealCardProvider::Open(const std::string& devicePath) {
  int fd = ::open(devicePath.c_str(), O_RDWR | O_CLOEXEC);
  if (fd < 0) return nullptr;
  return std::make_unique<CRealDeviceFile>(fd);
}

CCardProvider& Card() { return *ProviderSlot(); }

void InstallCard(std::shared_ptr<CCardProvider> provider) { ProviderSlot() = std::move(provider); }
