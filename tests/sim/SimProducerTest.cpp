// The producer modes: paced real time, free running, and how both stop.
#include <gtest/gtest.h>

#include <thread>

#include "SimTestDriver.h"

using namespace simtest;
using Clock = std::chrono::steady_clock;

namespace {

CSimOptions Mode(EProducerMode mode, double timeScale = 1.0) {
  CSimOptions o;
  o.Mode = mode;
  o.TimeScale = timeScale;
  return o;
}

// Takes records for `span` and returns how many arrived.
int TakeFor(CTestDriver& d, Clock::duration span) {
  int n = 0;
  const auto end = Clock::now() + span;
  uint16_t index;
  while (Clock::now() < end) {
    if (d.Dev().Ioctl(0x8004350D, reinterpret_cast<uintptr_t>(&index)) == 0) ++n;
  }
  return n;
}

}  // namespace

TEST(SimProducer, RealTimeRunsAtTheSweepRate) {
  CTestDriver d(Mode(EProducerMode::RealTime, 4.0));  // 4000 sweeps per wall second
  d.Start();
  d.LaserOn();
  TakeFor(d, std::chrono::milliseconds(50));
  const uint32_t s0 = d.Card().SweepCounter();
  const auto t0 = Clock::now();
  const int n = TakeFor(d, std::chrono::milliseconds(500));
  const double seconds = std::chrono::duration<double>(Clock::now() - t0).count();
  const double sweeps = d.Card().SweepCounter() - s0;
  // Never faster than the rate; slower only as far as a starved machine holds it back.
  EXPECT_LE(sweeps / seconds, 4600.0);
  EXPECT_GE(sweeps / seconds, 1000.0);
  EXPECT_LE(n, sweeps + 1);
  EXPECT_EQ(d.Card().Overruns(), 0u);
  EXPECT_EQ(d.Card().Step(1), -1) << "Step belongs to step mode";
}

TEST(SimProducer, FreeRunningKeepsUpWithTheReader) {
  CTestDriver d(Mode(EProducerMode::FreeRunning));
  d.Start();
  d.LaserOn();
  const int n = TakeFor(d, std::chrono::milliseconds(300));
  EXPECT_GT(n, 300) << "not paced: more than real time at 1000 records/s would give";
  EXPECT_EQ(d.Card().Overruns(), 0u) << "never laps a reader that keeps reading";
  EXPECT_LE(d.Card().Ring().Undelivered(), 8u);

  // With DMA off no record is written and the producer does not spin.
  d.Command(cmd::kDma, 0);
  std::this_thread::sleep_for(std::chrono::milliseconds(20));
  uint16_t index;
  while (d.Get16(0x8004350E)) d.Dev().Ioctl(0x8004350D, reinterpret_cast<uintptr_t>(&index));
  // Bounded by the time that really passed (a loaded machine can oversleep by far).
  const uint32_t s0 = d.Card().SweepCounter();
  const auto t0 = Clock::now();
  std::this_thread::sleep_for(std::chrono::milliseconds(200));
  const uint32_t swept = d.Card().SweepCounter() - s0;
  const double ms = std::chrono::duration<double, std::milli>(Clock::now() - t0).count();
  EXPECT_LT(swept, static_cast<uint32_t>(2 * ms + 100)) << "paced at about 1000 sweeps per second";
}

TEST(SimProducer, DestroyingTheCardStopsPromptly) {
  const auto t0 = Clock::now();
  {
    CTestDriver d(Mode(EProducerMode::FreeRunning));
    d.Start();
    d.LaserOn();
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    d.File.reset();  // the server closes the device; the card outlives nothing else
  }
  {
    CTestDriver d(Mode(EProducerMode::RealTime, 0.0001));  // one sweep in ten seconds
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  EXPECT_LT(Clock::now() - t0, std::chrono::seconds(5)) << "the producer's wait is woken, not slept out";
}
