// Paces the simulated card's sweeps.
//
//  - RealTime: a thread runs sweeps at the card's sweep rate (1000 or 2000 per second, halved
//    by the clock divider) times a time-scale factor, on the steady clock. If it falls behind
//    (the machine was busy) it catches up in a burst of at most a quarter second of sweeps and
//    otherwise lets the lost time go, as a real card's sweeps are never made up either.
//  - FreeRunning: a thread runs sweeps as fast as the server takes records, keeping a few
//    records ready in the ring; while the card writes no records (DMA off, not armed) it falls
//    back to the real-time pace so that it does not spin.
//  - Step: no thread; Step() runs sweeps on the caller's thread, for deterministic tests.
// Every wait is on a condition variable that Stop() interrupts.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <functional>
#include <mutex>
#include <thread>

#include "sim/SimRing.h"

namespace sim {

enum class EProducerMode { RealTime, FreeRunning, Step };

// What one sweep produced.
enum class ESweepResult {
  Dropped,  // not a record boundary (the data-rate divider skips it)
  Idle,     // a record boundary, but no record was written (DMA off, ring not armed)
  Record,   // a record was written
};

class CSimProducer {
 public:
  // `sweep` runs one sweep; `rate` gives the card's sweep rate now (sweeps per card second).
  CSimProducer(EProducerMode mode, double timeScale, size_t recordsAhead, CSimRing& ring,
               std::function<ESweepResult()> sweep, std::function<double()> rate);
  ~CSimProducer();

  void Start();  // no effect in Step mode or when running
  void Stop();   // returns once the thread has ended

  // Step mode only: runs sweeps until `periods` record boundaries have passed; returns the
  // number of records written, or -1 in the other modes.
  int Step(int periods);

  EProducerMode Mode() const { return ProducerMode; }

 private:
  void RunRealTime();
  void RunFreeRunning();
  // Waits until `deadline` or Stop(); false when stopped.
  bool SleepUntil(std::chrono::steady_clock::time_point deadline);

  const EProducerMode ProducerMode;
  const double TimeScale;      // card seconds per wall second
  const size_t RecordsAhead;   // free running: records kept ready
  CSimRing& Ring;
  std::function<ESweepResult()> Sweep;
  std::function<double()> Rate;

  std::mutex StepLock;              // one Step at a time
  std::mutex WaitLock;              // guards the sleep's condition
  std::condition_variable WaitCond;
  std::atomic<bool> bStop{false};
  std::thread Thread;
};

}  // namespace sim
