// Commands of the wavelength scale, the reference grating and the choice of sensors.
//
// The scale turns sweep positions (counts) into wavelengths against the comb of Fabry-Perot
// teeth in every sweep; the reference grating, whose temperature a thermistor reports, says
// which tooth has which absolute frequency. Its table from thermistor reading to frequency is
// built once after the settings are replayed: changing the thermistor coefficients or the
// grating's reference values takes effect with #REBUILD_FBG_VTH_LUT (or the next start).
//
// The acquisition thread reads these settings record by record without a lock; a handler only
// stores them. Integers are cut to the width of their field; every real a setter takes must be
// finite.
#include <cstdint>
#include <mutex>

#include "commands/ChannelArgs.h"
#include "commands/Families.h"
#include "processing/WavelengthScale.h"
#include "protocol/CommandTable.h"
#include "server/Vr480Server.h"

namespace {

constexpr double kLowestWvlLimitNm = 500.0;  // nothing the sweep reaches lies below it
constexpr long kHighestFbgChannel = 5;       // peak lists 1 (comb) to 5 (DUT channel 3)
constexpr long kMaxDutChannels = 4;

// The thermistor reading of the record the scale was last placed on (0 before the first).
int16_t CurrentThermistorReading(const CVr480Server& s) {
  std::lock_guard<std::mutex> g(s.ScaleLock);
  return s.Scale.Vth;
}

// A real setting: refused when it is not finite, else stored and confirmed with its value.
int SetReal(CCommandContext& c, Relaxed<double>& field, const char* confirmation) {
  double v;
  if (!c.FiniteDbl(1, v)) return kReplyText;
  field = v;
  return c.Reply(confirmation, v);
}
int GetReal(CCommandContext& c, const Relaxed<double>& field, const char* format) {
  return c.Reply(format, static_cast<double>(field));
}

// ---- Wavelength scale and reference grating ---------------------------------------------------

int SetFfpiFsrGhz(CCommandContext& c) {
  return SetReal(c, c.Server.FfpiFsrGhz, "Setting FFPI FSR to peak to %f Ghz.\n");
}
int GetFfpiFsrGhz(CCommandContext& c) { return GetReal(c, c.Server.FfpiFsrGhz, "%10.5f"); }

int SetFfpiRefPeakThz(CCommandContext& c) {
  return SetReal(c, c.Server.FfpiRefPeakThz, "Setting FFPI ref peak to %f Thz.\n");
}
int GetFfpiRefPeakThz(CCommandContext& c) { return GetReal(c, c.Server.FfpiRefPeakThz, "%10.5f"); }

int SetSteinhartB0(CCommandContext& c) {
  return SetReal(c, c.Server.SteinhartB0, "Steinhart-Hart B0 set to %0.14e.\n");
}
int GetSteinhartB0(CCommandContext& c) { return GetReal(c, c.Server.SteinhartB0, "%0.14e"); }

int SetSteinhartB1(CCommandContext& c) {
  return SetReal(c, c.Server.SteinhartB1, "Steinhart-Hart B1 set to %0.14e.\n");
}
int GetSteinhartB1(CCommandContext& c) { return GetReal(c, c.Server.SteinhartB1, "%0.14e"); }

int SetSteinhartB3(CCommandContext& c) {
  return SetReal(c, c.Server.SteinhartB3, "Steinhart-Hart B3 set to %0.14e.\n");
}
int GetSteinhartB3(CCommandContext& c) { return GetReal(c, c.Server.SteinhartB3, "%0.14e"); }

// The reading is a signed 16-bit converter value; clients know it in either form.
int SetFbgRefVth(CCommandContext& c) {
  const uint16_t bits = static_cast<uint16_t>(c.Int(1));
  c.Server.FbgRefVth = bits;
  return c.Reply("fbg reference thermistor voltage (Vth) set to %d.\n", static_cast<int16_t>(bits));
}
int GetFbgRefVth(CCommandContext& c) { return c.Reply("%d", static_cast<int16_t>(c.Server.FbgRefVth.load())); }

int SetFbgRefWvlNm(CCommandContext& c) {
  return SetReal(c, c.Server.FbgRefWvlNm, "fbg reference Wvl set to %10.4f nm.\n");
}
int GetFbgRefWvlNm(CCommandContext& c) { return GetReal(c, c.Server.FbgRefWvlNm, "%0.4f"); }

int SetFbgNmPerDegC(CCommandContext& c) { return SetReal(c, c.Server.FbgNmPerDegC, "fbg nm/degC set to %10.4f nm.\n"); }
int GetFbgNmPerDegC(CCommandContext& c) { return GetReal(c, c.Server.FbgNmPerDegC, "%0.4f"); }

int RebuildFbgVthLut(CCommandContext& c) {
  if (c.Server.Vth2Thz) c.Server.build_FBG_Vth2Thz_LUT();
  return c.Reply("Rebuilding FBG Vth LUT\n");
}

int GetFbgVth(CCommandContext& c) { return c.Reply("%d", static_cast<uint16_t>(CurrentThermistorReading(c.Server))); }
int GetFbgDegC(CCommandContext& c) {
  return c.Reply("%0.2f", c.Server.thermistor_Vth2degC(CurrentThermistorReading(c.Server)));
}
int GetFbgThz(CCommandContext& c) {
  if (!c.Server.Vth2Thz) return c.Reply("%0.4f", 0.0);
  return c.Reply("%0.4f", c.Server.GetFBG_Thz());
}

// The table is indexed by reading + 32768: entry n is the frequency for reading n - 32768.
int Vth2Thz(CCommandContext& c) {
  const uint16_t entry = static_cast<uint16_t>(c.Int(1));
  return c.Reply("%0.4f", c.Server.Vth2Thz ? c.Server.Vth2Thz[entry].load() : 0.0);
}
int Vth2DegC(CCommandContext& c) {
  return c.Reply("%0.2f", c.Server.thermistor_Vth2degC(static_cast<int16_t>(c.Int(1))));
}

int SetPeak2Use(CCommandContext& c) {
  const int32_t v = static_cast<int32_t>(c.Int(1));
  c.Server.Peak2Use = v;
  return c.Reply("Setting Peak2Use to %d.\n", v);
}
int GetPeak2Use(CCommandContext& c) { return c.Reply("%d", static_cast<int>(c.Server.Peak2Use)); }

// Without the monitored grating the comb is anchored at a fixed tooth next to the grating
// (Peak2Use), which holds only while the laser does not drift by a whole comb interval.
int SetMonitoredFbg(CCommandContext& c) {
  const bool on = static_cast<uint8_t>(c.Int(1)) != 0;
  c.Server.bMonitoredFbg = on;
  return c.Reply("Monitored FBG turned %s.\n", on ? "on" : "off (Applying Peak2Use)");
}
int GetMonitoredFbg(CCommandContext& c) { return c.Reply("%d", c.Server.bMonitoredFbg ? 1 : 0); }

int GetWvlCorrCoef(CCommandContext& c) { return GetReal(c, c.Server.WvlCorrCoef, "%f"); }

int SetMaxWvlCorrCoefError(CCommandContext& c) {
  return SetReal(c, c.Server.MaxWvlCorrCoefError, "Corr Coef errof window set to +/- %f.\n");
}
int GetMaxWvlCorrCoefError(CCommandContext& c) { return GetReal(c, c.Server.MaxWvlCorrCoefError, "%f"); }

int GetCalculatedFbg(CCommandContext& c) { return GetReal(c, c.Server.CalculatedFbg, "%f"); }

// Both conversions use the comb of the last published record.
int Wvl2Counts(CCommandContext& c) {
  return c.Reply("%d", static_cast<int>(TruncateToInt32(c.Server.Wvl2Counts(c.Dbl(1)))));
}
int Counts2Wvl(CCommandContext& c) {
  return c.Reply("%f", c.Server.Counts2Wvl(static_cast<double>(static_cast<int32_t>(c.Int(1)))));
}

// A granularity below 1 would make every wavelength 0 and divide by zero wherever a client's
// integer wavelengths are turned back into nm, so it is refused rather than stored.
int SetGranularity(CCommandContext& c) {
  const int32_t v = static_cast<int32_t>(c.Int(1));
  if (v < 1) return c.Reply("!Illegal parameters.  Granularity must be at least 1.\n");
  c.Server.Granularity = v;
  return c.Reply("Granularity set to %d.\n", v);
}
int GetGranularity(CCommandContext& c) { return c.Reply("%d", static_cast<int>(c.Server.Granularity)); }

// Where the reference grating's peaks come from: 0 its own peak list, 1 the comb's list,
// 2-5 a DUT channel's (a grating wired to a sensor input). Anything beyond names list 5.
int SetFbgChannel(CCommandContext& c) {
  long v = c.Int(1);
  if (v < 0 || v > kHighestFbgChannel) v = kHighestFbgChannel;
  c.Server.FbgChannel = static_cast<uint16_t>(v);
  return c.Reply("Setting FBG channels to %d.\n", static_cast<int>(v));
}
int GetFbgChannel(CCommandContext& c) { return c.Reply("%d", static_cast<int>(c.Server.FbgChannel)); }

// ---- Sensor selection -------------------------------------------------------------------------

// A limit of the window of accepted sensor wavelengths; nothing lies below 500 nm.
int SetWvlLimit(CCommandContext& c, Relaxed<double>& limit, const char* confirmation) {
  double v;
  if (!c.FiniteDbl(1, v)) return kReplyText;
  if (v < kLowestWvlLimitNm) v = kLowestWvlLimitNm;
  limit = v;
  return c.Reply(confirmation, v);
}
int SetLowerWvlLimit(CCommandContext& c) {
  return SetWvlLimit(c, c.Server.LowerWvlLimit, "LowerWvlLimit set to %f.\n");
}
int GetLowerWvlLimit(CCommandContext& c) { return GetReal(c, c.Server.LowerWvlLimit, "%f"); }

int SetUpperWvlLimit(CCommandContext& c) {
  return SetWvlLimit(c, c.Server.UpperWvlLimit, "UpperWvlLimit set to %f.\n");
}
int GetUpperWvlLimit(CCommandContext& c) { return GetReal(c, c.Server.UpperWvlLimit, "%f"); }

// A disabled channel reaches the pipeline without peaks: its sensors vanish from the records.
int SetChEnable(CCommandContext& c) {
  const SChannelArg ch = ReadChannelArg(c, 1, kLogicalChannels);
  if (ch.Index < 0) return ReplyBadChannel(c, ch.bLegacy);
  const bool on = (c.Int(2) & 1) != 0;
  c.Server.ChEnable[ch.Index] = on;
  return c.Reply("Ch %s %s.\n", c.Col(1).c_str(), on ? "enabled" : "disbled");
}
int GetChEnable(CCommandContext& c) {
  const SChannelArg ch = ReadChannelArg(c, 1, kLogicalChannels);
  if (ch.Index < 0) return ReplyBadChannel(c, ch.bLegacy);
  return c.Reply("%d", c.Server.ChEnable[ch.Index] ? 1 : 0);
}

// Kept for reports only: the pipeline always processes the four DUT channels.
int SetNumDutChannels(CCommandContext& c) {
  long v = c.Int(1);
  if (v == 0) v = 1;
  if (v < 0 || v > kMaxDutChannels) v = kMaxDutChannels;
  c.Server.NumDutChannels = static_cast<uint16_t>(v);
  return c.Reply("Setting # DUT channels to %d.\n", static_cast<int>(v));
}
int GetNumDutChannels(CCommandContext& c) { return c.Reply("%d", static_cast<int>(c.Server.NumDutChannels)); }

const SCommandRow kRows[] = {
    // Wavelength scale and reference grating
    {"#SET_FFPI_FSR_GHZ", 1, 1, kTag, SetFfpiFsrGhz},
    {"#GET_FFPI_FSR_GHZ", 0, 0, kNone, GetFfpiFsrGhz},
    {"#SET_FFPI_REF_PEAK_THZ", 1, 1, kTag, SetFfpiRefPeakThz},
    {"#GET_FFPI_REF_PEAK_THZ", 0, 0, kNone, GetFfpiRefPeakThz},
    {"#SET_STEINHART_B0", 1, 1, kTag, SetSteinhartB0},
    {"#GET_STEINHART_B0", 0, 0, kNone, GetSteinhartB0},
    {"#SET_STEINHART_B1", 1, 1, kTag, SetSteinhartB1},
    {"#GET_STEINHART_B1", 0, 0, kNone, GetSteinhartB1},
    {"#SET_STEINHART_B3", 1, 1, kTag, SetSteinhartB3},
    {"#GET_STEINHART_B3", 0, 0, kNone, GetSteinhartB3},
    {"#SET_FBG_REF_VTH", 1, 1, kTag, SetFbgRefVth},
    {"#GET_FBG_REF_VTH", 0, 0, kNone, GetFbgRefVth},
    {"#SET_FBG_REF_WVL_NM", 1, 1, kTag, SetFbgRefWvlNm},
    {"#GET_FBG_REF_WVL_NM", 0, 0, kNone, GetFbgRefWvlNm},
    {"#SET_FBG_NM_PER_DEGC", 1, 1, kTag, SetFbgNmPerDegC},
    {"#GET_FBG_NM_PER_DEGC", 0, 0, kNone, GetFbgNmPerDegC},
    {"#REBUILD_FBG_VTH_LUT", 0, 0, kNone, RebuildFbgVthLut},
    {"#GET_FBG_VTH", 0, 0, kNone, GetFbgVth},
    {"#GET_FBG_DEGC", 0, 0, kNone, GetFbgDegC},
    {"#GET_FBG_THZ", 0, 0, kNone, GetFbgThz},
    {"#VTH2THZ", 1, 1, kNone, Vth2Thz},
    {"#VTH2DEGC", 1, 1, kNone, Vth2DegC},
    {"#SET_PEAK2USE", 1, 1, kTag, SetPeak2Use},
    {"#GET_PEAK2USE", 0, 0, kNone, GetPeak2Use},
    {"#SET_MONITORED_FBG", 1, 1, kTag, SetMonitoredFbg},
    {"#GET_MONITORED_FBG", 0, 0, kNone, GetMonitoredFbg},
    {"#GET_WVL_CORR_COEF", 0, 0, kNone, GetWvlCorrCoef},
    {"#SET_MAX_WVL_CORR_COEF_ERROR", 1, 1, kTag, SetMaxWvlCorrCoefError},
    {"#GET_MAX_WVL_CORR_COEF_ERROR", 0, 0, kNone, GetMaxWvlCorrCoefError},
    {"#GET_CALCULATED_FBG", 0, 0, kNone, GetCalculatedFbg},
    {"#WVL2COUNTS", 1, 1, kNone, Wvl2Counts},
    {"#COUNTS2WVL", 1, 1, kNone, Counts2Wvl},
    {"#SET_GRANULARITY", 1, 1, kTag, SetGranularity},
    {"#GET_GRANULARITY", 0, 0, kNone, GetGranularity},
    {"#SET_FBG_CHANNEL", 1, 1, kTag, SetFbgChannel},
    {"#GET_FBG_CHANNEL", 0, 0, kNone, GetFbgChannel},
    // Sensor selection
    {"#SET_LOWER_WVL_LIMIT", 1, 1, kTag, SetLowerWvlLimit},
    {"#GET_LOWER_WVL_LIMIT", 0, 0, kNone, GetLowerWvlLimit},
    {"#SET_UPPER_WVL_LIMIT", 1, 1, kTag, SetUpperWvlLimit},
    {"#GET_UPPER_WVL_LIMIT", 0, 0, kNone, GetUpperWvlLimit},
    {"#SET_CH_ENABLE", 2, 2, kTagPerArg1, SetChEnable},
    {"#GET_CH_ENABLE", 1, 1, kNone, GetChEnable},
    {"#SET_ZOR_NUM_DUT_CHANNELS", 1, 1, kTag, SetNumDutChannels},
    {"#GET_ZOR_NUM_DUT_CHANNELS", 0, 0, kNone, GetNumDutChannels},
    {"#GET_NUM_DUT_CHANNELS", 0, 0, kNone, GetNumDutChannels},
};

}  // namespace

void RegisterScaleCommands(CCommandTable& table) { table.Add(kRows); }
