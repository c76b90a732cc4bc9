// Helpers of the wavelength scale shared by the pipeline, the conversions and the commands.
//
// The ruler: the comb of Fabry-Perot teeth that every sweep carries. Adjacent teeth are one
// free spectral range (FSR) apart in optical frequency, and frequency falls as the sweep
// position (count) rises. Between two teeth the frequency is taken as linear in counts.
#pragma once

#include <cmath>
#include <cstdint>
#include <limits>

// Optical frequency, THz, at sweep position x on the comb segment [k-1, k]: tooth k-1's
// frequency less the fraction of one FSR that x lies past it. Positions outside the segment
// extrapolate it. `teeth` are the comb positions, `toothThz` their frequencies.
inline double CombFrequencyThz(const uint32_t* teeth, const double* toothThz, int k, double x, double fsrThz) {
  const double span = static_cast<double>(static_cast<uint32_t>(teeth[k] - teeth[k - 1]));
  return toothThz[k - 1] - (x - static_cast<double>(teeth[k - 1])) * fsrThz / span;
}

// A float truncated toward zero to a 32-bit integer, saturating at the ends; NaN gives 0.
inline int32_t TruncateToInt32(double v) {
  if (!(v == v)) return 0;
  if (v >= 2147483647.0) return std::numeric_limits<int32_t>::max();
  if (v <= -2147483648.0) return std::numeric_limits<int32_t>::min();
  return static_cast<int32_t>(v);
}

// Least-squares straight line through `count` points: slope = (n Sxy - Sx Sy) / (n Sxx - Sx^2),
// intercept = (Sy - slope Sx) / n. Both outputs are zeroed first. -1 when count < 1, else 0.
int FitLine(const double* x, const double* y, int count, double* slope, double* intercept);
