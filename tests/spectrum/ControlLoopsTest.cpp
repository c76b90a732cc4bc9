// The two control loops seen from the card (bias and scan words, grating, ready LED), then on a running
// instrument. Noiseless peaks let a target be placed exactly a chosen number of counts away.
#include <algorithm>
#include <cmath>

#include "spectrum/SpectrumBench.h"

namespace {

using namespace bench;
using Words = std::vector<uint32_t>;

const char* kScene = "1 1545.0 10 9000\n";

// The target fraction whose truncated count is exactly `counts`.
std::string Fraction(int counts) {
  char text[64];
  std::snprintf(text, sizeof text, "%.12f", (counts + 0.5) / 65536.0);
  return text;
}

// One call of a loop: what it returned and the words of its code the card received.
using Call = std::pair<int, Words>;

// The laser at its ready point, both loops on; the tests call the loops record by record.
class ControlLoops : public ::testing::Test {
 protected:
  ControlLoops() : Bench(Scene("1 1545.0 10 9000\npeak_noise 0\n")) { Bench.Record(); }

  Call BiasCall() {
    Bench.MarkLog();
    const int r = Bench.AutoBias();
    return {r, Bench.Sent(kBiasCode)};
  }
  Call ScanCall() {
    Bench.MarkLog();
    const int r = Bench.AutoScanAmp();
    return {r, Bench.Sent(kScanAmpCode)};
  }
  // Puts the grating's target `offset` counts left of where the current record has it.
  void TargetLeftOfGrating(int offset) {
    const int p = Bench.Grating();
    ASSERT_GT(p, 0);
    Bench.Command("#SET_GRATING_TARGET_LOCATION " + Fraction(p - offset));
    ASSERT_EQ(Bench.S().GratingTargetLocationCounts, p - offset);
  }
  // Sets the scan loop's target `offset` counts wider than the comb stretch measured now.
  void TargetWiderThanStretch(int offset) {
    const CVr480Server& s = Bench.S();
    const int r = static_cast<int>(s.ScaleRefPeakIndex);
    const int w = static_cast<int>(s.pPeaks->FfpiPeaks[r + s.AutoScanRightPeaks] - s.pPeaks->FfpiPeaks[r - s.AutoScanLeftPeaks]);
    Bench.Command("#SET_AUTO_SCAN_SPAN " + Fraction(w + offset));
    ASSERT_EQ(Bench.S().AutoScanTargetCounts, w + offset);
  }
  uint32_t Bias() { return Bench.S().Driver.GetBias(); }
  uint32_t ScanAmp() { return Bench.S().Driver.GetScanAmp(); }
  void NoGrating() { Bench.Card().SetFaults(sim::CSimFaults{.bNoGrating = true}); }

  CBench Bench;
};

// Guards the strict dead band of the bias loop on both sides and its gain (0.1: 2 LSB for 20).
TEST_F(ControlLoops, BiasDeadBandIsStrict) {
  TargetLeftOfGrating(20);
  const uint32_t b = Bias();
  EXPECT_EQ(BiasCall(), (Call{20, {b - 2}}));
  Bench.Record();
  TargetLeftOfGrating(19);
  EXPECT_EQ(BiasCall(), (Call{0, {}}));
  TargetLeftOfGrating(-20);
  EXPECT_EQ(BiasCall(), (Call{-20, {b}}));
}

// Guards the rails (restart from the fall-back bias) and the first bias inside them.
TEST_F(ControlLoops, BiasRailsRestartFromTheFallBackBias) {
  const uint32_t fallBack = Bench.S().Bias;
  ASSERT_EQ(fallBack, uint32_t(kReadyBias));
  for (int rail : {5000, 60000}) {
    Bench.Command("#SET_BIAS " + std::to_string(rail));
    Bench.Record();
    Bench.Record();
    const Call c = BiasCall();
    EXPECT_NE(c.first, 0) << rail;
    EXPECT_EQ(c.second, Words{fallBack}) << rail;
    Bench.Record();  // back at the fall-back bias the grating is near its target again
    EXPECT_LT(std::abs(Bench.GratingError()), 500) << rail;
  }
  Bench.Command("#SET_BIAS 5001");  // one LSB inside the lower rail: an ordinary step
  Bench.Record();
  Bench.Record();
  ASSERT_GT(Bench.Grating(), 0) << "the grating is still in the sweep at 5001";
  const Words sent = BiasCall().second;
  ASSERT_EQ(sent.size(), 1u);
  EXPECT_GT(sent[0], 5001u);
  EXPECT_NE(sent[0], fallBack);
}

// Guards the walk down without a grating and its 16-bit wrap into the upper rail.
TEST_F(ControlLoops, WithoutGratingTheBiasWalksDownAndWraps) {
  NoGrating();
  const uint32_t b = Bias();
  Bench.MarkLog();
  for (int i = 0; i < 3; ++i) {
    Bench.Record();
    ASSERT_EQ(Bench.S().pPeaks->status.NumPeaks[0], 0);
    Bench.AutoBias();
  }
  EXPECT_EQ(Bench.Sent(kBiasCode), (Words{b - 1000, b - 2000, b - 3000}));
  Bench.Command("#SET_MAX_BIAS_STEP 10000");
  Bench.Command("#SET_BIAS 8000");
  Bench.MarkLog();
  for (int i = 0; i < 2; ++i) { Bench.Record(); Bench.AutoBias(); }
  EXPECT_EQ(Bench.Sent(kBiasCode), (Words{63536, uint32_t(kReadyBias)}));
}

// Guards the scan loop's dead band, ready within ten dead bands, the LED following ready, the step limit.
TEST_F(ControlLoops, ScanErrorEqualToTheDeadBandIsReady) {
  TargetWiderThanStretch(20);
  EXPECT_EQ(ScanCall(), (Call{20, {}}));
  EXPECT_TRUE(Bench.S().bReady);
  Bench.Record();
  EXPECT_TRUE(Bench.Card().ReadyLed());
  EXPECT_EQ(Bench.Sent(kReadyLedCode), Words{1});

  TargetWiderThanStretch(21);
  const uint32_t a = ScanAmp();
  EXPECT_EQ(ScanCall(), (Call{21, {a - 2}}));
  EXPECT_TRUE(Bench.S().bReady);
  EXPECT_TRUE(Bench.Sent(kReadyLedCode).empty()) << "a lit LED is not lit again";

  Bench.Record();
  TargetWiderThanStretch(201);
  Call c = ScanCall();
  EXPECT_EQ(c, (Call{201, {ScanAmp()}}));
  EXPECT_FALSE(Bench.S().bReady);
  Bench.Record();
  EXPECT_FALSE(Bench.Card().ReadyLed());

  Bench.Command("#SET_AUTO_SCAN_SPAN 0.8");  // far too narrow: the amplitude moves by the maximum step only
  Bench.Command("#SET_AUTO_SCAN_FEEDBACK_GAIN 1.0");
  const uint32_t before = ScanAmp();
  c = ScanCall();
  EXPECT_GT(c.first, 5000);
  EXPECT_EQ(c.second, Words{before - 5000});
}

// Guards each way the comb stretch is unmeasurable: its code, a sweep 100 wider, not ready.
TEST_F(ControlLoops, UnmeasurableCombWidensTheSweepBy100) {
  const int n = Bench.S().pPeaks->status.NumPeaks[1];
  const int r = static_cast<int>(Bench.S().ScaleRefPeakIndex);
  ASSERT_GT(n, 100);
  ASSERT_GT(r, 44);
  const int cases[][3] = {  // left and right teeth, result
      {0, n + 1, -2},       // fewer teeth in the record than the stretch needs
      {r + 1, 56, -1},      // too few teeth left of the reference tooth
      {44, n - r + 1, -1},  // too few right of it
      {r, n - r, -1},       // a stretch ending just past the last tooth
  };
  for (const auto& [left, right, result] : cases) {
    Bench.Command("#SET_AUTO_SCAN_LEFT_PEAKS " + std::to_string(left));
    Bench.Command("#SET_AUTO_SCAN_RIGHT_PEAKS " + std::to_string(right));
    Bench.Record();
    ASSERT_EQ(Bench.S().pPeaks->status.NumPeaks[1], n);
    ASSERT_EQ(static_cast<int>(Bench.S().ScaleRefPeakIndex), r);
    const uint32_t a = ScanAmp();
    EXPECT_EQ(ScanCall(), (Call{result, {a + 100}})) << left << " " << right;
    EXPECT_FALSE(Bench.S().bReady);
  }
  NoGrating();  // no comb placement at all: -3
  Bench.Record();
  const uint32_t a = ScanAmp();
  EXPECT_EQ(ScanCall(), (Call{-3, {a + 100}}));
}

// Guards the escape after 199 failed calls (bias shifted, wrapping at 16 bits) and its count reset.
TEST_F(ControlLoops, After199FailedCallsThe200thShiftsTheBias) {
  auto stuck = [&] { Bench.Command("#SET_AUTO_SCAN_MAX_STEP 0"); Bench.Command("#SET_AUTO_SCAN_SPAN 0.8"); };
  stuck();
  const uint32_t fallBack = Bench.S().Bias;
  Bench.MarkLog();
  for (int i = 1; i <= 199; ++i) {
    ASSERT_GT(Bench.AutoScanAmp(), 0) << "call " << i;
    Bench.Record();
  }
  EXPECT_TRUE(Bench.Sent(kBiasCode).empty());
  EXPECT_EQ(Bench.AutoScanAmp(), -4);
  EXPECT_EQ(Bench.Sent(kBiasCode), Words{fallBack + 20000});
  EXPECT_EQ(Bench.S().Bias, fallBack + 20000);

  Bench.Command("#SET_BIAS " + std::to_string(kReadyBias));  // the count starts again after a satisfied call
  Bench.Command("#SET_AUTO_SCAN_MAX_STEP 5000");
  Bench.Command("#SET_AUTO_SCAN_SPAN 0.7");
  for (int i = 0; i < 100 && !Bench.S().bReady; ++i) {
    Bench.Record();
    Bench.AutoScanAmp();
  }
  ASSERT_TRUE(Bench.S().bReady);
  stuck();
  for (int i = 1; i <= 199; ++i) {
    Bench.Record();
    ASSERT_GT(Bench.AutoScanAmp(), 0) << "call " << i << " after the satisfied one";
  }
  Bench.S().Bias = 50000;
  Bench.MarkLog();
  Bench.Record();
  EXPECT_EQ(Bench.AutoScanAmp(), -4);
  EXPECT_EQ(Bench.Sent(kBiasCode), Words{4464});
}

// ---- On a running instrument (card time: 1000 records a second) ------------------------------

// Runs records until bReady equals `ready` or `seconds` of card time pass; true if it did.
bool RunUntilReady(CBench& bench, double seconds, bool ready = true) {
  for (int i = 0; i < seconds * 1000; ++i) {
    bench.Pass();
    if (bench.S().bReady == ready) return true;
  }
  return false;
}

// Guards the scan loop re-acquiring ready within 5 s after the sweep's gain grows by 5 %, then the
// bias loop tracking a 20 degC drift over 80 s (about 900 counts) within 25 counts.
TEST(ControlLoopsTracking, GainChangeAndTemperatureDriftAreFollowed) {
  CBench bench(Scene(kScene));
  ASSERT_TRUE(RunUntilReady(bench, 10)) << "the instrument never became ready";
  bench.Pass();  // the card lights the LED at the next sweep
  EXPECT_TRUE(bench.Card().ReadyLed());
  for (int i = 0; i < 1000; ++i) bench.Pass();
  ASSERT_TRUE(bench.S().bReady);
  const uint16_t readyAmp = bench.S().Driver.GetScanAmp();
  // The comb stretch shrinks by 5 % (about 2300 counts, far outside ten dead bands).
  bench.Card().SetScanGain(sim::COpticsParams{}.ScanGainThzPerLsb * 1.05);
  ASSERT_TRUE(RunUntilReady(bench, 0.5, false)) << "ready was not dropped";
  bench.Pass();
  EXPECT_FALSE(bench.Card().ReadyLed());
  ASSERT_TRUE(RunUntilReady(bench, 5.0)) << "ready did not come back within 5 s";
  bench.Pass();
  EXPECT_TRUE(bench.Card().ReadyLed());
  EXPECT_NEAR(double(bench.S().Driver.GetScanAmp()) / readyAmp, 1 / 1.05, 0.005);

  bool settled = false;  // the bias loop rests inside its dead band on a loop record
  for (int i = 0; i < 10000 && !settled; ++i) {
    bench.Pass();
    settled = bench.S().pPeaks->status.RecordCounter % 100 == 0 && std::abs(bench.GratingError()) < bench.S().MaxBiasError;
  }
  ASSERT_TRUE(settled);
  const int startBias = bench.S().Driver.GetBias();
  const double startTemp = bench.Card().InternalTemperature();
  bench.Card().SetInternalTemperature(startTemp + 20.0, 0.25);
  int worst = 0;
  for (int i = 0; i < 100000; ++i) {
    bench.Pass();
    worst = std::max(worst, std::abs(bench.GratingError()));
  }
  EXPECT_NEAR(bench.Card().InternalTemperature(), startTemp + 20.0, 0.01);
  EXPECT_LE(worst, 25);
  EXPECT_GT(std::abs(bench.S().Driver.GetBias() - startBias), 500);  // the bias moved, not the grating
  EXPECT_TRUE(bench.S().bReady);
}

}  // namespace
