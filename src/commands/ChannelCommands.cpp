// Commands of the card's per-channel peak detection: detector gains (in counts and in dB),
// gain limits and power levels, noise thresholds, the lockout and "N/T valid" periods, and
// the amplitude channel whose peak amplitudes the card measures.
//
// Two channel numberings meet here. The card's detector channel d (0-5: 0 the reference
// grating, 1 the comb, 2-5 the DUT channels) is what the maker-level "ZOR" commands and the
// timing commands take. Users number their DUT channels c = 1-4 (d = c + 1); the user-level
// commands accept only a plain channel number, never a multiplexer subchannel, because a
// detector serves all the layers of its channel. They forward to the "ZOR" command, which
// applies and records the setting, and then answer in their own words.
//
// Integer arguments are cut to the width the card or the table takes (channels in 8 bits, or
// 16 in the gain and power-level setters), and ranges are checked on the cut value, so a
// negative channel is simply out of range.
#include <algorithm>
#include <chrono>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <limits>
#include <mutex>
#include <string>

#include "commands/Families.h"
#include "processing/WavelengthScale.h"
#include "protocol/CommandTable.h"
#include "protocol/Notation.h"
#include "server/Globals.h"
#include "server/Vr480Server.h"

namespace {

using namespace std::chrono_literals;

constexpr int kLastDetector = kDetectorChannels - 1;
constexpr int kLastDbStep = kDbTableEntries - 1;  // 0.1 dB steps of the gain table: 0 to 40.1 dB
constexpr double kDbRangeShown = 40.1;            // the range the refusal quotes
// The detector's threshold register holds 32768 at zero; one unit of a client's threshold is
// 9.765625 / 2 register steps.
constexpr double kThreshStepsPerUnit = 9.765625 / 2.0;
constexpr double kThreshZero = 32768.0;
// A change of amplitude channel is through once the spectrum thread has published a spectrum
// taken with it; without spectra (full spectrum off) the client is answered after this long.
constexpr auto kAmpChangeWait = 10s;
constexpr int kSpectraDroppedAfterAmpChange = 3;

uint8_t U8(long v) { return static_cast<uint8_t>(v); }
uint16_t U16(long v) { return static_cast<uint16_t>(v); }
const char* EnabledText(bool on) { return on ? "enabled" : "disabled"; }

int BadChannel(CCommandContext& c, int first, int last) {
  return c.Reply("!Illegal parameters.  Acceptable ranges are: Ch# %d to %d .\n", first, last);
}

// The user-level commands take a DUT channel number, not a subchannel in dot notation. False
// after the refusal has been written.
bool DutChannel(CCommandContext& c, long& number) {
  bool legacy = true;
  const char* text = Notation(c.Col(1).c_str(), true, &legacy);
  if (!legacy) {
    c.Reply("!Illegal parameters.  This function requires a channel # (not a subchannel).");
    return false;
  }
  number = std::strtol(text, nullptr, 10);
  return true;
}

// Runs another command line for the same client; the outer handler then writes its own reply
// over the inner one. The inner command records its own tag.
int Forward(CCommandContext& c, const char* format, ...) __attribute__((format(printf, 2, 3)));
int Forward(CCommandContext& c, const char* format, ...) {
  char line[96];
  va_list args;
  va_start(args, format);
  std::vsnprintf(line, sizeof line, format, args);
  va_end(args);
  char* reply = nullptr;
  unsigned length = 0;
  return c.Server.ProcessCmd(static_cast<short>(c.Client), line, &reply, &length);
}

// While the tag file is replayed at start-up the user-level setters do nothing: their
// settings come back through the tags of the "ZOR" commands they forward to.
int NotYetRunning(CCommandContext& c) {
  c.SkipTag();
  return c.Reply("%s", "");
}

// ---- Gains ----------------------------------------------------------------------------------

int SetZorChGain(CCommandContext& c) {
  CVr480Server& s = c.Server;
  const uint16_t d = U16(c.Int(1));
  uint16_t g = U16(c.Int(2));
  if (d > kLastDetector) return BadChannel(c, 0, kLastDetector);
  // A DUT detector driven past its limit saturates on the strongest gratings.
  if (d >= 2 && g > s.MaxDutChGain[d - 2]) g = s.MaxDutChGain[d - 2];
  s.Driver.SetChGain(static_cast<uint8_t>(d), g);
  return c.Reply("Channel %d gain set to %d.\n", d, g);
}
int GetZorChGain(CCommandContext& c) {
  const uint8_t d = U8(c.Int(1));
  if (d > kLastDetector) return kReplyNoMatch;
  return c.Reply("%d", c.Server.Driver.GetChGain(d));
}

int SetChGain(CCommandContext& c) {
  if (!bRun) return NotYetRunning(c);
  long n;
  if (!DutChannel(c, n)) return kReplyText;
  const uint16_t ch = U16(n);
  const uint16_t g = U16(c.Int(2));
  if (ch < 1 || ch > kOpticalChannels) return BadChannel(c, 1, kOpticalChannels);
  Forward(c, "#SET_ZOR_CH_GAIN %d %d", ch + 1, g);
  return c.Reply("Setting DUT channel %d gain to %d.\n", ch, g);
}
int GetChGain(CCommandContext& c) {
  long n;
  if (!DutChannel(c, n)) return kReplyText;
  const uint8_t ch = U8(n);
  if (ch < 1 || ch > kOpticalChannels) return kReplyNoMatch;
  return c.Reply("%d", c.Server.Driver.GetChGain(static_cast<uint8_t>(ch + 1)));
}

// A double held as a 32-bit float; values beyond the float's range stay at its ends.
float ToFloat(double v) {
  constexpr double kMax = std::numeric_limits<float>::max();
  return static_cast<float>(v > kMax ? kMax : v < -kMax ? -kMax : v);
}

// Gain counts for `step` tenths of a dB from a channel's table. Below 0 dB the first segment
// is extended, never below zero gain.
long long CountsForDbStep(const uint16_t* table, int step) {
  if (step >= 0) return table[step];
  const long long counts = table[0] + static_cast<long long>(step) * (table[1] - table[0]);
  return counts < 0 ? 0 : counts;
}

// The dB value is held as a 32-bit float and cut to whole 0.1 dB steps of the table: 2.3 dB,
// held as 2.2999999, falls to the 2.2 dB step.
int SetChGainDb(CCommandContext& c) {
  CVr480Server& s = c.Server;
  double value;
  if (!c.FiniteDbl(2, value)) return kReplyText;
  float db = ToFloat(value);
  const double maxDb = s.ZorMaxGainDb;
  if (db > maxDb) db = ToFloat(maxDb);
  long n;
  if (!DutChannel(c, n)) return kReplyText;
  const uint16_t ch = U16(n);
  const int32_t tenths = TruncateToInt32(static_cast<double>(db) * 10.0);
  const int16_t step = static_cast<int16_t>(tenths > INT16_MAX ? INT16_MAX : tenths < INT16_MIN ? INT16_MIN : tenths);
  if (ch == 0 || ch > kOpticalChannels || step > kLastDbStep)
    return c.Reply("!Illegal parameters.  Acceptable ranges are: Ch# %d to %d and db -%f to %f.\n", 1,
                   kOpticalChannels, kDbRangeShown, kDbRangeShown);
  const long long counts = CountsForDbStep(s.Db2Counts[ch - 1], step);
  Forward(c, "#SET_CH_GAIN %d %lld", ch, counts);
  return c.Reply("Setting Ch %d gain to %f dB.\n", ch, static_cast<double>(db));
}

// The inverse of the table: the gain's position between the two steps that enclose it. A
// flat stretch of the table (a channel never measured reads all zeros) counts as the lower
// step.
int GetChGainDb(CCommandContext& c) {
  CVr480Server& s = c.Server;
  long n;
  if (!DutChannel(c, n)) return kReplyText;
  const uint8_t ch = U8(n);
  if (ch < 1 || ch > kOpticalChannels) return kReplyNoMatch;
  const uint16_t g = s.Driver.GetChGain(static_cast<uint8_t>(ch + 1));
  const uint16_t* t = s.Db2Counts[ch - 1];
  int i = 1;
  while (t[i] < g && i <= kLastDbStep - 1) ++i;
  const int rise = t[i] - t[i - 1];
  const float fraction = rise != 0 ? static_cast<float>(g - t[i - 1]) / static_cast<float>(rise) : 0.0f;
  const float tenths = static_cast<float>(i - 1) + fraction;
  return c.Reply("%f", tenths / 10.0);
}

int SetMaxDutChGain(CCommandContext& c) {
  const uint16_t ch = U16(c.Int(1));
  const uint16_t g = U16(c.Int(2));
  if (ch < 1 || ch > kOpticalChannels) return BadChannel(c, 1, kOpticalChannels);
  c.Server.MaxDutChGain[ch - 1] = g;
  return c.Reply("Max Ch %d gain set to %d.\n", ch, g);
}
int GetMaxDutChGain(CCommandContext& c) {
  const uint8_t ch = U8(c.Int(1));
  if (ch < 1 || ch > kOpticalChannels) return kReplyNoMatch;
  return c.Reply("%d", static_cast<int>(c.Server.MaxDutChGain[ch - 1]));
}

int SetZorMaxGainDb(CCommandContext& c) {
  double db;
  if (!c.FiniteDbl(1, db)) return kReplyText;
  c.Server.ZorMaxGainDb = db;
  return c.Reply("Max dB gain set to %f.\n", db);
}
int GetZorMaxGainDb(CCommandContext& c) { return c.Reply("%f", static_cast<double>(c.Server.ZorMaxGainDb)); }

template <Relaxed<uint16_t> (CVr480Server::*Table)[kOpticalChannels]>
int SetPwrLevel(CCommandContext& c, const char* format) {
  const uint16_t ch = U16(c.Int(1));
  const uint16_t v = U16(c.Int(2));
  if (ch < 1 || ch > kOpticalChannels) return BadChannel(c, 1, kOpticalChannels);
  (c.Server.*Table)[ch - 1] = v;
  return c.Reply(format, ch, v);
}
template <Relaxed<uint16_t> (CVr480Server::*Table)[kOpticalChannels]>
int GetPwrLevel(CCommandContext& c) {
  const uint8_t ch = U8(c.Int(1));
  if (ch < 1 || ch > kOpticalChannels) return kReplyNoMatch;
  return c.Reply("%d", static_cast<int>((c.Server.*Table)[ch - 1]));
}
int SetMinChPwrLevel(CCommandContext& c) {
  return SetPwrLevel<&CVr480Server::MinChPwrLevel>(c, "Min Ch %d Pwr Level set to %d.\n");
}
int SetMaxChPwrLevel(CCommandContext& c) {
  return SetPwrLevel<&CVr480Server::MaxChPwrLevel>(c, "Max Ch %d Pwr Level set to %d.\n");
}

// ---- Thresholds and peak detection timing -----------------------------------------------------

int SetZorChNoiseThresh(CCommandContext& c) {
  const uint8_t d = U8(c.Int(1));
  const uint16_t t = U16(c.Int(2));
  if (d > kLastDetector) return BadChannel(c, 0, kLastDetector);
  // At most 65535 x 4.88 + 32768, well inside an int; the register takes the low 16 bits.
  const auto reg = static_cast<uint16_t>(static_cast<int32_t>(t * kThreshStepsPerUnit + kThreshZero));
  c.Server.Driver.SetChThresh(d, reg);
  return c.Reply("ZOR Channel %d noise threshold set to %d.\n", d, t);
}
int GetZorChNoiseThresh(CCommandContext& c) {
  const int reg = c.Server.Driver.GetChThresh(U8(c.Int(1)));
  return c.Reply("%d", static_cast<int>((reg - kThreshZero) / kThreshStepsPerUnit + 0.5));
}

int SetChNoiseThresh(CCommandContext& c) {
  if (!bRun) return NotYetRunning(c);
  long n;
  if (!DutChannel(c, n)) return kReplyText;
  const uint8_t ch = U8(n);
  const uint16_t t = U16(c.Int(2));
  if (ch < 1 || ch > kOpticalChannels) return BadChannel(c, 1, kOpticalChannels);
  Forward(c, "#SET_ZOR_CH_NOISE_THRESH %d %d", ch + 1, t);
  return c.Reply("Setting Ch %d Noise Threshold to %d.\n", ch, t);
}
// Answers with the reply of the "ZOR" getter it forwards to.
int GetChNoiseThresh(CCommandContext& c) {
  long n;
  if (!DutChannel(c, n)) return kReplyText;
  const uint8_t ch = U8(n);
  if (ch < 1 || ch > kOpticalChannels) return BadChannel(c, 1, kOpticalChannels);
  return Forward(c, "#GET_ZOR_CH_NOISE_THRESH %d", ch + 1);
}

int SetChNoiseThreshEnable(CCommandContext& c) {
  const uint8_t d = U8(c.Int(1));
  const bool on = c.Int(2) != 0;
  if (const int result = c.Server.Driver.SetChNoiseThreshEnabled(d, on); result != 0)
    std::printf("Vr480DriverInterface.SetChNoiseThreshEnabled(ch, val) in response to #SET_CH_NOISE_THRESH_ENABLE "
                "returned error %d\n",
                result);
  return c.Reply("Channel %d noise threshold %s.\n", d, EnabledText(on));
}
int GetChNoiseThreshEnable(CCommandContext& c) {
  return c.Reply("%d", c.Server.Driver.GetChNoiseThreshEnabled(U8(c.Int(1))) ? 1 : 0);
}

// The driver refuses a channel above 5 without a word; these replies confirm regardless.
int SetChLockoutPeriod(CCommandContext& c) {
  const uint8_t d = U8(c.Int(1));
  const uint16_t p = U16(c.Int(2));
  c.Server.Driver.SetChLockoutPeriod(d, p);
  return c.Reply("Channel %d lockout period set to %d.\n", d, p);
}
int GetChLockoutPeriod(CCommandContext& c) {
  return c.Reply("%d", c.Server.Driver.GetChLockoutPeriod(U8(c.Int(1))));
}

int SetChNtvPeriod(CCommandContext& c) {
  const uint8_t d = U8(c.Int(1));
  const uint16_t p = U16(c.Int(2));
  c.Server.Driver.SetChNtValidPeriod(d, p);
  return c.Reply("Channel %d N/T valid period set to %d.\n", d, p);
}
int GetChNtvPeriod(CCommandContext& c) { return c.Reply("%d", c.Server.Driver.GetChNtValidPeriod(U8(c.Int(1)))); }

int SetChNtvResetOnZc(CCommandContext& c) {
  const uint8_t d = U8(c.Int(1));
  const bool on = c.Int(2) != 0;
  c.Server.Driver.SetChNtvResetOnZc(d, on);
  return c.Reply("Channel %d NTV Reset on ZC %s.\n", d, EnabledText(on));
}
int GetChNtvResetOnZc(CCommandContext& c) {
  return c.Reply("%d", c.Server.Driver.GetChNtvResetOnZc(U8(c.Int(1))) ? 1 : 0);
}

// ---- Amplitude channel -------------------------------------------------------------------------

// The spectrum being built when the channel changes mixes both channels' samples: the spectrum
// thread restarts its cycle and drops the next three spectra, and the client is answered once
// a spectrum of the new channel is out (its read index then points at it). A spectrum
// published while drops are still pending was finished before the change and does not count.
// Wakes every second to notice a stop or the client leaving.
void WaitForSpectrumOfNewChannel(CCommandContext& c) {
  CVr480Server& s = c.Server;
  s.SpectrumReadIndex[c.Row] = s.SpectrumWriteIndex.load();
  s.bFsRestart = true;
  s.FsSkipCount = kSpectraDroppedAfterAmpChange;
  const auto deadline = std::chrono::steady_clock::now() + kAmpChangeWait;
  std::unique_lock<std::mutex> lock(s.SpectrumMutex);
  uint16_t before = s.SpectrumWriteIndex;
  while (bRun && !s.bClientDisconnect[c.Row]) {
    if (s.FsSkipCount > 0) {
      before = s.SpectrumWriteIndex;
      s.SpectrumReadIndex[c.Row] = before;
    } else if (s.SpectrumWriteIndex != before) return;
    const auto now = std::chrono::steady_clock::now();
    if (now >= deadline) return;
    s.SpectrumCond.wait_for(lock, std::min<std::chrono::steady_clock::duration>(1s, deadline - now));
  }
}

int SetZorAmpCh(CCommandContext& c) {
  auto& d = c.Server.Driver;
  uint8_t ch = U8(c.Int(1));
  if (ch > kLastDetector) ch = kLastDetector;
  d.SetAmpCh(ch);
  if (bRun) WaitForSpectrumOfNewChannel(c);
  return c.Reply("Selected amplitude channel set to %d.\n", d.GetAmpCh());
}
int GetZorAmpCh(CCommandContext& c) { return c.Reply("%d", c.Server.Driver.GetAmpCh()); }

int SetAmpCh(CCommandContext& c) {
  if (!bRun) return NotYetRunning(c);
  long n;
  if (!DutChannel(c, n)) return kReplyText;
  const uint8_t ch = U8(n);
  if (ch < 1 || ch > kOpticalChannels) return BadChannel(c, 1, kOpticalChannels);
  Forward(c, "#SET_ZOR_AMP_CH %d", ch + 1);
  return c.Reply("Setting Amp channel to %d.\n", ch);
}
// The DUT channel numbered as the user numbers it; the comb (FFPI) reads 0.
int GetAmpCh(CCommandContext& c) { return c.Reply("%d", c.Server.Driver.GetAmpCh() - 1); }

// Temperature inside the transmitter, from the card's last record (0 before the first).
int GetTxDegC(CCommandContext& c) {
  return c.Reply("%0.2f", c.Server.LatestStatus.InternalTempC());
}

const SCommandRow kRows[] = {
    // Gains
    {"#SET_ZOR_CH_GAIN", 2, 2, kTagPerArg1, SetZorChGain},
    {"#GET_ZOR_CH_GAIN", 1, 1, kNone, GetZorChGain},
    {"#SET_CH_GAIN", 2, 2, kNone, SetChGain},
    {"#GET_CH_GAIN", 1, 1, kNone, GetChGain},
    {"#SET_CH_GAIN_DB", 2, 2, kNone, SetChGainDb},
    {"#GET_CH_GAIN_DB", 1, 1, kNone, GetChGainDb},
    {"#SET_MAX_DUT_CH_GAIN", 2, 2, kTagPerArg1, SetMaxDutChGain},
    {"#GET_MAX_DUT_CH_GAIN", 1, 1, kNone, GetMaxDutChGain},
    {"#SET_ZOR_MAX_GAIN_DB", 1, 1, kTag, SetZorMaxGainDb},
    {"#GET_ZOR_MAX_GAIN_DB", 0, 0, kNone, GetZorMaxGainDb},
    {"#GET_MAX_GAIN_DB", 0, 0, kNone, GetZorMaxGainDb},
    {"#SET_MIN_CH_PWR_LEVEL", 2, 2, kTagPerArg1, SetMinChPwrLevel},
    {"#GET_MIN_CH_PWR_LEVEL", 1, 1, kNone, GetPwrLevel<&CVr480Server::MinChPwrLevel>},
    {"#SET_MAX_CH_PWR_LEVEL", 2, 2, kTagPerArg1, SetMaxChPwrLevel},
    {"#GET_MAX_CH_PWR_LEVEL", 1, 1, kNone, GetPwrLevel<&CVr480Server::MaxChPwrLevel>},
    // Thresholds and peak detection timing
    {"#SET_ZOR_CH_NOISE_THRESH", 2, 2, kTagPerArg1, SetZorChNoiseThresh},
    {"#GET_ZOR_CH_NOISE_THRESH", 1, 1, kNone, GetZorChNoiseThresh},
    {"#SET_CH_NOISE_THRESH", 2, 2, kNone, SetChNoiseThresh},
    {"#GET_CH_NOISE_THRESH", 1, 1, kNone, GetChNoiseThresh},
    {"#SET_CH_NOISE_THRESH_ENABLE", 2, 2, kTagPerArg1, SetChNoiseThreshEnable},
    {"#GET_CH_NOISE_THRESH_ENABLE", 1, 1, kNone, GetChNoiseThreshEnable},
    {"#SET_CH_LOCKOUT_PERIOD", 2, 2, kTagPerArg1, SetChLockoutPeriod},
    {"#GET_CH_LOCKOUT_PERIOD", 1, 1, kNone, GetChLockoutPeriod},
    {"#SET_CH_NTV_PERIOD", 2, 2, kTagPerArg1, SetChNtvPeriod},
    {"#GET_CH_NTV_PERIOD", 1, 1, kNone, GetChNtvPeriod},
    {"#SET_CH_NTV_RESET_ON_ZC", 2, 2, kTagPerArg1, SetChNtvResetOnZc},
    {"#GET_CH_NTV_RESET_ON_ZC", 1, 1, kNone, GetChNtvResetOnZc},
    // Amplitude channel
    {"#SET_ZOR_AMP_CH", 1, 1, kTag, SetZorAmpCh},
    {"#GET_ZOR_AMP_CH", 0, 0, kNone, GetZorAmpCh},
    {"#SET_AMP_CH", 1, 1, kNone, SetAmpCh},
    {"#GET_AMP_CH", 0, 0, kNone, GetAmpCh},
    {"#GET_TX_DEGC", 0, 0, kNone, GetTxDegC},
};

}  // namespace

void RegisterChannelCommands(CCommandTable& table) { table.Add(kRows); }
