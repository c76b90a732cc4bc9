#include "server/WatchdogTick.h"

#include <pthread.h>
#include <sched.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

#include "host/Host.h"
#include "server/Globals.h"
#include "server/Vr480Server.h"

void CWatchdogTick::Tick() {
  if (!bFpgaWatchDogEnabled) return;
  if (FpgaWatchDog.fetch_add(1) + 1 != kResetTicks) return;
  // The log line lands on the settings file system before the machine goes down; the sync
  // makes sure of the other file systems too.
  Server.ExecuteInternal("#LOG_ENTRY FPGA Watchdog reset.");
  Host().Run("/bin/sync");
  if (!SleepUntil(std::chrono::steady_clock::now() + kRebootPause)) return;
  // The ordinary stop disarms the watchdog: a server stopping meanwhile is not rebooted.
  if (!bFpgaWatchDogEnabled) return;
  Server.ExecuteInternal("#REBOOT");
}

void CWatchdogTick::Start() {
  if (Thread.joinable()) return;
  {
    std::lock_guard<std::mutex> g(Lock);
    bStop = false;
  }
  Thread = std::thread([this] { ThreadBody(); });
}

void CWatchdogTick::Stop() {
  {
    std::lock_guard<std::mutex> g(Lock);
    bStop = true;
  }
  Wake.notify_all();
  if (Thread.joinable() && Thread.get_id() != std::this_thread::get_id()) Thread.join();
}

bool CWatchdogTick::SleepUntil(std::chrono::steady_clock::time_point deadline) {
  std::unique_lock<std::mutex> g(Lock);
  return !Wake.wait_until(g, deadline, [this] { return bStop; });
}

// Like every thread but the acquisition's, the tick keeps off CPU 1 on the board that pins.
void CWatchdogTick::ThreadBody() {
  if (Server.bPcm9361Board) {
    std::printf("Setting Watchdog thread [PID: %ld] CPU affinity to CPU %d\n", ::syscall(SYS_gettid), 0);
    cpu_set_t set;
    CPU_ZERO(&set);
    CPU_SET(0, &set);
    if (const int err = pthread_setaffinity_np(pthread_self(), sizeof set, &set); err != 0) {
      errno = err;
      perror("pthread_setaffinity_np() failed.");
    }
  }
  // Fixed 250 ms steps: a slow tick (the reset's pause) does not shift the ones after it
  // into a burst, since the next deadline is taken from the clock when it falls behind.
  auto next = std::chrono::steady_clock::now() + kPeriod;
  while (SleepUntil(next)) {
    Tick();
    next += kPeriod;
    const auto now = std::chrono::steady_clock::now();
    if (next < now) next = now + kPeriod;
  }
}
