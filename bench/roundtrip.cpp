// Round trip of one short command on loopback, against a running vr480d and against a Redis
// server's PING, measured by the same client code in the same run so that the machine's load
// weighs on both alike. Batches of the two alternate; the medians and their ratio are printed.
//
//   roundtrip --vr480d BINARY | --vr480-port PORT   [--redis-server BINARY | --redis-port PORT]
//             [--count N] [--command "#READY?"]
//
// Given a binary, the program starts it on a free loopback port (vr480d on a fresh root in a
// temporary directory, redis-server without persistence) and stops it at the end.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;

int Connect(int port, std::chrono::seconds timeout) {
  const auto deadline = Clock::now() + timeout;
  while (Clock::now() < deadline) {
    int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_port = htons(static_cast<uint16_t>(port));
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (::connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0) {
      int one = 1;
      ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
      return fd;
    }
    ::close(fd);
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
  }
  return -1;
}

bool ReadExact(int fd, char* buf, size_t n) {
  size_t have = 0;
  while (have < n) {
    const ssize_t r = ::recv(fd, buf + have, n - have, 0);
    if (r <= 0) return false;
    have += static_cast<size_t>(r);
  }
  return true;
}

// One exchange: the request goes in one write; the reply is read until `replyBytes` arrived.
// Microseconds, or a negative value when the connection failed.
double RoundTrip(int fd, const std::string& request, size_t replyBytes) {
  char reply[256];
  const auto t0 = Clock::now();
  if (::send(fd, request.data(), request.size(), MSG_NOSIGNAL) != static_cast<ssize_t>(request.size())) return -1;
  if (!ReadExact(fd, reply, replyBytes)) return -1;
  return std::chrono::duration<double, std::micro>(Clock::now() - t0).count();
}

// Length of a framed reply to `request`: ten digits and the body the digits announce.
size_t FramedReplyBytes(int fd, const std::string& request) {
  char digits[11] = {};
  if (::send(fd, request.data(), request.size(), MSG_NOSIGNAL) <= 0 || !ReadExact(fd, digits, 10)) return 0;
  const size_t body = std::strtoul(digits, nullptr, 10);
  std::vector<char> rest(body);
  return body <= 200 && ReadExact(fd, rest.data(), body) ? 10 + body : 0;
}

int FreePort(bool below10000) {
  int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t len = sizeof addr;
  ::bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr);
  ::getsockname(fd, reinterpret_cast<sockaddr*>(&addr), &len);
  const int port = ntohs(addr.sin_port);
  ::close(fd);
  return !below10000 || port < 10000 ? port : 0;  // vr480d takes ports up to 9999
}

int FreeLowPort() {
  for (int i = 0; i < 200; ++i)
    if (const int p = FreePort(true); p > 0) return p;
  for (int p = 9000 + getpid() % 900; p < 9999; ++p) {
    int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    addr.sin_port = htons(static_cast<uint16_t>(p));
    const bool ok = ::bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0;
    ::close(fd);
    if (ok) return p;
  }
  return 0;
}

pid_t Spawn(std::vector<std::string> args) {
  const pid_t pid = ::fork();
  if (pid == 0) {
    if (FILE* null = std::fopen("/dev/null", "w")) {
      ::dup2(fileno(null), STDOUT_FILENO);
      ::dup2(fileno(null), STDERR_FILENO);
    }
    std::vector<char*> argv;
    for (auto& a : args) argv.push_back(a.data());
    argv.push_back(nullptr);
    ::execv(argv[0], argv.data());
    ::_exit(127);
  }
  return pid;
}

void Stop(pid_t pid) {
  if (pid <= 0) return;
  ::kill(pid, SIGKILL);
  int status;
  ::waitpid(pid, &status, 0);
}

double Median(std::vector<double> v) {
  if (v.empty()) return 0;
  std::nth_element(v.begin(), v.begin() + v.size() / 2, v.end());
  return v[v.size() / 2];
}

double Percentile(std::vector<double> v, double p) {
  if (v.empty()) return 0;
  std::sort(v.begin(), v.end());
  return v[std::min(v.size() - 1, static_cast<size_t>(p * v.size()))];
}

}  // namespace

int main(int argc, char** argv) {
  std::string vrBinary, redisBinary = "/usr/bin/redis-server", command = "#READY?";
  int vrPort = 0, redisPort = 0, count = 20000;
  for (int i = 1; i + 1 < argc; i += 2) {
    const std::string k = argv[i], v = argv[i + 1];
    if (k == "--vr480d") vrBinary = v;
    else if (k == "--vr480-port") vrPort = std::atoi(v.c_str());
    else if (k == "--redis-server") redisBinary = v;
    else if (k == "--redis-port") redisPort = std::atoi(v.c_str());
    else if (k == "--count") count = std::max(100, std::atoi(v.c_str()));
    else if (k == "--command") command = v;
    else {
      std::fprintf(stderr, "unknown option %s\n", k.c_str());
      return 2;
    }
  }
  if (vrBinary.empty() && vrPort == 0) {
    std::fprintf(stderr, "usage: roundtrip --vr480d BINARY | --vr480-port PORT [--redis-server BINARY | --redis-port PORT] [--count N] [--command TEXT]\n");
    return 2;
  }

  pid_t vrPid = -1, redisPid = -1;
  std::string root;
  if (vrPort == 0) {
    char dir[] = "/tmp/roundtrip.XXXXXX";
    if (!::mkdtemp(dir)) return 1;
    root = dir;
    vrPort = FreeLowPort();
    vrPid = Spawn({vrBinary, "--root", root, "--port", std::to_string(vrPort)});
  }
  if (redisPort == 0) {
    redisPort = FreePort(false);
    redisPid = Spawn({redisBinary, "--port", std::to_string(redisPort), "--bind", "127.0.0.1", "--save", "",
                      "--appendonly", "no"});
  }
  auto cleanUp = [&] {
    Stop(vrPid);
    Stop(redisPid);
    if (!root.empty()) std::system(("rm -rf '" + root + "'").c_str());
  };

  const int vr = Connect(vrPort, std::chrono::seconds(60));
  const int redis = Connect(redisPort, std::chrono::seconds(20));
  if (vr < 0 || redis < 0) {
    std::fprintf(stderr, "could not connect (vr480d %d, redis %d)\n", vrPort, redisPort);
    cleanUp();
    return 1;
  }
  const std::string vrRequest = command + "\n", redisRequest = "PING\r\n";
  const size_t vrReply = FramedReplyBytes(vr, vrRequest);
  if (vrReply == 0) {
    std::fprintf(stderr, "no framed reply to %s\n", command.c_str());
    cleanUp();
    return 1;
  }
  const size_t redisReply = 7;  // "+PONG\r\n"

  // Warm both up, then alternate batches so that both see the same moments of load.
  for (int i = 0; i < 500; ++i) {
    RoundTrip(vr, vrRequest, vrReply);
    RoundTrip(redis, redisRequest, redisReply);
  }
  std::vector<double> vrTimes, redisTimes;
  const int batch = 500;
  for (int done = 0; done < count; done += batch) {
    for (int i = 0; i < batch; ++i) vrTimes.push_back(RoundTrip(vr, vrRequest, vrReply));
    for (int i = 0; i < batch; ++i) redisTimes.push_back(RoundTrip(redis, redisRequest, redisReply));
  }
  ::close(vr);
  ::close(redis);
  cleanUp();
  if (std::any_of(vrTimes.begin(), vrTimes.end(), [](double t) { return t < 0; }) ||
      std::any_of(redisTimes.begin(), redisTimes.end(), [](double t) { return t < 0; })) {
    std::fprintf(stderr, "a connection failed during the run\n");
    return 1;
  }
  const double vrMedian = Median(vrTimes), redisMedian = Median(redisTimes);
  std::printf("%-22s %8s %8s %8s\n", "round trip (us)", "median", "p90", "p99");
  std::printf("%-22s %8.1f %8.1f %8.1f\n", ("vr480d " + command).c_str(), vrMedian, Percentile(vrTimes, 0.9),
              Percentile(vrTimes, 0.99));
  std::printf("%-22s %8.1f %8.1f %8.1f\n", "redis PING", redisMedian, Percentile(redisTimes, 0.9),
              Percentile(redisTimes, 0.99));
  std::printf("ratio vr480d / redis: %.2f (%d exchanges each)\n", vrMedian / redisMedian, static_cast<int>(vrTimes.size()));
  return 0;
}
