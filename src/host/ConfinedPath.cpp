#include "host/ConfinedPath.h"

#include <fcntl.h>
#include <limits.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "host/Host.h"

namespace {

bool HasDotDotSegment(std::string_view path) {
  size_t i = 0;
  while (i <= path.size()) {
    size_t j = path.find('/', i);
    if (j == std::string_view::npos) j = path.size();
    if (path.substr(i, j - i) == "..") return true;
    i = j + 1;
  }
  return false;
}

// On the instrument the client's text is the path (relative to the working directory "/vr480");
// elsewhere it is placed under the root.
std::string HostPathOf(const std::string& clientPath) {
  return Host().IsInstrument() ? clientPath : Host().Path(clientPath);
}

// What the kernel really has open behind a descriptor, all links resolved.
std::string RealPathOf(int fd) {
  char link[64];
  std::snprintf(link, sizeof link, "/proc/self/fd/%d", fd);
  char target[PATH_MAX + 1];
  const ssize_t n = ::readlink(link, target, PATH_MAX);
  if (n <= 0) return "";
  return std::string(target, static_cast<size_t>(n));
}

// True when `real` is the root or lies below it. The root is resolved on every call: it is
// allowed to be reached through a link itself (a temporary directory under a linked /tmp).
bool UnderRoot(const std::string& real) {
  if (real.empty() || real[0] != '/') return false;
  char* resolved = ::realpath(Host().Root().c_str(), nullptr);
  if (!resolved) return false;
  std::string root(resolved);
  std::free(resolved);
  if (root == "/") return true;
  return real == root || (real.size() > root.size() && real.compare(0, root.size(), root) == 0 &&
                          real[root.size()] == '/');
}

std::string ErrorText(const char* what, int err) { return std::string(what) + ": " + std::strerror(err); }

}  // namespace

int OpenClientFileForReading(const std::string& clientPath, int64_t* size) {
  const bool confined = !Host().IsInstrument();
  if (confined && HasDotDotSegment(clientPath)) {
    errno = EACCES;
    return -1;
  }
  // Non-blocking, so that opening a FIFO returns at once instead of waiting for a writer.
  const int fd = ::open(HostPathOf(clientPath).c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC | O_NOCTTY);
  if (fd < 0) return -1;
  struct stat st {};
  const bool regular = ::fstat(fd, &st) == 0 && S_ISREG(st.st_mode);
  if (!regular || (confined && !UnderRoot(RealPathOf(fd)))) {
    ::close(fd);
    errno = EACCES;
    return -1;
  }
  if (size) *size = static_cast<int64_t>(st.st_size);
  return fd;
}

// ---- Upload target ---------------------------------------------------------------------------

CUploadTarget::~CUploadTarget() { Discard(); }

void CUploadTarget::CloseAll() {
  if (Fd >= 0) ::close(Fd);
  if (DirFd >= 0) ::close(DirFd);
  Fd = DirFd = -1;
  TempName.clear();
}

void CUploadTarget::Discard() {
  if (Fd >= 0 && DirFd >= 0 && !TempName.empty()) ::unlinkat(DirFd, TempName.c_str(), 0);
  CloseAll();
}

bool CUploadTarget::Open(const std::string& clientPath, int64_t size, std::string* why) {
  Discard();
  const bool confined = !Host().IsInstrument();
  if (confined && HasDotDotSegment(clientPath)) {
    *why = "the path holds a \"..\" segment";
    return false;
  }
  std::string hostPath = HostPathOf(clientPath);
  // On the instrument an upload onto a link replaces the file it names, as writing through the
  // link always did; the temporary file then goes beside that file.
  struct stat lst {};
  if (!confined && ::lstat(hostPath.c_str(), &lst) == 0 && S_ISLNK(lst.st_mode)) {
    if (char* resolved = ::realpath(hostPath.c_str(), nullptr)) {
      hostPath = resolved;
      std::free(resolved);
    }
  }
  const size_t slash = hostPath.rfind('/');
  const std::string dir = slash == std::string::npos ? "." : slash == 0 ? "/" : hostPath.substr(0, slash);
  FinalName = slash == std::string::npos ? hostPath : hostPath.substr(slash + 1);
  if (FinalName.empty() || FinalName == "." || FinalName == "..") {
    *why = "the path names no file";
    return false;
  }

  DirFd = ::open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (DirFd < 0) {
    *why = ErrorText("the directory cannot be opened", errno);
    return false;
  }
  if (confined && !UnderRoot(RealPathOf(DirFd))) {
    *why = "the directory lies outside the server's root";
    CloseAll();
    return false;
  }
  struct stat st {};
  if (::fstatat(DirFd, FinalName.c_str(), &st, confined ? AT_SYMLINK_NOFOLLOW : 0) == 0) {
    if (!S_ISREG(st.st_mode)) {
      *why = "the target exists and is not a regular file";
      CloseAll();
      return false;
    }
    Mode = st.st_mode & 07777;
  } else if (errno != ENOENT) {
    *why = ErrorText("the target cannot be examined", errno);
    CloseAll();
    return false;
  }

  struct statvfs fs {};
  if (::fstatvfs(DirFd, &fs) != 0) {
    *why = ErrorText("the free space cannot be determined", errno);
    CloseAll();
    return false;
  }
  const unsigned __int128 room = static_cast<unsigned __int128>(fs.f_bavail) * fs.f_frsize;
  if (size < 0 || static_cast<unsigned __int128>(size) > room) {
    *why = std::to_string(size) + " bytes announced, " + std::to_string(static_cast<unsigned long long>(room)) +
           " bytes free on the file system";
    CloseAll();
    return false;
  }

  static std::atomic<unsigned> counter{0};
  for (int attempt = 0; attempt < 100 && Fd < 0; ++attempt) {
    std::string name = ".vr480-upload-" + std::to_string(::getpid()) + "-" + std::to_string(counter++) + ".tmp";
    Fd = ::openat(DirFd, name.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
    if (Fd >= 0) {
      TempName = std::move(name);
    } else if (errno != EEXIST) {
      break;
    }
  }
  if (Fd < 0) {
    *why = ErrorText("the temporary file cannot be created", errno);
    CloseAll();
    return false;
  }
  return true;
}

bool CUploadTarget::Write(const char* data, size_t length, std::string* why) {
  while (length > 0) {
    const ssize_t n = ::write(Fd, data, length);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) {
      *why = ErrorText("writing the file failed", n < 0 ? errno : ENOSPC);
      return false;
    }
    data += n;
    length -= static_cast<size_t>(n);
  }
  return true;
}

bool CUploadTarget::Commit(std::string* why) {
  if (Fd < 0) {
    *why = "no upload is open";
    return false;
  }
  if (::fchmod(Fd, Mode) != 0 || ::fsync(Fd) != 0) {
    *why = ErrorText("flushing the file failed", errno);
    Discard();
    return false;
  }
  if (::renameat(DirFd, TempName.c_str(), DirFd, FinalName.c_str()) != 0) {
    *why = ErrorText("renaming the file failed", errno);
    Discard();
    return false;
  }
  ::fsync(DirFd);  // the new name survives a power cut
  CloseAll();
  return true;
}
