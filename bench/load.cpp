// load: how many records a second the server processes and streams without a gap.
//
// It starts vr480d on the simulated card in a temporary root on a free port (or uses a server
// that is already running), waits until the card delivers measurable records, then for each
// client count connects that many streaming clients. Every client reads its stream in large
// blocks and decodes each record's sweep counter; a sweep counter that does not follow the
// previous one by the card's step is a gap. Each record also says how far its client is
// behind the newest record (the buffer-free percentage, in steps of 300 records of the
// 30000-record ring): what a client received plus how much further it fell behind is what the
// server processed meanwhile. (A control connection would take one of the ten client slots.)
// A phase is sustained when no client saw a gap and none fell further behind.
//
// By default the card runs free (--free-run: as fast as the server takes records), so the
// processed rate is the server's ceiling. When the clients cannot keep up with it, --search
// looks for the highest rate they do keep up with, restarting the server with the card paced
// at a chosen rate (--time-scale) and halving the interval between a sustained and a failed
// rate. --scale S runs one measurement with the card paced at S times real time (--scale 1:
// the instrument's own rate, for measuring the server's processor time at 2 kHz).
//
// The server's processor time over the window comes from /proc (all threads, and the busiest
// threads by name). With --perf PREFIX the window is also recorded with perf's software clock
// (perf record -e cpu-clock -g), one file per phase, for `perf report --stdio`.
//
//   load --vr480d build/perf/vr480d [--clients 1,10] [--seconds 10] [--search] [--scale S]
//        [--perf /tmp/load] [--keep-root]
//   load --connect 127.0.0.1:1852 [--pid PID] [--clients 1,10] [--seconds 10]
#include <arpa/inet.h>
#include <dirent.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <random>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;
using namespace std::chrono_literals;

// Offsets in a record's body, as the wire documents them (little-endian).
constexpr size_t kBodySweep = 28;
constexpr size_t kBodyStatusCode = 47;
constexpr size_t kBodyCounts = 16;
constexpr size_t kBodyFreePercent = 48;
constexpr size_t kHeaderBytes = 88;
constexpr double kRingRecords = 30000.0;

uint32_t U16(const uint8_t* b) { return b[0] | b[1] << 8; }
uint32_t U32(const uint8_t* b) { return U16(b) | U16(b + 2) << 16; }

double Seconds(Clock::duration d) { return std::chrono::duration<double>(d).count(); }

struct SOptions {
  std::string Server;       // vr480d to start
  std::string ConnectHost;  // or a running server
  int ConnectPort = 0;
  int Pid = 0;              // the running server's process, for its processor time
  std::vector<int> Clients = {1, 10};
  double MeasureSeconds = 10.0;
  double WarmSeconds = 3.0;
  double Scale = 0.0;  // 0: free running
  bool bSearch = false;
  std::string PerfPrefix;
  bool bKeepRoot = false;
};

// ---- One TCP connection to the server ----

class CConnection {
 public:
  ~CConnection() { Close(); }

  bool Connect(const std::string& host, int port) {
    Fd = ::socket(AF_INET, SOCK_STREAM, 0);
    if (Fd < 0) return false;
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_port = htons(static_cast<uint16_t>(port));
    ::inet_pton(AF_INET, host.c_str(), &a.sin_addr);
    if (::connect(Fd, reinterpret_cast<sockaddr*>(&a), sizeof a) != 0) {
      Close();
      return false;
    }
    int one = 1;
    ::setsockopt(Fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
    int big = 4 << 20;
    ::setsockopt(Fd, SOL_SOCKET, SO_RCVBUF, &big, sizeof big);
    timeval tv{15, 0};  // a server that says nothing for 15 s is taken as gone
    ::setsockopt(Fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
    return true;
  }

  void Close() {
    if (Fd >= 0) ::close(Fd);
    Fd = -1;
  }
  void Shutdown() {
    if (Fd >= 0) ::shutdown(Fd, SHUT_RDWR);
  }

  bool SendLine(const std::string& line) {
    const std::string l = line + "\n";
    return ::send(Fd, l.data(), l.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(l.size());
  }

  // Reads exactly n bytes into out.
  bool ReadExact(size_t n, std::string& out) {
    out.resize(n);
    size_t got = 0;
    while (got < n) {
      const ssize_t r = ::recv(Fd, &out[got], n - got, 0);
      if (r <= 0) return false;
      got += static_cast<size_t>(r);
    }
    return true;
  }

  // One framed reply: ten digits, then that many bytes.
  bool ReadFrame(std::string& body) {
    std::string digits;
    if (!ReadExact(10, digits)) return false;
    return ReadExact(std::strtoul(digits.c_str(), nullptr, 10), body);
  }

  bool Command(const std::string& line, std::string& reply) { return SendLine(line) && ReadFrame(reply); }

  int Fd = -1;
};

// ---- A streaming client ----

// Counters a reader keeps; read by the main thread while the reader runs.
struct SStreamCounters {
  std::atomic<uint64_t> Records{0};
  std::atomic<uint64_t> Gaps{0};      // sweep counters that did not follow by the step
  std::atomic<uint64_t> Missing{0};   // records the gaps left out
  std::atomic<uint32_t> LastSweep{0};
  std::atomic<uint32_t> Step{0};      // sweeps per record, learnt from the first two
  std::atomic<uint32_t> FreePercent{100};  // of the last record: 100 waited, 99 keeping up
  std::atomic<bool> bFailed{false};   // connection lost or a malformed frame
};

class CStreamClient {
 public:
  bool Start(const std::string& host, int port) {
    if (!Conn.Connect(host, port)) return false;
    std::string reply;
    if (!Conn.Command("#SET_USE_STREAM_TOKENS 1", reply)) return false;
    if (!Conn.SendLine("#SET_STREAMING_DATA 1")) return false;
    if (!Conn.ReadExact(34, reply) || reply != "0000000024Streaming data enabled.\n") return false;
    Thread = std::thread([this] { Read(); });
    return true;
  }

  void Stop() {
    bStop = true;
    Conn.Shutdown();
    if (Thread.joinable()) Thread.join();
    Conn.Close();
  }

  SStreamCounters Counters;

 private:
  // Parses frames straight out of a large receive buffer: ten digits, a body whose length
  // counts the 8-byte token that follows the record.
  void Read() {
    std::vector<uint8_t> buf(1 << 20);
    size_t have = 0, at = 0;
    bool first = true;
    uint32_t last = 0, free = 100;
    while (!bStop) {
      if (at > 0 && (buf.size() - have < 65536)) {  // keep room: move the unparsed tail down
        std::memmove(buf.data(), buf.data() + at, have - at);
        have -= at;
        at = 0;
      }
      const ssize_t r = ::recv(Conn.Fd, buf.data() + have, buf.size() - have, 0);
      if (r <= 0) {
        if (!bStop) Counters.bFailed = true;
        return;
      }
      have += static_cast<size_t>(r);
      uint64_t records = 0;
      for (;;) {
        if (have - at < 10) break;
        char digits[11];
        std::memcpy(digits, buf.data() + at, 10);
        digits[10] = 0;
        const size_t length = std::strtoul(digits, nullptr, 10);
        if (length < kHeaderBytes + 8 || length > buf.size() / 2) {
          Counters.bFailed = true;
          return;
        }
        if (have - at < 10 + length) break;
        const uint8_t* body = buf.data() + at + 10;
        const uint32_t sweep = U32(body + kBodySweep);
        if (!first) {
          const uint32_t step = Counters.Step.load(std::memory_order_relaxed);
          const uint32_t d = sweep - last;
          if (step == 0) {
            Counters.Step.store(d, std::memory_order_relaxed);
          } else if (d != step) {
            Counters.Gaps.fetch_add(1, std::memory_order_relaxed);
            if (d > step) Counters.Missing.fetch_add(d / step - 1, std::memory_order_relaxed);
          }
        }
        first = false;
        last = sweep;
        free = body[kBodyFreePercent];
        ++records;
        at += 10 + length;
      }
      Counters.LastSweep.store(last, std::memory_order_relaxed);
      Counters.FreePercent.store(free, std::memory_order_relaxed);
      Counters.Records.fetch_add(records, std::memory_order_relaxed);
      if (at == have) at = have = 0;
    }
  }

  CConnection Conn;
  std::atomic<bool> bStop{false};
  std::thread Thread;
};

// ---- The server's processor time ----

struct SThreadTime {
  std::string Name;
  uint64_t Ticks = 0;
};

// utime + stime of every thread of a process, by thread id.
std::map<int, SThreadTime> ThreadTimes(int pid) {
  std::map<int, SThreadTime> times;
  const std::string dir = "/proc/" + std::to_string(pid) + "/task";
  DIR* d = ::opendir(dir.c_str());
  if (!d) return times;
  while (dirent* e = ::readdir(d)) {
    if (e->d_name[0] == '.') continue;
    std::ifstream f(dir + "/" + e->d_name + "/stat");
    std::string line;
    if (!std::getline(f, line)) continue;
    const size_t open = line.find('('), close = line.rfind(')');
    if (open == std::string::npos || close == std::string::npos) continue;
    std::istringstream rest(line.substr(close + 2));
    std::string field;
    uint64_t utime = 0, stime = 0;
    for (int i = 3; i <= 15 && rest >> field; ++i) {
      if (i == 14) utime = std::strtoull(field.c_str(), nullptr, 10);
      if (i == 15) stime = std::strtoull(field.c_str(), nullptr, 10);
    }
    times[std::atoi(e->d_name)] = {line.substr(open + 1, close - open - 1), utime + stime};
  }
  ::closedir(d);
  return times;
}

// ---- The server under test ----

class CServer {
 public:
  ~CServer() { Stop(); }

  // Starts vr480d on a free port in a new temporary root.
  bool Start(const SOptions& o, double scale) {
    char tmpl[] = "/tmp/vr480load.XXXXXX";
    if (!::mkdtemp(tmpl)) return false;
    Root = tmpl;
    Port = FreePort();
    if (Port == 0) return false;
    std::vector<std::string> args = {o.Server, "--root", Root, "--port", std::to_string(Port), "--sim"};
    if (scale == 0.0) {
      args.push_back("--free-run");
    } else if (scale != 1.0) {  // at 1 the option is left out, so that older servers can be measured too
      char s[32];
      std::snprintf(s, sizeof s, "%g", scale);
      args.insert(args.end(), {"--time-scale", s});
    }
    const std::string log = Root + "/console.log";
    Pid = ::fork();
    if (Pid < 0) return false;
    if (Pid == 0) {
      const int fd = ::open(log.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
      ::dup2(fd, STDOUT_FILENO);
      ::dup2(fd, STDERR_FILENO);
      std::vector<char*> argv;
      for (auto& a : args) argv.push_back(a.data());
      argv.push_back(nullptr);
      ::execv(argv[0], argv.data());
      std::_Exit(127);
    }
    KeepRoot = o.bKeepRoot;
    return true;
  }

  void Stop() {
    if (Pid > 0) {
      ::kill(Pid, SIGTERM);
      int status = 0;
      for (int i = 0; i < 200 && ::waitpid(Pid, &status, WNOHANG) == 0; ++i) std::this_thread::sleep_for(50ms);
      if (::waitpid(Pid, &status, WNOHANG) == 0) {
        ::kill(Pid, SIGKILL);
        ::waitpid(Pid, &status, 0);
      }
      Pid = -1;
    }
    if (!Root.empty()) {
      if (KeepRoot) {
        std::printf("server root kept: %s\n", Root.c_str());
      } else {
        std::error_code ec;
        std::filesystem::remove_all(Root, ec);
      }
      Root.clear();
    }
  }

  bool Alive() const { return Pid > 0 && ::waitpid(Pid, nullptr, WNOHANG) == 0; }

  int Pid = -1;
  int Port = 0;
  std::string Root;

 private:
  static int FreePort() {
    std::mt19937 pick(static_cast<unsigned>(::getpid() ^ Clock::now().time_since_epoch().count()));
    for (int attempt = 0; attempt < 200; ++attempt) {
      const int port = 4000 + static_cast<int>(pick() % 6000);  // the server takes 1-9999
      const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
      sockaddr_in a{};
      a.sin_family = AF_INET;
      a.sin_port = htons(static_cast<uint16_t>(port));
      a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
      const bool free = ::bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof a) == 0;
      ::close(fd);
      if (free) return port;
    }
    return 0;
  }

  bool KeepRoot = false;
};

// The newest record's sweep counter, or false.
bool NewestSweep(CConnection& control, uint32_t& sweep, bool* measurable = nullptr) {
  std::string body;
  if (!control.Command("#GET_UNBUFFERED_DATA", body) || body.size() < kHeaderBytes) return false;
  const auto* b = reinterpret_cast<const uint8_t*>(body.data());
  sweep = U32(b + kBodySweep);
  if (measurable) {
    uint32_t sensors = 0;
    for (int ch = 0; ch < 4; ++ch) sensors += U16(b + kBodyCounts + 2 * ch);
    *measurable = b[kBodyStatusCode] == 0 && sensors > 0;
  }
  return true;
}

// Waits until the server accepts a connection and delivers measurable records (its loops have
// locked the simulated laser). The connection is closed again, and its slot given time to
// free, before the clients of a phase take all ten.
bool WaitReady(const std::string& host, int port, const CServer* server) {
  CConnection control;
  const auto deadline = Clock::now() + 180s;
  while (!control.Connect(host, port)) {
    if (Clock::now() > deadline || (server && !server->Alive())) return false;
    std::this_thread::sleep_for(200ms);
  }
  int good = 0;
  while (good < 3) {
    if (Clock::now() > deadline || (server && !server->Alive())) return false;
    uint32_t sweep;
    bool measurable = false;
    if (!NewestSweep(control, sweep, &measurable)) return false;
    good = measurable ? good + 1 : 0;
    std::this_thread::sleep_for(300ms);
  }
  control.Close();
  std::this_thread::sleep_for(1s);
  return true;
}

struct SPhaseResult {
  bool bOk = false;         // every client streamed
  bool bSustained = false;  // no gap, no client falling behind
  double Processed = 0;     // records/s the server processed
  double MinClient = 0;     // records/s of the slowest client
  uint64_t Gaps = 0, Missing = 0;
  long MaxLagGrowth = 0;    // records the slowest client fell further behind (300-record steps)
  double CpuPercent = -1;   // server processor time, % of one core
  std::vector<std::pair<std::string, double>> Threads;  // busiest threads, % of one core
};

pid_t StartPerf(const std::string& file, int pid, double seconds) {
  const pid_t p = ::fork();
  if (p == 0) {
    const int null = ::open("/dev/null", O_WRONLY);
    ::dup2(null, STDOUT_FILENO);
    ::dup2(null, STDERR_FILENO);
    const std::string pidText = std::to_string(pid), secs = std::to_string(seconds);
    ::execlp("perf", "perf", "record", "-e", "cpu-clock", "-g", "-o", file.c_str(), "-p", pidText.c_str(), "--",
             "sleep", secs.c_str(), static_cast<char*>(nullptr));
    std::_Exit(127);
  }
  return p;
}

// Records a client is behind the newest, from the buffer-free percentage of its last record:
// 100 when it waited, 99 while fewer than about 300 records wait, lower as its backlog grows.
double Backlog(uint32_t freePercent) {
  if (freePercent >= 99) return 0.0;
  return kRingRecords - (freePercent + 0.5) * kRingRecords / 99.99;
}

SPhaseResult RunPhase(const SOptions& o, const std::string& host, int port, int pid, int clients,
                      const std::string& perfFile) {
  SPhaseResult result;
  std::vector<std::unique_ptr<CStreamClient>> streams;
  for (int i = 0; i < clients; ++i) {
    streams.push_back(std::make_unique<CStreamClient>());
    if (!streams.back()->Start(host, port)) {
      std::fprintf(stderr, "load: client %d could not start streaming\n", i + 1);
      for (auto& s : streams) s->Stop();
      return result;
    }
  }
  std::this_thread::sleep_for(std::chrono::duration<double>(o.WarmSeconds));

  struct SSnapshot {
    Clock::time_point At;
    std::vector<uint64_t> Records, Gaps, Missing;
    std::vector<double> Backlog;
    std::map<int, SThreadTime> Threads;
  };
  auto snapshot = [&](SSnapshot& s) {
    s.Threads = pid > 0 ? ThreadTimes(pid) : std::map<int, SThreadTime>{};
    s.At = Clock::now();
    for (auto& c : streams) {
      s.Records.push_back(c->Counters.Records);
      s.Gaps.push_back(c->Counters.Gaps);
      s.Missing.push_back(c->Counters.Missing);
      s.Backlog.push_back(Backlog(c->Counters.FreePercent));
    }
  };
  SSnapshot a, b;
  snapshot(a);
  const pid_t perf = !perfFile.empty() && pid > 0 ? StartPerf(perfFile, pid, o.MeasureSeconds) : -1;
  std::this_thread::sleep_for(std::chrono::duration<double>(o.MeasureSeconds));
  snapshot(b);
  if (perf > 0) ::waitpid(perf, nullptr, 0);
  bool failed = false;
  for (auto& c : streams) {
    c->Stop();
    failed = failed || c->Counters.bFailed;
  }

  const double t = Seconds(b.At - a.At);
  result.bOk = true;
  result.MinClient = 1e18;
  double fellBehind = 0.0;
  for (size_t i = 0; i < streams.size(); ++i) {
    const double received = static_cast<double>(b.Records[i] - a.Records[i]);
    const double behind = b.Backlog[i] - a.Backlog[i];
    result.MinClient = std::min(result.MinClient, received / t);
    result.Processed = std::max(result.Processed, (received + behind) / t);
    fellBehind = std::max(fellBehind, behind);
    result.Gaps += b.Gaps[i] - a.Gaps[i];
    result.Missing += b.Missing[i] - a.Missing[i];
  }
  result.MaxLagGrowth = static_cast<long>(fellBehind);
  // A client whose backlog grew by more than the percentage's resolution would lose records
  // once the ring came round.
  result.bSustained = !failed && result.Gaps == 0 && fellBehind < 301.0;

  if (pid > 0) {
    const double tick = static_cast<double>(::sysconf(_SC_CLK_TCK));
    uint64_t total = 0;
    for (const auto& [tid, end] : b.Threads) {
      const auto it = a.Threads.find(tid);
      const uint64_t used = end.Ticks - (it != a.Threads.end() ? it->second.Ticks : 0);
      total += used;
      // The main thread becomes the acquisition thread once start-up is done.
      const std::string name = tid == pid ? "acquisition" : end.Name + "/" + std::to_string(tid);
      result.Threads.emplace_back(name, used / tick / t * 100.0);
    }
    result.CpuPercent = total / tick / t * 100.0;
    std::sort(result.Threads.begin(), result.Threads.end(), [](auto& x, auto& y) { return x.second > y.second; });
  }
  return result;
}

void Print(int clients, double scale, const SPhaseResult& r) {
  if (!r.bOk) {
    std::printf("%2d client(s): phase failed\n", clients);
    return;
  }
  std::printf("%2d client(s), card %s: processed %.0f records/s; slowest client %.0f records/s; gaps %llu "
              "(%llu records missing); fell behind by %ld records; %s",
              clients, scale < 0.0 ? "as it runs" : scale == 0.0 ? "free running" : ("at " + std::to_string(scale) + "x").c_str(), r.Processed,
              r.MinClient, static_cast<unsigned long long>(r.Gaps), static_cast<unsigned long long>(r.Missing),
              r.MaxLagGrowth, r.bSustained ? "sustained" : "NOT sustained");
  if (r.CpuPercent >= 0) {
    std::printf("; server CPU %.0f %% of a core (", r.CpuPercent);
    for (size_t i = 0; i < r.Threads.size() && i < 5; ++i)
      std::printf("%s%s %.0f %%", i ? ", " : "", r.Threads[i].first.c_str(), r.Threads[i].second);
    std::printf(")");
  }
  std::printf("\n");
  std::fflush(stdout);
}

// Starts a server with the card at `scale` (0: free running), measures one phase.
SPhaseResult MeasureWithOwnServer(const SOptions& o, double scale, int clients, const std::string& perfFile) {
  CServer server;
  if (!server.Start(o, scale)) {
    std::fprintf(stderr, "load: cannot start %s\n", o.Server.c_str());
    return {};
  }
  if (!WaitReady("127.0.0.1", server.Port, &server)) {
    std::fprintf(stderr, "load: the server did not become ready (see %s/console.log)\n", server.Root.c_str());
    return {};
  }
  SPhaseResult r = RunPhase(o, "127.0.0.1", server.Port, server.Pid, clients, perfFile);
  Print(clients, scale, r);
  return r;
}

std::string PerfFile(const SOptions& o, int clients, double scale) {
  if (o.PerfPrefix.empty()) return {};
  char name[64];
  std::snprintf(name, sizeof name, "-%dclients-%s.data", clients, scale == 0.0 ? "free" : std::to_string(scale).c_str());
  return o.PerfPrefix + name;
}

// The highest paced rate `clients` keep up with: between a sustained and a failed rate,
// halving the interval a few times. Rates are records/s; the card's rate at scale 1 is learnt
// from the first paced run.
double Search(const SOptions& o, int clients, const SPhaseResult& freeRun) {
  double good = 0.0, bad = freeRun.Processed;
  double rate = std::max(500.0, 0.9 * freeRun.MinClient);
  double basePerScale = 2000.0;  // records/s at scale 1, until measured
  for (int step = 0; step < 5 && bad - good > 0.05 * bad; ++step) {
    const double scale = rate / basePerScale;
    const SPhaseResult r = MeasureWithOwnServer(o, scale, clients, {});
    if (!r.bOk) break;
    if (r.Processed > 0) basePerScale = r.Processed / scale;
    if (r.bSustained) {
      good = std::max(good, r.Processed);
    } else {
      bad = std::min(bad, r.Processed);
    }
    rate = (good + bad) / 2.0;
  }
  return good;
}

bool ParseArgs(int argc, char** argv, SOptions& o) {
  for (int i = 1; i < argc; ++i) {
    const std::string a = argv[i];
    auto value = [&]() -> std::string { return i + 1 < argc ? argv[++i] : ""; };
    if (a == "--vr480d") {
      o.Server = value();
    } else if (a == "--connect") {
      const std::string hp = value();
      const size_t colon = hp.rfind(':');
      if (colon == std::string::npos) return false;
      o.ConnectHost = hp.substr(0, colon);
      o.ConnectPort = std::atoi(hp.c_str() + colon + 1);
    } else if (a == "--pid") {
      o.Pid = std::atoi(value().c_str());
    } else if (a == "--clients") {
      o.Clients.clear();
      std::stringstream list(value());
      for (std::string n; std::getline(list, n, ',');) o.Clients.push_back(std::atoi(n.c_str()));
    } else if (a == "--seconds") {
      o.MeasureSeconds = std::atof(value().c_str());
    } else if (a == "--warm") {
      o.WarmSeconds = std::atof(value().c_str());
    } else if (a == "--scale") {
      o.Scale = std::atof(value().c_str());
    } else if (a == "--search") {
      o.bSearch = true;
    } else if (a == "--perf") {
      o.PerfPrefix = value();
    } else if (a == "--keep-root") {
      o.bKeepRoot = true;
    } else {
      return false;
    }
  }
  if (o.Server.empty() && o.ConnectHost.empty()) {
    const std::filesystem::path beside = std::filesystem::path(argv[0]).parent_path().parent_path() / "vr480d";
    o.Server = beside.string();  // the build tree's server, beside the bench directory
  }
  return !o.Clients.empty() && o.MeasureSeconds > 0;
}

}  // namespace

int main(int argc, char** argv) {
  SOptions o;
  if (!ParseArgs(argc, argv, o)) {
    std::fprintf(stderr,
                 "usage: load [--vr480d PATH | --connect HOST:PORT [--pid PID]] [--clients 1,10] [--seconds N]\n"
                 "            [--warm N] [--scale S | --search] [--perf PREFIX] [--keep-root]\n");
    return 2;
  }
  signal(SIGPIPE, SIG_IGN);

  if (!o.ConnectHost.empty()) {
    if (!WaitReady(o.ConnectHost, o.ConnectPort, nullptr)) {
      std::fprintf(stderr, "load: no measurable records from %s:%d\n", o.ConnectHost.c_str(), o.ConnectPort);
      return 1;
    }
    for (int n : o.Clients) Print(n, -1.0, RunPhase(o, o.ConnectHost, o.ConnectPort, o.Pid, n, PerfFile(o, n, -1)));
    return 0;
  }

  int status = 0;
  for (int n : o.Clients) {
    const SPhaseResult r = MeasureWithOwnServer(o, o.Scale, n, PerfFile(o, n, o.Scale));
    if (!r.bOk) {
      status = 1;
      continue;
    }
    if (!o.bSearch || o.Scale != 0.0) continue;
    const double best = r.bSustained ? r.Processed : Search(o, n, r);
    std::printf("=> %d client(s): highest sustained rate %.0f records/s%s\n", n, best,
                r.bSustained ? " (the free-running card's own rate: the server processes no faster)" : "");
    std::fflush(stdout);
  }
  return status;
}
