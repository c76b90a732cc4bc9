#include "sim/SimOptics.h"

#include <algorithm>
#include <cmath>

namespace sim {

namespace {
constexpr double kPi = 3.14159265358979323846;
constexpr double kZeroCelsius = 273.16;  // the server's model uses 273.16, not 273.15
constexpr double kDividerOhms = 10000.0;
}  // namespace

double ServerThermistorDegC(int vth) {
  // The server's divider model in extended precision: the reading is the thermistor's share
  // of a 10 kOhm divider; Steinhart-Hart without the square term gives the temperature.
  const long double x = 2.0L * vth;
  const long double r = kDividerOhms * (65535.0L + x) / (65535.0L - x);
  const long double l = std::log(r);
  const long double t = 1.0L / (server_scale::kSteinhartB0 + server_scale::kSteinhartB1 * l +
                                server_scale::kSteinhartB3 * l * l * l);
  return static_cast<double>(t - kZeroCelsius);
}

int ThermistorReading(double degC) {
  // Solve B0 + B1 L + B3 L^3 = 1/(T + 273.16) for L = ln R. The left side rises monotonically
  // in L, so Newton's method from the 10 kOhm point converges in a handful of steps.
  const long double target = 1.0L / (static_cast<long double>(degC) + kZeroCelsius);
  long double l = std::log(static_cast<long double>(kDividerOhms));
  for (int i = 0; i < 50; ++i) {
    const long double g = server_scale::kSteinhartB0 + server_scale::kSteinhartB1 * l +
                          server_scale::kSteinhartB3 * l * l * l - target;
    const long double dg = server_scale::kSteinhartB1 + 3.0L * server_scale::kSteinhartB3 * l * l;
    const long double step = g / dg;
    l -= step;
    if (std::fabs(step) < 1e-15L) break;
  }
  const long double r = std::exp(l);
  const long double v = 32767.5L * (r - kDividerOhms) / (r + kDividerOhms);
  const long double rounded = std::round(v);
  return static_cast<int>(std::clamp(rounded, -32767.0L, 32766.0L));
}

double ModelGratingWvlNm(const COpticsParams& p, double gratingDegC) {
  const double tRef = ServerThermistorDegC(p.GratingRefVth);
  return p.GratingRefWvlNm + p.GratingNmPerDegC * (gratingDegC - tRef);
}

double TrueGratingThz(const COpticsParams& p, double gratingDegC) {
  return NmToThz(p, ModelGratingWvlNm(p, gratingDegC)) + p.CalibrationErrorFsr * p.CombFsrGhz * 1e-3;
}

double GainDb(uint16_t code) { return 40.1 * code / 65535.0; }

double GainFactor(uint16_t code) { return std::pow(10.0, GainDb(code) / 20.0); }

double ThresholdAmplitude(uint16_t reg) {
  if (reg == 0) return -1.0;
  // The server writes trunc(t x 9.765625 / 2 + 32768) for a threshold of t detector units.
  return (static_cast<double>(reg) - 32768.0) * 2.0 / 9.765625;
}

double TimeOfFlightCounts(const COpticsParams& p, double metres, double sweepRate) {
  const double seconds = 2.0 * p.GroupIndex * metres / p.SpeedOfLight;
  return seconds * sweepRate * kCountsPerLaserPeriod;
}

CSweep::CSweep(const COpticsParams& p, uint16_t bias, uint16_t scanAmp, double internalDegC)
    : Eta(p.Eta) {
  // At the factory point the grating, as the detector reports it (late by its latency), sits
  // where the bias loop wants it: the sweep passes the grating's frequency that many counts
  // before the target position, and the frequency falls by S/65536 per count.
  const double gratingCount = factory::kGratingCounts - p.DetectorLatencyCounts;
  const double factoryCentre =
      NmToThz(p, ModelGratingWvlNm(p, factory::kDegC)) +
      factory::kSpanThz * (gratingCount - 0.5 * kCountsPerHalfSweep) / kCountsPerHalfSweep;
  CentreThz = factoryCentre + p.BiasGainThzPerLsb * (static_cast<double>(bias) - factory::kBias) +
              p.LaserThzPerDegC * (internalDegC - factory::kDegC);
  SpanThz = p.ScanGainThzPerLsb * scanAmp;
  HighThz = FrequencyAt(0.0);
  LowThz = FrequencyAt(kCountsPerHalfSweep);
  BandLowThz = NmToThz(p, p.BandHighNm);
  BandHighThz = NmToThz(p, p.BandLowNm);
}

double CSweep::FrequencyAt(double x) const {
  const double u = x / kCountsPerHalfSweep;
  return CentreThz + 0.5 * SpanThz * ((1.0 - Eta) * (1.0 - 2.0 * u) + Eta * std::cos(kPi * u));
}

double CSweep::PositionOf(double thz) const {
  if (!HasLight() || !InBand(thz) || thz > HighThz || thz < LowThz) return -1.0;
  // Linear sweep: exact. Otherwise Newton's method from the linear guess; f is monotonic.
  double x = kCountsPerHalfSweep * 0.5 * (1.0 - 2.0 * (thz - CentreThz) / SpanThz);
  if (Eta == 0.0) return x;
  for (int i = 0; i < 30; ++i) {
    const double u = x / kCountsPerHalfSweep;
    const double g = FrequencyAt(x) - thz;
    const double dg = 0.5 * SpanThz *
                      ((1.0 - Eta) * (-2.0) - Eta * kPi * std::sin(kPi * u)) / kCountsPerHalfSweep;
    const double step = g / dg;
    x = std::clamp(x - step, 0.0, kCountsPerHalfSweep);
    if (std::fabs(step) < 1e-6) break;
  }
  return x;
}

double CSweep::CountsPerThz(double thz) const {
  const double x = std::max(PositionOf(thz), 0.0);
  const double u = x / kCountsPerHalfSweep;
  const double dfdx = 0.5 * SpanThz * ((1.0 - Eta) * 2.0 + Eta * kPi * std::sin(kPi * u)) /
                      kCountsPerHalfSweep;
  return dfdx > 0.0 ? 1.0 / dfdx : 0.0;
}

}  // namespace sim
