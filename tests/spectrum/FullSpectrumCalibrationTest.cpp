// Resampling a full spectrum onto the wavelength grid, on synthetic spectra whose scale is known
// exactly: comb teeth every 200 points, 100 GHz apart. (Where lines land is checked end to end.)
#include <gtest/gtest.h>

#include <cmath>
#include <iterator>
#include <utility>
#include <vector>

#include "device/PeaksData.h"
#include "spectrum/SpectrumCalibration.h"

namespace {

constexpr double kC = 299792458.0;
constexpr double kFirstToothThz = 195.94;  // about 1530.0 nm
constexpr double kFsrThz = 0.1;
constexpr int kFirstToothPoint = 3000;
constexpr int kToothSpacing = 200;
constexpr int kTeeth = 41;  // 40 used: the comb's last tooth is never used; it reaches about 1561.9 nm

struct CSyntheticComb {
  std::vector<int32_t> Points;
  std::vector<double> Thz;
  CSyntheticComb(int teeth = kTeeth, int spacing = kToothSpacing) {
    for (int k = 0; k < teeth; ++k) {
      Points.push_back(kFirstToothPoint + spacing * k);
      Thz.push_back(kFirstToothThz - kFsrThz * k);
    }
  }
  fs::CCombScale Scale(int ref = 20) const { return {static_cast<int>(Points.size()), Points.data(), Thz.data(), ref}; }
  // The wavelength of a (fractional) point, as the comb defines it.
  double Nm(double point) const { return kC / 1000.0 / (kFirstToothThz - kFsrThz * (point - kFirstToothPoint) / kToothSpacing); }
};

std::vector<int16_t> Resample(const std::vector<int16_t>& raw, const CSyntheticComb& comb, fs::CCalibrationSettings settings = {}) {
  std::vector<int16_t> out(fs::kPoints, 0);
  std::vector<double> lambda(fs::kPoints, 0.0);
  fs::Calibrate(raw.data(), comb.Scale(), settings, lambda.data(), out.data());
  return out;
}

double GridNm(int i) {
  const fs::CCalibrationSettings s;
  return s.LowerNm + i * (s.UpperNm - s.LowerNm) / fs::kPoints;
}

}  // namespace

// Guards each layer's own part of the grid, the marks beyond the comb's ends, reversed limits.
TEST(SpectrumCalibration, MultiplexedLayersKeepTheirOwnPartsAndReversedLimitsMarkTheGrid) {
  // Two layers: layer 0 in points 0-16383 (sweep point j at j/2), layer 1 in 16384-32767.
  const CSyntheticComb comb;
  std::vector<int16_t> raw(fs::kPoints);
  for (int j = 0; j < fs::kPoints; ++j) raw[j] = j < fs::kPoints / 2 ? 1000 : 2000;
  fs::CCalibrationSettings settings;
  settings.MuxLevel = 2;
  const std::vector<int16_t> out = Resample(raw, comb, settings);
  const double firstNm = comb.Nm(kFirstToothPoint);
  const double lastNm = comb.Nm(kFirstToothPoint + kToothSpacing * (kTeeth - 2));
  for (int s = 0; s < 2; ++s) {
    for (int i = 0; i < fs::kPoints; i += 2) {
      const int16_t v = out[(i + s * fs::kPoints) / 2];
      const double w = GridNm(i);
      if (w < firstNm) ASSERT_EQ(v, fs::kBeforeComb) << s << " " << i;
      else if (w > lastNm) ASSERT_EQ(v, fs::kAfterComb) << s << " " << i;
      else ASSERT_EQ(v, s == 0 ? 1000 : 2000) << s << " " << i;
    }
  }

  // Reversed limits: only the lower limit itself lies on the comb; the rest of the grid is marked.
  settings = {};
  settings.LowerNm = 1550.0;
  settings.UpperNm = 1540.0;
  const std::vector<int16_t> reversed = Resample(std::vector<int16_t>(fs::kPoints, 500), comb, settings);
  EXPECT_EQ(reversed[0], 500);
  for (int i = 1; i < fs::kPoints; ++i) ASSERT_EQ(reversed[i], fs::kBelowReversedLimit) << i;
}

// Guards the comb checks: three teeth, rising points, falling frequencies, inside the spectrum.
TEST(SpectrumCalibration, OnlyAnOrderedCombOfThreeTeethIsUsable) {
  const CSyntheticComb comb;
  CSyntheticComb rising = comb, outside = comb, lastUnchecked = comb;
  rising.Thz[3] = rising.Thz[2] + 0.05;
  outside.Points[kTeeth - 2] = fs::kPoints;
  lastUnchecked.Points[kTeeth - 1] = -5;  // the last tooth is not used, so it is not checked
  const std::pair<CSyntheticComb, bool> rows[] = {{comb, true},          {CSyntheticComb(3), true},
                                                  {CSyntheticComb(2), false}, {CSyntheticComb(5, 0), false},
                                                  {rising, false},       {outside, false}, {lastUnchecked, true}};
  for (size_t i = 0; i < std::size(rows); ++i) EXPECT_EQ(fs::CombIsUsable(rows[i].first.Scale()), rows[i].second) << i;
}
