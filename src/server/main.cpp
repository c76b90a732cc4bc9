// vr480d: the instrument server. main parses the workstation options, installs the host and
// card seams, builds the server object, and runs Init and Run on the main thread, which then
// becomes the acquisition thread.
#include <sched.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <clocale>
#include <cstdio>
#include <iostream>
#include <memory>

#include "device/CardSeam.h"
#include "gui/FrontPanel.h"
#include "host/Host.h"
#include "server/Globals.h"
#include "server/HttpStatus.h"
#include "server/Options.h"
#include "server/Vr480Server.h"
#include "sim/SimCardProvider.h"
#include "system/Clock.h"

namespace {

// SIGINT and SIGTERM stop the server as #QUIT! does, so that it runs under a service manager.
void OnStopSignal(int) {
  bStopSignalled = true;
  bRun = false;
}

void InstallSignalHandlers() {
  struct sigaction sa {};
  sa.sa_handler = OnStopSignal;
  sigemptyset(&sa.sa_mask);
  sigaction(SIGINT, &sa, nullptr);
  sigaction(SIGTERM, &sa, nullptr);
  signal(SIGPIPE, SIG_IGN);  // a client that vanishes mid-reply must not end the server
}

bool DeviceFileExists(const char* path) {
  struct stat st {};
  return ::stat(path, &st) == 0;
}

// The simulated card stands in wherever the real device file is absent. Its configuration
// memory lives under the root, so a workstation instrument keeps its identity across runs.
// False when an option needs the simulated card but the real one is used.
bool InstallCardSeam(const CServerOptions& options) {
  if (!options.bForceSim && DeviceFileExists("/dev/vr480")) {  // the real card
    if (!options.bFreeRun && options.TimeScale == 1.0) return true;
    std::cerr << "vr480d: --free-run and --time-scale need the simulated card (add --sim)\n";
    return false;
  }
  sim::CSimOptions simOptions;
  simOptions.Mode = options.bFreeRun ? sim::EProducerMode::FreeRunning : sim::EProducerMode::RealTime;
  simOptions.TimeScale = options.TimeScale;
  if (!Host().IsInstrument()) simOptions.Root = Host().Root();
  simOptions.SceneFile = options.SceneFile;
  if (simOptions.SceneFile.empty() && DeviceFileExists(Host().Path("/vr480/sim_scene.txt").c_str()))
    simOptions.SceneFile = Host().Path("/vr480/sim_scene.txt");
  auto provider = std::make_shared<sim::CSimCardProvider>(simOptions);
  if (!provider->Card().SceneError().empty())
    std::printf("Simulated card: scene %s: %s; using the built-in scene.\n", simOptions.SceneFile.c_str(),
                provider->Card().SceneError().c_str());
  InstallCard(provider);
  return true;
}

void PinMainThread() {
  long tid = ::syscall(SYS_gettid);
  std::cout << "Setting main thread [PID: " << tid << "] CPU affinity to CPU " << 1 << "\n" << std::flush;
  cpu_set_t set;
  CPU_ZERO(&set);
  CPU_SET(1, &set);
  if (const int err = pthread_setaffinity_np(pthread_self(), sizeof set, &set); err != 0) {
    errno = err;  // the call returns its error instead of setting errno
    perror("pthread_setaffinity_np() failed.");
  }
}

}  // namespace

int main(int argc, char** argv) {
  CServerOptions& options = ServerOptions;
  std::string error;
  if (!ParseOptions(argc, argv, options, error)) {
    std::cerr << "vr480d: " << error << "\n" << UsageText();
    return 2;
  }
  if (options.bHelp) {
    std::cout << UsageText();
    return 0;
  }
  if (!PrepareWorkstationRoot(options.Root, error)) {
    std::cerr << "vr480d: " << error << "\n";
    return 2;
  }
  InstallHost(options.Root);
  if (!InstallCardSeam(options)) return 2;
  // Console output is read by people and by tests through a pipe: flush every line.
  std::setvbuf(stdout, nullptr, _IOLBF, 0);
  std::setlocale(LC_ALL, "C");
  InstallSignalHandlers();

  ConstructServer();
  bFpgaWatchDogEnabled = true;
  std::cout << std::dec;
  if (Vr480Server.bPcm9361Board) PinMainThread();

  GetDate();  // the system clock from the battery-backed hardware clock
  const int16_t code = Vr480Server.Init();
  if (code != kInitOk) {
    std::printf("Initialization of vr480 failed with error code %d.\n", code);
    Vr480Server.Shutdown();
    std::fflush(stdout);
    return code;
  }

  CHttpStatus httpStatus(Vr480Server);
  if (options.HttpPort) httpStatus.Start(options.ListenAddress, options.HttpPort);

  bGuiRunning = false;
  bool run = true;
  if (options.bFrontPanel) {
    const int err = StartFrontPanel(Vr480Server);  // a missing display leaves the server headless
    if (err > 0) {
      std::printf("GUI thread creation failed with error code %d\n", err);
      bGuiRun = false;
      run = false;
    }
  }
  if (run) Vr480Server.Run();

  if (bGuiRunning) {
    std::printf("Warning GUI is still running after the server has stopped.\n");
    std::printf("Attempting a second shutdown.\n");
    bGuiRun = false;
    std::printf("Waiting for GUI to halt...\n");
    int waited = 0;
    while (bGuiRunning && waited < 10) {
      sleep(1);
      ++waited;
    }
    if (!bGuiRunning) std::printf("GUI halted.\n");
    else std::printf("Warning: GUI failed to shutdown after %d""seconds.  Abondoning GUI shutdown attempts.\n", 10);
  }
  EndFrontPanel();
  httpStatus.Stop();
  Vr480Server.Shutdown();
  std::fflush(stdout);
  std::printf("\nServer Terminated Normally.\n");
  std::fflush(stdout);
  return 0;
}
