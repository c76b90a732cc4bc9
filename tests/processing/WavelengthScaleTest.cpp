// The wavelength scale: the grating's temperature table, the comb placed against the grating,
// and counts to wavelength and back.
#include <cmath>
#include <tuple>
#include <vector>

#include "processing/WavelengthScale.h"
#include "ProcessingFixture.h"

using namespace proc_test;

namespace {
// Puts the grating at an exact frequency for its thermistor reading.
void SetGratingThz(CVr480Server& s, double thz) { s.Vth2Thz[kGratingVth + 32768] = thz; }
}  // namespace

// Guards the placement of every tooth against the grating, and a reference tooth beyond the comb.
TEST(WavelengthScale, CombIsPlacedAgainstTheGrating) {
  auto s = MakeServer();
  auto r = MakeSweep();
  Feed(*s, r);
  EXPECT_EQ((std::vector<int64_t>{s->bScaleValid, s->FfpiRefPeakIndex, s->ScaleRefPeakIndex}), (std::vector<int64_t>{true, kRefTooth, kRefTooth}));
  EXPECT_NEAR(s->WvlCorrCoef, -10.0, 1e-9);  // tooth 60 lies ten teeth below the reference
  EXPECT_NEAR(s->FbgThz, 192.95, 1e-9);
  EXPECT_NEAR(s->CalculatedFbg, NmBetween(kGratingTooth, 0.5), 1e-9);
  for (int j : {0, 17, 50, 100}) EXPECT_NEAR(s->FfpiPeakThz[j], ToothThz(j), 1e-9);
  EXPECT_FALSE(LastRecord(*s).ScaleWarning());

  SetGratingThz(*s, 192.95 + 7.0);  // the reference 60 teeth past the grating: beyond the comb
  EXPECT_EQ(Console([&] { Feed(*s, r); }), "Error: reference FFPI peak outside the comb\r");
  EXPECT_FALSE(s->bScaleValid);
  EXPECT_EQ(s->FfpiRefPeakIndex, kRefTooth);  // the scale is kept
  EXPECT_EQ(LastRecord(*s).Status(), kPeaksRefToothOutside);
  EXPECT_EQ(LastRecord(*s).Sensors(), 0u);
}

// Guards the tolerance of the grating between teeth (warning only), half-tooth rounding to even,
// and without the monitored grating no check and the nearest tooth as reference.
TEST(WavelengthScale, GratingBetweenWholeTeethIsMarked) {
  auto s = MakeServer();
  auto r = MakeSweep();
  struct Row {
    double OffTeeth, MaxError;
    bool Warning;
    double Coef;
  };
  for (const Row& row : {Row{0.1, 0.15, false, -9.9}, Row{0.2, 0.15, true, -9.8}, Row{0.2, 0.25, false, -9.8}}) {
    SetGratingThz(*s, 192.95 + row.OffTeeth * 0.1);
    s->MaxWvlCorrCoefError = row.MaxError;
    Feed(*s, r);
    EXPECT_EQ(LastRecord(*s).ScaleWarning(), row.Warning) << row.OffTeeth;
    EXPECT_EQ(LastRecord(*s).Status(), kPeaksOk);  // still measured, only marked
    EXPECT_EQ(s->FfpiRefPeakIndex, kRefTooth);
    EXPECT_NEAR(s->WvlCorrCoef, row.Coef, 1e-9);
  }
  s->MaxWvlCorrCoefError = 0.15;
  s->bMonitoredFbg = false;
  SetGratingThz(*s, 192.95 + 0.4 * 0.1);
  EXPECT_FALSE(Feed(*s, r).ScaleWarning());
  EXPECT_EQ(s->WvlCorrCoef, 0.0);
  // Without it the nearest tooth is the reference (midway: the higher count); Peak2Use counts on.
  for (auto [fraction, ref] : {std::pair{0.25, kGratingTooth}, std::pair{0.75, kGratingTooth + 1}, std::pair{0.5, kGratingTooth + 1}}) {
    r.FbgPeaks[0] = CountBetween(kGratingTooth, fraction);
    Feed(*s, r);
    EXPECT_EQ(s->FfpiRefPeakIndex, ref) << fraction;
    EXPECT_NEAR(s->FfpiPeakThz[ref], 194.0, 1e-12);
    EXPECT_NEAR(s->FfpiPeakThz[ref + 1], 193.9, 1e-12);
  }
  s->Peak2Use = 3;  // three teeth on from the tooth before the grating
  Feed(*s, r);
  EXPECT_EQ(s->FfpiRefPeakIndex, kGratingTooth + 3);
  EXPECT_EQ(s->ScaleRefPeakIndex, static_cast<uint32_t>(kGratingTooth + 3));
  r = MakeSweep();

  // Binary-exact numbers (125 GHz teeth) make the coefficient an exact half: it rounds to even.
  auto h = MakeServer();
  h->FfpiFsrGhz = 125.0;
  for (auto [thz, coef, ref] : {std::tuple{194.25, 2.5, kGratingTooth + 2}, std::tuple{194.375, 3.5, kGratingTooth + 4}}) {
    SetGratingThz(*h, thz);
    Feed(*h, r);
    EXPECT_EQ(h->WvlCorrCoef, coef);
    EXPECT_EQ(h->FfpiRefPeakIndex, ref);
  }
}

// Guards the conversions inside and beyond the comb, their round trip, and the one-tooth refusal.
TEST(WavelengthScale, CountsAndWavelengthsConvertBothWays) {
  auto s = MakeServer();
  auto r = MakeSweep();
  Feed(*s, r);
  const std::pair<double, double> points[] = {
      {ToothCount(0), Nm(ToothThz(0))},
      {ToothCount(60), Nm(ToothThz(60))},
      {CountBetween(20, 0.25), NmBetween(20, 0.25)},
      {ToothCount(0) - kToothSpacing, Nm(ToothThz(0) + 0.1)},  // the end segments carry on
      {ToothCount(100) + 5 * kToothSpacing, Nm(ToothThz(100) - 0.5)},
  };
  for (auto [count, nm] : points) {
    EXPECT_NEAR(s->Counts2Wvl(count), nm, 1e-9) << count;
    EXPECT_NEAR(ProcessingAccess::Wvl2Counts(*s, nm), count, 1.0) << count;
  }
  for (double x : {3000.3, 4000.5, 20001.7, 34976.25, 55199.9, 58000.6})
    EXPECT_EQ(ProcessingAccess::Wvl2Counts(*s, s->Counts2Wvl(x)), std::trunc(x)) << x;
  r.status.NumPeaks[1] = 1;  // one tooth is no ruler
  Feed(*s, r);
  EXPECT_EQ(s->Counts2Wvl(20000), -1.0);
  EXPECT_EQ(ProcessingAccess::Wvl2Counts(*s, 1550.0), -1.0);
}
