// Resampling a full spectrum onto the wavelength grid, on synthetic spectra whose scale is known
// exactly: comb teeth every 200 points, 100 GHz apart, so that the wavelength of every point
// follows from the teeth alone.
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
  double Nm(double point) const {
    const double k = (point - kFirstToothPoint) / kToothSpacing;
    return kC / 1000.0 / (kFirstToothThz - kFsrThz * k);
  }
  // The point of a wavelength.
  double Point(double nm) const {
    return kFirstToothPoint + (kFirstToothThz - kC / 1000.0 / nm) / kFsrThz * kToothSpacing;
  }
};

struct CResult {
  std::vector<int16_t> Out = std::vector<int16_t>(fs::kPoints, 0);
  fs::CSweepWindow Window;
};

CResult Resample(const std::vector<int16_t>& raw, const CSyntheticComb& comb, fs::CCalibrationSettings settings = {},
            int ref = 20) {
  CResult r;
  std::vector<double> lambda(fs::kPoints, 0.0);
  r.Window = fs::Calibrate(raw.data(), comb.Scale(ref), settings, lambda.data(), r.Out.data());
  return r;
}

double GridNm(int i, const fs::CCalibrationSettings& s = {}) { return s.LowerNm + i * (s.UpperNm - s.LowerNm) / fs::kPoints; }

}  // namespace

TEST(SpectrumCalibration, LinesLandAtTheirWavelengthsAndTheCombEndsAreMarked) {
  const CSyntheticComb comb;
  // A baseline of 300 with two Gaussian lines between teeth.
  std::vector<int16_t> raw(fs::kPoints, 300);
  const double lines[2] = {4321.0, 9876.0};
  for (int j = 0; j < fs::kPoints; ++j)
    for (double x : lines) raw[j] = static_cast<int16_t>(raw[j] + 12000.0 * std::exp(-2.7726 * std::pow((j - x) / 28.0, 2)));

  const fs::CCalibrationSettings settings;
  const CResult r = Resample(raw, comb, settings);
  const double firstNm = comb.Nm(kFirstToothPoint);
  const double lastNm = comb.Nm(kFirstToothPoint + kToothSpacing * (kTeeth - 2));
  for (int i = 0; i < fs::kPoints; ++i) {
    const double w = GridNm(i);
    if (w < firstNm) {
      ASSERT_EQ(r.Out[i], fs::kBeforeComb) << i;
    } else if (w > lastNm) {
      ASSERT_EQ(r.Out[i], fs::kAfterComb) << i;
    } else {
      ASSERT_GE(r.Out[i], 300 - 1) << i;
    }
  }
  // Each line's brightest grid point is the grid point nearest its wavelength.
  for (double x : lines) {
    const double nm = comb.Nm(x);
    const int expected = static_cast<int>(std::lround((nm - settings.LowerNm) / (settings.UpperNm - settings.LowerNm) * fs::kPoints));
    int best = expected - 200;
    for (int i = expected - 200; i <= expected + 200; ++i)
      if (r.Out[i] > r.Out[best]) best = i;
    EXPECT_NEAR(best, expected, 1) << "line at point " << x;
    EXPECT_NEAR(GridNm(best), nm, 0.002);
  }
}

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

TEST(SpectrumCalibration, RecordCarriesHeaderScaleAndLength) {
  std::vector<uint8_t> record(65640, 0xEE);
  struct_dma_peaks_status header;
  std::memset(&header, 0x5A, sizeof header);
  header.FbgPosition = 0xAB012345;
  std::vector<int16_t> points(fs::kPoints);
  for (int i = 0; i < fs::kPoints; ++i) points[i] = static_cast<int16_t>(i - 100);
  fs::FillSpectrumRecord(record.data(), reinterpret_cast<const uint8_t*>(&header), 1000000, 1520.0, 1570.5,
                         points.data());
  auto u32 = [&](size_t at) {
    uint32_t v;
    std::memcpy(&v, record.data() + at, 4);
    return v;
  };
  for (int i = 0; i < 12; ++i) EXPECT_EQ(record[i], 0xEE) << "the frame's bytes are left alone";
  EXPECT_EQ(record[12], 15);
  EXPECT_EQ(record[13], 0x5A);
  EXPECT_EQ(u32(56), 0x00012345u) << "processing status byte cleared, grating position kept";
  EXPECT_EQ(u32(84), 1000000u);
  EXPECT_EQ(static_cast<int32_t>(u32(92)), 1520000000);
  EXPECT_EQ(static_cast<int32_t>(u32(96)), 1570500000);
  int16_t p;
  std::memcpy(&p, record.data() + 100 + 2 * 5000, 2);
  EXPECT_EQ(p, 4900);
  EXPECT_EQ(u32(65636), 65624u);
}
