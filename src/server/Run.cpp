// Run: the acquisition thread's start-up phase (initial laser bias, version checks, banner,
// full-spectrum offset), the loop, and the two ways it ends: the ordinary stop that tears the
// threads down, and the power-down countdown of #SHUTDOWN. Shutdown releases what Init took.
#include <sys/time.h>

#include <chrono>
#include <cmath>
#include <cstdio>
#include <iostream>
#include <sstream>
#include <thread>

#include "gui/FrontPanel.h"
#include "host/Host.h"
#include "server/Globals.h"
#include "server/Vr480Server.h"
#include "server/WatchdogTick.h"
#include "system/Network.h"
#include "system/ServiceNotify.h"

namespace {

void SleepMs(int ms) { std::this_thread::sleep_for(std::chrono::milliseconds(ms)); }

void PrintWarningBox(const char* line, const char* minimumLine, int minimum) {
  std::printf("\n************************ WARNING ***********************\n");
  std::printf("%s", line);
  std::printf("%s%d.\n", minimumLine, minimum);
  std::printf("********************************************************\n");
}

// Polls a condition once a second, at most `attempts` times.
template <class Done>
bool PollSeconds(int attempts, Done done) {
  for (int i = 0; i < attempts; ++i) {
    if (done()) return true;
    SleepMs(1000);
  }
  return done();
}

}  // namespace

int CVr480Server::Run() {
  // The front panel's timer services the acquisition watchdog while the window runs; without
  // a window its tick runs on a thread of its own. The stop ends that thread first, so a
  // reboot pending in the tick's pause is abandoned.
  CWatchdogTick watchdog(*this);
  if (!FrontPanelServicesWatchdog()) watchdog.Start();
  RunStartupPhase();
  while (bRun) AcquisitionPass();
  NotifyServiceStopping();
  watchdog.Stop();
  return StopAcquisition();
}

void CVr480Server::RunStartupPhase() {
  bRun = true;
  if (bStopSignalled || bShutdownRequested) bRun = false;  // a stop asked for during Init (signal, #QUIT!, #SHUTDOWN) still stops
  for (int i = 0; i < kClientSlots; ++i) {
    bNewRecord[i] = false;
    bNewSpectrum[i] = false;
    bStreaming[i] = false;
  }
  std::printf("**** FS is optimized ****\n");
  msg.Set("[AB] Initializing ....");
  bUpdateGui = true;

  InitialAutoBias();
  CheckVersions();
  PrintBanner();
  PrintNetworkInterface();
  // The offset calibration takes 3840 records, half a minute at a low record rate; a stop
  // asked for meanwhile (signal or #QUIT!) should not wait for it.
  if (bRun) CalibrateStartupFsOffset();

  bMuxLevelChanged = true;
  bMeasureLocations = false;
  bLocMeasGeneratePlot = false;
  msg.Set("[AS] Initializing ....");
  bUpdateGui = true;
  std::fflush(stdout);
}

// Brings the grating to its target before anything is measured. At low record rates every
// record drives the loop; otherwise it runs ten times a second of sweeps.
void CVr480Server::InitialAutoBias() {
  int rate = SweepRate();
  long limit = 60L * rate;
  int err = MaxBiasError + 1;
  long n = 0;
  while (bRun && std::abs(err) > MaxBiasError && n < limit) {
    if (!GetData()) break;
    rate = SweepRate();  // a client may change the sweep rate meanwhile
    limit = 60L * rate;
    uint16_t divider = DataRateDivider;
    if (divider == 0) divider = 1;
    if (divider > rate / 40) {
      err = AutoBias();
    } else {
      int period = (rate / 10) / divider;
      if (period <= 0 || pPeaks->status.RecordCounter % period == 0) err = AutoBias();
    }
    ++n;
  }
  double seconds = static_cast<double>(n) / rate;
  // Composed first and written in one call: other threads print meanwhile, and a line written
  // piece by piece can be split by theirs.
  std::ostringstream text;
  text << "\nAutoBias time = " << seconds << " (Max time = " << 60 << ")\n";
  if (n >= limit) text << "Initial Auto-bias failed after " << seconds << " seconds.\n";
  std::cout << text.str() << std::flush;
}

// The driver of release 50 and later goes with synthesis 101 and a base image of build 14;
// older drivers are checked against the minima of their generation.
void CVr480Server::CheckVersions() {
  const int driver = Driver.GetDriverVersion();
  const int synthesis = LatestStatus.SynthesisRelease();
  const int minSynthesis = driver >= 50 ? 101 : 48;
  const int minCfc = driver >= 50 ? 14 : 10;
  if (driver < 50 && driver < 9)
    PrintWarningBox(" The device driver is too old.  The minimum required\n", " driver is release ", 9);
  if (synthesis < minSynthesis)
    PrintWarningBox(" The fpga synthesis is too old.  The minimum required\n", " synthesis is release ", minSynthesis);
  if (CfcVersion < minCfc)
    PrintWarningBox(" The CFC image may be too old.  The minimum required\n", " base cfc is build ", minCfc);
}

void CVr480Server::PrintBanner() {
  const int synthesis = LatestStatus.SynthesisRelease();
  std::printf("\n--------------------------------------------------------\n");
  std::printf("SVN Base Build %d, %s\n", kSvnBaseBuild, kBuildDate);
  std::printf("--------------------------------------------------------\n");
  std::printf("Server Release %s\n", kServerRelease);
  std::printf("Driver Release %d\n", Driver.GetDriverVersion());
  std::printf("FPGA Synthesis Release %d\n", synthesis);
  std::printf("Base CFC Build %d\n", CfcVersion);
  std::printf("--------------------------------------------------------\n\n");
}

void CVr480Server::PrintNetworkInterface() { PrintIfConfig(); }

void CVr480Server::CalibrateStartupFsOffset() {
  msg.Set("[FS] Calibrating ...");
  bUpdateGui = true;
  SleepMs(2000);
  int sum = 0;
  for (int i = 0; i < 30; ++i) {
    // A stop (signal or #QUIT!) ends the calibration here: each attempt on a card that
    // delivers nothing waits a second for a record before it gives up, thirty in a row.
    if (!bRun) return;
    SleepMs(5);
    CalibrateFsOffset();
    sum += FsCountOffset;
  }
  FsCountOffset = static_cast<int16_t>(sum / 30);
  std::printf("**FsCountOffset = %d**\n", static_cast<int>(FsCountOffset));
  std::fflush(stdout);
  bUpdateGui = true;
}

int CVr480Server::StopAcquisition() {
  bFpgaWatchDogEnabled = false;
  Driver.SetReadyLed(false);
  bClosingSessions = true;
  for (int i = 0; i < kClientSlots; ++i) bClientDisconnect[i] = true;

  std::printf("Canceling the FS calibration thread...");
  std::printf(StopCalibrationThread() ? "done.\n" : "failed.\n");
  std::fflush(stdout);

  SimulateShutdown();

  std::printf("Waiting for client threads to halt...\n");
  std::fflush(stdout);
  if (PollSeconds(10, [this] { return Socket.GetNumClients() == 0; }))
    std::printf("Client threads halted.\n");
  else
    std::printf("Warning: failed to halt client threads after %d""seconds.  Abondoning client thread shutdown attempts.\n", 10);

  bGuiRun = false;
  std::printf("Waiting for GUI to halt...\n");
  std::fflush(stdout);
  if (PollSeconds(10, [] { return !bGuiRunning; }))
    std::printf("GUI halted.\n");
  else
    std::printf("Warning: GUI failed to shutdown after %d""seconds.  Abondoning GUI shutdown attempts.\n", 10);
  std::fflush(stdout);
  return 0;
}

// The power-down stop: blink both LEDs ever faster until the requested delay is over, ring
// three bells, and idle until the power goes. Client and GUI threads keep running.
int CVr480Server::SimulateShutdown() {
  if (!bShutdownRequested) return 0;
  Driver.SetClientLed(false);
  Driver.SetReadyLed(false);
  // The countdown runs on the monotonic clock: the server may set the wall clock meanwhile.
  auto now = [] {
    timespec ts{};
    if (::clock_gettime(CLOCK_MONOTONIC, &ts) != 0)
      std::printf("Error executing gettimeofday() function in SimulateShutdown()\n");
    return ts.tv_sec + ts.tv_nsec / 1e9;
  };
  const double end = now() + ShutdownDelaySeconds;
  bool phase = false;
  for (double t = now(); t < end; t = now()) {
    double remaining = end - t;
    long pause = remaining > 10.0 ? 500000 : std::lround(remaining * 50000 + 50000);
    Driver.SetClientLed(phase);
    Driver.SetReadyLed(phase);
    std::this_thread::sleep_for(std::chrono::microseconds(pause));
    phase = !phase;
  }
  Driver.SetClientLed(false);
  Driver.SetReadyLed(false);
  for (int i = 0; i < 3; ++i) {
    std::printf("\a\n");
    std::fflush(stdout);
    SleepMs(500);
  }
  SetStatusText("*** Shutdown Complete ***");
  bUpdateGui = true;
  // The instrument idles until its power goes. A workstation server is never powered off, so
  // there a stop signal (or a test ending its in-process server) ends the idle and the
  // ordinary stop goes on.
  while (Host().IsInstrument() || !bStopSignalled) SleepMs(100);
  return 0;
}

int CVr480Server::Shutdown() {
  Driver.SetClientLed(false);
  Driver.SetReadyLed(false);
  Driver.close_vr480();
  Socket.Stop();  // no new client from here on
  const int level = MuxLevel;
  std::printf("Attempting to free %llu bytes from averaging buffers...",
              static_cast<unsigned long long>(WvlAvg.GetMemoryRequired(
                  static_cast<uint8_t>(level * kOpticalChannels), kSensorsPerChannel,
                  static_cast<uint16_t>(kDefaultAveragingDepth / level))));
  std::printf(WvlAvg.Close() == 0 ? "OK.\n" : "Failed.\n");
  // A client thread that did not halt may still read the rings; they are then left to the
  // process's exit rather than freed under it.
  if (RunningServiceThreads() == 0) {
    delete[] ProcessedData;
    ProcessedData = nullptr;
    delete[] SpectrumBuffer;
    SpectrumBuffer = nullptr;
  }
  if (SerialPort) {
    std::fclose(SerialPort);
    SerialPort = nullptr;
  }
  std::fflush(stdout);
  return 0;
}
