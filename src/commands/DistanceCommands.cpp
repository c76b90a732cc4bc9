// Sensor locations and their measurement.
//
// Every sensor's wavelength is corrected for the time its light spends in the fibre, which
// needs the sensor's location, the fibre's index of refraction and the speed of light. These
// commands set those, convert wavelengths with and without the correction, and run the
// two-rate measurement that finds the locations: the measurement and its diagnostic plot run
// on the acquisition thread, and the requesting client waits for them.
#include <algorithm>
#include <chrono>
#include <climits>
#include <mutex>
#include <string>
#include <thread>

#include "commands/ChannelArgs.h"
#include "commands/Families.h"
#include "protocol/CommandTable.h"
#include "server/Globals.h"
#include "server/Vr480Server.h"

namespace {

int BadSensorArgs(CCommandContext& c, bool legacy) {
  const SChannelRange range = ChannelRange(c.Server, legacy);
  return c.Reply("!Illegal parameters.  Acceptable ranges are: Ch# %s to %s, sensor# 1 to %d.\n", range.Low.c_str(),
                 range.High.c_str(), kSensorsPerChannel);
}

// Waits until the acquisition thread has served a request; false when the server stops first.
bool AwaitServed(const std::atomic<bool>& request) {
  while (request && !bStopSignalled) std::this_thread::sleep_for(std::chrono::milliseconds(1));
  return !request;
}

// ---- Locations --------------------------------------------------------------------------------

void SetLocation(CVr480Server& s, int logical, int sensor, double metres) {
  s.SensorDistances[logical][sensor] = metres;
  s.UpdateTimeOfFlight(logical, sensor);
}

int SetSensorLocation(CCommandContext& c) {
  CVr480Server& s = c.Server;
  const int n = c.NumArgs();
  double metres;
  if (!c.FiniteDbl(n, metres)) return kReplyText;
  if (n == 3) {
    const SChannelArg ch = ReadChannelArg(c, 1, kLogicalChannels);
    const int sensor = ReadSensorArg(c, 2);
    if (ch.Index < 0 || sensor < 0) return BadSensorArgs(c, ch.bLegacy);
    SetLocation(s, ch.Index, sensor, metres);
    s.RequestAveragesReset(ch.Index, sensor);
    return c.Reply("Setting Ch %s, Sensor %d location to %f meters.\n", c.Col(1).c_str(), sensor + 1, metres);
  }
  if (n == 2) {
    const SChannelArg ch = ReadChannelArg(c, 1, ChannelsInUse(s));
    if (ch.Index < 0) return BadSensorArgs(c, ch.bLegacy);
    for (int j = 0; j < kSensorsPerChannel; ++j) s.SensorDistances[ch.Index][j] = metres;
    s.UpdateTimeOfFlight(ch.Index, -1);
    s.RequestAveragesReset(ch.Index, -1);
    return c.Reply("Setting Ch %s, locations to %f meters.\n", c.Col(1).c_str(), metres);
  }
  for (int ch = 0; ch < ChannelsInUse(s); ++ch) {
    for (int j = 0; j < kSensorsPerChannel; ++j) s.SensorDistances[ch][j] = metres;
    s.UpdateTimeOfFlight(ch, -1);
  }
  s.RequestAveragesReset(-1, -1);
  return c.Reply("Setting sensor location for all sensors on all channels to %f meters.\n", metres);
}

int GetSensorLocation(CCommandContext& c) {
  const SChannelArg ch = ReadChannelArg(c, 1, kLogicalChannels);
  const int sensor = ReadSensorArg(c, 2);
  if (ch.Index < 0 || sensor < 0) return BadSensorArgs(c, ch.bLegacy);
  return c.Reply("%f", c.Server.SensorDistances[ch.Index][sensor].load());
}

// ---- Fibre and light ------------------------------------------------------------------------

int SetIndexOfRefraction(CCommandContext& c) {
  const SChannelArg ch = ReadChannelArg(c, 1, kLogicalChannels);
  if (ch.Index < 0) return c.Reply("!Illegal Channel: %s\n", c.Col(1).c_str());
  double index;
  if (!c.FiniteDbl(2, index)) return kReplyText;
  // The index divides the speed of light: 0 or less would put every sensor at infinity.
  if (index <= 0.0) return c.Reply("!Illegal parameters.  Index of refraction must be greater than 0: %s.\n", c.Col(2).c_str());
  c.Server.IndexOfRefraction[ch.Index] = index;
  c.Server.UpdateTimeOfFlight(-1, -1);
  return c.Reply("Setting Ch %s Index of Refraction to %f.\n", c.Col(1).c_str(), index);
}

int GetIndexOfRefraction(CCommandContext& c) {
  const SChannelArg ch = ReadChannelArg(c, 1, kLogicalChannels);
  if (ch.Index < 0) return c.Reply("!Illegal Channel: %s\n", c.Col(1).c_str());
  return c.Reply("%f", c.Server.IndexOfRefraction[ch.Index].load());
}

int SetSpeedOfLight(CCommandContext& c) {
  double v;
  if (!c.FiniteDbl(1, v)) return kReplyText;
  if (v <= 0.0) return c.Reply("!Illegal parameters.  Speed of light must be greater than 0: %s.\n", c.Col(1).c_str());
  c.Server.SpeedOfLight = v;
  c.Server.UpdateTimeOfFlight(-1, -1);
  return c.Reply("Setting speed of light to %f.\n", v);
}

int GetSpeedOfLight(CCommandContext& c) { return c.Reply("%f", c.Server.SpeedOfLight.load()); }

// The wavelength a peak seen at `nm` has after (sign -1) or before (sign +1) the correction for
// a sensor `metres` down a fibre of index `index`; an index of 0 means no fibre at all.
int DistanceConvertedWvl(CCommandContext& c, double sign) {
  CVr480Server& s = c.Server;
  double nm = c.Dbl(1), metres = c.Dbl(2), index = c.Dbl(3);
  if (index == 0.0) {
    index = 1.0;
    metres = 0.0;
  }
  const double seconds = 2.0 * metres / (s.SpeedOfLight / index);
  const double counts = s.Wvl2Counts(nm);
  return c.Reply("%f", s.Counts2Wvl(counts + sign * s.SweepRate() * 131072.0 * seconds));
}
int GetDistCompWvl(CCommandContext& c) { return DistanceConvertedWvl(c, -1.0); }
int GetDistUcompWvl(CCommandContext& c) { return DistanceConvertedWvl(c, 1.0); }

// ---- Measurement ------------------------------------------------------------------------------

int NotAvailable(CCommandContext& c) { return c.Reply("!Sensor location measurements not available.\n"); }

int SetLocMeasEnable(CCommandContext& c) {
  const bool on = c.Int(1) != 0;
  c.Server.bLocMeasEnable = on;
  return c.Reply(on ? "Distance Measurement Enabled.\n" : "Distance Measurement Disabled.\n");
}
int GetLocMeasEnable(CCommandContext& c) { return c.Reply("%d", c.Server.bLocMeasEnable ? 1 : 0); }

// A request posted while a measurement runs is absorbed by it: both clients read its result.
int MeasureLocations(CCommandContext& c) {
  CVr480Server& s = c.Server;
  if (!s.bLocMeasEnable) return NotAvailable(c);
  s.bMeasureLocations = true;
  const bool served = AwaitServed(s.bMeasureLocations);
  return c.Reply(served && s.LocMeasResult == 0 ? "Measuring Sensor Locations...OK.\n" : "!Measuring Sensor Locations...failed.\n");
}

int GetMeasuredLocation(CCommandContext& c) {
  if (!c.Server.bLocMeasEnable) return NotAvailable(c);
  const SChannelArg ch = ReadChannelArg(c, 1, kLogicalChannels);
  const int sensor = ReadSensorArg(c, 2);
  if (ch.Index < 0 || sensor < 0) return BadSensorArgs(c, ch.bLegacy);
  return c.Reply("%f", c.Server.MeasuredLocation[ch.Index][sensor].load());
}

// Applying keeps the running averages: the wavelengths step once to their corrected values.
void ApplyChannel(CVr480Server& s, int logical) {
  for (int j = 0; j < kSensorsPerChannel; ++j) s.SensorDistances[logical][j] = s.MeasuredLocation[logical][j].load();
  s.UpdateTimeOfFlight(logical, -1);
}

int ApplyMeasuredLocations(CCommandContext& c) {
  CVr480Server& s = c.Server;
  if (!s.bLocMeasEnable) return NotAvailable(c);
  if (c.NumArgs() == 2) {
    const SChannelArg ch = ReadChannelArg(c, 1, kLogicalChannels);
    const int sensor = ReadSensorArg(c, 2);
    if (ch.Index < 0 || sensor < 0) return BadSensorArgs(c, ch.bLegacy);
    const double metres = s.MeasuredLocation[ch.Index][sensor];
    SetLocation(s, ch.Index, sensor, metres);
    return c.Reply("Setting Ch %s, Sensor %d to measured location of %f meters.\n", c.Col(1).c_str(), sensor + 1,
                   metres);
  }
  if (c.NumArgs() == 1) {
    const SChannelArg ch = ReadChannelArg(c, 1, ChannelsInUse(s));
    if (ch.Index < 0) return BadSensorArgs(c, ch.bLegacy);
    ApplyChannel(s, ch.Index);
    return c.Reply("Applying measured locations to all sensors on channel %s.\n", c.Col(1).c_str());
  }
  for (int ch = 0; ch < ChannelsInUse(s); ++ch) ApplyChannel(s, ch);
  return c.Reply("Applying measured locations to all sensors on all channels.\n");
}

int SetLocMeasAverages(CCommandContext& c) {
  const long v = c.Int(1);
  c.Server.LocMeasAverages = v <= 0 ? 1 : static_cast<int32_t>(std::min<long>(v, INT32_MAX));
  return c.Reply("# locations averages set to %d.\n", c.Server.LocMeasAverages.load());
}
int GetLocMeasAverages(CCommandContext& c) { return c.Reply("%d", c.Server.LocMeasAverages.load()); }

int SetLocMeasMaxWvlErrNm(CCommandContext& c) {
  double v;
  if (!c.FiniteDbl(1, v)) return kReplyText;
  c.Server.LocMeasMaxWvlErrNm = v;
  return c.Reply("Max wvl error set to %f nm.\n", v);
}
int GetLocMeasMaxWvlErrNm(CCommandContext& c) { return c.Reply("%f", c.Server.LocMeasMaxWvlErrNm.load()); }

int SetLocMeasMaxIterations(CCommandContext& c) {
  const long v = c.Int(1);
  c.Server.LocMeasMaxIterations = v <= 0 ? 1 : static_cast<int32_t>(std::min<long>(v, INT32_MAX));
  return c.Reply("location measurement max # iterations set to %d.\n", c.Server.LocMeasMaxIterations.load());
}
int GetLocMeasMaxIterations(CCommandContext& c) { return c.Reply("%d", c.Server.LocMeasMaxIterations.load()); }

int SetChOffset(CCommandContext& c, Relaxed<double>* offsets) {
  const SChannelArg ch = ReadChannelArg(c, 1, kLogicalChannels);
  if (ch.Index < 0) return ReplyBadChannel(c, ch.bLegacy);
  double metres;
  if (!c.FiniteDbl(2, metres)) return kReplyText;
  offsets[ch.Index] = metres;
  return c.Reply("Setting channel %s location offset to %f.\n", c.Col(1).c_str(), metres);
}
int GetChOffset(CCommandContext& c, const Relaxed<double>* offsets) {
  const SChannelArg ch = ReadChannelArg(c, 1, kLogicalChannels);
  if (ch.Index < 0) return ReplyBadChannel(c, ch.bLegacy);
  return c.Reply("%f", offsets[ch.Index].load());
}
int SetLocMeasChOffset(CCommandContext& c) { return SetChOffset(c, c.Server.LocMeasChOffsetMeters); }
int GetLocMeasChOffset(CCommandContext& c) { return GetChOffset(c, c.Server.LocMeasChOffsetMeters); }
int SetZorLocMeasChOffset(CCommandContext& c) { return SetChOffset(c, c.Server.ZorLocMeasChOffsetMeters); }
int GetZorLocMeasChOffset(CCommandContext& c) { return GetChOffset(c, c.Server.ZorLocMeasChOffsetMeters); }

// The log of the last measurement, sent as a download.
int GetLocMeasLogFile(CCommandContext& c) {
  char* reply = nullptr;
  unsigned length = 0;
  const std::string line = std::string("#DOWNLOAD ") + kDistMeasLogPath;
  // The download writes its frame itself, or leaves its refusal in this client's reply text.
  return c.Server.ProcessCmd(static_cast<short>(c.Client), line.c_str(), &reply, &length);
}

int SetJ(CCommandContext& c) {
  const long v = c.Int(1);
  c.Server.LocMeasJ = static_cast<int32_t>(std::clamp<long>(v, INT32_MIN, INT32_MAX));
  return c.Reply("Received #J cmd (%d).\n", c.Server.LocMeasJ.load());
}

int GeneratePlot(CCommandContext& c) {
  CVr480Server& s = c.Server;
  const SChannelArg ch = ReadChannelArg(c, 5, kLogicalChannels);
  double start, stop, step;
  if (!c.FiniteDbl(2, start) || !c.FiniteDbl(3, stop) || !c.FiniteDbl(4, step)) return kReplyText;
  // A step of 0 or less would never reach the end on the acquisition thread.
  const bool bounded = step > 0.0 && (stop < start || (stop - start) / step < kMaxPlotRows);
  if (ch.Index < 0 || !bounded)
    return c.Reply("!Usage: LOC_MEAS_GENERATE_PLOT new_data(0 or 1) start_dist stop_dist dist_inc port sensor.\n");
  const long sensor = std::clamp<long>(c.Int(6), 1, kSensorsPerChannel);
  bool served;
  {
    std::lock_guard<std::mutex> g(s.LocMeasPlotLock);
    s.LocMeasPlotArgs.bFlag = c.Int(1) != 0;
    s.LocMeasPlotArgs.Values[0] = start;
    s.LocMeasPlotArgs.Values[1] = stop;
    s.LocMeasPlotArgs.Values[2] = step;
    s.LocMeasPlotArgs.Ints[0] = ch.Index;
    s.LocMeasPlotArgs.Ints[1] = static_cast<int32_t>(sensor - 1);
    s.bLocMeasGeneratePlot = true;
    served = AwaitServed(s.bLocMeasGeneratePlot);
  }
  return c.Reply(served && s.LocMeasResult == 0 ? "Distance Measurement Plot Generation...OK.\n"
                                      : "!Distance Measurement Plot Generation...failed.\n");
}

const SCommandRow kRows[] = {
    {"#SET_SENSOR_LOCATION", 1, 3, kNone, SetSensorLocation},
    {"#GET_SENSOR_LOCATION", 2, 2, kNone, GetSensorLocation},
    {"#SET_INDEX_OF_REFRACTION", 2, 2, kTagPerArg1, SetIndexOfRefraction},
    {"#GET_INDEX_OF_REFRACTION", 1, 1, kNone, GetIndexOfRefraction},
    {"#SET_SPEED_OF_LIGHT", 1, 1, kTag, SetSpeedOfLight},
    {"#GET_SPEED_OF_LIGHT", 0, 0, kNone, GetSpeedOfLight},
    {"#GET_DIST_COMP_WVL", 3, 3, kNone, GetDistCompWvl},
    {"#GET_DIST_UCOMP_WVL", 3, 3, kNone, GetDistUcompWvl},
    {"#SET_ZOR_LOC_MEAS_ENABLE", 1, 1, kTag, SetLocMeasEnable},
    {"#GET_ZOR_LOC_MEAS_ENABLE", 0, 0, kNone, GetLocMeasEnable},
    {"#MEASURE_LOCATIONS", 0, 0, kNone, MeasureLocations},
    {"#GET_MEASURED_LOCATION", 2, 2, kNone, GetMeasuredLocation},
    {"#APPLY_MEASURED_LOCATIONS", 0, 2, kNone, ApplyMeasuredLocations},
    {"#SET_LOC_MEAS_AVERAGES", 1, 1, kTag, SetLocMeasAverages},
    {"#GET_LOC_MEAS_AVERAGES", 0, 0, kNone, GetLocMeasAverages},
    {"#SET_LOC_MEAS_MAX_WVL_ERR_NM", 1, 1, kTag, SetLocMeasMaxWvlErrNm},
    {"#GET_LOC_MEAS_MAX_WVL_ERR_NM", 0, 0, kNone, GetLocMeasMaxWvlErrNm},
    {"#SET_LOC_MEAS_MAX_ITERATIONS", 1, 1, kTag, SetLocMeasMaxIterations},
    {"#GET_LOC_MEAS_MAX_ITERATIONS", 0, 0, kNone, GetLocMeasMaxIterations},
    {"#SET_LOC_MEAS_CH_OFFSET_METERS", 2, 2, kTagPerArg1, SetLocMeasChOffset},
    {"#GET_LOC_MEAS_CH_OFFSET_METERS", 1, 1, kNone, GetLocMeasChOffset},
    {"#SET_ZOR_LOC_MEAS_CH_OFFSET_METERS", 2, 2, kTagPerArg1, SetZorLocMeasChOffset},
    {"#GET_ZOR_LOC_MEAS_CH_OFFSET_METERS", 1, 1, kNone, GetZorLocMeasChOffset},
    {"#GET_LOC_MEAS_LOG_FILE", 0, 0, kNone, GetLocMeasLogFile},
    {"#J", 1, 1, kNone, SetJ},
    {"#LOC_MEAS_GENERATE_PLOT", 6, 6, kNone, GeneratePlot},
};

}  // namespace

void RegisterDistanceCommands(CCommandTable& table) { table.Add(kRows); }
