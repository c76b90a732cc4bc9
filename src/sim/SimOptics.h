// The optics in front of the simulated card: laser sweep, reference grating with its
// thermistor, Fabry-Perot comb, and the propagation delay to a sensor.
//
// The server turns sweep positions (counts) into wavelengths with a comb of known free spectral
// range whose absolute teeth are identified by a reference grating (FBG), whose own wavelength
// it predicts from a thermistor reading through a fixed model. For the simulated instrument to
// measure right with an empty tag file, every constant the server holds has the server
// constructor's value here, and the thermistor reading is the exact inverse of the server's
// model. Laser-specific values (how far a bias or scan-amplitude LSB moves the sweep) are the
// card's own. Like every instrument, the card leaves the factory calibrated: its baseline tag
// file carries the bias and scan amplitude at which, at its working temperature, the server's
// loops are satisfied (see `factory` below), so a fresh instrument starts at lock.
//
// The sweep: one laser period is 131072 counts; counts 0-65535 are the measured forward half,
// where the optical frequency falls as the count rises:
//   f(x) = fc + (S/2) [ (1 - eta)(1 - 2x/65536) + eta cos(pi x / 65536) ]
//   fc = fcF + kB (bias - biasF) + kTL (internal temperature - TF),  S = kA * scan amplitude,
// with fcF the centre the factory calibration found at bias biasF and temperature TF.
// Everything here is a pure function of its parameters; the instrument model holds the state.
#pragma once

#include <cstdint>

namespace sim {

// Constants the server's constructor holds; the card mirrors them exactly.
namespace server_scale {
constexpr double kSteinhartB0 = 0.001111626146876;
constexpr double kSteinhartB1 = 0.0002370659380533;
constexpr double kSteinhartB3 = 7.54233759059e-08;
constexpr int kFbgRefVth = 32767;       // thermistor reading of the reference wavelength
constexpr double kFbgRefWvlNm = 1550.0;  // grating wavelength at that reading
constexpr double kFbgNmPerDegC = 0.01;
constexpr double kSpeedOfLight = 299792458.0;  // m/s
constexpr double kCombRefThz = 194.0;          // a comb tooth sits here
constexpr double kCombFsrGhz = 100.0;
constexpr double kGroupIndex = 1.46;
}  // namespace server_scale

constexpr double kCountsPerHalfSweep = 65536.0;
constexpr double kCountsPerLaserPeriod = 131072.0;

// The laser's factory calibration, which the baseline tag file of a new instrument carries
// ("#SET_SCAN_AMP", "#SET_INITIAL_BIAS"). It is taken at the working temperature against the
// server's default loop targets: the scan amplitude spreads the scan loop's stretch of comb
// intervals (44 left and 56 right of the reference tooth) over 0.7 of the sweep, and the bias
// puts the reference grating in the middle of the sweep as the peak detector reports it. A
// fresh instrument therefore starts with both loops inside their dead bands; away from these
// conditions (another temperature, a drifting laser, other targets) the loops do the rest.
namespace factory {
constexpr uint16_t kScanAmp = 40000;
constexpr uint16_t kBias = 28000;
constexpr double kDegC = 35.0;  // internal temperature, the grating's as well once settled
constexpr int kStretchIntervals = 44 + 56;
constexpr double kStretchCounts = 45875.0;  // trunc(0.7 x 65536)
constexpr double kSpanThz =
    kStretchIntervals * server_scale::kCombFsrGhz * 1e-3 * kCountsPerHalfSweep / kStretchCounts;
constexpr double kGratingCounts = 32768.0;  // where the bias loop wants the grating
}  // namespace factory

// Every physical parameter of the optics; tests and the scene change them as knobs.
struct COpticsParams {
  // Laser sweep.
  double Eta = 0.0;                     // sweep nonlinearity (0 = linear in the count)
  double ScanGainThzPerLsb = factory::kSpanThz / factory::kScanAmp;  // kA: span per LSB
  double BiasGainThzPerLsb = 2.2e-4;    // kB: centre shift per bias LSB
  double LaserThzPerDegC = -0.01;       // kTL: centre drift with the internal temperature
  double BandLowNm = 1480.0;            // the source emits only inside this band
  double BandHighNm = 1625.0;

  // Reference grating (the server's model values, and the grating's true deviation from it).
  double GratingRefWvlNm = server_scale::kFbgRefWvlNm;
  int GratingRefVth = server_scale::kFbgRefVth;
  double GratingNmPerDegC = server_scale::kFbgNmPerDegC;
  double CalibrationErrorFsr = 0.0;     // true grating offset from the model, in comb intervals
  double GratingAmplitude = 20000.0;    // detector units at gain 0
  double GratingFwhmNm = 0.1;
  int GratingList = 0;                  // peak list carrying the grating (0, or DUT list 2-5)

  // Comb.
  double CombRefThz = server_scale::kCombRefThz;
  double CombFsrGhz = server_scale::kCombFsrGhz;  // the true free spectral range
  double CombAmplitude = 15000.0;
  double CombFinesse = 8.0;

  // Propagation and detection.
  double SpeedOfLight = server_scale::kSpeedOfLight;
  double GroupIndex = server_scale::kGroupIndex;  // the fibre's true group index
  double DetectorLatencyCounts = 160.0;  // peak detector delay, on every list, not on samples
  double CountsPerDb = 0.0;              // kappa: position shift per dB of detector gain
  // Sigma of a detected position, limited to two sigma. With the card's integer positions and
  // the comb interpolation around a sensor, 0.3 counts keeps every single reading within
  // +/-3 pm of the truth; 0.5 counts would put about 2 % of readings beyond it.
  double PeakNoiseCounts = 0.3;
  double SampleNoise = 20.0;             // sigma of a full-spectrum sample
  double SampleBaseline = 300.0;         // dark level of a full-spectrum sample
};

// The server's thermistor model: temperature (degC) of the grating for a thermistor reading.
double ServerThermistorDegC(int vth);
// The thermistor reading the card reports at a grating temperature: the exact inverse of the
// server's model, rounded and kept inside the model's valid range (-32767 ... 32766).
int ThermistorReading(double degC);

// The grating's wavelength as the server's model predicts it from its temperature (nm).
double ModelGratingWvlNm(const COpticsParams& p, double gratingDegC);
// The grating's true optical frequency, including the calibration-error knob (THz).
double TrueGratingThz(const COpticsParams& p, double gratingDegC);

inline double NmToThz(const COpticsParams& p, double nm) { return p.SpeedOfLight * 1e-3 / nm; }
inline double ThzToNm(const COpticsParams& p, double thz) { return p.SpeedOfLight * 1e-3 / thz; }

// Detector gain code to gain in dB, and to an amplitude factor.
double GainDb(uint16_t code);
double GainFactor(uint16_t code);
// Peak amplitude a threshold register stands for; negative when the register means none
// (register 0, or any value at or below the zero level 32768).
double ThresholdAmplitude(uint16_t reg);

// Round-trip delay to a grating `metres` down the fibre, in sweep counts at `sweepRate` sweeps/s.
double TimeOfFlightCounts(const COpticsParams& p, double metres, double sweepRate);

// One laser sweep for the applied bias, scan amplitude and internal temperature.
class CSweep {
 public:
  CSweep(const COpticsParams& p, uint16_t bias, uint16_t scanAmp, double internalDegC);

  bool HasLight() const { return SpanThz > 1e-9; }
  double FrequencyAt(double x) const;  // THz at count x
  // Count at which the sweep passes `thz`, or a negative number when the forward half does not
  // reach it or the source does not emit there.
  double PositionOf(double thz) const;
  // Counts per THz near `thz` (positive), to turn optical widths into counts.
  double CountsPerThz(double thz) const;
  bool InBand(double thz) const { return thz >= BandLowThz && thz <= BandHighThz; }

  double CentreThz;   // fc
  double SpanThz;     // S
  double HighThz;     // frequency at count 0
  double LowThz;      // frequency at count 65536
  double BandLowThz;  // source band
  double BandHighThz;

 private:
  double Eta;
};

}  // namespace sim
