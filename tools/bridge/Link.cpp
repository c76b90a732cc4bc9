#include "Link.h"

#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>

namespace vr480bridge {

void CLink::Close() {
  if (Fd >= 0) {
    const linger abort{1, 0};
    ::setsockopt(Fd, SOL_SOCKET, SO_LINGER, &abort, sizeof abort);
    ::close(Fd);
  }
  Fd = -1;
  In.clear();
  At = 0;
}

bool CLink::Open(const std::string& host, int port) {
  Close();
  addrinfo hints{};
  hints.ai_family = AF_UNSPEC;
  hints.ai_socktype = SOCK_STREAM;
  addrinfo* list = nullptr;
  if (::getaddrinfo(host.c_str(), std::to_string(port).c_str(), &hints, &list) != 0) return false;
  for (addrinfo* a = list; a && Fd < 0; a = a->ai_next) {
    const int fd = ::socket(a->ai_family, a->ai_socktype | SOCK_CLOEXEC, a->ai_protocol);
    if (fd < 0) continue;
    // A dead host or cable is noticed within about ten seconds, a stopped server at once.
    int one = 1, idle = 4, interval = 2, count = 3;
    ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
    ::setsockopt(fd, SOL_SOCKET, SO_KEEPALIVE, &one, sizeof one);
    ::setsockopt(fd, IPPROTO_TCP, TCP_KEEPIDLE, &idle, sizeof idle);
    ::setsockopt(fd, IPPROTO_TCP, TCP_KEEPINTVL, &interval, sizeof interval);
    ::setsockopt(fd, IPPROTO_TCP, TCP_KEEPCNT, &count, sizeof count);
    // At most two seconds for a host that does not answer, so that stopping is never held up.
    const int flags = ::fcntl(fd, F_GETFL);
    ::fcntl(fd, F_SETFL, flags | O_NONBLOCK);
    int err = ::connect(fd, a->ai_addr, a->ai_addrlen) == 0 ? 0 : errno;
    if (err == EINPROGRESS) {
      pollfd p{fd, POLLOUT, 0};
      socklen_t len = sizeof err;
      err = ::poll(&p, 1, 2000) == 1 && ::getsockopt(fd, SOL_SOCKET, SO_ERROR, &err, &len) == 0 ? err : ETIMEDOUT;
    }
    ::fcntl(fd, F_SETFL, flags);
    if (err == 0) Fd = fd;
    else ::close(fd);
  }
  ::freeaddrinfo(list);
  return Fd >= 0;
}

bool CLink::Send(const std::string& line) {
  const std::string bytes = line + "\n";
  for (size_t sent = 0; sent < bytes.size();) {
    const ssize_t n = ::send(Fd, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    sent += static_cast<size_t>(n);
  }
  return true;
}

int CLink::Frame(std::string* body, int waitMs) {
  for (;;) {
    if (In.size() - At >= 10) {
      size_t length = 0;
      for (int i = 0; i < 10; ++i) {
        const char d = In[At + i];
        if (d < '0' || d > '9') return -1;
        length = length * 10 + static_cast<size_t>(d - '0');
      }
      if (In.size() - At >= 10 + length) {
        body->assign(In, At + 10, length);
        At += 10 + length;
        return 1;
      }
    }
    if (At > 0 && (At == In.size() || At > (1u << 20))) In.erase(0, At), At = 0;
    pollfd p{Fd, POLLIN, 0};
    const int r = ::poll(&p, 1, waitMs);
    if (r < 0 && errno == EINTR) continue;
    if (r == 0) return 0;
    char buf[1 << 16];
    const ssize_t n = ::recv(Fd, buf, sizeof buf, 0);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return -1;
    In.append(buf, static_cast<size_t>(n));
  }
}

std::optional<std::string> CLink::Ask(const std::string& line, int waitMs) {
  std::string body;
  if (!Send(line) || Frame(&body, waitMs) != 1) return std::nullopt;
  while (!body.empty() && (body.back() == '\n' || body.back() == '\r')) body.pop_back();
  return body;
}

}  // namespace vr480bridge
