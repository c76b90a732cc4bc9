// Resampling a full spectrum onto the wavelength grid, on synthetic spectra whose scale is known
// exactly: comb teeth every 200 points, 100 GHz apart. (Where lines land is checked end to end.)
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
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

struct CResult {
  std::vector<int16_t> Out = std::vector<int16_t>(fs::kPoints, 0);
  fs::CSweepWindow Window;
};

CResult Resample(const std::vector<int16_t>& raw, const CSyntheticComb& comb, fs::CCalibrationSettings settings = {}, int ref = 20) {
  CResult r;
  std::vector<double> lambda(fs::kPoints, 0.0);
  r.Window = fs::Calibrate(raw.data(), comb.Scale(ref), settings, lambda.data(), r.Out.data());
  return r;
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
  const CResult r = Resample(raw, comb, settings);
  const double firstNm = comb.Nm(kFirstToothPoint);
  const double lastNm = comb.Nm(kFirstToothPoint + kToothSpacing * (kTeeth - 2));
  for (int s = 0; s < 2; ++s) {
    for (int i = 0; i < fs::kPoints; i += 2) {
      const int16_t v = r.Out[(i + s * fs::kPoints) / 2];
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
  const CResult reversed = Resample(std::vector<int16_t>(fs::kPoints, 500), comb, settings);
  EXPECT_EQ(reversed.Out[0], 500);
  for (int i = 1; i < fs::kPoints; ++i) ASSERT_EQ(reversed.Out[i], fs::kBelowReversedLimit) << i;
}

// Guards the sweep window: the line through the scan loop's stretch, its counts, its cut at the comb.
TEST(SpectrumCalibration, SweepWindowFollowsTheScanLoopsCombStretch) {
  const CSyntheticComb comb;
  std::vector<int16_t> raw(fs::kPoints, 300);
  fs::CCalibrationSettings settings;
  settings.LeftPeaks = 5;
  settings.RightPeaks = 10;
  const CResult r = Resample(raw, comb, settings, 12);
  ASSERT_TRUE(r.Window.bValid);
  // The line through teeth 7 and 22.
  const double pa = kFirstToothPoint + 7 * kToothSpacing, pb = kFirstToothPoint + 22 * kToothSpacing;
  const double na = comb.Nm(pa), nb = comb.Nm(pb);
  const double slope = (nb - na) / (pb - pa);
  const double start = na - slope * pa, end = na + slope * (32767 - pa);
  EXPECT_DOUBLE_EQ(r.Window.StartWvl, start);
  EXPECT_NEAR(r.Window.EndWvl, end, 1e-9);
  // The first and one past the last interpolated grid points on that line.
  int first = -1, last = -1;
  for (int i = 0; i < fs::kPoints; ++i)
    if (r.Out[i] != fs::kBeforeComb && r.Out[i] != fs::kAfterComb) {
      if (first < 0) first = i;
      last = i;
    }
  EXPECT_EQ(r.Window.StartCount, static_cast<int32_t>((GridNm(first) - start) * 32767 / (end - start)));
  EXPECT_EQ(r.Window.EndCount, static_cast<int32_t>((GridNm(last + 1) - start) * 32767 / (end - start)));
  EXPECT_NEAR(r.Window.StartCount, kFirstToothPoint, 60);

  // The stretch is cut at the comb's ends; a reference beyond the comb leaves no stretch.
  EXPECT_TRUE(Resample(raw, comb, settings, 2).Window.bValid);
  EXPECT_FALSE(Resample(raw, comb, settings, 100).Window.bValid);
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

// Guards the spectrum record's layout: frame untouched, header, status byte cleared, scale, length.
TEST(SpectrumCalibration, RecordCarriesHeaderScaleAndLength) {
  std::vector<uint8_t> record(65640, 0xEE);
  struct_dma_peaks_status header;
  std::memset(&header, 0x5A, sizeof header);
  header.FbgPosition = 0xAB012345;
  std::vector<int16_t> points(fs::kPoints);
  for (int i = 0; i < fs::kPoints; ++i) points[i] = static_cast<int16_t>(i - 100);
  fs::FillSpectrumRecord(record.data(), reinterpret_cast<const uint8_t*>(&header), 1000000, 1520.0, 1570.5,
                         points.data());
  auto i32 = [&](size_t at) {
    int32_t v;
    std::memcpy(&v, record.data() + at, 4);
    return v;
  };
  EXPECT_EQ(std::vector<uint8_t>(record.begin(), record.begin() + 12), std::vector<uint8_t>(12, 0xEE));  // the frame's
  EXPECT_EQ(record[12], 15);
  EXPECT_EQ(record[13], 0x5A);
  // Processing status byte cleared, grating position kept; granularity, limits, point 5000, length.
  EXPECT_EQ((std::vector<int32_t>{i32(56), i32(84), i32(92), i32(96), i32(100 + 2 * 5000) & 0xFFFF, i32(65636)}),
            (std::vector<int32_t>{0x00012345, 1000000, 1520000000, 1570500000, 4900, 65624}));
}
