// The whole server inside a fuzz target: a fresh workstation root under $TMPDIR (nothing outside
// it is touched: shell commands are only recorded there), the simulated card pacing records in
// real time, Init, and Run on a thread of its own, exactly as vr480d runs them. The target then
// feeds command lines as a client, or tag files through the start-up replay.
//
// One server per process, built once (the server uses the process-wide host, card seam,
// options and stop flags); it is stopped and its root removed when the process exits.
//
// Console output goes to /dev/null unless VR480_FUZZ_CONSOLE is set: the server prints a line
// for most commands, which would drown libFuzzer's own lines and cost most of the time.
#pragma once

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "device/CardSeam.h"
#include "host/Host.h"
#include "server/Globals.h"
#include "server/Options.h"
#include "server/Vr480Server.h"
#include "settings/TagManager.h"
#include "sim/SimCardProvider.h"

namespace fuzz {

// Commands a fuzz input may not run, by the name the dispatcher splits off the line. Each of
// them either ends the server the fuzzer runs against or takes seconds by design:
//   #QUIT!, #SHUTDOWN, #REBOOT          stop the server (a stop is not a finding)
//   #SET_FPGA_WATCHDOG_ENABLE           arms the watchdog, which reboots when nothing feeds it
//   #DUMP_CORE                          the diagnostic bundle: runs zip and for 30 s and more
//   #MEASURE_LOCATIONS, #LOC_MEAS_GENERATE_PLOT
//                                       distance measurement: seconds of sweeps at every rate,
//                                       and the handler waits for it without a time limit
//   #SET_FAN1_CONTROL_TEMP, #SET_FAN2_CONTROL_TEMP, #SET_FAN1_TEMP_HYSTERESIS,
//   #SET_FAN2_TEMP_HYSTERESIS           wait 100 ms for the fan controller each
//   #START_NTP                          waits 250 ms between its recorded tool runs
//   #BUILD_ZOR_DEVICE, #CLEAR_ZOR_DEVICE, #SET_ZOR_SN, #SET_NVRAM_SN
//                                       write the card's configuration memory at the
//                                       EEPROM's pace (0.2 to 2.6 s)
inline bool Denied(const std::string& line) {
  static const char* const kDenied[] = {
      "#QUIT!",          "#SHUTDOWN",           "#REBOOT",
      "#SET_FPGA_WATCHDOG_ENABLE",              "#DUMP_CORE",
      "#MEASURE_LOCATIONS", "#LOC_MEAS_GENERATE_PLOT",
      "#SET_FAN1_CONTROL_TEMP", "#SET_FAN2_CONTROL_TEMP", "#SET_FAN1_TEMP_HYSTERESIS",
      "#SET_FAN2_TEMP_HYSTERESIS", "#START_NTP", "#BUILD_ZOR_DEVICE", "#CLEAR_ZOR_DEVICE",
      "#SET_ZOR_SN", "#SET_NVRAM_SN",
  };
  const std::string command = CTagManager::GetCommand(line);
  for (const char* name : kDenied)
    if (command == name) return true;
  return false;
}

// The lines of an input as a client's connection delivers them: cut at LF, each cut to the
// 256 characters the server reads of a line, the C string ending at a NUL byte as it does for
// the service thread. At most `maxLines` lines, so that one input stays quick.
inline std::vector<std::string> InputLines(const uint8_t* data, size_t size, size_t maxLines) {
  std::vector<std::string> lines;
  std::string_view text(reinterpret_cast<const char*>(data), size);
  size_t start = 0;
  while (start < text.size() && lines.size() < maxLines) {
    size_t end = text.find('\n', start);
    if (end == std::string_view::npos) end = text.size();
    std::string line(text.substr(start, std::min<size_t>(end - start, 256)));
    line.resize(std::strlen(line.c_str()));
    lines.push_back(std::move(line));
    start = end + 1;
  }
  return lines;
}

// A TCP port in the server's range (1-9999) that nothing listens on right now.
inline int FreePort() {
  for (int attempt = 0; attempt < 200; ++attempt) {
    const int port = 2000 + static_cast<int>((::getpid() * 7919u + attempt * 104729u) % 7999u);
    const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_port = htons(static_cast<uint16_t>(port));
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    const bool ok = ::bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof a) == 0;
    ::close(fd);
    if (ok) return port;
  }
  return 1852;
}

// A fresh directory under $TMPDIR (or /tmp) that stands for the instrument's "/".
inline std::string MakeRoot() {
  const char* tmp = std::getenv("TMPDIR");
  std::string pattern = std::string(tmp && *tmp ? tmp : "/tmp") + "/vr480-fuzz-XXXXXX";
  if (::mkdtemp(pattern.data()) == nullptr) {
    std::perror("mkdtemp");
    std::abort();
  }
  return pattern;
}

inline void QuietConsole() {
  if (std::getenv("VR480_FUZZ_CONSOLE")) return;
  std::fflush(stdout);
  const int null = ::open("/dev/null", O_WRONLY);
  if (null >= 0) ::dup2(null, STDOUT_FILENO);
}

// A command that is still waiting after this long is cut short the way a client that leaves
// cuts it: its row's disconnect flag is raised, which ends every wait for records, spectra and
// upload data. Without it an input that stops the card would leave the next "#GET_DATA"
// waiting for a record that never comes.
constexpr auto kCommandPatience = std::chrono::milliseconds(200);

class CFuzzServer {
 public:
  CFuzzServer() {
    QuietConsole();
    RootDir = MakeRoot();
    std::string error;
    if (!PrepareWorkstationRoot(RootDir, error)) Fail("cannot prepare the root: " + error);
    {
      // The simulated laser starts at its ready bias and scan amplitude, so the loops lock soon.
      std::ofstream tags(RootDir + "/vr480/vr480.tag", std::ios::app);
      tags << "#SET_SCAN_AMP = \"40800\"\n#SET_INITIAL_BIAS = \"28440\"\n";
    }
    InstallHost(RootDir);
    sim::CSimOptions card;
    card.Root = RootDir;
    Provider = std::make_shared<sim::CSimCardProvider>(card);
    InstallCard(Provider);
    ServerOptions.Port = FreePort();
    ServerOptions.ListenAddress = "127.0.0.1";
    ServerOptions.bFrontPanel = false;
    bStopSignalled = false;
    Server = std::make_unique<CVr480Server>();
    if (Server->Init() != kInitOk) Fail("Init failed");
    Acquisition = std::thread([this] { RunResult = Server->Run(); });
    Watchdog = std::thread([this] { WatchCommands(); });
  }

  // Stops the server as the stop path does and removes the root.
  ~CFuzzServer() {
    {
      std::lock_guard<std::mutex> g(Lock);
      bQuit = true;
    }
    Wake.notify_all();
    if (Watchdog.joinable()) Watchdog.join();
    bStopSignalled = true;
    bRun = false;
    if (Acquisition.joinable()) Acquisition.join();
    Server->Shutdown();
    Server.reset();
    InstallCard(std::make_shared<CRealCardProvider>());
    InstallHost("/");
    std::error_code ec;
    std::filesystem::remove_all(RootDir, ec);
  }

  CVr480Server& S() { return *Server; }
  const std::string& Root() const { return RootDir; }

  // Runs `step` with the patience watchdog on `row` (a client slot or the internal row).
  // VR480_FUZZ_SLOW=MS names on stderr every step that took MS or longer (`what` says which).
  template <class Step>
  void Watched(int row, const std::string& what, Step&& step) {
    if (SlowMs > 0) What = what;
    {
      std::lock_guard<std::mutex> g(Lock);
      WatchedRow = row;
      Started = std::chrono::steady_clock::now();
      bBusy = true;
    }
    step();
    if (SlowMs > 0) {
      const auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - Started);
      if (ms.count() >= SlowMs) std::fprintf(stderr, "vr480 fuzz: slow (%lld ms): %s\n", static_cast<long long>(ms.count()), What.c_str());
    }
    std::lock_guard<std::mutex> g(Lock);
    bBusy = false;
    Server->bClientDisconnect[row] = false;
  }

  // A server that stopped by itself while fed inputs is a finding: the instrument would be
  // unreachable. Aborts so that libFuzzer keeps the input.
  void CheckStillRunning() {
    if (RunResult != -1 || !bRun) Fail("the server stopped");
  }

  // The recorded shell commands grow with every network or clock command: kept small.
  void TrimHostLog() {
    if (++Inputs % 1024 != 0) return;
    std::error_code ec;
    if (std::filesystem::file_size(Host().CommandLogPath(), ec) > (1u << 20)) {
      std::ofstream(Host().CommandLogPath(), std::ios::trunc);
    }
  }

  [[noreturn]] static void Fail(const std::string& why) {
    std::fprintf(stderr, "vr480 fuzz: %s\n", why.c_str());
    std::abort();
  }

 private:
  void WatchCommands() {
    std::unique_lock<std::mutex> g(Lock);
    while (!bQuit) {
      Wake.wait_for(g, std::chrono::milliseconds(50));
      if (bBusy && std::chrono::steady_clock::now() - Started > kCommandPatience) {
        Server->bClientDisconnect[WatchedRow] = true;
        // The waits for records and spectra look at the flag when they wake.
        { std::lock_guard<std::mutex> d(Server->DataMutex); }
        Server->DataCond.notify_all();
        { std::lock_guard<std::mutex> d(Server->SpectrumMutex); }
        Server->SpectrumCond.notify_all();
      }
    }
  }

  std::string RootDir;
  std::shared_ptr<sim::CSimCardProvider> Provider;
  std::unique_ptr<CVr480Server> Server;
  std::thread Acquisition;
  std::atomic<int> RunResult{-1};
  std::thread Watchdog;
  std::mutex Lock;
  std::condition_variable Wake;
  bool bQuit = false;
  bool bBusy = false;
  int WatchedRow = 0;
  std::chrono::steady_clock::time_point Started;
  unsigned Inputs = 0;
  const long SlowMs = std::getenv("VR480_FUZZ_SLOW") ? std::atol(std::getenv("VR480_FUZZ_SLOW")) : 0;
  std::string What;
};

// The process's one server, built at the first call. At exit it is stopped before anything
// else: exit handlers run last-registered first, and the statics of the code the acquisition
// thread runs are registered as that code first runs, so the stop is registered again with
// every input (a few bytes each) to stay ahead of them.
inline CFuzzServer*& TheServer() {
  static CFuzzServer* server = nullptr;
  return server;
}

inline void StopAtExit() {
  std::atexit([] {
    CFuzzServer*& server = TheServer();
    delete server;
    server = nullptr;
  });
}

inline CFuzzServer& Server() {
  CFuzzServer*& server = TheServer();
  if (!server) server = new CFuzzServer();
  StopAtExit();
  return *server;
}

}  // namespace fuzz
