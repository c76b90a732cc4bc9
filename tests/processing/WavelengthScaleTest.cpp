// The wavelength scale: the grating's temperature table, placing the comb against the grating,
// and counts to wavelength and back, seen through processed records and the conversions.
#include <cmath>

#include "processing/WavelengthScale.h"
#include "ProcessingFixture.h"

using namespace proc_test;

namespace {

// Puts the grating at an exact frequency for its thermistor reading, as a table built from
// another calibration would.
void SetGratingThz(CVr480Server& s, double thz) { s.Vth2Thz[kGratingVth + 32768] = thz; }

}  // namespace

TEST(WavelengthScale, GratingTableIsAnchoredAtTheReferenceReading) {
  auto s = std::make_unique<CVr480Server>();
  ProcessingAccess::BuildGratingTable(*s);
  // With the constructor's values the reference reading is the top one: the table's end
  // entries and the reference all give 1550 nm exactly.
  const double refThz = kSpeedOfLight * 0.001 / 1550.0;
  EXPECT_EQ(s->Vth2Thz[65535], refThz);
  EXPECT_EQ(s->Vth2Thz[0], refThz);

  // Anchored in the middle of the range: the reference reading gives the reference
  // wavelength exactly, and every degree warmer moves the grating 0.01 nm longer.
  s->FbgRefVth = static_cast<uint16_t>(-7);
  s->FbgRefWvlNm = 1551.5;
  ProcessingAccess::BuildGratingTable(*s);
  EXPECT_EQ(s->Vth2Thz[-7 + 32768], kSpeedOfLight * 0.001 / 1551.5);
  EXPECT_EQ(s->Vth2Thz[0], kSpeedOfLight * 0.001 / 1551.5);
  EXPECT_EQ(s->Vth2Thz[65535], kSpeedOfLight * 0.001 / 1551.5);
  const double warmer = s->thermistor_Vth2degC(-7 - 7190) - s->thermistor_Vth2degC(-7);
  EXPECT_NEAR(warmer, 10.0, 1.0);  // the thermistor is not quite linear over ten degrees
  EXPECT_NEAR(kSpeedOfLight * 0.001 / s->Vth2Thz[-7 - 7190 + 32768] - 1551.5, 0.01 * warmer, 1e-9);

  // The current record's reading selects the entry.
  auto r = MakeSweep();
  r.status.Vth = -7;
  s->pLastPeaks = &r;
  EXPECT_EQ(s->GetFBG_Thz(), kSpeedOfLight * 0.001 / 1551.5);
}

TEST(WavelengthScale, CombIsPlacedAgainstTheGrating) {
  auto s = MakeServer();
  auto r = MakeSweep();
  Feed(*s, r);

  EXPECT_TRUE(s->bScaleValid);
  EXPECT_EQ(s->FfpiRefPeakIndex, kRefTooth);
  EXPECT_EQ(s->ScaleRefPeakIndex, static_cast<uint32_t>(kRefTooth));
  EXPECT_NEAR(s->WvlCorrCoef, -10.0, 1e-9);  // tooth 60 lies ten teeth below the reference in frequency
  EXPECT_NEAR(s->FbgThz, 192.95, 1e-9);
  EXPECT_NEAR(s->CalculatedFbg, NmBetween(kGratingTooth, 0.5), 1e-9);
  for (int j : {0, 17, 50, 100}) EXPECT_NEAR(s->FfpiPeakThz[j], ToothThz(j), 1e-9);
  EXPECT_FALSE(LastRecord(*s).ScaleWarning());

  // A sweep the card does not publish still places the comb (the scan loop follows every
  // sweep) but leaves the published scale and the ring alone.
  const uint16_t write = s->ProcessedWriteIndex;
  auto quiet = MakeSweep();
  quiet.status.Status3 = 0;
  for (int j = 0; j < kTeeth; ++j) quiet.FfpiPeaks[j] += 2 * kToothSpacing;  // the sweep moved two teeth
  quiet.FbgPeaks[0] += 2 * kToothSpacing;
  quiet.status.NumPeaks[1] = 99;
  Feed(*s, quiet);
  EXPECT_TRUE(s->bScaleValid);
  EXPECT_EQ(s->FfpiRefPeakIndex, kRefTooth);
  EXPECT_EQ(s->ProcessedWriteIndex, write);
  EXPECT_NEAR(s->FfpiPeakThz[100], ToothThz(100), 1e-9);
}

TEST(WavelengthScale, GratingBetweenWholeTeethIsMarked) {
  auto s = MakeServer();
  auto r = MakeSweep();
  // A grating 0.1 tooth off its expected place is within tolerance; 0.2 is not.
  SetGratingThz(*s, 192.95 + 0.1 * 0.1);
  Feed(*s, r);
  EXPECT_FALSE(LastRecord(*s).ScaleWarning());
  EXPECT_EQ(s->FfpiRefPeakIndex, kRefTooth);

  SetGratingThz(*s, 192.95 + 0.2 * 0.1);
  Feed(*s, r);
  EXPECT_TRUE(LastRecord(*s).ScaleWarning());
  EXPECT_EQ(LastRecord(*s).Status(), kPeaksOk);  // still measured, only marked
  EXPECT_EQ(s->FfpiRefPeakIndex, kRefTooth);
  EXPECT_NEAR(s->WvlCorrCoef, -9.8, 1e-9);

  s->MaxWvlCorrCoefError = 0.25;
  Feed(*s, r);
  EXPECT_FALSE(LastRecord(*s).ScaleWarning());

  // Without the monitored grating there is no coefficient to check.
  s->MaxWvlCorrCoefError = 0.15;
  s->bMonitoredFbg = false;
  SetGratingThz(*s, 192.95 + 0.4 * 0.1);
  Feed(*s, r);
  EXPECT_FALSE(LastRecord(*s).ScaleWarning());
  EXPECT_EQ(s->WvlCorrCoef, 0.0);
}

TEST(WavelengthScale, HalfToothCoefficientsRoundToEven) {
  // Binary-exact numbers (125 GHz teeth, grating halfway) make the coefficient an exact half.
  auto s = MakeServer();
  s->FfpiFsrGhz = 125.0;
  auto r = MakeSweep();
  const int k = kGratingTooth + 1;  // the first tooth past the grating
  SetGratingThz(*s, 194.25);        // tooth k-1 then sits 2.5 teeth above 194.0 THz
  Feed(*s, r);
  EXPECT_EQ(s->WvlCorrCoef, 2.5);
  EXPECT_EQ(s->FfpiRefPeakIndex, k + 2 - 1);
  SetGratingThz(*s, 194.375);  // 3.5 teeth
  Feed(*s, r);
  EXPECT_EQ(s->WvlCorrCoef, 3.5);
  EXPECT_EQ(s->FfpiRefPeakIndex, k + 4 - 1);
  EXPECT_TRUE(LastRecord(*s).ScaleWarning());  // half a tooth is far outside tolerance
}

TEST(WavelengthScale, WithoutTheMonitoredGratingTheNearestToothIsTheReference) {
  auto s = MakeServer();
  s->bMonitoredFbg = false;
  auto r = MakeSweep();
  r.FbgPeaks[0] = CountBetween(kGratingTooth, 0.25);
  Feed(*s, r);
  EXPECT_EQ(s->FfpiRefPeakIndex, kGratingTooth);
  // The reference tooth now carries 194.0 THz.
  EXPECT_NEAR(s->FfpiPeakThz[kGratingTooth], 194.0, 1e-12);
  EXPECT_NEAR(s->FfpiPeakThz[kGratingTooth + 1], 193.9, 1e-12);

  r.FbgPeaks[0] = CountBetween(kGratingTooth, 0.75);
  Feed(*s, r);
  EXPECT_EQ(s->FfpiRefPeakIndex, kGratingTooth + 1);
  r.FbgPeaks[0] = CountBetween(kGratingTooth, 0.5);  // midway: the higher-count tooth
  Feed(*s, r);
  EXPECT_EQ(s->FfpiRefPeakIndex, kGratingTooth + 1);

  s->Peak2Use = 3;  // three teeth on from the tooth before the grating
  Feed(*s, r);
  EXPECT_EQ(s->FfpiRefPeakIndex, kGratingTooth + 3);
  EXPECT_EQ(s->ScaleRefPeakIndex, static_cast<uint32_t>(kGratingTooth + 3));
}

TEST(WavelengthScale, ReferenceToothOutsideTheCombFailsTheRecord) {
  auto s = MakeServer();
  auto r = MakeSweep();
  Feed(*s, r);
  const uint16_t write = s->ProcessedWriteIndex;
  SetGratingThz(*s, 192.95 + 7.0);  // names a reference tooth 60 teeth past the grating: beyond the comb
  std::string out = Console([&] { Feed(*s, r); });
  EXPECT_EQ(out, "Error: reference FFPI peak outside the comb\r");
  EXPECT_FALSE(s->bScaleValid);
  EXPECT_EQ(s->FfpiRefPeakIndex, kRefTooth);
  EXPECT_EQ(s->ProcessedWriteIndex, (write + 1) % kProcessedRingSlots);
  EXPECT_EQ(LastRecord(*s).Status(), kPeaksRefToothOutside);
  EXPECT_EQ(LastRecord(*s).Sensors(), 0u);
}

TEST(WavelengthScale, CountsAndWavelengthsConvertBothWays) {
  auto s = MakeServer();
  auto r = MakeSweep();
  Feed(*s, r);

  EXPECT_NEAR(s->Counts2Wvl(ToothCount(0)), Nm(ToothThz(0)), 1e-9);  // exactly on the first tooth
  EXPECT_NEAR(s->Counts2Wvl(ToothCount(60)), Nm(ToothThz(60)), 1e-9);
  EXPECT_NEAR(s->Counts2Wvl(CountBetween(20, 0.25)), NmBetween(20, 0.25), 1e-9);
  // Outside the comb the end segments carry on.
  EXPECT_NEAR(s->Counts2Wvl(ToothCount(0) - kToothSpacing), Nm(ToothThz(0) + 0.1), 1e-9);
  EXPECT_NEAR(s->Counts2Wvl(ToothCount(100) + 2 * kToothSpacing), Nm(ToothThz(100) - 0.2), 1e-9);

  // Whole counts come back within the truncation of a rounding error.
  EXPECT_NEAR(ProcessingAccess::Wvl2Counts(*s, NmBetween(20, 0.25)), CountBetween(20, 0.25), 1.0);
  EXPECT_NEAR(ProcessingAccess::Wvl2Counts(*s, Nm(ToothThz(0) + 0.1)), ToothCount(0) - kToothSpacing, 1.0);
  EXPECT_NEAR(ProcessingAccess::Wvl2Counts(*s, Nm(ToothThz(100) - 0.5)), ToothCount(100) + 5 * kToothSpacing, 1.0);
  for (double x : {3000.3, 4000.5, 20001.7, 34976.25, 55199.9, 58000.6}) {
    EXPECT_EQ(ProcessingAccess::Wvl2Counts(*s, s->Counts2Wvl(x)), std::trunc(x)) << x;
  }

  // One tooth is no ruler.
  r.status.NumPeaks[1] = 1;
  Feed(*s, r);
  EXPECT_EQ(s->Counts2Wvl(20000), -1.0);
  EXPECT_EQ(ProcessingAccess::Wvl2Counts(*s, 1550.0), -1.0);
}
