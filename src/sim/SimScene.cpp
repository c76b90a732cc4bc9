#include "sim/SimScene.h"

#include <charconv>
#include <cmath>
#include <fstream>
#include <functional>
#include <map>
#include <sstream>

namespace sim {

namespace {

constexpr double kTwoPi = 6.28318530717958647692;

double Fraction(double t, double period) {
  if (period <= 0.0) return 0.0;
  const double f = std::fmod(t / period, 1.0);
  return f < 0.0 ? f + 1.0 : f;
}

std::vector<std::string> SplitWords(const std::string& line) {
  std::vector<std::string> words;
  std::istringstream in(line);
  std::string w;
  while (in >> w) words.push_back(w);
  return words;
}

// Locale-independent number parsing: the whole token must be a number.
std::optional<double> ToNumber(const std::string& token) {
  if (token.size() > 2 && token[0] == '0' && (token[1] == 'x' || token[1] == 'X')) {  // IDs are written in hex
    unsigned long long h = 0;
    const char* end = token.data() + token.size();
    auto [p, ec] = std::from_chars(token.data() + 2, end, h, 16);
    if (ec != std::errc() || p != end) return std::nullopt;
    return static_cast<double>(h);
  }
  double v = 0.0;
  const char* end = token.data() + token.size();
  auto [p, ec] = std::from_chars(token.data(), end, v);
  if (ec != std::errc() || p != end || !std::isfinite(v)) return std::nullopt;
  return v;
}

// Collects the first error with its line number; parsing stops there.
class CLineParser {
 public:
  CLineParser(int lineNumber, std::vector<std::string> words)
      : LineNumber(lineNumber), Words(std::move(words)) {}

  bool Failed() const { return !Error.empty(); }
  const std::string& ErrorText() const { return Error; }
  size_t Size() const { return Words.size(); }
  const std::string& Word(size_t i) const { return Words[i]; }

  double Number(size_t i, const char* what, double lo, double hi) {
    if (Failed()) return 0.0;
    if (i >= Words.size()) {
      Fail(std::string("missing ") + what);
      return 0.0;
    }
    auto v = ToNumber(Words[i]);
    if (!v) {
      Fail(std::string("expected ") + what + ", got '" + Words[i] + "'");
      return 0.0;
    }
    if (*v < lo || *v > hi) {
      std::ostringstream m;
      m << what << " " << Words[i] << " is outside " << lo << " ... " << hi;
      Fail(m.str());
      return 0.0;
    }
    return *v;
  }

  void Fail(const std::string& message) {
    if (Failed()) return;
    Error = "line " + std::to_string(LineNumber) + ": " + message;
  }

  void ExpectCount(size_t n) {
    if (!Failed() && Words.size() != n) {
      Fail("'" + Words[0] + "' takes " + std::to_string(n - 1) + " value(s), got " +
           std::to_string(Words.size() - 1));
    }
  }

 private:
  int LineNumber;
  std::vector<std::string> Words;
  std::string Error;
};

void ParseSensor(CLineParser& line, CSimScene& scene) {
  auto channel = ParseLogicalChannel(line.Word(0));
  if (!channel) {
    line.Fail("bad channel '" + line.Word(0) + "' (1-16, or c.m with c and m 1-4)");
    return;
  }
  CSimSensor s;
  s.WavelengthNm = line.Number(1, "wavelength in nm", 1000.0, 2000.0);
  s.DistanceM = line.Number(2, "distance in m", 0.0, 1e6);
  s.Amplitude = line.Number(3, "amplitude", 0.0, 1e6);
  size_t i = 4;
  while (!line.Failed() && i < line.Size()) {
    const std::string& key = line.Word(i);
    if (key == "fwhm") {
      s.FwhmNm = line.Number(i + 1, "fwhm in nm", 1e-4, 10.0);
      i += 2;
    } else if (key == "sine" || key == "ramp" || key == "step") {
      s.Modulation = key == "sine" ? EModulation::Sine
                     : key == "ramp" ? EModulation::Ramp : EModulation::Step;
      s.ModAmplitudeNm = line.Number(i + 1, "modulation amplitude in nm", -100.0, 100.0);
      s.ModPeriodS = line.Number(i + 2, "modulation period in s", 1e-6, 1e9);
      i += 3;
    } else if (key == "dropout") {
      s.Modulation = EModulation::Dropout;
      s.ModPeriodS = line.Number(i + 1, "dropout period in s", 1e-6, 1e9);
      i += 2;
      if (i < line.Size() && ToNumber(line.Word(i))) {
        s.DropoutDuty = line.Number(i, "dropout duty", 0.0, 1.0);
        ++i;
      }
    } else {
      line.Fail("unknown sensor option '" + key + "' (fwhm, sine, ramp, step, dropout)");
    }
  }
  if (line.Failed()) return;
  auto& list = scene.Sensors[*channel];
  if (list.size() >= static_cast<size_t>(kMaxSensorsPerChannel)) {
    line.Fail("more than 250 sensors on channel " + line.Word(0));
    return;
  }
  list.push_back(s);
}

using KnobSetter = std::function<void(CLineParser&, CSimScene&)>;

// One setter per knob name; each checks its own arity and range.
const std::map<std::string, KnobSetter>& Knobs() {
  auto scalar = [](const char* what, double lo, double hi, std::function<void(CSimScene&, double)> set) {
    return [=](CLineParser& l, CSimScene& s) {
      l.ExpectCount(2);
      const double v = l.Number(1, what, lo, hi);
      if (!l.Failed()) set(s, v);
    };
  };
  auto perIndex = [](const char* what, std::function<std::array<double, 4>&(CSimScene&)> table) {
    return [=](CLineParser& l, CSimScene& s) {
      l.ExpectCount(3);
      const double index = l.Number(1, "index 1-4", 1.0, 4.0);
      const double v = l.Number(2, what, 0.0, 1e6);
      if (!l.Failed() && index != std::floor(index)) l.Fail("index must be a whole number 1-4");
      if (!l.Failed()) table(s)[static_cast<int>(index) - 1] = v;
    };
  };
  static const std::map<std::string, KnobSetter> knobs = {
      {"internal_temp", [](CLineParser& l, CSimScene& s) {
         l.ExpectCount(2);
         const double t = l.Number(1, "temperature in degC", -60.0, 150.0);
         if (l.Failed()) return;
         const double grating = s.Environment.InternalDegC + s.Environment.GratingOffsetDegC;
         s.Environment.InternalDegC = t;
         s.Environment.GratingOffsetDegC = grating - t;  // an explicit grating_temp stays put
       }},
      {"grating_temp", scalar("temperature in degC", -60.0, 150.0, [](CSimScene& s, double v) {
         s.Environment.GratingOffsetDegC = v - s.Environment.InternalDegC;
       })},
      {"grating_lag", scalar("lag in s", 0.0, 1e6, [](CSimScene& s, double v) { s.Environment.GratingLagS = v; })},
      {"scan_gain", scalar("THz per LSB", 0.0, 1.0, [](CSimScene& s, double v) { s.Optics.ScanGainThzPerLsb = v; })},
      {"bias_gain", scalar("THz per LSB", -1.0, 1.0, [](CSimScene& s, double v) { s.Optics.BiasGainThzPerLsb = v; })},
      {"eta", scalar("nonlinearity", 0.0, 1.0, [](CSimScene& s, double v) { s.Optics.Eta = v; })},
      {"calibration_error", scalar("offset in comb intervals", -10.0, 10.0,
                                   [](CSimScene& s, double v) { s.Optics.CalibrationErrorFsr = v; })},
      {"fsr", scalar("free spectral range in GHz", 1.0, 10000.0, [](CSimScene& s, double v) { s.Optics.CombFsrGhz = v; })},
      {"group_index", scalar("group index", 1.0, 3.0, [](CSimScene& s, double v) { s.Optics.GroupIndex = v; })},
      {"latency", scalar("latency in counts", 0.0, 10000.0,
                         [](CSimScene& s, double v) { s.Optics.DetectorLatencyCounts = v; })},
      {"kappa", scalar("counts per dB", -1000.0, 1000.0, [](CSimScene& s, double v) { s.Optics.CountsPerDb = v; })},
      {"peak_noise", scalar("noise in counts", 0.0, 1000.0, [](CSimScene& s, double v) { s.Optics.PeakNoiseCounts = v; })},
      {"sample_noise", scalar("noise in units", 0.0, 10000.0, [](CSimScene& s, double v) { s.Optics.SampleNoise = v; })},
      {"grating_amplitude", scalar("amplitude", 0.0, 1e6, [](CSimScene& s, double v) { s.Optics.GratingAmplitude = v; })},
      {"comb_amplitude", scalar("amplitude", 0.0, 1e6, [](CSimScene& s, double v) { s.Optics.CombAmplitude = v; })},
      {"grating_list", [](CLineParser& l, CSimScene& s) {
         l.ExpectCount(2);
         const double v = l.Number(1, "peak list", 0.0, 5.0);
         if (!l.Failed() && (v == 1.0 || v != std::floor(v))) l.Fail("grating_list must be 0 or 2-5");
         if (!l.Failed()) s.Optics.GratingList = static_cast<int>(v);
       }},
      {"card_absent", scalar("0 or 1", 0.0, 1.0, [](CSimScene& s, double v) { s.Hardware.bAbsent = v != 0.0; })},
      {"device_id", scalar("device ID", 1.0, 65535.0,
                           [](CSimScene& s, double v) { s.Hardware.DeviceIdOverride = static_cast<uint16_t>(v); })},
      {"driver_release", scalar("release", 1.0, 65535.0,
                                [](CSimScene& s, double v) { s.Hardware.DriverRelease = static_cast<uint16_t>(v); })},
      {"master_divider", scalar("divider", 1.0, 65535.0, [](CSimScene& s, double v) {
         s.Environment.MasterDivider = static_cast<uint16_t>(v);
       })},
      {"channel_length", perIndex("length in m", [](CSimScene& s) -> std::array<double, 4>& {
         return s.Environment.ChannelLengthM;
       })},
      {"layer_length", perIndex("length in m", [](CSimScene& s) -> std::array<double, 4>& {
         return s.Environment.LayerLengthM;
       })},
  };
  return knobs;
}

}  // namespace

double CSimSensor::WavelengthAt(double t) const {
  switch (Modulation) {
    case EModulation::Sine: return WavelengthNm + ModAmplitudeNm * std::sin(kTwoPi * t / ModPeriodS);
    case EModulation::Ramp: return WavelengthNm + ModAmplitudeNm * Fraction(t, ModPeriodS);
    case EModulation::Step: return WavelengthNm + (Fraction(t, ModPeriodS) >= 0.5 ? ModAmplitudeNm : 0.0);
    default: return WavelengthNm;
  }
}

bool CSimSensor::PresentAt(double t) const {
  return Modulation != EModulation::Dropout || Fraction(t, ModPeriodS) < 1.0 - DropoutDuty;
}

std::optional<int> ParseLogicalChannel(const std::string& token) {
  const size_t dot = token.find('.');
  auto whole = [](const std::string& s) -> std::optional<int> {
    int v = 0;
    auto [p, ec] = std::from_chars(s.data(), s.data() + s.size(), v);
    if (ec != std::errc() || p != s.data() + s.size() || s.empty()) return std::nullopt;
    return v;
  };
  if (dot == std::string::npos) {
    auto n = whole(token);
    if (!n || *n < 1 || *n > kLogicalChannels) return std::nullopt;
    return *n - 1;
  }
  auto c = whole(token.substr(0, dot));
  auto m = whole(token.substr(dot + 1));
  if (!c || !m || *c < 1 || *c > 4 || *m < 1 || *m > 4) return std::nullopt;
  return (*m - 1) * 4 + (*c - 1);
}

CSimScene DefaultScene() {
  CSimScene scene;
  const double nominal[3] = {1530.0, 1545.0, 1560.0};
  for (int ch = 0; ch < 4; ++ch) {
    for (int s = 0; s < 3; ++s) {
      CSimSensor sensor;
      // Slightly different per channel so that a swapped channel shows.
      sensor.WavelengthNm = nominal[s] + 0.25 * ch;
      sensor.DistanceM = 20.0 + 150.0 * ch + 40.0 * s;
      sensor.Amplitude = 12000.0 - 1000.0 * s;
      scene.Sensors[ch].push_back(sensor);
    }
  }
  return scene;
}

CSceneParseResult ParseScene(const std::string& text) {
  CSceneParseResult result;
  std::istringstream in(text);
  std::string raw;
  int lineNumber = 0;
  while (std::getline(in, raw)) {
    ++lineNumber;
    const size_t hash = raw.find('#');
    auto words = SplitWords(hash == std::string::npos ? raw : raw.substr(0, hash));
    if (words.empty()) continue;
    CLineParser line(lineNumber, std::move(words));
    const std::string& first = line.Word(0);
    if (first[0] >= '0' && first[0] <= '9') {
      ParseSensor(line, result.Scene);
    } else {
      auto knob = Knobs().find(first);
      if (knob == Knobs().end()) {
        line.Fail("unknown setting '" + first + "'");
      } else {
        knob->second(line, result.Scene);
      }
    }
    if (line.Failed()) {
      result.Error = line.ErrorText();
      return result;
    }
  }
  result.bOk = true;
  return result;
}

CSceneParseResult LoadSceneFile(const std::string& path) {
  std::ifstream in(path);
  if (!in) {
    CSceneParseResult r;
    r.Error = "cannot read scene file '" + path + "'";
    return r;
  }
  std::ostringstream text;
  text << in.rdbuf();
  CSceneParseResult r = ParseScene(text.str());
  if (!r.bOk) r.Error = path + ": " + r.Error;
  return r;
}

}  // namespace sim
