#include "settings/SettingsWrite.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

#include "host/Host.h"

namespace {

constexpr const char* kRemountReadWrite = "/bin/mount -o,remount /vr480";
constexpr const char* kSync = "/bin/sync";
constexpr const char* kRemountReadOnly = "/bin/mount -o,remount,ro /vr480";

bool WriteAll(int fd, std::string_view content) {
  const char* p = content.data();
  size_t left = content.size();
  while (left > 0) {
    const ssize_t n = ::write(fd, p, left);
    if (n < 0) {
      if (errno == EINTR) continue;
      return false;
    }
    p += n;
    left -= static_cast<size_t>(n);
  }
  return true;
}

std::string DirectoryOf(const std::string& path) {
  const size_t slash = path.rfind('/');
  if (slash == std::string::npos) return ".";
  return slash == 0 ? "/" : path.substr(0, slash);
}

}  // namespace

std::mutex& SettingsFileLock() {
  static std::mutex lock;
  return lock;
}

CSettingsWriteBracket::CSettingsWriteBracket() : Guard(SettingsFileLock()) {
  Mount = Host().Run(kRemountReadWrite);
  if (Mount != 0) std::printf("/bin/mount returned %d.\n", Mount);
}

CSettingsWriteBracket::~CSettingsWriteBracket() { Close(); }

int CSettingsWriteBracket::Close() {
  if (!Guard.owns_lock()) return 0;
  const int sync = Host().Run(kSync);
  if (sync != 0) std::printf("WARNING: /bin/sync returned %d.\n", sync);
  const int readOnly = Host().Run(kRemountReadOnly);
  if (readOnly != 0) std::printf("WARNING: /bin/mount -o,remout,ro returned %d.\n", readOnly);
  std::fflush(stdout);
  Guard.unlock();
  return readOnly;
}

void CSettingsWriteBracket::Abandon() {
  if (Guard.owns_lock()) Guard.unlock();
}

EFileWrite ReplaceFileAtomically(const std::string& hostPath, std::string_view content) {
  const std::string temp = hostPath + ".tmp";
  struct stat old {};
  const mode_t mode = ::stat(hostPath.c_str(), &old) == 0 ? (old.st_mode & 07777) : 0644;

  const int fd = ::open(temp.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, mode);
  if (fd < 0) return EFileWrite::kOpenFailed;
  // A stray temporary file left by a crash keeps its old mode; open() does not change it.
  ::fchmod(fd, mode);

  const bool bWritten = WriteAll(fd, content) && ::fsync(fd) == 0;
  const bool bClosed = ::close(fd) == 0;
  if (!bWritten || !bClosed || ::rename(temp.c_str(), hostPath.c_str()) != 0) {
    ::unlink(temp.c_str());
    return EFileWrite::kWriteFailed;
  }

  // The rename is durable only once the directory is on disk; the bracket's sync covers it
  // as well, so a failure here costs nothing but that second guarantee.
  const int dirFd = ::open(DirectoryOf(hostPath).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (dirFd >= 0) {
    ::fsync(dirFd);
    ::close(dirFd);
  }
  return EFileWrite::kOk;
}
