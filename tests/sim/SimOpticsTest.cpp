// The instrument behind the simulated card: counters, sweep, grating and thermistor, detection
// rules, triggered windows, and the full-spectrum samples. (Time of flight shows in the distance
// measurement's results, the sensors' wavelengths in the end-to-end records, the multiplexer
// layers in the acquisition suite.)
#include <gtest/gtest.h>

#include <cmath>
#include <vector>

#include "SimTestDriver.h"

using namespace simtest;

namespace {

// A started card with the laser at the working point, its records drained.
struct CReadyCard : CTestDriver {
  CReadyCard() {
    Start();
    LaserOn();
    Advance(8);
  }
};

}  // namespace

// Record counter, sweep counter (dropped sweeps count too) and phase over more than one lap.
TEST(SimInstrument, CountersPhaseAndDivider) {
  CReadyCard d;
  d.Command(cmd::kDataRateDivider, 3);
  auto prev = d.StepNext().status;
  for (int i = 0; i < 200; ++i) {
    const auto r = d.StepNext().status;
    ASSERT_EQ(std::vector<uint32_t>({r.RecordCounter, r.SweepCounter, r.CurrentLayer, r.DataRateDivider}),
              std::vector<uint32_t>({static_cast<uint16_t>(prev.RecordCounter + 1), prev.SweepCounter + 3,
                                     (prev.CurrentLayer + 1) % 128u, 3}));
    prev = r;
  }
  d.Command(cmd::kDataRateDivider, 0);  // 0 counts as 1
  EXPECT_EQ(d.Advance(3).status.DataRateDivider, 1);
}

TEST(SimInstrument, BiasAndScanAmplitudeMoveThePeaks) {
  CReadyCard d;
  auto& r0 = d.StepNext();
  ASSERT_EQ(r0.status.NumPeaks[0], 1);
  const double fbg0 = r0.FbgPeaks[0];
  EXPECT_EQ(r0.status.FbgPosition & 0xFFFFFF, r0.FbgPeaks[0]);
  EXPECT_NEAR(fbg0, 32768, 600) << "the working point puts the grating near mid-sweep";
  EXPECT_GT(r0.status.NumPeaks[1], 120);
  d.Command(cmd::kBias, sim::factory::kBias + 500);
  auto& r1 = d.StepNext();
  EXPECT_NEAR(r1.FbgPeaks[0] - fbg0, 505, 6) << "about one count per bias LSB";
  d.Command(cmd::kScanAmp, 45000);  // wider span: the comb teeth crowd together
  auto& r2 = d.StepNext();
  EXPECT_NEAR(static_cast<double>(r2.FfpiPeaks[60] - r2.FfpiPeaks[20]) / (r1.FfpiPeaks[60] - r1.FfpiPeaks[20]), sim::factory::kScanAmp / 45000.0, 0.01);
  d.Command(cmd::kScanAmp, 0);  // no sweep, no peaks
  auto& r3 = d.StepNext();
  EXPECT_EQ(std::vector<uint32_t>(r3.status.NumPeaks, r3.status.NumPeaks + 6), std::vector<uint32_t>(6, 0));
  EXPECT_EQ(r3.status.FbgPosition & 0xFFFFFF, 0u);
  // The record reports the grating's thermistor reading; the server's model gives back its temperature.
  d.Card().SetGratingTemperature(31.25);
  auto& r4 = d.StepNext();
  EXPECT_NEAR(ServerThermistorDegC(r4.status.Vth), 31.25, 0.01);
  EXPECT_EQ(r4.status.InternalTemp, 35 * 128);
}

TEST(SimInstrument, DetectionRules) {
  CReadyCard d;
  // Strong, weak, and one about 60 counts after the strong one.
  d.Card().SetSensors(0, {CSimSensor{1550.0, 0.0, 9000.0}, CSimSensor{1535.0, 0.0, 2000.0}, CSimSensor{1550.1, 0.0, 9000.0}});
  d.Command(cmd::kLockout, 2 << 16 | 200);
  d.Command(cmd::kNoiseThreshEnable, 2 << 16 | 1);
  d.Command(cmd::kThresh, 0x32 << 16 | static_cast<uint16_t>(3000 * 9.765625 / 2 + 32768));
  auto& r = d.StepNext();
  ASSERT_EQ(r.status.NumPeaks[2], 1) << "weak under threshold, close inside the lockout";
  d.Command(cmd::kNoiseThreshEnable, 2 << 16 | 0);
  d.Command(cmd::kLockout, 2 << 16 | 20);
  auto& r2 = d.StepNext();
  EXPECT_EQ(r2.status.NumPeaks[2], 3);
  EXPECT_LT(r2.DutPeaks[0][0], r2.DutPeaks[0][1]) << "reported by position";
  EXPECT_LT(r2.DutPeaks[0][1], r2.DutPeaks[0][2]);
  d.Command(cmd::kGain, (0x32 << 16) | 65535);  // +40 dB lifts the weak one over any threshold
  d.Command(cmd::kNoiseThreshEnable, 2 << 16 | 1);
  EXPECT_EQ(d.StepNext().status.Gain[0], 65535);
  d.Command(cmd::kMaxDutPeaks, 2);
  EXPECT_EQ(d.StepNext().status.NumPeaks[2], 2);
}

// A software start opens one window of consecutive sweeps; once done, a start needs a new enable.
TEST(SimModes, SoftwareTriggerWindows) {
  CReadyCard d;
  for (auto [code, arg] : {std::pair{cmd::kTrigSource, 0}, {cmd::kTrigStopType, 0}, {cmd::kTrigAcq, 5}, {cmd::kTrigEnable, 1}})
    d.Command(code, arg);
  d.Advance(3);
  EXPECT_EQ(d.Card().TriggerState(), ETriggerState::Armed);
  auto& armed = d.StepNext();
  EXPECT_TRUE(armed.TriggeredAcquisition() && !armed.InTriggerWindow());
  d.Command(cmd::kSwStart, 0);
  auto& opened = d.StepNext();
  EXPECT_TRUE(opened.InTriggerWindow());
  const uint32_t first = opened.status.SweepCounter;
  for (uint32_t i = 1; i < 5; ++i) {
    auto& r = d.StepNext();
    EXPECT_TRUE(r.InTriggerWindow() && r.status.SweepCounter == first + i) << i;
  }
  auto& after = d.StepNext();
  EXPECT_TRUE(!after.InTriggerWindow() && after.TriggeredAcquisition());
  EXPECT_EQ(d.Card().TriggerState(), ETriggerState::Done);
  d.Command(cmd::kSwStart, 0);
  EXPECT_FALSE(d.StepNext().InTriggerWindow());
}

// The alignment pattern numbers the 32768 points of a spectrum in order, sample i of phase p
// at point 128 i + p. (Where the lines lie in the samples shows in the full spectrum's offset
// calibration and calibrated spectra.)
TEST(SimSamples, AlignmentPatternNumbersThePointsInOrder) {
  CReadyCard d;
  d.Command(cmd::kAlign, 1);
  d.Advance(2);
  std::vector<int> points(32768, -1);
  for (int n = 0; n < 128; ++n) {
    const auto& r = d.StepNext();
    for (int i = 0; i < 256; ++i) {
      ASSERT_EQ(r.FsSamples[i] >> 16, 0xA5A5u) << "marker in the high half of every word";
      points[128 * i + r.status.CurrentLayer] = static_cast<int>(r.FsSamples[i] & 0xFFFF);
    }
  }
  for (int k = 0; k < 32768; ++k) ASSERT_EQ(points[k], k);
}
