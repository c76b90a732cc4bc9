#include "support/TestClient.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <thread>

CTestClient::CTestClient(int port, std::chrono::milliseconds connectTimeout, int receiveBuffer) {
  Connect(port, connectTimeout, receiveBuffer);
}

CTestClient::~CTestClient() { Close(); }

bool CTestClient::Connect(int port, std::chrono::milliseconds timeout, int receiveBuffer) {
  Close();
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  while (std::chrono::steady_clock::now() < deadline) {
    int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (receiveBuffer > 0) ::setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &receiveBuffer, sizeof receiveBuffer);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_port = htons(static_cast<uint16_t>(port));
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (::connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0) {
      int one = 1;
      ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
      Fd = fd;
      return true;
    }
    ::close(fd);
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
  }
  return false;
}

void CTestClient::Close() {
  if (Fd >= 0) ::close(Fd);
  Fd = -1;
}

void CTestClient::Abort() {
  linger hard{1, 0};
  if (Fd >= 0) ::setsockopt(Fd, SOL_SOCKET, SO_LINGER, &hard, sizeof hard);
  Close();
}

bool CTestClient::SendRaw(const std::string& bytes) {
  size_t sent = 0;
  while (sent < bytes.size()) {
    ssize_t n = ::send(Fd, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    sent += static_cast<size_t>(n);
  }
  return true;
}

bool CTestClient::Send(const std::string& line) { return SendRaw(line + "\n"); }

bool CTestClient::ReadExact(size_t n, std::string* out, std::chrono::milliseconds timeout, bool* closed) {
  out->clear();
  if (closed) *closed = false;
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  char buf[65536];
  while (out->size() < n) {
    auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
    if (left.count() <= 0) return false;
    pollfd p{Fd, POLLIN, 0};
    int r = ::poll(&p, 1, static_cast<int>(left.count()));
    if (r < 0 && errno == EINTR) continue;
    if (r <= 0) return false;
    size_t want = std::min(sizeof buf, n - out->size());
    ssize_t got = ::recv(Fd, buf, want, 0);
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0) {
      if (closed) *closed = true;
      return false;
    }
    out->append(buf, static_cast<size_t>(got));
  }
  return true;
}

std::string CTestClient::ReadFrame(bool* ok, std::chrono::milliseconds timeout) {
  std::string digits, body;
  bool good = ReadExact(10, &digits, timeout);
  size_t length = 0;
  for (char c : digits) {
    if (c < '0' || c > '9') good = false;
    else length = length * 10 + static_cast<size_t>(c - '0');
  }
  if (good) good = ReadExact(length, &body, timeout);
  if (ok) *ok = good;
  return good ? body : std::string();
}

std::string CTestClient::Command(const std::string& line, std::chrono::milliseconds timeout) {
  if (!Send(line)) return "<send failed>";
  bool ok = false;
  std::string body = ReadFrame(&ok, timeout);
  return ok ? body : "<no reply>";
}

bool CTestClient::Silent(std::chrono::milliseconds wait) {
  pollfd p{Fd, POLLIN, 0};
  return ::poll(&p, 1, static_cast<int>(wait.count())) == 0;
}
