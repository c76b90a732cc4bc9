// What stands in front of the simulated card: the sensor gratings on each logical channel, the
// temperatures, and the optical knobs. A scene is plain data; the card copies it in.
//
// A scene file is text, one item per line; '#' starts a comment, blank lines are ignored,
// numbers use '.' as the decimal point whatever the locale. A line that starts with a digit is
// a sensor:
//
//   <channel> <wavelength nm> <distance m> <amplitude> [fwhm <nm>] [<modulation>]
//
// where <channel> is a logical channel in legacy notation (1-16: layer x 4 + DUT channel + 1)
// or dot notation "c.m" (DUT channel c 1-4, multiplexer position m 1-4), <distance> is the
// fibre length from the instrument to the grating, <amplitude> is the reflection in detector
// units at gain 0, and <modulation> is one of
//   sine <amplitude nm> <period s>     wavelength + A sin(2 pi t / period)
//   ramp <amplitude nm> <period s>     wavelength + A (t / period mod 1)
//   step <amplitude nm> <period s>     wavelength + A during the second half of each period
//   dropout <period s> [<duty 0-1>]    the peak vanishes for the last `duty` of each period
// Every other line is a knob, a name and its value(s):
//   internal_temp <degC>        transmitter (internal) temperature, default 35
//   grating_temp <degC>         reference grating temperature; it keeps this offset from the
//                               internal temperature when that changes (default: equal)
//   grating_lag <s>             time constant with which the grating follows, default 30
//   scan_gain <THz/LSB>         sweep span per scan-amplitude LSB, default 3.5e-4
//   bias_gain <THz/LSB>         sweep centre shift per bias LSB, default 2.2e-4
//   eta <0-1>                   sweep nonlinearity, default 0
//   calibration_error <FSR>     true grating offset from the server's model, in comb intervals
//   fsr <GHz>                   the comb's true free spectral range, default 100
//   group_index <n>             the fibre's true group index, default 1.46
//   latency <counts>            peak detector latency, default 160
//   kappa <counts/dB>           peak shift per dB of detector gain, default 0
//   peak_noise <counts>         sigma of a detected position (bounded at 2 sigma), default 0.3
//   sample_noise <units>        sigma of a full-spectrum sample, default 20
//   grating_amplitude <units>   default 20000;  comb_amplitude <units>: default 15000
//   grating_list <0|2-5>        peak list that carries the grating, default 0
//   master_divider <n>          virtual master's data-rate divider (operating modes 2, 3)
//   channel_length <c 1-4> <m>  fibre inside the instrument before DUT channel c
//   layer_length <m 1-4> <m>    fibre added by multiplexer position m
// and knobs of the card itself, read once when the card powers up:
//   card_absent <0|1>           opening "/dev/vr480" fails (no card installed)
//   device_id <id>              the bridge reports this PCI device ID (an unknown card); 0x.. allowed
//   driver_release <n>          the kernel driver's release number, default 52
// Example:
//   # channel  wavelength  distance  amplitude
//   1          1530.0      12.5      9000
//   2.1        1545.2      800       12000  fwhm 0.2  sine 0.05 2
//   internal_temp 30
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "sim/SimOptics.h"

namespace sim {

constexpr int kLogicalChannels = 16;        // multiplexer layer x 4 + DUT channel
constexpr int kMaxSensorsPerChannel = 250;  // what one peak list can hold

enum class EModulation { None, Sine, Ramp, Step, Dropout };

struct CSimSensor {
  double WavelengthNm = 1550.0;  // at rest
  double DistanceM = 0.0;        // fibre length from the instrument
  double Amplitude = 10000.0;    // detector units at gain 0
  double FwhmNm = 0.1;
  EModulation Modulation = EModulation::None;
  double ModAmplitudeNm = 0.0;
  double ModPeriodS = 1.0;
  double DropoutDuty = 0.5;

  // Wavelength and presence at card time t (seconds).
  double WavelengthAt(double t) const;
  bool PresentAt(double t) const;
};

using CSensorTables = std::array<std::vector<CSimSensor>, kLogicalChannels>;

// Temperatures and the instrument-internal fibre, beside the optics knobs.
struct CSimEnvironment {
  double InternalDegC = 35.0;
  double GratingOffsetDegC = 0.0;  // grating temperature minus internal, when settled
  double GratingLagS = 30.0;       // first-order lag of the grating behind its target
  uint16_t MasterDivider = 1;      // virtual master's divider in operating modes 2 and 3
  std::array<double, 4> ChannelLengthM{};  // per DUT channel
  std::array<double, 4> LayerLengthM{};    // per multiplexer layer
};

// What the card reports of itself at power-up.
struct CSimHardware {
  bool bAbsent = false;
  uint16_t DeviceIdOverride = 0;  // 0: the ID the configuration memory gives
  uint16_t DriverRelease = 0;     // 0: the card's default
};

struct CSimScene {
  CSensorTables Sensors;
  COpticsParams Optics;
  CSimEnvironment Environment;
  CSimHardware Hardware;
};

// Three sensors on each DUT channel of layer 0, near 1530, 1545 and 1560 nm.
CSimScene DefaultScene();

struct CSceneParseResult {
  bool bOk = false;
  std::string Error;  // "line N: ..." when not ok
  CSimScene Scene;
};

// Parses scene text on top of the defaults (an empty text gives a scene without sensors).
CSceneParseResult ParseScene(const std::string& text);
// Reads and parses a file; a file that cannot be read is an error.
CSceneParseResult LoadSceneFile(const std::string& path);

// Logical channel index of "5" (legacy) or "1.2" (dot notation); nullopt when invalid.
std::optional<int> ParseLogicalChannel(const std::string& token);

}  // namespace sim
