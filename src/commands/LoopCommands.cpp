// Commands of the control loops, the full spectrum, the automatic switch-down and the six
// analog voltage outputs.
//
// The loop parameters are read by the acquisition thread ten times a second without a lock;
// a handler only stores them. Integers are cut to the width of the field they land in; a real
// must be finite, and where a range is stated it is refused outside it (a NaN never passes a
// range check): a NaN gain would leave its loop standing still until the next start.
#include <cstdint>
#include <cstdlib>
#include <chrono>
#include <mutex>
#include <thread>
#include <string>

#include "commands/Families.h"
#include "protocol/CommandTable.h"
#include "protocol/Notation.h"
#include "server/Globals.h"
#include "server/Vr480Server.h"

namespace {

constexpr int kSwitchdownLastEntry = kSwitchdownEntries - 1;
constexpr int kPeakAmpBufDepthMax = 128;  // samples the peak-amplitude history can hold

const char* OnOff(bool on) { return on ? "on" : "off"; }
// Strictly inside (0, 1): both ends would put the target at the edge of the sweep.
bool OpenUnitInterval(double x) { return x > 0.0 && x < 1.0; }

// ---- Auto-bias -------------------------------------------------------------------------------

int SetAutoBias(CCommandContext& c) {
  const bool on = c.Int(1) != 0;
  c.Server.bAutoBias = on;
  return c.Reply("Autobias turned %s.\n", OnOff(on));
}
int GetAutoBias(CCommandContext& c) { return c.Reply("%d", c.Server.bAutoBias ? 1 : 0); }

// While the settings are replayed at start-up the bias loop has not run yet: its fall-back
// bias starts from the initial bias too. Once acquisition runs, the fall-back bias belongs to
// the loops (the scan loop moves it when it gives up).
int SetInitialBias(CCommandContext& c) {
  CVr480Server& s = c.Server;
  const uint16_t bias = static_cast<uint16_t>(c.Int(1));
  s.InitialBias = bias;
  if (!bRun) s.Bias = bias;
  return c.Reply("Initial bias set to %d.\n", bias);
}
int GetInitialBias(CCommandContext& c) { return c.Reply("%d", static_cast<int>(c.Server.InitialBias)); }

int SetGratingTargetLocation(CCommandContext& c) {
  CVr480Server& s = c.Server;
  const double x = c.Dbl(1);
  if (!OpenUnitInterval(x)) return c.Reply("!Invalid:  Legal range is {0.0 to 1.0}.\n");
  s.GratingTargetLocation = x;
  s.GratingTargetLocationCounts = static_cast<int32_t>(x * 65536.0);
  return c.Reply("Target Location set to %f.\n", x);
}
int GetGratingTargetLocation(CCommandContext& c) {
  return c.Reply("%f", static_cast<double>(c.Server.GratingTargetLocation));
}

int SetBiasFeedbackGain(CCommandContext& c) {
  double g;
  if (!c.FiniteDbl(1, g)) return kReplyText;
  c.Server.BiasFeedbackGain = g;
  return c.Reply("Autobias feedback gain set to %f.\n", g);
}
int GetBiasFeedbackGain(CCommandContext& c) { return c.Reply("%f", static_cast<double>(c.Server.BiasFeedbackGain)); }

int SetMaxBiasError(CCommandContext& c) {
  const uint16_t v = static_cast<uint16_t>(c.Int(1));
  c.Server.MaxBiasError = v;
  return c.Reply("Max bias error set to %d.\n", v);
}
int GetMaxBiasError(CCommandContext& c) { return c.Reply("%d", static_cast<int>(c.Server.MaxBiasError)); }

int SetMaxBiasStep(CCommandContext& c) {
  const uint16_t v = static_cast<uint16_t>(c.Int(1));
  c.Server.MaxBiasStep = v;
  return c.Reply("Max bias step set to %d.\n", v);
}
int GetMaxBiasStep(CCommandContext& c) { return c.Reply("%d", static_cast<int>(c.Server.MaxBiasStep)); }

// ---- Auto scan amplitude ------------------------------------------------------------------------

int SetAutoScanAmp(CCommandContext& c) {
  const bool on = c.Int(1) != 0;
  c.Server.bAutoScanAmp = on;
  return c.Reply("Auto-ScanAmp turned %s.\n", OnOff(on));
}
int GetAutoScanAmp(CCommandContext& c) { return c.Reply("%d", c.Server.bAutoScanAmp ? 1 : 0); }

int SetAutoScanRightPeaks(CCommandContext& c) {
  const int32_t v = static_cast<int32_t>(c.Int(1));
  c.Server.AutoScanRightPeaks = v;
  return c.Reply("AutoScan Right FFPI Peaks set to %d.\n", v);
}
int GetAutoScanRightPeaks(CCommandContext& c) { return c.Reply("%d", static_cast<int>(c.Server.AutoScanRightPeaks)); }

int SetAutoScanLeftPeaks(CCommandContext& c) {
  const int32_t v = static_cast<int32_t>(c.Int(1));
  c.Server.AutoScanLeftPeaks = v;
  return c.Reply("AutoScan Left FFPI Peaks set to %d.\n", v);
}
int GetAutoScanLeftPeaks(CCommandContext& c) { return c.Reply("%d", static_cast<int>(c.Server.AutoScanLeftPeaks)); }

int SetAutoScanSpan(CCommandContext& c) {
  CVr480Server& s = c.Server;
  const double x = c.Dbl(1);
  if (!OpenUnitInterval(x)) return c.Reply("!Invalid parameter:  Legal range is {0.0 to 1.0}.\n");
  s.SetScanAmpTargetSpan(x);
  return c.Reply("AutoScan Span set to %f.\n", static_cast<double>(s.AutoScanSpan));
}
int GetAutoScanSpan(CCommandContext& c) { return c.Reply("%f", static_cast<double>(c.Server.AutoScanSpan)); }

int SetAutoScanMaxStep(CCommandContext& c) {
  const int32_t v = static_cast<int32_t>(c.Int(1));
  c.Server.AutoScanMaxStep = v;
  return c.Reply("Setting ScanAmp Max step size set to %d.\n", v);
}
int GetAutoScanMaxStep(CCommandContext& c) { return c.Reply("%d", static_cast<int>(c.Server.AutoScanMaxStep)); }

int SetAutoScanMaxError(CCommandContext& c) {
  const int32_t v = static_cast<int32_t>(c.Int(1));
  c.Server.AutoScanMaxError = v;
  return c.Reply("Setting Max Allowed ScanAmp error to %d.\n", v);
}
int GetAutoScanMaxError(CCommandContext& c) { return c.Reply("%d", static_cast<int>(c.Server.AutoScanMaxError)); }

int SetAutoScanFeedbackGain(CCommandContext& c) {
  double g;
  if (!c.FiniteDbl(1, g)) return kReplyText;
  c.Server.AutoScanFeedbackGain = g;
  return c.Reply("ScanAmp feedback gain set to %f.\n", g);
}
int GetAutoScanFeedbackGain(CCommandContext& c) {
  return c.Reply("%f", static_cast<double>(c.Server.AutoScanFeedbackGain));
}

// ---- Full spectrum and peak amplitudes ------------------------------------------------------------

int SetFsEnable(CCommandContext& c) {
  const bool on = c.Int(1) != 0;
  c.Server.bFsEnable = on;
  return c.Reply("%s", on ? "FS Mode Enabled.\n" : "FS Mode Disabled.\n");
}
int GetFsEnable(CCommandContext& c) { return c.Reply("%d", c.Server.bFsEnable ? 1 : 0); }

// Kept and saved for clients that set it; no processing step reads it.
int SetFsWvlOffsetNm(CCommandContext& c) {
  double nm;
  if (!c.FiniteDbl(1, nm)) return kReplyText;
  c.Server.FsWvlOffsetNm = nm;
  return c.Reply("Setting FS Wvl Offset to %7.5f nm.\n", nm);
}
int GetFsWvlOffsetNm(CCommandContext& c) { return c.Reply("%7.5f", static_cast<double>(c.Server.FsWvlOffsetNm)); }

int GetHighSpeedFsStartWvl(CCommandContext& c) {
  return c.Reply("%0.4f", static_cast<double>(c.Server.HighSpeedFsStartWvl));
}
int GetHighSpeedFsEndWvl(CCommandContext& c) { return c.Reply("%0.4f", static_cast<double>(c.Server.HighSpeedFsEndWvl)); }

int SetPeakAmpSearchWnd(CCommandContext& c) {
  const int32_t v = static_cast<int32_t>(c.Int(1));
  c.Server.PeakAmpSearchWnd = v;
  return c.Reply("Setting Peak Amplitude Search Window Size to %d.\n", v);
}
int GetPeakAmpSearchWnd(CCommandContext& c) { return c.Reply("%d", static_cast<int>(c.Server.PeakAmpSearchWnd)); }

int SetPeakAmpBufDepth(CCommandContext& c) {
  int32_t v = static_cast<int32_t>(c.Int(1));
  if (v > kPeakAmpBufDepthMax) v = kPeakAmpBufDepthMax;
  c.Server.PeakAmpBufDepth = v;
  return c.Reply("Setting Peak Amplitude Buffer Depth to %d.\n", v);
}
int GetPeakAmpBufDepth(CCommandContext& c) { return c.Reply("%d", static_cast<int>(c.Server.PeakAmpBufDepth)); }

// ---- Switch-down ----------------------------------------------------------------------------------
// When the sensors no longer fit in one sweep period at the current data rate, the pipeline
// slows the card down; the table holds, per data-rate divider, the sensor count that does it.

int SetSwitchdownEnable(CCommandContext& c) {
  const bool on = c.Int(1) != 0;
  c.Server.bSwitchdownEnable = on;
  return c.Reply("%s", on ? "Auto SwitchDown enabled.\n" : "Auto SwitchDown disabled.\n");
}
int GetSwitchdownEnable(CCommandContext& c) { return c.Reply("%s", c.Server.bSwitchdownEnable ? "1" : "0"); }

// Dividers above the last entry share it; entry 0 is stored but never read (divider 0 reads
// entry 1).
int SetAutoSwitchdown(CCommandContext& c) {
  uint16_t divider = static_cast<uint16_t>(c.Int(1));
  if (divider > kSwitchdownLastEntry) divider = kSwitchdownLastEntry;
  const uint16_t count = static_cast<uint16_t>(c.Int(2));
  c.Server.SwitchdownLimit[divider] = count;
  return c.Reply("Setting sensor count auto-switchdown for DataRateDivider %d to %d", divider, count);
}
int GetAutoSwitchdown(CCommandContext& c) {
  return c.Reply("%d", c.Server.Switchdown(static_cast<uint16_t>(c.Int(1))));
}

// ---- Analog voltage outputs -------------------------------------------------------------------------
// Each output follows the averaged wavelength of one sensor: it sits at the reference voltage
// (a fraction of full scale) when the sensor reads the reference wavelength and moves by the
// scaling factor (output steps per nm) from there. Outputs are numbered 1-6 by clients.

// The output index 0-5 of column 1, or -1 when it is not an output number.
int Output(const CCommandContext& c) {
  const long n = c.Int(1);
  return n >= 1 && n <= kAnalogOutputs ? static_cast<int>(n - 1) : -1;
}

int BadOutput(CCommandContext& c) {
  return c.Reply("!Illegal parameters.  Acceptable ranges are: AVO Ch# 1 to %d.\n", kAnalogOutputs);
}

int SetAvoChannel(CCommandContext& c) {
  CVr480Server& s = c.Server;
  const int k = Output(c);
  const std::string text = c.Col(2);
  bool legacy = true;
  const int channel = std::atoi(Notation(text.c_str(), true, &legacy));
  if (k < 0 || channel < 1 || channel > kLogicalChannels) {
    // The range shown is that of the current multiplexer level, in the client's notation.
    bool ignored;
    const std::string top = Notation(s.GetMuxLevel() * kOpticalChannels, legacy, &ignored);
    return c.Reply("!Illegal parameters.  Acceptable ranges are: AVO Ch# 1 to %d and optical Ch# %s to %s.\n",
                   kAnalogOutputs, legacy ? "1" : "1.1", top.c_str());
  }
  s.AvoChannel[k] = static_cast<uint8_t>(channel - 1);
  return c.Reply("Referencing AVO Ch %d to optical Ch %s.\n", k + 1, text.c_str());
}
int GetAvoChannel(CCommandContext& c) {
  const int k = Output(c);
  if (k < 0) return BadOutput(c);
  bool legacy;
  return c.Reply("%s", Notation(c.Server.AvoChannel[k] + 1, false, &legacy));
}

int SetAvoSensor(CCommandContext& c) {
  const int k = Output(c);
  const long sensor = c.Int(2);
  if (k < 0 || sensor < 1 || sensor > kSensorsPerChannel)
    return c.Reply("!Illegal parameters.  Acceptable ranges are: AVO Ch# 1 to %d and sensor# 1 to %d.\n", kAnalogOutputs,
                   kSensorsPerChannel);
  c.Server.AvoSensor[k] = static_cast<uint16_t>(sensor - 1);
  return c.Reply("Referencing AVO Ch %d to optical sensor %d.\n", k + 1, static_cast<int>(sensor));
}
int GetAvoSensor(CCommandContext& c) {
  const int k = Output(c);
  if (k < 0) return BadOutput(c);
  return c.Reply("%d", c.Server.AvoSensor[k] + 1);
}

int SetAvoScalingFactor(CCommandContext& c) {
  const int k = Output(c);
  if (k < 0) return BadOutput(c);
  double f;
  if (!c.FiniteDbl(2, f)) return kReplyText;
  c.Server.AvoScalingFactor[k] = f;
  return c.Reply("Setting AVO Ch %d scaling factor to %f.\n", k + 1, f);
}
int GetAvoScalingFactor(CCommandContext& c) {
  const int k = Output(c);
  if (k < 0) return BadOutput(c);
  return c.Reply("%f", static_cast<double>(c.Server.AvoScalingFactor[k]));
}

// The average output k showed with the last record, once that record was for this sensor: the
// store itself belongs to the acquisition thread. Just after the output was pointed at another
// sensor that takes one record; without records (the card idle) the store's empty mark.
int32_t ShownAverage(CVr480Server& s, int k, uint8_t channel, uint16_t sensor) {
  const uint64_t key = (static_cast<uint64_t>(channel) << 16 | sensor) + 1;
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(1);
  do {
    const uint64_t shown = s.AvoShownAverage[k];
    if (shown >> 32 == key) return static_cast<int32_t>(static_cast<uint32_t>(shown));
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  } while (std::chrono::steady_clock::now() < deadline);
  return kWvlAvgNoValue;
}

// Takes the sensor's present average as the wavelength at which the output shows its
// reference voltage. A sensor without values yet gives the averaging store's empty mark.
int SetAvoReference(CCommandContext& c) {
  CVr480Server& s = c.Server;
  const int k = Output(c);
  if (k < 0) return BadOutput(c);
  const uint8_t channel = s.AvoChannel[k];
  const uint16_t sensor = s.AvoSensor[k];
  const int32_t average = ShownAverage(s, k, channel, sensor);
  s.AvoReference[k] = average;
  const double granularity = static_cast<int32_t>(s.Granularity);
  return c.Reply("Setting AVO Ch %d reference loc to %f.\n", k + 1, average / granularity);
}
int GetAvoReference(CCommandContext& c) {
  const int k = Output(c);
  if (k < 0) return BadOutput(c);
  const double granularity = static_cast<int32_t>(c.Server.Granularity);
  return c.Reply("%f", c.Server.AvoReference[k] / granularity);
}

int SetAvoReferenceVout(CCommandContext& c) {
  const int k = Output(c);
  const double v = c.Dbl(2);
  if (k < 0 || !(v >= 0.0 && v <= 1.0))
    return c.Reply(
        "!Illegal parameters.  Acceptable ranges are: AVO Ch# 1 to %d and Reference Voltage from 0.0 to 1.0.\n",
        kAnalogOutputs);
  c.Server.AvoReferenceVout[k] = v;
  // The confirmation names the scaling factor although it sets the reference voltage; clients
  // know it in these words.
  return c.Reply("Setting AVO Ch %d scaling factor to %f.\n", k + 1, v);
}
int GetAvoReferenceVout(CCommandContext& c) {
  const int k = Output(c);
  if (k < 0) return BadOutput(c);
  return c.Reply("%f", static_cast<double>(c.Server.AvoReferenceVout[k]));
}

const SCommandRow kRows[] = {
    // Auto-bias
    {"#SET_AUTOBIAS", 1, 1, kTag, SetAutoBias},
    {"#GET_AUTOBIAS", 0, 0, kNone, GetAutoBias},
    {"#SET_INITIAL_BIAS", 1, 1, kTag, SetInitialBias},
    {"#GET_INITIAL_BIAS", 0, 0, kNone, GetInitialBias},
    {"#SET_GRATING_TARGET_LOCATION", 1, 1, kTag, SetGratingTargetLocation},
    {"#GET_GRATING_TARGET_LOCATION", 0, 0, kNone, GetGratingTargetLocation},
    {"#SET_BIAS_FEEDBACK_GAIN", 1, 1, kTag, SetBiasFeedbackGain},
    {"#GET_BIAS_FEEDBACK_GAIN", 0, 0, kNone, GetBiasFeedbackGain},
    {"#SET_MAX_BIAS_ERROR", 1, 1, kTag, SetMaxBiasError},
    {"#GET_MAX_BIAS_ERROR", 0, 0, kNone, GetMaxBiasError},
    {"#SET_MAX_BIAS_STEP", 1, 1, kTag, SetMaxBiasStep},
    {"#GET_MAX_BIAS_STEP", 0, 0, kNone, GetMaxBiasStep},
    // Auto scan amplitude
    {"#SET_AUTO_SCAN_AMP", 1, 1, kTag, SetAutoScanAmp},
    {"#GET_AUTO_SCAN_AMP", 0, 0, kNone, GetAutoScanAmp},
    {"#SET_AUTO_SCAN_RIGHT_PEAKS", 1, 1, kTag, SetAutoScanRightPeaks},
    {"#GET_AUTO_SCAN_RIGHT_PEAKS", 0, 0, kNone, GetAutoScanRightPeaks},
    {"#SET_AUTO_SCAN_LEFT_PEAKS", 1, 1, kTag, SetAutoScanLeftPeaks},
    {"#GET_AUTO_SCAN_LEFT_PEAKS", 0, 0, kNone, GetAutoScanLeftPeaks},
    {"#SET_AUTO_SCAN_SPAN", 1, 1, kTag, SetAutoScanSpan},
    {"#GET_AUTO_SCAN_SPAN", 0, 0, kNone, GetAutoScanSpan},
    {"#SET_AUTO_SCAN_MAX_STEP", 1, 1, kTag, SetAutoScanMaxStep},
    {"#GET_AUTO_SCAN_MAX_STEP", 0, 0, kNone, GetAutoScanMaxStep},
    {"#SET_AUTO_SCAN_MAX_ERROR", 1, 1, kTag, SetAutoScanMaxError},
    {"#GET_AUTO_SCAN_MAX_ERROR", 0, 0, kNone, GetAutoScanMaxError},
    {"#SET_AUTO_SCAN_FEEDBACK_GAIN", 1, 1, kTag, SetAutoScanFeedbackGain},
    {"#GET_AUTO_SCAN_FEEDBACK_GAIN", 0, 0, kNone, GetAutoScanFeedbackGain},
    // Full spectrum and peak amplitudes
    {"#SET_ZOR_FS_ENABLE", 1, 1, kTag, SetFsEnable},
    {"#GET_ZOR_FS_ENABLE", 0, 0, kNone, GetFsEnable},
    {"#SET_FS_WVL_OFFSET_NM", 1, 1, kTag, SetFsWvlOffsetNm},
    {"#GET_FS_WVL_OFFSET_NM", 0, 0, kNone, GetFsWvlOffsetNm},
    {"#GET_HIGH_SPEED_FS_START_WVL", 0, 0, kNone, GetHighSpeedFsStartWvl},
    {"#GET_HIGH_SPEED_FS_END_WVL", 0, 0, kNone, GetHighSpeedFsEndWvl},
    {"#SET_PEAK_AMP_SEARCH_WND", 1, 1, kTag, SetPeakAmpSearchWnd},
    {"#GET_PEAK_AMP_SEARCH_WND", 0, 0, kNone, GetPeakAmpSearchWnd},
    {"#SET_PEAK_AMP_BUF_DEPTH", 1, 1, kTag, SetPeakAmpBufDepth},
    {"#GET_PEAK_AMP_BUF_DEPTH", 0, 0, kNone, GetPeakAmpBufDepth},
    // Switch-down
    {"#SET_SWITCHDOWN_ENABLE", 1, 1, kTag, SetSwitchdownEnable},
    {"#GET_SWITCHDOWN_ENABLE", 0, 0, kNone, GetSwitchdownEnable},
    {"#SET_AUTO_SWITCHDOWN", 2, 2, kTagPerArg1, SetAutoSwitchdown},
    {"#GET_AUTO_SWITCHDOWN", 1, 1, kNone, GetAutoSwitchdown},
    // Analog voltage outputs: one tag per output, so that every output's setting survives a
    // restart (the first argument is the output).
    {"#SET_AVO_CHANNEL", 2, 2, kTagPerArg1, SetAvoChannel},
    {"#GET_AVO_CHANNEL", 1, 1, kNone, GetAvoChannel},
    {"#SET_AVO_SENSOR", 2, 2, kTagPerArg1, SetAvoSensor},
    {"#GET_AVO_SENSOR", 1, 1, kNone, GetAvoSensor},
    {"#SET_AVO_SCALING_FACTOR", 2, 2, kTagPerArg1, SetAvoScalingFactor},
    {"#GET_AVO_SCALING_FACTOR", 1, 1, kNone, GetAvoScalingFactor},
    {"#SET_AVO_REFERENCE", 1, 1, kNone, SetAvoReference},
    {"#GET_AVO_REFERENCE", 1, 1, kNone, GetAvoReference},
    {"#SET_AVO_REFERENCE_VOUT", 2, 2, kTagPerArg1, SetAvoReferenceVout},
    {"#GET_AVO_REFERENCE_VOUT", 1, 1, kNone, GetAvoReferenceVout},
};

}  // namespace

void RegisterLoopCommands(CCommandTable& table) { table.Add(kRows); }
