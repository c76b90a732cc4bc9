// Turning a full spectrum on sweep points into the calibrated spectrum clients receive.
//
// A full spectrum holds 32768 points along the forward half of the laser sweep, one every two
// counts. The sweep is not linear in wavelength, but the Fabry-Perot comb gives it a scale: the
// comb's teeth lie a known frequency interval apart, and the wavelength scale has already named
// each tooth's frequency. Between two teeth the frequency is taken as linear in the point, which
// gives every point between the first and the last tooth its wavelength; the spectrum is then
// interpolated onto a grid that is linear in wavelength between the reporting limits. Grid
// points the comb does not reach carry marker values instead of light: 111 before the first
// tooth, 333 after the last, 222 below the lower limit when the limits are reversed.
//
// With a multiplexer, the spectrum of a DUT channel holds one sub-spectrum per layer, each of
// 32768 / m points covering the whole sweep; the calibrated spectrum keeps that layout, each
// layer's part covering the whole grid.
//
// Everything here is a pure function of its inputs, run on the calibration thread.
#pragma once

#include <cstdint>

namespace fs {

constexpr int kPoints = 32768;             // points of a full spectrum and of a calibrated one
constexpr int kYieldEvery = 2048;          // points between yields, so the acquisition thread never starves
constexpr int16_t kBeforeComb = 111;       // grid point shorter than the first comb tooth
constexpr int16_t kBelowReversedLimit = 222;  // grid point below the lower limit when upper < lower
constexpr int16_t kAfterComb = 333;        // grid point longer than the last comb tooth

// The comb of the record that finished the spectrum: tooth positions in spectrum points
// (ascending) and their frequencies (descending), as the wavelength scale named them.
struct CCombScale {
  int Count = 0;                    // teeth reported on the record
  const int32_t* Points = nullptr;  // Count positions, spectrum points
  const double* Thz = nullptr;      // Count frequencies, THz
  int RefIndex = 0;                 // the reference tooth of the scale on that record
};

struct CCalibrationSettings {
  double LowerNm = 1520.0;   // grid point 0
  double UpperNm = 1570.0;   // grid point 32768 (one past the last)
  double SpeedOfLight = 299792458.0;  // m/s
  int MuxLevel = 1;          // sub-spectra in the full spectrum (1 for the grating and comb channels)
  int LeftPeaks = 44;        // comb stretch of the scan loop: teeth left of the reference tooth
  int RightPeaks = 56;       // and right of it
};

// Where the calibrated grid lies on the sweep: the straight line through the ends of the scan
// loop's comb stretch, extended to both ends of the sweep, and the grid points on it.
struct CSweepWindow {
  bool bValid = false;        // false when the stretch has no length (nothing below was set)
  double StartWvl = 0.0;      // nm at sweep point 0
  double EndWvl = 0.0;        // nm at sweep point 32767
  int32_t StartCount = 0;     // first interpolated grid point on the 0-32767 sweep scale
  int32_t EndCount = 0;       // one past the last
};

// True when the comb can scale a spectrum: at least three teeth, and the teeth used (all but
// the last, see Calibrate) strictly ascending in position and descending in frequency inside
// the spectrum.
bool CombIsUsable(const CCombScale& comb);

// Resamples `raw` (kPoints points) into `out` (kPoints points). `lambda` is scratch space for
// kPoints wavelengths. The comb must be usable. Returns the sweep window of the grid.
CSweepWindow Calibrate(const int16_t* raw, const CCombScale& comb, const CCalibrationSettings& settings,
                       double* lambda, int16_t* out);

// The 65640-byte record of a calibrated spectrum: 12 bytes left for the reply frame, the
// record's 88-byte status header (first byte 15, processing status byte cleared), the
// granularity and the grid limits in its scale words, the points, and the body length.
void FillSpectrumRecord(uint8_t* record, const uint8_t* header, uint32_t granularity, double lowerNm,
                        double upperNm, const int16_t* points);

// Saturating truncation of a double to a 32-bit integer (NaN gives 0).
int32_t TruncateSaturated(double v);

}  // namespace fs
