// The wavelength scale: turning sweep positions (counts) into wavelengths and back.
//
// The laser sweep reports every reflection peak as a count. The ruler that turns counts into
// optical frequency is the Fabry-Perot comb that every sweep carries: its teeth are one free
// spectral range apart. The comb says how far apart two counts are in frequency, but not which
// tooth is which: every tooth looks the same. The reference grating settles that. It sits in
// the same sweep, and its frequency is known from its temperature, which the thermistor
// beside it reports; so the grating names the tooth next to it, and from there the reference
// tooth (`FfpiRefPeakThz`, whose absolute frequency is known) is a whole number of teeth away.
// If the grating lands noticeably between two whole numbers of teeth, its temperature model or
// the comb calibration is off: the record is still measured but marked.
#include "processing/WavelengthScale.h"

#include <cstring>

#include <cmath>

#include "processing/ProcessedRecord.h"
#include "server/Vr480Server.h"
#include "server/RepeatingMessage.h"

namespace {

constexpr int kThermistorReadings = 65536;  // every signed 16-bit reading
constexpr int kReadingOffset = 32768;       // table index = reading + 32768

}  // namespace

int FitLine(const double* x, const double* y, int count, double* slope, double* intercept) {
  *slope = 0.0;
  *intercept = 0.0;
  if (count < 1) return -1;
  double sx = 0.0, sy = 0.0, sxy = 0.0, sxx = 0.0;
  for (int i = 0; i < count; ++i) {
    sx += x[i];
    sy += y[i];
    sxy += x[i] * y[i];
    sxx += x[i] * x[i];
  }
  const double n = count;
  *slope = (n * sxy - sx * sy) / (n * sxx - sx * sx);
  *intercept = (sy - *slope * sx) / n;
  return 0;
}

// The thermistor sits in a divider against 10 kOhm, read by a signed 16-bit converter; the
// Steinhart-Hart fit (without the square term) turns its resistance into temperature. Kept in
// extended precision: the table below differences temperatures of neighbouring readings.
double CVr480Server::thermistor_Vth2degC(int16_t vth) const {
  const long double x = 2.0L * vth;
  const long double r = 10000.0L * (65535.0L + x) / (65535.0L - x);
  const long double l = std::log(r);
  const long double b0 = SteinhartB0, b1 = SteinhartB1, b3 = SteinhartB3;
  return static_cast<double>(1.0L / (b0 + b1 * l + b3 * l * l * l) - 273.16L);
}

// The grating's wavelength moves linearly with its temperature from the reference point
// (`FbgRefWvlNm` at reading `FbgRefVth`); the table holds its optical frequency for every
// reading so that the pipeline pays one lookup per record. Reading -32768 has no resistance
// in the divider model and 32767 lies outside the loop, so both ends hold the reference
// frequency.
int CVr480Server::build_FBG_Vth2Thz_LUT() {
  const int16_t refVth = static_cast<int16_t>(FbgRefVth.load());
  const double refDegC = thermistor_Vth2degC(refVth);
  const double nmPerDegC = FbgNmPerDegC, refNm = FbgRefWvlNm, c = SpeedOfLight;
  for (int v = -32768; v <= 32766; ++v) {
    const double nm = (thermistor_Vth2degC(static_cast<int16_t>(v)) - refDegC) * nmPerDegC + refNm;
    Vth2Thz[v + kReadingOffset] = c * 0.001 / nm;
  }
  const double refThz = c * 0.001 / refNm;  // what the loop gives at the reference reading
  Vth2Thz[0] = refThz;
  Vth2Thz[kThermistorReadings - 1] = refThz;
  return 0;
}

double CVr480Server::GetFBG_Thz() const {
  int vth;
  {
    std::lock_guard<std::mutex> g(ScaleLock);
    vth = Scale.bValid ? Scale.Vth : static_cast<int16_t>(FbgRefVth.load());
  }
  return Vth2Thz[vth + kReadingOffset];
}

// Status of the two references a record needs before its comb can be placed: exactly one
// grating peak, at least 11 teeth, and the grating at least five teeth in from either end, so
// that the segment around it and its neighbours are real teeth. Prints the reason for a
// failure: the first at once, then at most once a second with the number held back, since a
// lost grating or comb would otherwise print at the record rate for as long as it lasts.
uint8_t CVr480Server::CheckScaleReferences(const struct_dma_peaks_data& rec, const struct_dma_peaks_status& hdr) {
  const unsigned gratings = hdr.NumPeaks[0];
  if (gratings != 1) {
    static CRepeatingMessage message;
    message.Print("Error: %u grating peaks\r", gratings);
    return gratings == 0 ? kPeaksNoGrating : kPeaksManyGratings;
  }
  const unsigned n = hdr.NumPeaks[1];
  if (n < 11) {
    static CRepeatingMessage message;
    message.Print("Error: only %u FFPI peaks found\r", n);
    return kPeaksFewCombTeeth;
  }
  const int last = static_cast<int>(n < kPeakListSize ? n : kPeakListSize) - 1;
  const uint32_t grating = rec.FbgPeaks[0];
  if (grating < rec.FfpiPeaks[5]) {
    static CRepeatingMessage message;
    message.Print("Error: FBG too far to the left\r");
    return kPeaksGratingLeft;
  }
  if (grating > rec.FfpiPeaks[last - 4]) {
    static CRepeatingMessage message;
    message.Print("Error: FBG too far to the right\r");
    return kPeaksGratingRight;
  }
  return kPeaksOk;
}

// Names the reference tooth on this record. With the monitored grating, the grating's
// temperature-derived frequency gives tooth Segment-1 an absolute frequency, and the number
// of FSRs from there to `FfpiRefPeakThz` (ideally a whole number: `WvlCorrCoef`) says which
// tooth is the reference. Without it, the tooth nearest the grating (or `Peak2Use` teeth past
// the grating's segment) is taken as the reference. Runs on every record that passed the
// checks, published or not, so the scan loop sees the placement of every sweep. False when
// the named tooth is not in this record's comb: the record is then treated as failed.
bool CVr480Server::PlaceComb(const struct_dma_peaks_data& rec, int combCount, CombPlacement& placement) {
  const uint32_t* teeth = rec.FfpiPeaks;
  const uint32_t grating = rec.FbgPeaks[0];
  int k = 1;
  while (k < combCount - 1 && teeth[k] <= grating) ++k;
  const double into = static_cast<double>(static_cast<uint32_t>(grating - teeth[k - 1]));
  const double span = static_cast<double>(static_cast<uint32_t>(teeth[k] - teeth[k - 1]));
  const double fsr = FfpiFsrGhz / 1000.0;

  int32_t reference;
  int toothOffset = 0;
  if (bMonitoredFbg) {
    const double fbgThz = GetFBG_Thz();
    FbgThz = fbgThz;
    const double coef = (fbgThz + into * fsr / span - FfpiRefPeakThz) / fsr;
    WvlCorrCoef = coef;
    const double whole = std::nearbyint(coef);  // ties to even in the default rounding mode
    if (!(whole >= -32768.0 && whole <= 32767.0)) return false;
    toothOffset = static_cast<int>(whole);
    reference = k + toothOffset - 1;
  } else {
    WvlCorrCoef = 0.0;
    const int32_t peak2Use = Peak2Use;
    if (peak2Use == 0) {
      const double beyond = static_cast<double>(static_cast<uint32_t>(teeth[k] - grating));
      reference = into < beyond ? k - 1 : k;  // midway goes to the higher-count tooth
    } else {
      reference = peak2Use + k - 1;
    }
  }
  if (reference < 0 || reference >= combCount) return false;

  FfpiRefPeakIndex = static_cast<uint16_t>(reference);
  ScaleRefPeakIndex = static_cast<uint32_t>(reference);
  bScaleValid = true;
  placement.Segment = k;
  placement.ToothOffset = toothOffset;
  return true;
}

// On a published record: mark a grating that sat too far between whole teeth, give every
// tooth its frequency counted from the reference tooth, and measure the grating on the
// placed comb (which is what the temperature model predicted if the instrument is healthy).
void CVr480Server::FinishComb(const struct_dma_peaks_data& rec, int combCount, const CombPlacement& placement,
                              uint8_t* slot) {
  const double miss = WvlCorrCoef - placement.ToothOffset;
  const double tolerance = MaxWvlCorrCoefError;
  if (miss < -tolerance || miss > tolerance) slot[kRecStatus3Offset] |= kRecScaleWarningBit;

  const double fsr = FfpiFsrGhz / 1000.0;
  const double refThz = FfpiRefPeakThz;
  const int reference = FfpiRefPeakIndex;
  for (int i = 0; i < combCount; ++i) FfpiPeakThz[i] = refThz + (reference - i) * fsr;

  const double gratingThz = CombFrequencyThz(rec.FfpiPeaks, FfpiPeakThz, placement.Segment,
                                             static_cast<double>(rec.FbgPeaks[0]), fsr);
  CalculatedFbg = SpeedOfLight * 0.001 / gratingThz;

  std::lock_guard<std::mutex> g(ScaleLock);
  std::memcpy(Scale.Thz, FfpiPeakThz, sizeof Scale.Thz);
}

// The conversions work on the current record's comb; other threads read it from this copy,
// taken as each record is fetched (the card reuses its buffer half a second later).
void CVr480Server::SnapshotScale(const struct_dma_peaks_data& rec) {
  const int n = rec.status.NumPeaks[1];
  std::lock_guard<std::mutex> g(ScaleLock);
  Scale.Count = n < kPeakListSize ? n : kPeakListSize;
  std::memcpy(Scale.Teeth, rec.FfpiPeaks, sizeof(uint32_t) * Scale.Count);
  Scale.Vth = rec.status.Vth;
  Scale.bValid = true;
}

double CVr480Server::Counts2Wvl(double counts) const {
  std::lock_guard<std::mutex> g(ScaleLock);
  const int n = Scale.Count;
  if (n < 2) return -1.0;
  const uint32_t* teeth = Scale.Teeth;
  int k;
  if (counts < teeth[0]) {
    k = 1;
  } else if (counts > teeth[n - 1]) {
    k = n - 1;
  } else {
    k = 1;
    while (k < n - 1 && teeth[k] < counts) ++k;
  }
  return SpeedOfLight * 0.001 / CombFrequencyThz(teeth, Scale.Thz, k, counts, FfpiFsrGhz / 1000.0);
}

double CVr480Server::Wvl2Counts(double wvlNm) {
  std::lock_guard<std::mutex> g(ScaleLock);
  const int n = Scale.Count;
  if (n < 2) return -1.0;
  const uint32_t* teeth = Scale.Teeth;
  const double* toothThz = Scale.Thz;
  const double fsr = FfpiFsrGhz / 1000.0;
  const double thz = SpeedOfLight / wvlNm / 1000.0;
  int k;
  if (thz > toothThz[0]) {
    k = 1;
  } else if (thz < toothThz[n - 1]) {
    k = n - 1;
  } else {
    k = 1;
    while (k < n - 1 && toothThz[k] > thz) ++k;
  }
  const double span = static_cast<double>(static_cast<uint32_t>(teeth[k] - teeth[k - 1]));
  const double counts = teeth[k - 1] - (thz - toothThz[k - 1]) * span / fsr;
  return static_cast<double>(TruncateToInt32(counts));
}
