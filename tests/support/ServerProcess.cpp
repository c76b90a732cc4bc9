#include "support/ServerProcess.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <random>
#include <thread>

namespace {

pid_t SpawnServer(const std::vector<std::string>& args, int* readFd) {
  int pipefd[2];
  if (::pipe(pipefd) != 0) return -1;
  pid_t pid = ::fork();
  if (pid == 0) {
    ::dup2(pipefd[1], STDOUT_FILENO);
    ::dup2(pipefd[1], STDERR_FILENO);
    ::close(pipefd[0]);
    ::close(pipefd[1]);
    std::vector<char*> argv = {const_cast<char*>(VR480D_BINARY)};
    for (const auto& a : args) argv.push_back(const_cast<char*>(a.c_str()));
    argv.push_back(nullptr);
    ::execv(VR480D_BINARY, argv.data());
    ::_exit(127);
  }
  ::close(pipefd[1]);
  *readFd = pipefd[0];
  return pid;
}

bool WaitPid(pid_t pid, int* status, std::chrono::milliseconds timeout) {
  auto deadline = std::chrono::steady_clock::now() + timeout;
  while (std::chrono::steady_clock::now() < deadline) {
    int st = 0;
    pid_t r = ::waitpid(pid, &st, WNOHANG);
    if (r == pid) {
      *status = WIFEXITED(st) ? WEXITSTATUS(st) : 128 + WTERMSIG(st);
      return true;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  return false;
}

}  // namespace

CServerProcess::CServerProcess(const std::string& root, int port, std::vector<std::string> extraArgs)
    : PortNumber(port) {
  std::vector<std::string> args = {"--root", root, "--port", std::to_string(port)};
  args.insert(args.end(), extraArgs.begin(), extraArgs.end());
  int fd = -1;
  Child = SpawnServer(args, &fd);
  if (fd >= 0) Reader = std::thread([this, fd] { ReadLoop(fd); });
}

CServerProcess::~CServerProcess() {
  // VR480_TEST_SERVER_LOG=1 shows what each test server printed (sanitizer reports included).
  if (const char* show = std::getenv("VR480_TEST_SERVER_LOG"); show && *show == '1')
    std::fprintf(stderr, "---- vr480d console ----\n%s\n---- end ----\n", Output().c_str());
  if (Child > 0 && !bExited) {
    ::kill(Child, SIGKILL);
    int status;
    WaitPid(Child, &status, std::chrono::seconds(10));
  }
  if (Reader.joinable()) Reader.join();
}

void CServerProcess::ReadLoop(int fd) {
  char buf[4096];
  for (;;) {
    ssize_t n = ::read(fd, buf, sizeof buf);
    if (n > 0) {
      std::lock_guard<std::mutex> g(Lock);
      Console.append(buf, static_cast<size_t>(n));
    } else if (n < 0 && errno == EINTR) {
      continue;
    } else {
      break;
    }
  }
  ::close(fd);
}

bool CServerProcess::WaitForOutput(const std::string& text, std::chrono::milliseconds timeout) {
  auto deadline = std::chrono::steady_clock::now() + timeout;
  while (std::chrono::steady_clock::now() < deadline) {
    {
      std::lock_guard<std::mutex> g(Lock);
      if (Console.find(text) != std::string::npos) return true;
    }
    if (!bExited) {
      int st = 0;
      if (::waitpid(Child, &st, WNOHANG) == Child) {
        bExited = true;
        ExitStatus = WIFEXITED(st) ? WEXITSTATUS(st) : 128 + WTERMSIG(st);
      }
    } else {
      // Give the reader a moment to drain what the process wrote last.
      std::this_thread::sleep_for(std::chrono::milliseconds(50));
      std::lock_guard<std::mutex> g(Lock);
      return Console.find(text) != std::string::npos;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  return false;
}

int CServerProcess::Stop(int signal, std::chrono::milliseconds timeout) {
  if (!bExited) ::kill(Child, signal);
  return WaitExit(timeout);
}

int CServerProcess::WaitExit(std::chrono::milliseconds timeout) {
  if (!bExited) {
    int status = -1;
    if (!WaitPid(Child, &status, timeout)) return -1;
    bExited = true;
    ExitStatus = status;
  }
  if (Reader.joinable()) Reader.join();
  return ExitStatus;
}

std::string CServerProcess::Output() const {
  std::lock_guard<std::mutex> g(Lock);
  return Console;
}

// The command server accepts ports 1 to 9999 only, below the kernel's ephemeral range, so a
// port is drawn at random from 2000-9999 and kept when it can be bound right now. Suites start
// servers from several threads at once: each thread draws from its own generator.
int FreePort() {
  thread_local std::mt19937 rng(static_cast<unsigned>(::getpid()) * 7919u +
                                static_cast<unsigned>(std::chrono::steady_clock::now().time_since_epoch().count()) +
                                static_cast<unsigned>(std::hash<std::thread::id>{}(std::this_thread::get_id())));
  for (int attempt = 0; attempt < 200; ++attempt) {
    int port = 2000 + static_cast<int>(rng() % 8000);
    int fd = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    addr.sin_port = htons(static_cast<uint16_t>(port));
    bool ok = ::bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0;
    ::close(fd);
    if (ok) return port;
  }
  return 0;
}

int HoldPort(int* port) {
  for (int attempt = 0; attempt < 20; ++attempt) {
    *port = FreePort();
    const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_port = htons(static_cast<uint16_t>(*port));
    if (::bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0 && ::listen(fd, 1) == 0) return fd;
    ::close(fd);
  }
  return -1;
}

int RunServerToExit(const std::vector<std::string>& args, std::string* output, std::chrono::milliseconds timeout) {
  int fd = -1;
  pid_t pid = SpawnServer(args, &fd);
  std::string out;
  std::thread reader([&] {
    char buf[4096];
    ssize_t n;
    while ((n = ::read(fd, buf, sizeof buf)) > 0 || (n < 0 && errno == EINTR))
      if (n > 0) out.append(buf, static_cast<size_t>(n));
    ::close(fd);
  });
  int status = -1;
  if (!WaitPid(pid, &status, timeout)) {
    ::kill(pid, SIGKILL);
    WaitPid(pid, &status, std::chrono::seconds(5));
    status = -1;
  }
  reader.join();
  if (output) *output = out;
  return status;
}
