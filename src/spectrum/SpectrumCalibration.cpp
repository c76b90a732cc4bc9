#include "spectrum/SpectrumCalibration.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <limits>
#include <thread>

namespace fs {

namespace {

// Calibrated spectrum record: where each part lies.
constexpr size_t kHeaderOffset = 12;
constexpr size_t kHeaderBytes = 88;
constexpr size_t kStatusByteOffset = kHeaderOffset + 47;  // top byte of the grating position word (record offset 56)
constexpr size_t kGranularityOffset = 84;
constexpr size_t kLowerOffset = 92;
constexpr size_t kUpperOffset = 96;
constexpr size_t kPointsOffset = 100;
constexpr size_t kLengthOffset = kPointsOffset + 2 * kPoints;     // 65636
constexpr uint32_t kBodyLength = kHeaderBytes + 2 * kPoints;       // 65624
constexpr uint8_t kSpectrumMarker = 15;                            // first header byte of a calibrated spectrum

void Put32(uint8_t* record, size_t at, uint32_t v) { std::memcpy(record + at, &v, sizeof v); }

// Counts work done and gives the processor away every kYieldEvery units.
class CYielder {
 public:
  void Tick() {
    if (++Done % kYieldEvery == 0) std::this_thread::yield();
  }

 private:
  long Done = 0;
};

// The wavelength of every point from the first tooth to the last one used. Between two
// teeth the frequency is linear in the point; the wavelength follows from it.
void WavelengthsBetweenTeeth(const CCombScale& comb, int used, double cOver1000, double* lambda, CYielder& yielder) {
  const int32_t* p = comb.Points;
  const double* thz = comb.Thz;
  for (int k = 0; k + 1 < used; ++k) {
    const double span = p[k + 1] - p[k];
    const double step = thz[k + 1] - thz[k];
    for (int32_t j = p[k]; j < p[k + 1]; ++j) {
      lambda[j] = cOver1000 / (thz[k] + step * (j - p[k]) / span);
      yielder.Tick();
    }
  }
  lambda[p[used - 1]] = cOver1000 / thz[used - 1];
}

}  // namespace

int32_t TruncateSaturated(double v) {
  if (!(v == v)) return 0;
  if (v >= static_cast<double>(std::numeric_limits<int32_t>::max())) return std::numeric_limits<int32_t>::max();
  if (v <= static_cast<double>(std::numeric_limits<int32_t>::min())) return std::numeric_limits<int32_t>::min();
  return static_cast<int32_t>(v);
}

bool CombIsUsable(const CCombScale& comb) {
  if (comb.Count < 3 || !comb.Points || !comb.Thz) return false;
  const int used = comb.Count - 1;
  for (int k = 0; k < used; ++k) {
    if (comb.Points[k] < 0 || comb.Points[k] >= kPoints || !(comb.Thz[k] > 0.0)) return false;
    if (k > 0 && (comb.Points[k] <= comb.Points[k - 1] || !(comb.Thz[k] < comb.Thz[k - 1]))) return false;
  }
  return true;
}

// The last tooth a record reports is not used: the comb may be cut off by the end of the sweep
// or the peak list, and a tooth whose light was cut short is placed less well.
CSweepWindow Calibrate(const int16_t* raw, const CCombScale& comb, const CCalibrationSettings& settings,
                       double* lambda, int16_t* out) {
  const int used = comb.Count - 1;
  const int32_t* p = comb.Points;
  const double cOver1000 = settings.SpeedOfLight / 1000.0;
  CYielder yielder;
  WavelengthsBetweenTeeth(comb, used, cOver1000, lambda, yielder);

  const int32_t firstPoint = p[0];
  const int32_t lastPoint = p[used - 1];
  const double firstNm = lambda[firstPoint];
  const double lastNm = lambda[lastPoint];
  const int m = settings.MuxLevel >= 1 && settings.MuxLevel <= 4 ? settings.MuxLevel : 1;
  const double lo = settings.LowerNm;
  const double hi = settings.UpperNm;
  const double gridStep = (hi - lo) / kPoints;
  auto gridNm = [&](int i) { return lo + i * gridStep; };

  // Each layer's grid points, walking that layer's raw points (every m-th
  // point of the sweep) forward as the grid wavelength grows.
  int firstGrid = -1, lastGrid = -1;
  for (int s = 0; s < m; ++s) {
    const int base = s * kPoints;
    int32_t j = firstPoint;
    for (int i = 0; i < kPoints; i += m) {
      const double w = gridNm(i);
      int16_t v;
      if (hi < lo && w < lo) {
        v = kBelowReversedLimit;
      } else if (w < firstNm) {
        v = kBeforeComb;
      } else if (w > lastNm) {
        v = kAfterComb;
      } else {
        while (j + m <= lastPoint && lambda[j + m] < w) j += m;
        const int32_t k = std::min(j + m, lastPoint);
        const int a = raw[(base + j) / m];
        const int b = raw[(base + k) / m];
        const double width = lambda[k] - lambda[j];
        v = static_cast<int16_t>(k == j || width == 0.0 ? a : std::trunc(a + (b - a) * (w - lambda[j]) / width));
        if (s == 0) {
          if (firstGrid < 0) firstGrid = i;
          lastGrid = i;
        }
      }
      out[(i + base) / m] = v;
      yielder.Tick();
    }
  }

  // The sweep's ends on the line through the ends of the scan loop's comb stretch.
  CSweepWindow window;
  const int a = std::max(comb.RefIndex - settings.LeftPeaks, 0);
  const int b = std::min(comb.RefIndex + settings.RightPeaks, used - 1);
  if (a >= b || p[a] == p[b]) return window;
  const double nmA = cOver1000 / comb.Thz[a];
  const double nmB = cOver1000 / comb.Thz[b];
  const double slope = (nmB - nmA) / (p[b] - p[a]);
  window.bValid = true;
  window.StartWvl = nmA - slope * p[a];
  window.EndWvl = nmA + slope * (kPoints - 1 - p[a]);
  if (firstGrid >= 0) {
    const double span = window.EndWvl - window.StartWvl;
    window.StartCount = TruncateSaturated((gridNm(firstGrid) - window.StartWvl) * (kPoints - 1) / span);
    window.EndCount = TruncateSaturated((gridNm(lastGrid + 1) - window.StartWvl) * (kPoints - 1) / span);
  }
  return window;
}

void FillSpectrumRecord(uint8_t* record, const uint8_t* header, uint32_t granularity, double lowerNm,
                        double upperNm, const int16_t* points) {
  std::memcpy(record + kHeaderOffset, header, kHeaderBytes);
  record[kHeaderOffset] = kSpectrumMarker;
  record[kStatusByteOffset] = 0;
  Put32(record, kGranularityOffset, granularity);
  Put32(record, kLowerOffset, static_cast<uint32_t>(TruncateSaturated(granularity * lowerNm)));
  Put32(record, kUpperOffset, static_cast<uint32_t>(TruncateSaturated(granularity * upperNm)));
  std::memcpy(record + kPointsOffset, points, 2 * kPoints);
  Put32(record, kLengthOffset, kBodyLength);
}

}  // namespace fs
