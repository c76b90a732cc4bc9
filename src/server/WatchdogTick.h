// The acquisition (FPGA) watchdog's 250 ms tick.
//
// The card delivers a peaks record every sweep; when it stops (a hung FPGA, a DMA engine that
// lost its buffers) nothing in the server notices by itself, since the acquisition thread just
// waits. So a counter, FpgaWatchDog, counts 250 ms periods, and the acquisition clears it
// with every record (GetData). When it reaches 20 (5 s without data) while the watchdog is
// armed (bFpgaWatchDogEnabled), the tick notes "FPGA Watchdog reset." in the event log,
// flushes the file systems, waits 5 s and reboots the machine through "#REBOOT".
//
// While the front panel runs, its 250 ms timer calls Tick() from its periodic function and
// the thread is not started. Without a window Start() runs the same tick on a small thread of
// its own. Stop() ends that thread at once, abandoning a reboot still in its 5 s pause; so
// does the ordinary stop, which disarms the watchdog, when the window's timer runs the tick.
#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <thread>

class CVr480Server;

class CWatchdogTick {
 public:
  static constexpr std::chrono::milliseconds kPeriod{250};
  static constexpr unsigned kResetTicks = 20;                  // periods without a record
  static constexpr std::chrono::seconds kRebootPause{5};       // between the log entry and #REBOOT

  explicit CWatchdogTick(CVr480Server& server) : Server(server) {}
  ~CWatchdogTick() { Stop(); }
  CWatchdogTick(const CWatchdogTick&) = delete;
  CWatchdogTick& operator=(const CWatchdogTick&) = delete;

  // One period: counts it while the watchdog is armed, and on the 20th runs the reset. Blocks
  // for the reset's pause (returns early once Stop is called).
  void Tick();

  // The tick's own thread, for a server without a window. Start is called once, after Init;
  // Stop may be called any number of times.
  void Start();
  void Stop();

 private:
  void ThreadBody();
  // Sleeps until `deadline`; false when Stop came first.
  bool SleepUntil(std::chrono::steady_clock::time_point deadline);

  CVr480Server& Server;
  std::thread Thread;
  std::mutex Lock;                  // guards bStop
  std::condition_variable Wake;     // Stop wakes the thread and a pending pause
  bool bStop = false;
};
