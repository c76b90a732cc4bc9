// The loops on a running instrument: the scan loop re-acquires ready after the sweep's gain
// changes, and the bias loop keeps the grating on target while the laser drifts with the
// instrument's temperature.
#include <algorithm>
#include <cmath>

#include "spectrum/ControlLoopsHarness.h"

namespace {

using namespace loops;

constexpr int kRecordsPerSecond = 1000;

// Runs records until the server reports ready (or `seconds` of card time pass); the card
// seconds it took, or -1.
double SecondsUntilReady(CLoopBench& bench, double seconds, bool ready = true) {
  for (int i = 0; i < seconds * kRecordsPerSecond; ++i) {
    bench.Pass();
    if (bench.S().bReady == ready) return (i + 1) / double(kRecordsPerSecond);
  }
  return -1;
}

// Runs until the bias loop rests inside its dead band on a loop record.
bool SettleBias(CLoopBench& bench) {
  for (int i = 0; i < 10 * kRecordsPerSecond; ++i) {
    bench.Pass();
    if (bench.S().pPeaks->status.RecordCounter % 100 == 0 && std::abs(bench.GratingError()) < bench.S().MaxBiasError)
      return true;
  }
  return false;
}

TEST(ControlLoopsTracking, ScanGainChangeDropsReadyAndRegainsItWithinFiveSeconds) {
  CLoopBench bench(kScene, ReadyLaser());
  ASSERT_GE(SecondsUntilReady(bench, 10), 0) << "the instrument never became ready";
  bench.Pass();  // the card lights the LED at the next sweep
  EXPECT_TRUE(bench.Card().ReadyLed());
  bench.RunSeconds(1);
  ASSERT_TRUE(bench.S().bReady);
  const uint16_t readyAmp = bench.S().Driver.GetScanAmp();

  // The sweep now spans 5 % more per LSB: the comb stretch shrinks by 5 % (about 2300 counts,
  // far outside ten dead bands).
  bench.Card().SetScanGain(sim::COpticsParams{}.ScanGainThzPerLsb * 1.05);
  const double lost = SecondsUntilReady(bench, 0.5, false);
  ASSERT_GE(lost, 0) << "ready was not dropped";
  bench.Pass();
  EXPECT_FALSE(bench.Card().ReadyLed());

  const double regained = SecondsUntilReady(bench, 5.0);
  ASSERT_GE(regained, 0) << "ready did not come back within 5 s";
  bench.Pass();
  EXPECT_TRUE(bench.Card().ReadyLed());
  // The loop narrowed the sweep by about the same 5 %.
  const double ratio = double(bench.S().Driver.GetScanAmp()) / readyAmp;
  EXPECT_NEAR(ratio, 1 / 1.05, 0.005);
}

// 20 degC over 80 s moves the laser's centre by 0.2 THz, about 900 counts at the grating; the
// bias loop follows it and the grating never strays more than 25 counts from its target.
TEST(ControlLoopsTracking, InternalTemperatureDriftIsTrackedWithin25Counts) {
  CLoopBench bench(kScene, ReadyLaser());
  ASSERT_GE(SecondsUntilReady(bench, 10), 0);
  ASSERT_TRUE(SettleBias(bench));
  const int startBias = bench.S().Driver.GetBias();
  const double startTemp = bench.Card().InternalTemperature();

  bench.Card().SetInternalTemperature(startTemp + 20.0, 0.25);
  int worst = 0;
  for (int i = 0; i < 100 * kRecordsPerSecond; ++i) {
    bench.Pass();
    worst = std::max(worst, std::abs(bench.GratingError()));
  }
  EXPECT_NEAR(bench.Card().InternalTemperature(), startTemp + 20.0, 0.01);
  EXPECT_LE(worst, 25);
  // The grating stayed put because the bias moved: about one LSB per count of drift.
  EXPECT_GT(std::abs(bench.S().Driver.GetBias() - startBias), 500);
  EXPECT_TRUE(bench.S().bReady);
}

}  // namespace
