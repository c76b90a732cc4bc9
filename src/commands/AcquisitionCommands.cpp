// Commands of acquisition, laser and timing: triggering, operating mode, sweep rate and
// data-rate dividers, the multiplexer level, the laser's scan amplitude and bias, the optical
// amplifier (SOA) gate, the sync output, the front LEDs, the fans and a few service switches.
//
// Every card setting goes through the driver interface, whose getters return the value last
// sent (the card cannot be read back). Integer arguments are narrowed to the width of the
// driver parameter they feed, as the card would take them; replies that show "the stored
// value" read it back from the driver's shadow so that the client sees what the card got.
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <thread>

#include "commands/Families.h"
#include "protocol/CommandTable.h"
#include "server/Vr480Server.h"

// The delay table of sensor distances holds times of flight in sweep counts, so it depends on
// the sweep rate; a rate change rebuilds it.
struct LaserCommandAccess {
  static void RebuildTimeOfFlightTable(CVr480Server& s) { s.BuildTimeOfFlightLUT(); }
};

namespace {

// The laser and the optical amplifier must not jump: their settings move in steps of at most
// this many LSB.
constexpr int kRampStep = 500;
// Fan control temperatures are settled by the card's fan controller; give it time to take one
// before the next.
constexpr auto kFanSettle = std::chrono::milliseconds(100);

uint8_t U8(long v) { return static_cast<uint8_t>(v); }
uint16_t U16(long v) { return static_cast<uint16_t>(v); }
uint32_t U32(long v) { return static_cast<uint32_t>(v); }
const char* OnOff(bool on, const char* yes, const char* no) { return on ? yes : no; }

// Moves a laser setting from its current value to `target`: the card receives the current
// value, then values 500 apart towards the target while more than 500 away, then the target.
template <class Send>
void Ramp(uint16_t current, uint16_t target, Send send) {
  const bool up = current <= target;
  int c = current;
  while (std::abs(c - static_cast<int>(target)) > kRampStep) {
    send(static_cast<uint16_t>(c));
    c += up ? kRampStep : -kRampStep;
  }
  send(target);
}

// ---- Triggering ---------------------------------------------------------------------------

int SwTrigStart(CCommandContext& c) {
  c.Server.Driver.SwStartTrig();
  return c.Reply("Start of Acquisition Triggered.\n");
}

int SwTrigStop(CCommandContext& c) {
  c.Server.Driver.SwStopTrig();
  return c.Reply("Stopping Triggered Acquisition.\n");
}

int SetTrigStartEdge(CCommandContext& c) {
  auto& d = c.Server.Driver;
  d.SetTrigStartEdge(c.Int(1) != 0);
  return c.Reply("Trig Start Edge set to %s edge.\n", OnOff(d.GetTrigStartEdge() == 0, "rising", "falling"));
}
int GetTrigStartEdge(CCommandContext& c) { return c.Reply("%d", c.Server.Driver.GetTrigStartEdge()); }

int SetTrigStopEdge(CCommandContext& c) {
  auto& d = c.Server.Driver;
  d.SetTrigStopEdge(c.Int(1) != 0);
  return c.Reply("Trig Stop Edge set to %s edge.\n", OnOff(d.GetTrigStopEdge() == 0, "rising", "falling"));
}
int GetTrigStopEdge(CCommandContext& c) { return c.Reply("%d", c.Server.Driver.GetTrigStopEdge()); }

int SetTrigStopType(CCommandContext& c) {
  auto& d = c.Server.Driver;
  d.SetTrigStopType(U8(c.Int(1)));
  return c.Reply("Trig Stop Type set to '%s'.\n", OnOff(d.GetTrigStopType() == 0, "# Acquisitions", "Edge"));
}
int GetTrigStopType(CCommandContext& c) { return c.Reply("%d", c.Server.Driver.GetTrigStopType()); }

int SetTrigNumAcq(CCommandContext& c) {
  auto& d = c.Server.Driver;
  d.SetTrigAcqTime(U32(c.Int(1)));
  return c.Reply("Trigg acquisition set to %d samples.\n", static_cast<int>(d.GetTrigAcqTime()));
}
int GetTrigNumAcq(CCommandContext& c) { return c.Reply("%d", static_cast<int>(c.Server.Driver.GetTrigAcqTime())); }

int SetAutoReTrig(CCommandContext& c) {
  auto& d = c.Server.Driver;
  d.SetAutoReTrig(c.Int(1) != 0);
  return c.Reply("Auto-Retriggering %s.\n", OnOff(d.GetAutoReTrig(), "enabled", "disabled"));
}
int GetAutoReTrig(CCommandContext& c) { return c.Reply("%d", c.Server.Driver.GetAutoReTrig() ? 1 : 0); }

int SetTrigMode(CCommandContext& c) {
  c.Server.SetTriggeringMode(U8(c.Int(1)));
  return c.Reply("Setting triggering mode to %d.\n", c.Server.GetTriggeringMode());
}
int GetTrigMode(CCommandContext& c) { return c.Reply("%d", c.Server.GetTriggeringMode()); }

int SetExtSyncEdge(CCommandContext& c) {
  const long n = c.Int(1);
  c.Server.Driver.SetExtSyncEdge(n != 0);
  return c.Reply("Ext Sync Edge set to %s.\n", OnOff(n == 0, "rising edge", "falling edge"));
}
int GetExtSyncEdge(CCommandContext& c) { return c.Reply("%d", c.Server.Driver.GetExtSyncEdge() ? 1 : 0); }

// ---- Operating mode, rates and multiplexer -------------------------------------------------

// A card that slaves to an external master cannot also run behind a raised minimum divider:
// the modes that hand the rate to the master are unavailable then.
int SetOperatingMode(CCommandContext& c) {
  CVr480Server& s = c.Server;
  if (s.MinDataRateDivider > 1) return c.Reply("!Function Unavailable.");
  s.SetOperatingMode(U8(c.Int(1)));
  return c.Reply("Setting Operating mode to %d.\n", s.Driver.GetOperatingMode());
}
int GetOperatingMode(CCommandContext& c) { return c.Reply("%d", c.Server.Driver.GetOperatingMode()); }

// The client sees the divider above the minimum, the card the product of both.
int UserDivider(const CVr480Server& s) {
  const int minimum = s.MinDataRateDivider;
  const int divider = s.DataRateDivider;
  return minimum > 0 ? divider / minimum : divider;
}

int SetDataRateDivider(CCommandContext& c) {
  c.Server.SetDataRateDivider(U16(c.Int(1)));
  return c.Reply("data rate divider set to %d.\n", UserDivider(c.Server));
}
int GetDataRateDivider(CCommandContext& c) { return c.Reply("%d", UserDivider(c.Server)); }

// A new minimum keeps the client's divider: the card's divider becomes the old user divider
// times the new minimum.
int SetMinDataRateDivider(CCommandContext& c) {
  CVr480Server& s = c.Server;
  const int k = UserDivider(s);
  uint16_t minimum = U16(c.Int(1));
  if (minimum == 0) minimum = 1;
  s.MinDataRateDivider = minimum;
  const int code = c.Reply("Setting Min data rate divider to %d.\n", minimum);
  s.SetDataRateDivider(static_cast<uint16_t>(k));
  return code;
}
int GetMinDataRateDivider(CCommandContext& c) { return c.Reply("%d", static_cast<int>(c.Server.MinDataRateDivider)); }

int SetHwClkDivider(CCommandContext& c) {
  const long n = c.Int(1);
  if (n != 1 && n != 2) return c.Reply("!Invalid argument.  Valid values are 1 or 2.\n");
  c.Server.Driver.SetHwClkDivider(n == 2);
  return c.Reply("Setting HwClk divider to %d.\n", static_cast<int>(n));
}
int GetHwClkDivider(CCommandContext& c) { return c.Reply("%d", c.Server.Driver.GetHwClkDivider_() ? 1 : 0); }

int Set2khzMode(CCommandContext& c) {
  const bool on = c.Int(1) != 0;
  c.Server.Driver.Set2khzMode(on);
  const int code = c.Reply("2khz operation %s.\n", OnOff(on, "enabled", "disabled"));
  LaserCommandAccess::RebuildTimeOfFlightTable(c.Server);
  return code;
}
int Get2khzMode(CCommandContext& c) { return c.Reply("%d", c.Server.Driver.Get2khzMode() ? 1 : 0); }

int GetUserMaxScanRate(CCommandContext& c) {
  const int minimum = c.Server.MinDataRateDivider;
  return c.Reply("%0.2f", static_cast<double>(c.Server.SweepRate()) / (minimum > 0 ? minimum : 1));
}
int GetDeviceMaxScanRate(CCommandContext& c) { return c.Reply("%0.2f", static_cast<double>(c.Server.SweepRate())); }

int SetMuxLevel(CCommandContext& c) {
  c.Server.SetMuxLevel(static_cast<int>(c.Int(1)));
  return c.Reply("Mux Level Set to %d.\n", c.Server.GetMuxLevel());
}
int GetMuxLevel(CCommandContext& c) { return c.Reply("%d", c.Server.GetMuxLevel()); }

// What this instrument offers: bit 0 full spectra, bit 1 distance measurement, bit 2 the
// 2 kHz sweep rate is on.
int GetCapabilities(CCommandContext& c) {
  CVr480Server& s = c.Server;
  unsigned bits = 0;
  if (s.bFsEnable) bits |= 1u;
  if (s.bLocMeasEnable) bits |= 2u;
  if (s.Driver.Get2khzMode()) bits |= 4u;
  return c.Reply("%u", bits);
}

int EnableDma(CCommandContext& c) {
  const bool on = c.Int(1) != 0;
  c.Server.Driver.EnableDMA(on);
  return c.Reply("%s.\n", OnOff(on, "DMA Enabled", "DMA Disabled"));
}

// ---- Laser, PZT and SOA -----------------------------------------------------------------------

int SetBias(CCommandContext& c) {
  auto& d = c.Server.Driver;
  d.SetBias(U16(c.Int(1)));
  return c.Reply("Bias set to %d.\n", d.GetBias());
}
int GetBias(CCommandContext& c) { return c.Reply("%d", c.Server.Driver.GetBias()); }

int SetScanAmp(CCommandContext& c) {
  auto& d = c.Server.Driver;
  const uint16_t target = U16(c.Int(1));
  Ramp(d.GetScanAmp(), target, [&d](uint16_t v) { d.SetScanAmp(v); });
  return c.Reply("Scan amp set to %d.\n", target);
}
int GetScanAmp(CCommandContext& c) { return c.Reply("%d", c.Server.Driver.GetScanAmp()); }

int SetPztSyncOffset(CCommandContext& c) {
  auto& d = c.Server.Driver;
  d.SetPztSyncOffset(U16(c.Int(1)));
  return c.Reply("PZT sync offset set to %d.\n", d.GetPztSyncOffset());
}
int GetPztSyncOffset(CCommandContext& c) { return c.Reply("%d", c.Server.Driver.GetPztSyncOffset()); }

int EnableSoa(CCommandContext& c) {
  const bool on = c.Int(1) != 0;
  c.Server.Driver.EnableSOA(on);
  return c.Reply("%s", OnOff(on, "SOA enabled.\n", "SOA disabled.\n"));
}

int SetSoaDrive(CCommandContext& c) {
  auto& d = c.Server.Driver;
  const uint16_t target = U16(c.Int(1));
  Ramp(d.GetSOADrive(), target, [&d](uint16_t v) { d.SetSOADrive(v); });
  return c.Reply("SOA drive set to %d.\n", target);
}
int GetSoaDrive(CCommandContext& c) { return c.Reply("%d", c.Server.Driver.GetSOADrive()); }

int SetSoaOnCount(CCommandContext& c) {
  auto& d = c.Server.Driver;
  c.Server.bSoaOnWvlPending = false;  // a later setting of the same edge wins, as in the replay order
  d.SetSoaOnCount(U32(c.Int(1)));
  return c.Reply("SOA on count set to %d.\n", static_cast<int>(d.GetSoaOnCount()));
}
int GetSoaOnCount(CCommandContext& c) { return c.Reply("%d", static_cast<int>(c.Server.Driver.GetSoaOnCount())); }

int SetSoaOffCount(CCommandContext& c) {
  auto& d = c.Server.Driver;
  c.Server.bSoaOffWvlPending = false;
  d.SetSoaOffCount(U32(c.Int(1)));
  return c.Reply("SOA off count set to %d.\n", static_cast<int>(d.GetSoaOffCount()));
}
int GetSoaOffCount(CCommandContext& c) { return c.Reply("%d", static_cast<int>(c.Server.Driver.GetSoaOffCount())); }

// The SOA window given in wavelengths: the count is read off the current record's comb. Only a
// count inside the measured half of the sweep (1-65535) is sent: the card keeps 17 bits, so a
// wavelength far off the comb (a negative one, say) would otherwise land anywhere in the
// laser period and could move the sweep off the reference grating, after which no wavelength
// could be converted to undo it. Until the first record has a scale (while the settings are
// replayed at start-up) the wavelength is kept, and the acquisition loop applies it once the
// scale is valid, so a saved window survives a restart.
int SoaWindowCount(CVr480Server& s, double w) {
  if (!(w > 0.0)) return -1;  // NaN too
  const double counts = s.Wvl2Counts(w);
  return counts >= 1.0 && counts <= 65535.0 ? static_cast<int>(counts) : -1;
}

int SetSoaWvl(CCommandContext& c, bool on) {
  CVr480Server& s = c.Server;
  double w;
  if (!c.FiniteDbl(1, w)) return kReplyText;
  const char* edge = on ? "on" : "off";
  if (!s.ScaleKnown()) {
    (on ? s.SoaOnWvl : s.SoaOffWvl) = w;
    (on ? s.bSoaOnWvlPending : s.bSoaOffWvlPending) = true;
    return c.Reply("SOA %s wvl set to %f [count value pending].\n", edge, w);
  }
  const int counts = SoaWindowCount(s, w);
  if (counts <= 0) return c.Reply("!Wavelength out of range.");
  (on ? s.SoaOnWvl : s.SoaOffWvl) = w;
  (on ? s.bSoaOnWvlPending : s.bSoaOffWvlPending) = false;
  if (on) s.Driver.SetSoaOnCount(static_cast<uint32_t>(counts));
  else s.Driver.SetSoaOffCount(static_cast<uint32_t>(counts));
  return c.Reply("SOA %s wvl set to %f [count value %d].\n", edge, w, counts);
}

int SetSoaOnWvl(CCommandContext& c) { return SetSoaWvl(c, true); }
int GetSoaOnWvl(CCommandContext& c) { return c.Reply("%f", static_cast<double>(c.Server.SoaOnWvl)); }
int SetSoaOffWvl(CCommandContext& c) { return SetSoaWvl(c, false); }
int GetSoaOffWvl(CCommandContext& c) { return c.Reply("%f", static_cast<double>(c.Server.SoaOffWvl)); }

// Kept for old clients: the analog outputs are driven by the pipeline through the bridge's
// mailboxes, so this value reaches nothing.
int SetAnalogVout(CCommandContext& c) {
  const uint8_t ch = U8(c.Int(1));
  const uint16_t v = U16(c.Int(2));
  c.Server.Driver.SetAnalogVout(ch, v);
  return c.Reply("User analog Vout[%d] set to %d.\n", ch, v);
}

// ---- Sync output ---------------------------------------------------------------------------
// Mode 0 drives the sync output between fixed counts; in mode 1 the acquisition loop moves the
// counts ten times a second so that the edges stay at fixed wavelengths.

int SetSyncCtrlMode(CCommandContext& c) {
  CVr480Server& s = c.Server;
  const long mode = c.Int(1);
  if (mode == 0) {
    s.Driver.SetSyncHiCount(s.SyncHiCount);
    s.Driver.SetSyncLoCount(s.SyncLoCount);
    s.SyncCtrlMode = 0;
  } else if (mode == 1) {
    s.SyncCtrlMode = 1;
  } else {
    return c.Reply("!Illegal sync cntrl value.\n");
  }
  return c.Reply("Sync cntrl mode set to %d.\n", static_cast<int>(mode));
}
int GetSyncCtrlMode(CCommandContext& c) { return c.Reply("%d", static_cast<int>(c.Server.SyncCtrlMode)); }

int SetSyncHiCount(CCommandContext& c) {
  CVr480Server& s = c.Server;
  const uint32_t n = U32(c.Int(1));
  s.SyncHiCount = n;
  const int code = c.Reply("Sync hi count set to %d.\n", static_cast<int>(n));
  if (s.SyncCtrlMode == 0) s.Driver.SetSyncHiCount(n);
  return code;
}
int GetSyncHiCount(CCommandContext& c) { return c.Reply("%d", static_cast<int>(c.Server.SyncHiCount)); }

int SetSyncLoCount(CCommandContext& c) {
  CVr480Server& s = c.Server;
  const uint32_t n = U32(c.Int(1));
  s.SyncLoCount = n;
  const int code = c.Reply("Sync lo count set to %d.\n", static_cast<int>(n));
  if (s.SyncCtrlMode == 0) s.Driver.SetSyncLoCount(n);
  return code;
}
int GetSyncLoCount(CCommandContext& c) { return c.Reply("%d", static_cast<int>(c.Server.SyncLoCount)); }

int SetSyncHiWvl(CCommandContext& c) {
  CVr480Server& s = c.Server;
  double w;
  if (!c.FiniteDbl(1, w)) return kReplyText;
  s.SyncHiWvl = w;
  return c.Reply("Sync hi wvl set to %f [%d counts].\n", w, static_cast<int>(s.Wvl2Counts(w)));
}
int GetSyncHiWvl(CCommandContext& c) { return c.Reply("%f", static_cast<double>(c.Server.SyncHiWvl)); }

int SetSyncLoWvl(CCommandContext& c) {
  CVr480Server& s = c.Server;
  double w;
  if (!c.FiniteDbl(1, w)) return kReplyText;
  s.SyncLoWvl = w;
  return c.Reply("Sync lo wvl set to %f [%d counts].\n", w, static_cast<int>(s.Wvl2Counts(w)));
}
int GetSyncLoWvl(CCommandContext& c) { return c.Reply("%f", static_cast<double>(c.Server.SyncLoWvl)); }

// ---- LEDs, fans and service switches ------------------------------------------------------------

int ClientLed(CCommandContext& c) {
  const bool on = c.Int(1) != 0;
  c.Server.Driver.SetClientLed(on);
  return c.Reply("%s.\n", OnOff(on, "'Client' LED on", "'Client' LED off"));
}

int ReadyLed(CCommandContext& c) {
  const bool on = c.Int(1) != 0;
  c.Server.Driver.SetReadyLed(on);
  return c.Reply("%s.\n", OnOff(on, "'Ready' LED on", "'Ready' LED off"));
}

int SetFan1ControlTemp(CCommandContext& c) {
  auto& d = c.Server.Driver;
  d.SetFan1ControlTemp(U8(c.Int(1)));
  std::this_thread::sleep_for(kFanSettle);
  return c.Reply("Fan1 Control Temp set to %d.\n", d.GetFan1ControlTemp());
}
int GetFan1ControlTemp(CCommandContext& c) { return c.Reply("%d", c.Server.Driver.GetFan1ControlTemp()); }

int SetFan2ControlTemp(CCommandContext& c) {
  auto& d = c.Server.Driver;
  d.SetFan2ControlTemp(U8(c.Int(1)));
  std::this_thread::sleep_for(kFanSettle);
  return c.Reply("Fan2 Control Temp set to %d.\n", d.GetFan2ControlTemp());
}
int GetFan2ControlTemp(CCommandContext& c) { return c.Reply("%d", c.Server.Driver.GetFan2ControlTemp()); }

int SetFan1TempHysteresis(CCommandContext& c) {
  auto& d = c.Server.Driver;
  d.SetFan1TempHysteresis(U8(c.Int(1)));
  return c.Reply("Fan1 Temp Hysteresis set to %d.\n", d.GetFan1TempHysteresis());
}
int GetFan1TempHysteresis(CCommandContext& c) { return c.Reply("%d", c.Server.Driver.GetFan1TempHysteresis()); }

int SetFan2TempHysteresis(CCommandContext& c) {
  auto& d = c.Server.Driver;
  d.SetFan2TempHysteresis(U8(c.Int(1)));
  return c.Reply("Fan2 Temp Hysteresis set to %d.\n", d.GetFan2TempHysteresis());
}
int GetFan2TempHysteresis(CCommandContext& c) { return c.Reply("%d", c.Server.Driver.GetFan2TempHysteresis()); }

int SetFpgaDebug(CCommandContext& c) {
  auto& d = c.Server.Driver;
  d.SetFpgaDebug(U32(c.Int(1)));
  return c.Reply("Setting FPGA Debug to %u.\n", d.GetFpgaDebug());
}
int GetFpgaDebug(CCommandContext& c) { return c.Reply("%u\n", c.Server.Driver.GetFpgaDebug()); }

int SetSwapP68P155(CCommandContext& c) {
  const bool on = c.Int(1) != 0;
  c.Server.Driver.SetSwapP68P155(on);
  return c.Reply("Swap P68 & P155 set to %s.\n", OnOff(on, "true", "false"));
}
int GetSwapP68P155(CCommandContext& c) { return c.Reply("%d", c.Server.Driver.GetSwapP68P155() ? 1 : 0); }

int SetTestSyncOutputDivider(CCommandContext& c) {
  auto& d = c.Server.Driver;
  d.SetTestSyncOutDivider(U16(c.Int(1)));
  return c.Reply("Test Sync Output divider set to %d.\n", d.GetTestSyncOutDivider());
}
int GetTestSyncOutputDivider(CCommandContext& c) { return c.Reply("%d", c.Server.Driver.GetTestSyncOutDivider()); }

const SCommandRow kRows[] = {
    // Triggering
    {"#SW_TRIG_START", 0, 0, kNone, SwTrigStart},
    {"#SW_TRIG_STOP", 0, 0, kNone, SwTrigStop},
    {"#SET_TRIG_START_EDGE", 1, 1, kTag, SetTrigStartEdge},
    {"#GET_TRIG_START_EDGE", 0, 0, kNone, GetTrigStartEdge},
    {"#SET_TRIG_STOP_EDGE", 1, 1, kTag, SetTrigStopEdge},
    {"#GET_TRIG_STOP_EDGE", 0, 0, kNone, GetTrigStopEdge},
    {"#SET_TRIG_STOP_TYPE", 1, 1, kTag, SetTrigStopType},
    {"#GET_TRIG_STOP_TYPE", 0, 0, kNone, GetTrigStopType},
    {"#SET_TRIG_NUM_ACQ", 1, 1, kTag, SetTrigNumAcq},
    {"#GET_TRIG_NUM_ACQ", 0, 0, kNone, GetTrigNumAcq},
    {"#SET_AUTO_RETRIG", 1, 1, kTag, SetAutoReTrig},
    {"#GET_AUTO_RETRIG", 0, 0, kNone, GetAutoReTrig},
    {"#SET_TRIG_MODE", 1, 1, kTag, SetTrigMode},
    {"#GET_TRIG_MODE", 0, 0, kNone, GetTrigMode},
    {"#SET_EXT_SYNC_EDGE", 1, 1, kTag, SetExtSyncEdge},
    {"#GET_EXT_SYNC_EDGE", 0, 0, kNone, GetExtSyncEdge},
    // Operating mode, rates and multiplexer
    {"#SET_OPERATING_MODE", 1, 1, kTag, SetOperatingMode},
    {"#GET_OPERATING_MODE", 0, 0, kNone, GetOperatingMode},
    {"#SET_DATA_RATE_DIVIDER", 1, 1, kTag, SetDataRateDivider},
    {"#GET_DATA_RATE_DIVIDER", 0, 0, kNone, GetDataRateDivider},
    {"#SET_MIN_DATA_RATE_DIVIDER", 1, 1, kTag, SetMinDataRateDivider},
    {"#GET_MIN_DATA_RATE_DIVIDER", 0, 0, kNone, GetMinDataRateDivider},
    {"#SET_HWCLK_DIVIDER", 1, 1, kTag, SetHwClkDivider},
    {"#GET_HWCLK_DIVIDER", 0, 0, kNone, GetHwClkDivider},
    {"#SET_2KHZ_MODE", 1, 1, kTag, Set2khzMode},
    {"#GET_2KHZ_MODE", 0, 0, kNone, Get2khzMode},
    {"#GET_USER_MAX_SCAN_RATE", 0, 0, kNone, GetUserMaxScanRate},
    {"#GET_DEVICE_MAX_SCAN_RATE", 0, 0, kNone, GetDeviceMaxScanRate},
    {"#SET_MUX_LEVEL", 1, 1, kTag, SetMuxLevel},
    {"#GET_MUX_LEVEL", 0, 0, kNone, GetMuxLevel},
    {"#GET_CAPABILITIES", 0, 0, kNone, GetCapabilities},
    {"#ENABLE_DMA", 1, 1, kNone, EnableDma},
    // Laser, PZT and SOA
    {"#SET_BIAS", 1, 1, kNone, SetBias},
    {"#GET_BIAS", 0, 0, kNone, GetBias},
    {"#SET_SCAN_AMP", 1, 1, kTag, SetScanAmp},
    {"#GET_SCAN_AMP", 0, 0, kNone, GetScanAmp},
    {"#SET_PZT_SYNC_OFFSET", 1, 1, kTag, SetPztSyncOffset},
    {"#GET_PZT_SYNC_OFFSET", 0, 0, kNone, GetPztSyncOffset},
    {"#ENABLE_SOA", 1, 1, kNone, EnableSoa},
    {"#SET_SOA_DRIVE", 1, 1, kTag, SetSoaDrive},
    {"#GET_SOA_DRIVE", 0, 0, kNone, GetSoaDrive},
    {"#SET_SOA_ON_COUNT", 1, 1, kTag, SetSoaOnCount},
    {"#GET_SOA_ON_COUNT", 0, 0, kNone, GetSoaOnCount},
    {"#SET_SOA_OFF_COUNT", 1, 1, kTag, SetSoaOffCount},
    {"#GET_SOA_OFF_COUNT", 0, 0, kNone, GetSoaOffCount},
    {"#SET_SOA_ON_WVL", 1, 1, kTag, SetSoaOnWvl},
    {"#GET_SOA_ON_WVL", 0, 0, kNone, GetSoaOnWvl},
    {"#SET_SOA_OFF_WVL", 1, 1, kTag, SetSoaOffWvl},
    {"#GET_SOA_OFF_WVL", 0, 0, kNone, GetSoaOffWvl},
    {"#SET_ANALOG_VOUT", 2, 2, kNone, SetAnalogVout},
    // Sync output
    {"#SET_SYNC_CTRL_MODE", 1, 1, kTag, SetSyncCtrlMode},
    {"#GET_SYNC_CTRL_MODE", 0, 0, kNone, GetSyncCtrlMode},
    {"#SET_SYNC_HI_COUNT", 1, 1, kTag, SetSyncHiCount},
    {"#GET_SYNC_HI_COUNT", 0, 0, kNone, GetSyncHiCount},
    {"#SET_SYNC_LO_COUNT", 1, 1, kTag, SetSyncLoCount},
    {"#GET_SYNC_LO_COUNT", 0, 0, kNone, GetSyncLoCount},
    {"#SET_SYNC_HI_WVL", 1, 1, kTag, SetSyncHiWvl},
    {"#GET_SYNC_HI_WVL", 0, 0, kNone, GetSyncHiWvl},
    {"#SET_SYNC_LO_WVL", 1, 1, kTag, SetSyncLoWvl},
    {"#GET_SYNC_LO_WVL", 0, 0, kNone, GetSyncLoWvl},
    // LEDs, fans and service switches
    {"#CLIENT_LED", 1, 1, kNone, ClientLed},
    {"#READY_LED", 1, 1, kNone, ReadyLed},
    {"#SET_FAN1_CONTROL_TEMP", 1, 1, kTag, SetFan1ControlTemp},
    {"#GET_FAN1_CONTROL_TEMP", 0, 0, kNone, GetFan1ControlTemp},
    {"#SET_FAN2_CONTROL_TEMP", 1, 1, kTag, SetFan2ControlTemp},
    {"#GET_FAN2_CONTROL_TEMP", 0, 0, kNone, GetFan2ControlTemp},
    {"#SET_FAN1_TEMP_HYSTERESIS", 1, 1, kTag, SetFan1TempHysteresis},
    {"#GET_FAN1_TEMP_HYSTERESIS", 0, 0, kNone, GetFan1TempHysteresis},
    {"#SET_FAN2_TEMP_HYSTERESIS", 1, 1, kTag, SetFan2TempHysteresis},
    {"#GET_FAN2_TEMP_HYSTERESIS", 0, 0, kNone, GetFan2TempHysteresis},
    {"#SET_FPGA_DEBUG", 1, 1, kNone, SetFpgaDebug},
    {"#GET_FPGA_DEBUG", 0, 0, kNone, GetFpgaDebug},
    {"#SET_SWAP_P68_P155", 1, 1, kTag, SetSwapP68P155},
    {"#GET_SWAP_P68_P155", 0, 0, kNone, GetSwapP68P155},
    {"#SET_TEST_SYNC_OUTPUT_DIVIDER", 1, 1, kNone, SetTestSyncOutputDivider},
    {"#GET_TEST_SYNC_OUTPUT_DIVIDER", 0, 0, kNone, GetTestSyncOutputDivider},
};

}  // namespace

// A window edge kept while there was no scale is applied with the first scale; one outside the
// sweep is reported on the console and left unapplied (its tag stays for the next start).
void CVr480Server::ApplyPendingSoaWindow() {
  for (const bool on : {true, false}) {
    if (!(on ? bSoaOnWvlPending : bSoaOffWvlPending).exchange(false)) continue;
    const double w = on ? SoaOnWvl : SoaOffWvl;
    const int counts = SoaWindowCount(*this, w);
    const char* edge = on ? "on" : "off";
    if (counts <= 0) {
      std::printf("Saved SOA %s wvl %f is outside the sweep; not applied.\n", edge, w);
      continue;
    }
    if (on) Driver.SetSoaOnCount(static_cast<uint32_t>(counts));
    else Driver.SetSoaOffCount(static_cast<uint32_t>(counts));
    std::printf("SOA %s wvl set to %f [count value %d].\n", edge, w, counts);
  }
}

void RegisterAcquisitionCommands(CCommandTable& table) { table.Add(kRows); }
