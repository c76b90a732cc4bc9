// The two control loops, seen from the card: which bias and scan-amplitude words it received,
// where its grating went, and whether it lit the ready LED; then the loops on a running
// instrument, re-acquiring ready after the sweep's gain changes and keeping the grating on
// target while the laser drifts with the instrument's temperature. The quiet scene reports
// peaks without noise, so a test can place the grating's target exactly a chosen number of
// counts away from where the card reports it.
#include <algorithm>
#include <cmath>

#include "spectrum/SpectrumBench.h"

namespace {

using namespace bench;

const char* kScene = "1 1545.0 10 9000\n";
const char* kQuietScene = "1 1545.0 10 9000\npeak_noise 0\n";

// The target fraction whose truncated count is exactly `counts`.
std::string Fraction(int counts) {
  char text[64];
  std::snprintf(text, sizeof text, "%.12f", (counts + 0.5) / 65536.0);
  return text;
}

// A bench with the laser at its ready point and both loops on; the tests call the loops
// themselves, record by record.
class ControlLoops : public ::testing::Test {
 protected:
  ControlLoops() : Bench(Scene(kQuietScene)) { Bench.Record(); }

  // Puts the grating's target `offset` counts left of where the current record has it.
  void TargetLeftOfGrating(int offset) {
    const int p = Bench.Grating();
    ASSERT_GT(p, 0);
    Bench.Command("#SET_GRATING_TARGET_LOCATION " + Fraction(p - offset));
    ASSERT_EQ(Bench.S().GratingTargetLocationCounts, p - offset);
  }
  // The width of the comb stretch the scan loop measures on the current record.
  int StretchWidth() {
    const CVr480Server& s = Bench.S();
    const int r = static_cast<int>(s.ScaleRefPeakIndex);
    return static_cast<int>(s.pPeaks->FfpiPeaks[r + s.AutoScanRightPeaks] - s.pPeaks->FfpiPeaks[r - s.AutoScanLeftPeaks]);
  }
  // Sets the scan loop's target `offset` counts wider than the stretch measured now.
  void TargetWiderThanStretch(int offset) {
    const int w = StretchWidth();
    Bench.Command("#SET_AUTO_SCAN_SPAN " + Fraction(w + offset));
    ASSERT_EQ(Bench.S().AutoScanTargetCounts, w + offset);
  }
  uint16_t Bias() { return Bench.S().Driver.GetBias(); }
  uint16_t ScanAmp() { return Bench.S().Driver.GetScanAmp(); }

  CBench Bench;
};

using Words = std::vector<uint32_t>;

// ---- Bias loop ------------------------------------------------------------------------------

TEST_F(ControlLoops, BiasDeadBandIsStrict) {
  // Exactly the dead band away, right of the target: the loop acts (gain 0.1: 2 LSB down).
  TargetLeftOfGrating(20);
  const uint16_t b = Bias();
  Bench.MarkLog();
  EXPECT_EQ(Bench.AutoBias(), 20);
  EXPECT_EQ(Bench.Sent(kBiasCode), Words{uint32_t(b - 2)});

  // One count inside it: nothing is sent.
  Bench.Record();
  TargetLeftOfGrating(19);
  Bench.MarkLog();
  EXPECT_EQ(Bench.AutoBias(), 0);
  EXPECT_TRUE(Bench.Sent(kBiasCode).empty());

  // Exactly the dead band on the other side: 2 LSB up.
  TargetLeftOfGrating(-20);
  Bench.MarkLog();
  EXPECT_EQ(Bench.AutoBias(), -20);
  EXPECT_EQ(Bench.Sent(kBiasCode), Words{uint32_t(Bias())});
  EXPECT_EQ(Bias(), b - 2 + 2);
}

TEST_F(ControlLoops, BiasRailsRestartFromTheFallBackBias) {
  const uint16_t fallBack = Bench.S().Bias;
  ASSERT_EQ(fallBack, kReadyBias);
  for (int rail : {5000, 60000}) {
    Bench.Command("#SET_BIAS " + std::to_string(rail));
    Bench.Record();
    Bench.Record();
    Bench.MarkLog();
    EXPECT_NE(Bench.AutoBias(), 0) << rail;
    EXPECT_EQ(Bench.Sent(kBiasCode), Words{fallBack}) << rail;
    // Back at the fall-back bias the grating is near its target again.
    Bench.Record();
    EXPECT_LT(std::abs(Bench.GratingError()), 500) << rail;
  }
  // One LSB inside the lower rail the loop steps as usual, towards the grating.
  Bench.Command("#SET_BIAS 5001");
  Bench.Record();
  Bench.Record();
  ASSERT_GT(Bench.Grating(), 0) << "the grating is still in the sweep at 5001";
  Bench.MarkLog();
  Bench.AutoBias();
  const Words sent = Bench.Sent(kBiasCode);
  ASSERT_EQ(sent.size(), 1u);
  EXPECT_GT(sent[0], 5001u);
  EXPECT_NE(sent[0], fallBack);
}

TEST_F(ControlLoops, WithoutGratingTheBiasWalksDownAndWraps) {
  sim::CSimFaults faults;
  faults.bNoGrating = true;
  Bench.Card().SetFaults(faults);
  const uint16_t b = Bias();
  Bench.MarkLog();
  for (int i = 0; i < 3; ++i) {
    Bench.Record();
    ASSERT_EQ(Bench.S().pPeaks->status.NumPeaks[0], 0);
    Bench.AutoBias();
  }
  EXPECT_EQ(Bench.Sent(kBiasCode), (Words{uint32_t(b - 1000), uint32_t(b - 2000), uint32_t(b - 3000)}));

  // A step larger than the bias wraps through zero to the top of the 16-bit range, which is
  // a rail: the next call restarts from the fall-back bias.
  Bench.Command("#SET_MAX_BIAS_STEP 10000");
  Bench.Command("#SET_BIAS 8000");
  Bench.MarkLog();
  Bench.Record();
  Bench.AutoBias();
  Bench.Record();
  Bench.AutoBias();
  EXPECT_EQ(Bench.Sent(kBiasCode), (Words{63536, uint32_t(kReadyBias)}));
}

TEST_F(ControlLoops, ScanErrorEqualToTheDeadBandIsReady) {
  TargetWiderThanStretch(20);
  Bench.MarkLog();
  EXPECT_EQ(Bench.AutoScanAmp(), 20);
  EXPECT_TRUE(Bench.Sent(kScanAmpCode).empty());
  EXPECT_TRUE(Bench.S().bReady);
  Bench.Record();
  EXPECT_TRUE(Bench.Card().ReadyLed());
  EXPECT_EQ(Bench.Sent(kReadyLedCode), Words{1});

  // Just outside the dead band the amplitude moves, but ready stays (up to ten dead bands).
  TargetWiderThanStretch(21);
  const uint16_t a = ScanAmp();
  Bench.MarkLog();
  EXPECT_EQ(Bench.AutoScanAmp(), 21);
  EXPECT_EQ(Bench.Sent(kScanAmpCode), Words{uint32_t(a - 2)});
  EXPECT_TRUE(Bench.S().bReady);
  EXPECT_TRUE(Bench.Sent(kReadyLedCode).empty()) << "a lit LED is not lit again";

  // Beyond ten dead bands the instrument is no longer ready.
  Bench.Record();
  TargetWiderThanStretch(201);
  Bench.MarkLog();
  EXPECT_EQ(Bench.AutoScanAmp(), 201);
  EXPECT_EQ(Bench.Sent(kScanAmpCode), Words{uint32_t(ScanAmp())});
  EXPECT_FALSE(Bench.S().bReady);
  Bench.Record();
  EXPECT_FALSE(Bench.Card().ReadyLed());
}

TEST_F(ControlLoops, ScanStepIsLimitedToTheMaximumStep) {
  // A stretch far narrower than wanted: err x gain is far above the default limit of 5000.
  Bench.Command("#SET_AUTO_SCAN_SPAN 0.8");
  Bench.Command("#SET_AUTO_SCAN_FEEDBACK_GAIN 1.0");
  const uint16_t a = ScanAmp();
  Bench.MarkLog();
  EXPECT_GT(Bench.AutoScanAmp(), 5000);
  EXPECT_EQ(Bench.Sent(kScanAmpCode), Words{uint32_t(a - 5000)});

  // And far wider than wanted, with a smaller limit: the sweep widens by the limit.
  Bench.Command("#SET_AUTO_SCAN_MAX_STEP 700");
  Bench.Command("#SET_AUTO_SCAN_SPAN 0.4");
  Bench.Record();
  const uint16_t a2 = ScanAmp();
  Bench.MarkLog();
  EXPECT_LT(Bench.AutoScanAmp(), -700);
  EXPECT_EQ(Bench.Sent(kScanAmpCode), Words{uint32_t(a2 + 700)});
}

TEST_F(ControlLoops, UnmeasurableCombWidensTheSweepBy100) {
  // Each case makes the stretch unmeasurable in another way; the loop answers with its code,
  // widens the sweep by 100 and is not ready.
  const int n = Bench.S().pPeaks->status.NumPeaks[1];
  const int r = static_cast<int>(Bench.S().ScaleRefPeakIndex);
  ASSERT_GT(n, 100);
  ASSERT_GT(r, 44);
  struct Case {
    int Left, Right, Result;
  };
  const Case cases[] = {
      {0, n + 1, -2},         // fewer teeth in the record than the stretch needs
      {r + 1, 56, -1},        // too few teeth left of the reference tooth
      {44, n - r + 1, -1},    // too few teeth right of it
      {r, n - r, -1},         // a stretch ending just past the last tooth
  };
  for (const Case& c : cases) {
    Bench.Command("#SET_AUTO_SCAN_LEFT_PEAKS " + std::to_string(c.Left));
    Bench.Command("#SET_AUTO_SCAN_RIGHT_PEAKS " + std::to_string(c.Right));
    Bench.Record();
    ASSERT_EQ(Bench.S().pPeaks->status.NumPeaks[1], n);
    ASSERT_EQ(static_cast<int>(Bench.S().ScaleRefPeakIndex), r);
    const uint16_t a = ScanAmp();
    Bench.MarkLog();
    EXPECT_EQ(Bench.AutoScanAmp(), c.Result) << c.Left << " " << c.Right;
    EXPECT_EQ(Bench.Sent(kScanAmpCode), Words{uint32_t(a + 100)}) << c.Left << " " << c.Right;
    EXPECT_FALSE(Bench.S().bReady);
  }

  // No comb placement at all (the grating is missing): -3.
  sim::CSimFaults faults;
  faults.bNoGrating = true;
  Bench.Card().SetFaults(faults);
  Bench.Record();
  const uint16_t a = ScanAmp();
  Bench.MarkLog();
  EXPECT_EQ(Bench.AutoScanAmp(), -3);
  EXPECT_EQ(Bench.Sent(kScanAmpCode), Words{uint32_t(a + 100)});
}

TEST_F(ControlLoops, After199FailedCallsThe200thShiftsTheBias) {
  // The loop cannot reach its target: no step is allowed.
  Bench.Command("#SET_AUTO_SCAN_MAX_STEP 0");
  Bench.Command("#SET_AUTO_SCAN_SPAN 0.8");
  const uint16_t fallBack = Bench.S().Bias;
  Bench.MarkLog();
  for (int i = 1; i <= 199; ++i) {
    ASSERT_GT(Bench.AutoScanAmp(), 0) << "call " << i;
    Bench.Record();
  }
  EXPECT_TRUE(Bench.Sent(kBiasCode).empty());
  EXPECT_EQ(Bench.AutoScanAmp(), -4);
  EXPECT_EQ(Bench.Sent(kBiasCode), Words{uint32_t(fallBack + 20000)});
  EXPECT_EQ(Bench.S().Bias, fallBack + 20000);

  // The count starts again after the escape ...
  Bench.Command("#SET_BIAS " + std::to_string(kReadyBias));
  for (int i = 0; i < 150; ++i) {
    Bench.Record();
    ASSERT_NE(Bench.AutoScanAmp(), -4);
  }
  // ... and after a satisfied call.
  Bench.Command("#SET_AUTO_SCAN_MAX_STEP 5000");
  Bench.Command("#SET_AUTO_SCAN_SPAN 0.7");
  for (int i = 0; i < 100 && !Bench.S().bReady; ++i) {
    Bench.Record();
    Bench.AutoScanAmp();
  }
  ASSERT_TRUE(Bench.S().bReady);
  Bench.Command("#SET_AUTO_SCAN_MAX_STEP 0");
  Bench.Command("#SET_AUTO_SCAN_SPAN 0.8");
  for (int i = 1; i <= 199; ++i) {
    Bench.Record();
    ASSERT_GT(Bench.AutoScanAmp(), 0) << "call " << i << " after the satisfied one";
  }

  // The 200th shifts the bias again; the shift wraps like the 16-bit setting.
  Bench.S().Bias = 50000;
  Bench.MarkLog();
  Bench.Record();
  EXPECT_EQ(Bench.AutoScanAmp(), -4);
  EXPECT_EQ(Bench.Sent(kBiasCode), Words{4464});
}

TEST_F(ControlLoops, ScanLoopOffClearsReady) {
  for (int i = 0; i < 100 && !Bench.S().bReady; ++i) {
    Bench.AutoScanAmp();
    Bench.Record();
  }
  ASSERT_TRUE(Bench.Card().ReadyLed());
  Bench.Command("#SET_AUTO_SCAN_AMP 0");
  Bench.MarkLog();
  EXPECT_EQ(Bench.AutoScanAmp(), 0);
  EXPECT_FALSE(Bench.S().bReady);
  EXPECT_TRUE(Bench.Sent(kScanAmpCode).empty());
  Bench.Record();
  EXPECT_FALSE(Bench.Card().ReadyLed());
  EXPECT_EQ(Bench.Command("#READY?"), "0");
}

// ---- On a running instrument ------------------------------------------------------------------

constexpr int kRecordsPerSecond = 1000;

// Runs records until the server reports ready (or `seconds` of card time pass); the card
// seconds it took, or -1.
double SecondsUntilReady(CBench& bench, double seconds, bool ready = true) {
  for (int i = 0; i < seconds * kRecordsPerSecond; ++i) {
    bench.Pass();
    if (bench.S().bReady == ready) return (i + 1) / double(kRecordsPerSecond);
  }
  return -1;
}

// Runs until the bias loop rests inside its dead band on a loop record.
bool SettleBias(CBench& bench) {
  for (int i = 0; i < 10 * kRecordsPerSecond; ++i) {
    bench.Pass();
    if (bench.S().pPeaks->status.RecordCounter % 100 == 0 && std::abs(bench.GratingError()) < bench.S().MaxBiasError)
      return true;
  }
  return false;
}

TEST(ControlLoopsTracking, ScanGainChangeDropsReadyAndRegainsItWithinFiveSeconds) {
  CBench bench(Scene(kScene));
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
  CBench bench(Scene(kScene));
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
