#include "host/Host.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <memory>
#include <sstream>

namespace {

// Lexical normalisation of an absolute path: collapses "//", "." and "..", never above "/".
std::string NormaliseAbsolute(std::string_view path) {
  std::vector<std::string_view> parts;
  size_t i = 0;
  while (i < path.size()) {
    while (i < path.size() && path[i] == '/') ++i;
    size_t j = i;
    while (j < path.size() && path[j] != '/') ++j;
    std::string_view part = path.substr(i, j - i);
    if (part.empty() || part == ".") {
    } else if (part == "..") {
      if (!parts.empty()) parts.pop_back();
    } else {
      parts.push_back(part);
    }
    i = j;
  }
  std::string out;
  for (auto p : parts) {
    out += '/';
    out += p;
  }
  return out.empty() ? "/" : out;
}

std::string TimeStamp() {
  timespec ts{};
  clock_gettime(CLOCK_REALTIME, &ts);
  tm t{};
  gmtime_r(&ts.tv_sec, &t);
  char buf[80];
  std::snprintf(buf, sizeof buf, "%04d-%02d-%02dT%02d:%02d:%02d.%03ldZ", t.tm_year + 1900, t.tm_mon + 1,
                t.tm_mday, t.tm_hour, t.tm_min, t.tm_sec, ts.tv_nsec / 1000000);
  return buf;
}

std::unique_ptr<CHost>& HostSlot() {
  static std::unique_ptr<CHost> host = std::make_unique<CHost>("/");
  return host;
}

}  // namespace

CHost::CHost(std::string root) {
  if (root.empty()) root = "/";
  if (root[0] != '/') {
    std::error_code ec;
    root = std::filesystem::absolute(root, ec).string();
  }
  RootDir = NormaliseAbsolute(root);
  bInstrument = RootDir == "/";
}

std::string CHost::Path(std::string_view instrumentPath) const {
  std::string abs = (!instrumentPath.empty() && instrumentPath[0] == '/')
                        ? std::string(instrumentPath)
                        : "/vr480/" + std::string(instrumentPath);
  std::string norm = NormaliseAbsolute(abs);
  if (bInstrument) return norm;
  return norm == "/" ? RootDir : RootDir + norm;
}

int CHost::Run(const std::string& command) { return Capture(command, nullptr); }

int CHost::Capture(const std::string& command, std::string* output) {
  if (output) output->clear();
  if (!bInstrument) return Record(command, output);
  return Execute(command, output);
}

void CHost::Script(const std::string& prefix, int status, std::string output) {
  std::lock_guard<std::mutex> g(Lock);
  Scripts.push_back({prefix, status, std::move(output)});
}

void CHost::ClearScripts() {
  std::lock_guard<std::mutex> g(Lock);
  Scripts.clear();
}

int CHost::Record(const std::string& command, std::string* output) {
  std::lock_guard<std::mutex> g(Lock);
  // One line per command: a tab separates the time stamp from the exact text. A command text
  // never holds a line feed in this server; one that does is kept on one line as "\n".
  std::string text;
  for (char c : command) {
    if (c == '\n') text += "\\n";
    else text += c;
  }
  std::string logPath = Path("/tmp/host-commands.log");
  int fd = ::open(logPath.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
  if (fd < 0) {
    std::error_code ec;
    std::filesystem::create_directories(Path("/tmp"), ec);
    fd = ::open(logPath.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
  }
  if (fd >= 0) {
    std::string line = TimeStamp() + "\t" + text + "\n";
    ssize_t ignored = ::write(fd, line.data(), line.size());
    (void)ignored;
    ::close(fd);
  }
  int status = 0;
  std::string answer;
  for (auto it = Scripts.rbegin(); it != Scripts.rend(); ++it) {
    if (command.compare(0, it->Prefix.size(), it->Prefix) == 0) {
      answer = it->Output;
      status = it->Status;
      break;
    }
  }
  if (output) *output = answer;
  // A command whose output the shell would send to a file ("... &>/tmp/x") leaves the scripted
  // output in that file under the root, as the shell would have.
  if (const size_t redirect = command.rfind("&>"); redirect != std::string::npos) {
    const std::string target = command.substr(redirect + 2);
    if (!target.empty() && target[0] == '/' && target.find_first_of(" \t;|&<>`$") == std::string::npos) {
      std::ofstream out(Path(target), std::ios::binary | std::ios::trunc);
      out << answer;
    }
  }
  return status;
}

std::vector<std::string> CHost::CommandLog() const {
  std::vector<std::string> out;
  std::ifstream in(CommandLogPath());
  std::string line;
  while (std::getline(in, line)) {
    auto tab = line.find('\t');
    out.push_back(tab == std::string::npos ? line : line.substr(tab + 1));
  }
  return out;
}

namespace {

// In a freshly forked child: back to default signal handling with nothing blocked, and no
// descriptor beyond 0-2 (a daemon it starts must not hold the listening socket or the card).
void ResetChild() {
  struct sigaction dfl {};
  dfl.sa_handler = SIG_DFL;
  for (int s = 1; s < NSIG; ++s) ::sigaction(s, &dfl, nullptr);
  sigset_t none;
  sigemptyset(&none);
  ::sigprocmask(SIG_SETMASK, &none, nullptr);
#ifdef SYS_close_range
  ::syscall(SYS_close_range, 3U, ~0U, 0U);
#else
  for (int fd = 3; fd < 1024; ++fd) ::close(fd);
#endif
}

int WaitChild(pid_t pid) {
  int status = 0;
  while (::waitpid(pid, &status, 0) < 0) {
    if (errno != EINTR) return -1;
  }
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

}  // namespace

int CHost::Exec(const std::vector<std::string>& argv) {
  if (argv.empty()) return -1;
  // Everything the child needs is built before the fork: a child of a threaded process may
  // not allocate.
  std::vector<char*> args;
  args.reserve(argv.size() + 1);
  for (const std::string& a : argv) args.push_back(const_cast<char*>(a.c_str()));
  args.push_back(nullptr);
  pid_t pid = ::fork();
  if (pid < 0) return -1;
  if (pid == 0) {
    const int null = ::open("/dev/null", O_RDWR);
    if (null >= 0) {
      ::dup2(null, STDOUT_FILENO);
      ::dup2(null, STDERR_FILENO);
    }
    ResetChild();
    ::execvp(args[0], args.data());
    ::_exit(127);
  }
  return WaitChild(pid);
}

// Runs `/bin/bash -c command` in a child prepared by ResetChild.
int CHost::Execute(const std::string& command, std::string* output) {
  int pipefd[2] = {-1, -1};
  if (output && ::pipe2(pipefd, O_CLOEXEC) != 0) return -1;
  pid_t pid = ::fork();
  if (pid < 0) {
    if (output) {
      ::close(pipefd[0]);
      ::close(pipefd[1]);
    }
    return -1;
  }
  if (pid == 0) {
    if (output) ::dup2(pipefd[1], STDOUT_FILENO);
    ResetChild();
    ::execl("/bin/bash", "bash", "-c", command.c_str(), static_cast<char*>(nullptr));
    ::_exit(127);
  }
  if (output) {
    ::close(pipefd[1]);
    char buf[4096];
    for (;;) {
      ssize_t n = ::read(pipefd[0], buf, sizeof buf);
      if (n > 0) output->append(buf, static_cast<size_t>(n));
      else if (n < 0 && errno == EINTR) continue;
      else break;
    }
    ::close(pipefd[0]);
  }
  return WaitChild(pid);
}

CHost& Host() { return *HostSlot(); }

void InstallHost(const std::string& root) { HostSlot() = std::make_unique<CHost>(root); }
