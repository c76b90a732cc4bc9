#include "system/ServiceNotify.h"

#include <atomic>
#include <chrono>
#include <cstdlib>

#ifdef VR480_HAVE_SYSTEMD
#include <systemd/sd-daemon.h>
#endif

namespace {

// The manager wants a notice at least every half of its watchdog period (10 s in the shipped
// unit); two a second leave ample margin and cost nothing next to the record rate.
constexpr std::chrono::milliseconds kWatchdogInterval{500};

bool Enabled() {
#ifdef VR480_HAVE_SYSTEMD
  static const bool enabled = std::getenv("NOTIFY_SOCKET") != nullptr;
  return enabled;
#else
  return false;
#endif
}

void Send(const char* notice) {
#ifdef VR480_HAVE_SYSTEMD
  sd_notify(0, notice);
#endif
}

std::atomic<bool> bReadySent{false};
std::atomic<long long> NextWatchdogNs{0};  // steady clock, when the next WATCHDOG=1 is due

}  // namespace

void NotifyServiceAcquisition(bool ready) {
  if (!Enabled()) return;
  if (ready && !bReadySent.exchange(true)) Send("READY=1");
  const long long now = std::chrono::duration_cast<std::chrono::nanoseconds>(
                            std::chrono::steady_clock::now().time_since_epoch()).count();
  long long due = NextWatchdogNs.load(std::memory_order_relaxed);
  if (now < due) return;
  const long long next = now + std::chrono::duration_cast<std::chrono::nanoseconds>(kWatchdogInterval).count();
  if (NextWatchdogNs.compare_exchange_strong(due, next, std::memory_order_relaxed)) Send("WATCHDOG=1");
}

void NotifyServiceStopping() {
  if (Enabled()) Send("STOPPING=1");
}
