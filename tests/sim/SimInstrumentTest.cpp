// The instrument behind the simulated card: counters, sweep, grating and thermistor, comb,
// sensors, detection rules, delays of settings.
#include <gtest/gtest.h>

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

double Mean(const std::vector<double>& v) {
  double s = 0;
  for (double x : v) s += x;
  return v.empty() ? 0.0 : s / v.size();
}

}  // namespace

TEST(SimInstrument, CountersPhaseAndDivider) {
  CReadyCard d;
  d.Command(cmd::kDataRateDivider, 3);
  auto* prev = &d.StepNext();
  uint16_t prevCounter = prev->status.RecordCounter;
  uint32_t prevSweep = prev->status.SweepCounter;
  uint8_t prevPhase = prev->status.CurrentLayer;
  for (int i = 0; i < 300; ++i) {
    auto& r = d.StepNext();
    EXPECT_EQ(r.status.RecordCounter, static_cast<uint16_t>(prevCounter + 1));
    EXPECT_EQ(r.status.SweepCounter, prevSweep + 3) << "dropped sweeps count too";
    EXPECT_EQ(r.status.CurrentLayer, (prevPhase + 1) % 128);
    EXPECT_EQ(r.status.DataRateDivider, 3);
    EXPECT_EQ(r.status.fw_version, 101);
    EXPECT_TRUE(r.status.Status3 & 0x20) << "publish bit";
    prevCounter = r.status.RecordCounter;
    prevSweep = r.status.SweepCounter;
    prevPhase = r.status.CurrentLayer;
  }
  d.Command(cmd::kDataRateDivider, 0);  // 0 counts as 1
  d.Advance(2);
  EXPECT_EQ(d.StepNext().status.DataRateDivider, 1);

  // Operating modes 2 and 3 follow a virtual master's divider.
  d.Card().SetMasterDivider(4);
  d.Command(cmd::kOperatingMode, 2);
  d.Advance(2);
  auto& a = d.StepNext();
  auto& b = d.StepNext();
  EXPECT_EQ(b.status.DataRateDivider, 4);
  EXPECT_EQ(b.status.SweepCounter - a.status.SweepCounter, 4u);
}

TEST(SimInstrument, BiasAndScanAmplitudeMoveThePeaks) {
  CReadyCard d;
  auto& r0 = d.StepNext();
  ASSERT_EQ(r0.status.NumPeaks[0], 1);
  const double fbg0 = r0.FbgPeaks[0];
  EXPECT_EQ(r0.status.FbgPosition & 0xFFFFFF, r0.FbgPeaks[0]);
  EXPECT_NEAR(fbg0, 32768, 600) << "the working point puts the grating near mid-sweep";
  const int teeth0 = r0.status.NumPeaks[1];
  EXPECT_GT(teeth0, 120);

  d.Command(cmd::kBias, sim::factory::kBias + 500);
  auto& r1 = d.StepNext();
  EXPECT_NEAR(r1.FbgPeaks[0] - fbg0, 505, 6) << "about one count per bias LSB";

  d.Command(cmd::kScanAmp, 45000);  // wider span: the comb teeth crowd together
  auto& r2 = d.StepNext();
  const double spacing1 = (r1.FfpiPeaks[60] - r1.FfpiPeaks[20]) / 40.0;
  const double spacing2 = (r2.FfpiPeaks[60] - r2.FfpiPeaks[20]) / 40.0;
  EXPECT_NEAR(spacing2 / spacing1, sim::factory::kScanAmp / 45000.0, 0.01);

  d.Command(cmd::kScanAmp, 0);  // no sweep, no peaks
  auto& r3 = d.StepNext();
  for (int c = 0; c < 6; ++c) EXPECT_EQ(r3.status.NumPeaks[c], 0) << c;
  EXPECT_EQ(r3.status.FbgPosition & 0xFFFFFF, 0u);
}

TEST(SimInstrument, ThermistorInvertsTheServerModel) {
  for (double t = -20.0; t <= 80.0; t += 0.37) {
    const int vth = ThermistorReading(t);
    EXPECT_NEAR(ServerThermistorDegC(vth), t, 0.01) << t;
  }
  EXPECT_NEAR(ThermistorReading(25.0), -7, 2);
  EXPECT_NEAR(ThermistorReading(26.0) - ThermistorReading(25.0), -719, 10);

  // The record reports the grating's reading; the server's model gives back its temperature.
  CReadyCard d;
  d.Card().SetGratingTemperature(31.25);
  auto& r = d.StepNext();
  EXPECT_NEAR(ServerThermistorDegC(r.status.Vth), 31.25, 0.01);
  EXPECT_EQ(r.status.InternalTemp, 35 * 128);
}

TEST(SimInstrument, SensorWavelengthsMatchTheCombScale) {
  CReadyCard d;
  CSimSensor s;
  s.WavelengthNm = 1541.2345;
  s.DistanceM = 0.0;
  d.Card().SetSensors(0, {s});
  std::vector<double> errors;
  double squares = 0.0;
  for (int i = 0; i < 200; ++i) {
    auto& r = d.StepNext();
    CTestScale scale(r);
    ASSERT_TRUE(scale.bValid);
    EXPECT_NEAR(scale.WvlCorrCoef, std::nearbyint(scale.WvlCorrCoef), 0.15);
    ASSERT_EQ(r.status.NumPeaks[2], 1);
    const double nm = scale.Counts2Wvl(r.DutPeaks[0][0]);
    // Noise of the sensor and of the two comb teeth around it, and the rounding to counts.
    EXPECT_NEAR(nm, s.WavelengthNm, 0.0045) << "record " << i;
    errors.push_back(nm - s.WavelengthNm);
    squares += (nm - s.WavelengthNm) * (nm - s.WavelengthNm);
  }
  EXPECT_LT(std::sqrt(squares / errors.size()), 0.0015) << "within 3 pm for 95 % of records";
  EXPECT_NEAR(Mean(errors), 0.0, 0.001) << "averaged";
}

TEST(SimInstrument, CalibrationErrorAndTrueFsrMoveTheScale) {
  CReadyCard d;
  d.Card().SetCalibrationError(0.3);
  CTestScale flagged(d.StepNext());
  ASSERT_TRUE(flagged.bValid);
  // The grating sits 0.3 intervals above where the server's model puts it.
  EXPECT_NEAR(flagged.WvlCorrCoef - std::nearbyint(flagged.WvlCorrCoef), -0.3, 0.05);

  d.Card().SetCalibrationError(0.6);  // beyond half an interval: one tooth off
  CTestScale slipped(d.StepNext());
  EXPECT_NEAR(slipped.WvlCorrCoef - std::nearbyint(slipped.WvlCorrCoef), 0.4, 0.05);
}

TEST(SimInstrument, TimeOfFlightShiftsFarSensors) {
  CReadyCard d;
  CSimSensor near, far;
  near.WavelengthNm = 1540.0;
  far.WavelengthNm = 1560.0;
  far.DistanceM = 1000.0;
  d.Card().UpdateOptics([](COpticsParams& o) { o.PeakNoiseCounts = 0.0; });
  d.Card().SetSensors(0, {near});
  d.Card().SetSensors(1, {far});
  auto& r0 = d.StepNext();
  const double shifted = r0.DutPeaks[1][0];
  d.Card().SetSensors(1, {CSimSensor{1560.0, 0.0}});
  auto& r1 = d.StepNext();
  EXPECT_NEAR(shifted - r1.DutPeaks[1][0], 1276.65, 1.0) << "1000 m at 1 kHz";

  // The clock divider halves the sweep rate after 5 records, and with it the shift.
  d.Card().SetSensors(1, {far});
  d.Command(cmd::kClkDiv, 1);
  for (int i = 0; i < 5; ++i) EXPECT_EQ(d.StepNext().status.ClkDivider, 0) << i;
  auto& r2 = d.StepNext();
  EXPECT_EQ(r2.status.ClkDivider, 1);
  // The laser settles over the first sweeps at the new clock: the echo arrives late meanwhile.
  EXPECT_NEAR(r2.DutPeaks[1][0] - r1.DutPeaks[1][0], 1276.65 / 2 + kClockSettleCounts, 1.0);
  for (int i = 0; i < kClockSettleSweeps; ++i) d.StepNext();
  EXPECT_NEAR(d.StepNext().DutPeaks[1][0] - r1.DutPeaks[1][0], 1276.65 / 2, 1.0);
}

TEST(SimInstrument, DetectionRules) {
  CReadyCard d;
  CSimSensor weak{1535.0, 0.0, 2000.0}, strong{1550.0, 0.0, 9000.0};
  CSimSensor close = strong;
  close.WavelengthNm = 1550.1;  // about 60 counts after `strong`
  d.Card().SetSensors(0, {strong, weak, close});

  d.Command(cmd::kLockout, 2 << 16 | 200);
  d.Command(cmd::kNoiseThreshEnable, 2 << 16 | 1);
  d.ChannelCommand(cmd::kThresh, 2, static_cast<uint16_t>(3000 * 9.765625 / 2 + 32768), true);
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

  d.Command(cmd::kSoaEnable, 0);
  auto& dark = d.StepNext();
  for (int c = 0; c < 6; ++c) EXPECT_EQ(dark.status.NumPeaks[c], 0);
  d.Command(cmd::kSoaEnable, 1);
  d.Command(cmd::kSoaDrive, 4999);
  EXPECT_EQ(d.StepNext().status.NumPeaks[1], 0) << "too little drive to lase";
  d.Command(cmd::kSoaDrive, 30000);
  d.Command(cmd::kSoaOn, 0);
  d.Command(cmd::kSoaOff, 32768);  // light only in the first half of the forward sweep
  auto& half = d.StepNext();
  ASSERT_GT(half.status.NumPeaks[1], 0);
  EXPECT_LT(half.FfpiPeaks[half.status.NumPeaks[1] - 1], 32768 + 200);
}

TEST(SimInstrument, SettingDelaysInRecords) {
  CReadyCard d;
  d.Command(cmd::kConverter, 0x8000 | (4 << 10));  // control-register word: input 4
  for (int i = 0; i < 3; ++i) EXPECT_EQ(d.StepNext().AmplitudeChannel(), 0) << i;
  EXPECT_EQ(d.StepNext().AmplitudeChannel(), 4);
  d.Command(cmd::kConverter, 0x8000 | 0x2000 | (1 << 10));  // a range-register word: no change
  d.Command(cmd::kConverter, (1 << 10));                    // not a write: no change
  d.Advance(4);
  EXPECT_EQ(d.StepNext().AmplitudeChannel(), 4);

  d.Command(cmd::kTrigEnable, 1);
  EXPECT_FALSE(d.StepNext().TriggeredAcquisition());
  EXPECT_FALSE(d.StepNext().TriggeredAcquisition());
  EXPECT_TRUE(d.StepNext().TriggeredAcquisition()) << "armed two records after the enable";
}

TEST(SimInstrument, FullSpectrumSamples) {
  CReadyCard d;
  d.Command(cmd::kConverter, 0x8000);  // the grating's detector
  auto& r = d.Advance(5);
  ASSERT_EQ(r.AmplitudeChannel(), 0);
  ASSERT_EQ(r.status.NumPeaks[0], 1);
  int best = 0;
  for (int i = 0; i < 256; ++i) {
    EXPECT_EQ(r.FsSamples[i] >> 16, 0xA5A5u) << "marker";
    if ((r.FsSamples[i] & 0xFFFF) > (r.FsSamples[best] & 0xFFFF)) best = i;
  }
  // The samples carry no detector latency: the brightest one sits 160 counts before the peak.
  EXPECT_NEAR(256.0 * best + 2 * r.status.CurrentLayer, r.FbgPeaks[0] - 160.0, 200.0);
  EXPECT_GT(r.FsSamples[best] & 0xFFFF, 400u) << "within half a sample step of the peak";

  d.Command(cmd::kAlign, 1);
  auto& a = d.StepNext();
  for (int i = 0; i < 256; ++i) EXPECT_EQ(a.FsSamples[i] & 0xFFFF, 128u * i + a.status.CurrentLayer);
}

TEST(SimInstrument, ServerLoopsSettleWithinFiveSeconds) {
  // The server's bias and scan-amplitude loops, ten times a second, from 10 % off.
  CTestDriver d;
  d.Start();
  double bias = 28000, amp = 40800 * 0.9;
  d.LaserOn(static_cast<uint16_t>(bias), static_cast<uint16_t>(amp));
  int settledAt = -1;
  for (int call = 0; call < 50; ++call) {
    auto& r = d.Advance(100);
    CTestScale scale(r);
    ASSERT_TRUE(scale.bValid) << call;
    const double e = static_cast<double>(r.status.FbgPosition & 0xFFFFFF) - 32768;
    if (std::fabs(e) >= 20) bias -= std::trunc(e * 0.1);
    const int ref = scale.RefIndex;
    ASSERT_GE(ref, 44);
    ASSERT_LT(ref + 56, r.status.NumPeaks[1]);
    const double err = 45875.0 - (static_cast<double>(r.FfpiPeaks[ref + 56]) - r.FfpiPeaks[ref - 44]);
    if (std::fabs(err) > 20) {
      amp -= std::clamp(std::trunc(err * 0.1), -5000.0, 5000.0);
    } else if (std::fabs(e) < 20 && settledAt < 0) {
      settledAt = call;
    }
    d.Command(cmd::kBias, static_cast<uint16_t>(bias));
    d.Command(cmd::kScanAmp, static_cast<uint16_t>(amp));
  }
  EXPECT_GE(settledAt, 0) << "bias " << bias << " scan amplitude " << amp;
  // They settle at the card's factory calibration, which its baseline tags carry.
  EXPECT_NEAR(amp, sim::factory::kScanAmp, 400);
  EXPECT_NEAR(bias, sim::factory::kBias, 500);
}
