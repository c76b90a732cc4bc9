#include "sim/SimProducer.h"

#include <pthread.h>

#include <algorithm>
#include <cmath>

namespace sim {

namespace {
using Clock = std::chrono::steady_clock;
constexpr double kMaxCatchUpSeconds = 0.25;

Clock::duration Seconds(double s) {
  return std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(s));
}
}  // namespace

CSimProducer::CSimProducer(EProducerMode mode, double timeScale, size_t recordsAhead, CSimRing& ring,
                           std::function<ESweepResult()> sweep, std::function<double()> rate)
    : ProducerMode(mode),
      TimeScale(timeScale > 0.0 ? timeScale : 1.0),
      RecordsAhead(std::max<size_t>(recordsAhead, 1)),
      Ring(ring),
      Sweep(std::move(sweep)),
      Rate(std::move(rate)) {}

CSimProducer::~CSimProducer() { Stop(); }

void CSimProducer::Start() {
  if (ProducerMode == EProducerMode::Step || Thread.joinable()) return;
  bStop = false;
  Thread = std::thread([this] {
    pthread_setname_np(pthread_self(), "sim card");  // for top -H, /proc and the load program
    if (ProducerMode == EProducerMode::RealTime) {
      RunRealTime();
    } else {
      RunFreeRunning();
    }
  });
}

void CSimProducer::Stop() {
  {
    std::lock_guard<std::mutex> g(WaitLock);
    bStop = true;
  }
  WaitCond.notify_all();
  Ring.WakeAll();
  if (Thread.joinable()) Thread.join();
}

int CSimProducer::Step(int periods) {
  if (ProducerMode != EProducerMode::Step) return -1;
  std::lock_guard<std::mutex> g(StepLock);
  int records = 0;
  for (int done = 0; done < periods;) {
    const ESweepResult r = Sweep();
    if (r != ESweepResult::Dropped) ++done;
    if (r == ESweepResult::Record) ++records;
  }
  return records;
}

bool CSimProducer::SleepUntil(Clock::time_point deadline) {
  std::unique_lock<std::mutex> g(WaitLock);
  WaitCond.wait_until(g, deadline, [this] { return bStop.load(); });
  return !bStop;
}

void CSimProducer::RunRealTime() {
  // Sweep n of the current stretch is due at anchor + n / rate. The stretch restarts when the
  // rate changes or the thread fell too far behind.
  double rate = Rate() * TimeScale;
  Clock::time_point anchor = Clock::now();
  uint64_t done = 0;
  while (!bStop) {
    const double elapsed = std::chrono::duration<double>(Clock::now() - anchor).count();
    uint64_t due = static_cast<uint64_t>(elapsed * rate);
    if (due > done + static_cast<uint64_t>(kMaxCatchUpSeconds * rate) + 1) {
      anchor = Clock::now();  // let the lost time go
      done = 0;
      due = 1;
    }
    while (done < due && !bStop) {
      Sweep();
      ++done;
      const double now = Rate() * TimeScale;
      if (now != rate) {
        rate = now;
        anchor = Clock::now();
        done = 0;
        break;
      }
    }
    if (!SleepUntil(anchor + Seconds(static_cast<double>(done + 1) / rate))) break;
  }
}

void CSimProducer::RunFreeRunning() {
  while (!bStop) {
    switch (Sweep()) {
      case ESweepResult::Record:
        Ring.WaitForRoom(RecordsAhead, bStop);
        break;
      case ESweepResult::Idle:
        // Nothing is being recorded: keep the card's own pace instead of spinning.
        if (!SleepUntil(Clock::now() + Seconds(1.0 / (Rate() * TimeScale)))) return;
        break;
      case ESweepResult::Dropped:
        break;
    }
  }
}

}  // namespace sim
