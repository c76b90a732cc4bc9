// Commands of the per-sensor processing: references, averaging depths, the wavelength offsets
// that depend on a detector's gain, the dB-to-gain table and sensor binning.
//
// References, depths and offsets are tables of thousands of entries; they persist through
// their own data files (#SAVE_SETTINGS, #SAVE_WVL_OFFSETS), not as tags. Wavelengths kept as
// integers (references, offsets) are in units of 1/Granularity nm, converted with the
// granularity of the records the client has been reading, so that a client sees the same
// numbers in a reply as in its data.
//
// The pipeline reads the tables record by record without a lock; each entry is written whole.
#include <algorithm>
#include <atomic>
#include <cstdint>

#include "commands/ChannelArgs.h"
#include "commands/Families.h"
#include "processing/ProcessedRecord.h"
#include "processing/WavelengthScale.h"
#include "protocol/CommandTable.h"
#include "server/Vr480Server.h"

namespace {

constexpr size_t kRecLayerOffset = kRecHeaderOffset + 6;  // bits 0-1: multiplexer layer of the sweep
constexpr int kMaxAveragingValues = 10000;  // values the averaging store holds per sensor, all layers together
constexpr int kDb2CountsLastIndex = 400;    // gains 0.0 to 40.0 dB in steps of 0.1 dB

const uint8_t* Slot(const CVr480Server& s, int index) {
  return s.ProcessedData + static_cast<size_t>(index) * kProcessedRecordBytes;
}
int PreviousSlot(int index) { return index == 0 ? kProcessedRingSlots - 1 : index - 1; }

// The granularity of the record just before the client's read position (slot 0 while that
// position is 0); the server's own until a record has been written there.
double ClientGranularity(const CCommandContext& c) {
  const CVr480Server& s = c.Server;
  int32_t granularity = 0;
  if (s.ProcessedData) {
    const int r = s.ProcessedReadIndex[c.Row];
    granularity = static_cast<int32_t>(GetRecU32(Slot(s, r == 0 ? 0 : r - 1), kRecGranularityOffset));
  }
  if (granularity < 1) granularity = s.Granularity;
  return granularity;
}

int32_t ToUnits(double nm, double granularity) { return TruncateToInt32(nm * granularity); }

// ---- Current sensor values ----------------------------------------------------------------------
// A sensor's current value is what the client was last sent for it: the processed record of
// its multiplexer layer among the last MuxLevel records before the client's read position (the
// newest of them when none is of that layer). The value is averaged and, with references in
// use, already relative to the sensor's reference.

class CCurrentRecord {
 public:
  CCurrentRecord(const CCommandContext& c, int logical) {
    const CVr480Server& s = c.Server;
    if (!s.ProcessedData) return;
    const int layer = logical / kOpticalChannels;
    int index = PreviousSlot(s.ProcessedReadIndex[c.Row]);
    Record = Slot(s, index);
    for (int i = 0; i < s.GetMuxLevel(); ++i, index = PreviousSlot(index)) {
      if ((Slot(s, index)[kRecLayerOffset] & 0x03) == layer) {
        Record = Slot(s, index);
        break;
      }
    }
    const int ch = logical % kOpticalChannels;
    for (int before = 0; before < ch; ++before) First += GetRecU16(Record, kRecKeptCountsOffset + 2 * before);
    Count = GetRecU16(Record, kRecKeptCountsOffset + 2 * ch);
    // Never past the values the record holds, whatever its counts say.
    const uint32_t sensorBytes = GetRecU32(Record, kRecSensorBytesOffset);
    const uint32_t header = kRecSensorsOffset - kRecHeaderOffset;
    const uint32_t held = sensorBytes >= header ? (sensorBytes - header) / 4 : 0;
    Count = std::min({Count, First < held ? held - First : 0u, static_cast<uint32_t>(kSensorsPerChannel)});
  }
  // Sensors of the channel present in the record.
  uint32_t Sensors() const { return Count; }
  int32_t Value(uint32_t sensor) const { return GetRecI32(Record, kRecSensorsOffset + 4 * (First + sensor)); }

 private:
  const uint8_t* Record = nullptr;
  uint32_t First = 0;  // values of the channels before this one
  uint32_t Count = 0;
};

// Takes the sensor's current value as its reference, so that it reads 0 from the next record
// on. A sensor the record does not carry keeps its reference. Returns the reference in force.
int32_t ReferenceToCurrent(CVr480Server& s, int logical, uint32_t sensor, const CCurrentRecord& current) {
  Relaxed<int32_t>& reference = s.SensorReferences[logical][sensor];
  if (sensor >= current.Sensors()) return reference;
  const uint32_t value = static_cast<uint32_t>(current.Value(sensor));
  const uint32_t old = s.bUseReferences ? static_cast<uint32_t>(reference.load()) : 0u;
  reference = static_cast<int32_t>(value + old);  // integers wrap as the pipeline's do
  return reference;
}

// ---- References -------------------------------------------------------------------------------

int BadReference(CCommandContext& c, bool legacy) {
  const SChannelRange range = ChannelRange(c.Server, legacy);
  return c.Reply("!Illegal parameters.  Acceptable ranges are: Ch# %s to %s and sensor# 1 to %d.\n", range.Low.c_str(),
                 range.High.c_str(), kSensorsPerChannel);
}


int SetReferenceValue(CCommandContext& c) {
  const SChannelArg ch = ReadChannelArg(c, 1, kLogicalChannels);
  const int sensor = ReadSensorArg(c, 2);
  if (ch.Index < 0 || sensor < 0) return BadReference(c, ch.bLegacy);
  double nm;
  if (!c.FiniteDbl(3, nm)) return kReplyText;
  const double granularity = ClientGranularity(c);
  const int32_t reference = ToUnits(nm, granularity);
  c.Server.SensorReferences[ch.Index][sensor] = reference;
  return c.Reply("Setting Ch %s, Sensor %d Reference to %f.\n", c.Col(1).c_str(), sensor + 1, reference / granularity);
}

int SetSensorReferenceToCurrent(CCommandContext& c) {
  const SChannelArg ch = ReadChannelArg(c, 1, ChannelsInUse(c.Server));
  const int sensor = ReadSensorArg(c, 2);
  if (ch.Index < 0 || sensor < 0) return BadReference(c, ch.bLegacy);
  const CCurrentRecord current(c, ch.Index);
  const int32_t reference = ReferenceToCurrent(c.Server, ch.Index, static_cast<uint32_t>(sensor), current);
  return c.Reply("Setting Ch %s, Sensor %d reference to current wvl value (%f).\n", c.Col(1).c_str(), sensor + 1,
                 reference / ClientGranularity(c));
}

void ChannelReferencesToCurrent(CCommandContext& c, int logical) {
  const CCurrentRecord current(c, logical);
  for (uint32_t sensor = 0; sensor < current.Sensors(); ++sensor)
    ReferenceToCurrent(c.Server, logical, sensor, current);
}

int SetChannelReferencesToCurrent(CCommandContext& c) {
  const SChannelArg ch = ReadChannelArg(c, 1, ChannelsInUse(c.Server));
  if (ch.Index < 0) return BadReference(c, ch.bLegacy);
  ChannelReferencesToCurrent(c, ch.Index);
  return c.Reply("Setting Ch %s references to current wvl values.\n", c.Col(1).c_str());
}

int SetAllReferencesToCurrent(CCommandContext& c) {
  for (int logical = 0; logical < ChannelsInUse(c.Server); ++logical) ChannelReferencesToCurrent(c, logical);
  return c.Reply("Setting all DUT references to current wvl values.\n");
}

int GetReference(CCommandContext& c) {
  const SChannelArg ch = ReadChannelArg(c, 1, kLogicalChannels);
  const int sensor = ReadSensorArg(c, 2);
  if (ch.Index < 0 || sensor < 0) return BadReference(c, ch.bLegacy);
  return c.Reply("%f", c.Server.SensorReferences[ch.Index][sensor] / ClientGranularity(c));
}

int ClearSensorReference(CCommandContext& c) {
  const SChannelArg ch = ReadChannelArg(c, 1, ChannelsInUse(c.Server));
  const int sensor = ReadSensorArg(c, 2);
  if (ch.Index < 0 || sensor < 0) return BadReference(c, ch.bLegacy);
  c.Server.SensorReferences[ch.Index][sensor] = 0;
  return c.Reply("Zeroing reference (%s, %d).\n", c.Col(1).c_str(), sensor + 1);
}

void ClearChannelReferences(CVr480Server& s, int logical) {
  for (int sensor = 0; sensor < kSensorsPerChannel; ++sensor) s.SensorReferences[logical][sensor] = 0;
}

// This form takes its channel as a plain number: "1.2" clears channel 1.
int ClearChannelReferences(CCommandContext& c) {
  const long number = c.Int(1);
  if (number < 1 || number > ChannelsInUse(c.Server)) return BadReference(c, true);
  ClearChannelReferences(c.Server, static_cast<int>(number - 1));
  return c.Reply("Zeroing channel %d references.\n", static_cast<int>(number));
}

int ClearAllReferences(CCommandContext& c) {
  for (int logical = 0; logical < ChannelsInUse(c.Server); ++logical) ClearChannelReferences(c.Server, logical);
  return c.Reply("Zeroing all DUT refrences.\n");
}

int SetUseReferences(CCommandContext& c) {
  const bool on = c.Int(1) != 0;
  c.Server.bUseReferences = on;
  return c.Reply("References %s.\n", on ? "enabled" : "disabled");
}
int GetUseReferences(CCommandContext& c) { return c.Reply("%d", c.Server.bUseReferences ? 1 : 0); }

// ---- Averaging ---------------------------------------------------------------------------------
// Clients count averages in units of MinNumAverages: a count N is a ring of N x MinNumAverages
// values. The store holds 10000 values per sensor across the multiplexer layers, which bounds N.

int MinAverages(const CVr480Server& s) {
  const int m = s.MinNumAverages;
  return m > 0 ? m : 1;
}
int MaxClientAverages(const CVr480Server& s) { return (kMaxAveragingValues / s.GetMuxLevel()) / MinAverages(s); }
// The count in force for a sensor, in the client's units.
int ClientAverages(CVr480Server& s, int logical, int sensor) {
  return s.GetNumAverages(static_cast<uint8_t>(logical), static_cast<uint16_t>(sensor)) / MinAverages(s);
}
void SetAverages(CVr480Server& s, int logical, int sensor, long count) {
  s.SetNumAverages(static_cast<uint8_t>(logical), static_cast<uint16_t>(sensor),
                   static_cast<uint16_t>(count * MinAverages(s)));
}

int BadAverages(CCommandContext& c, bool legacy) {
  const SChannelRange range = ChannelRange(c.Server, legacy);
  return c.Reply(
      "!Illegal parameters.  Acceptable ranges are: Ch# %s to %s, sensor# 1 to %d and NumAvg from 1 to %d.\n",
      range.Low.c_str(), range.High.c_str(), kSensorsPerChannel, MaxClientAverages(c.Server));
}
bool CountInRange(const CVr480Server& s, long count) { return count >= 1 && count <= MaxClientAverages(s); }

int SetSensorAverages(CCommandContext& c) {
  CVr480Server& s = c.Server;
  const SChannelArg ch = ReadChannelArg(c, 1, kLogicalChannels);
  const int sensor = ReadSensorArg(c, 2);
  const long count = c.Int(3);
  if (ch.Index < 0 || sensor < 0 || !CountInRange(s, count)) return BadAverages(c, ch.bLegacy);
  SetAverages(s, ch.Index, sensor, count);
  return c.Reply("Setting Ch %s, Sensor %d # Averages to %d.\n", c.Col(1).c_str(), sensor + 1,
                 ClientAverages(s, ch.Index, sensor));
}

int SetChannelAverages(CCommandContext& c) {
  CVr480Server& s = c.Server;
  const SChannelArg ch = ReadChannelArg(c, 1, ChannelsInUse(s));
  const long count = c.Int(2);
  if (ch.Index < 0 || !CountInRange(s, count)) return BadAverages(c, ch.bLegacy);
  for (int sensor = 0; sensor < kSensorsPerChannel; ++sensor) SetAverages(s, ch.Index, sensor, count);
  return c.Reply("Setting Ch %s, # Avgs to %d.\n", c.Col(1).c_str(), ClientAverages(s, ch.Index, 0));
}

int SetAllAverages(CCommandContext& c) {
  CVr480Server& s = c.Server;
  const long count = c.Int(1);
  if (!CountInRange(s, count)) return BadAverages(c, true);
  for (int logical = 0; logical < ChannelsInUse(s); ++logical)
    for (int sensor = 0; sensor < kSensorsPerChannel; ++sensor) SetAverages(s, logical, sensor, count);
  return c.Reply("Setting averaging for all sensors on all channels to %d.\n", ClientAverages(s, 0, 0));
}

int GetNumAverages(CCommandContext& c) {
  const SChannelArg ch = ReadChannelArg(c, 1, kLogicalChannels);
  const int sensor = ReadSensorArg(c, 2);
  if (ch.Index < 0 || sensor < 0) return BadReference(c, ch.bLegacy);
  return c.Reply("%d", ClientAverages(c.Server, ch.Index, sensor));
}

// A new unit keeps every sensor's count in client units: the rings grow or shrink by the
// factor new / old, within what the store holds.
int SetMinNumAverages(CCommandContext& c) {
  CVr480Server& s = c.Server;
  const long top = kMaxAveragingValues / s.GetMuxLevel();
  long m = c.Int(1);
  if (m < 1) m = 1;
  if (m > top) m = top;
  const int old = MinAverages(s);
  if (m != s.MinNumAverages) {
    s.MinNumAverages = static_cast<uint16_t>(m);
    for (int logical = 0; logical < ChannelsInUse(s); ++logical) {
      for (int sensor = 0; sensor < kSensorsPerChannel; ++sensor) {
        long k = s.GetNumAverages(static_cast<uint8_t>(logical), static_cast<uint16_t>(sensor)) / old;
        if (k * s.GetMuxLevel() * m > kMaxAveragingValues) k = top / m;
        s.SetNumAverages(static_cast<uint8_t>(logical), static_cast<uint16_t>(sensor), static_cast<uint16_t>(k * m));
      }
    }
  }
  return c.Reply("Setting Min averages to %d.\n", static_cast<int>(s.MinNumAverages));
}
int GetMinNumAverages(CCommandContext& c) { return c.Reply("%d", static_cast<int>(c.Server.MinNumAverages)); }

// ---- Gain offsets and the dB table ---------------------------------------------------------------
// A detector's gain setting shifts the peak it reports a little; the offset per DUT channel and
// gain code is taken off every sensor of that channel.

// The DUT channel 0-3 of column `col` (numbered 1-4 by clients), or -1.
int ReadDutChannel(const CCommandContext& c, int col) {
  const long n = c.Int(col);
  return n >= 1 && n <= kOpticalChannels ? static_cast<int>(n - 1) : -1;
}

int BadGainOffset(CCommandContext& c) {
  return c.Reply("!Illegal parameters.  Acceptable ranges are: Ch# %d to %d and Gain  0 to %d.\n", 1, kOpticalChannels,
                 kGainCodes - 1);
}

int SetGainWvlOffset(CCommandContext& c) {
  const int ch = ReadDutChannel(c, 1);
  if (ch < 0) return BadGainOffset(c);
  const uint16_t gain = static_cast<uint16_t>(c.Int(2));
  double nm;
  if (!c.FiniteDbl(3, nm)) return kReplyText;
  const double granularity = ClientGranularity(c);
  const int32_t offset = ToUnits(nm, granularity);
  c.Server.GainWvlOffset[ch][gain] = static_cast<uint32_t>(offset);
  return c.Reply("Setting Ch %d, Gain %d wvl offset to %f.\n", ch + 1, gain, offset / granularity);
}
int GetGainWvlOffset(CCommandContext& c) {
  const int ch = ReadDutChannel(c, 1);
  if (ch < 0) return BadGainOffset(c);
  const uint16_t gain = static_cast<uint16_t>(c.Int(2));
  return c.Reply("%f", static_cast<int32_t>(c.Server.GainWvlOffset[ch][gain].load()) / ClientGranularity(c));
}

int SetEnableWvlOffsets(CCommandContext& c) {
  const bool on = c.Int(1) != 0;
  c.Server.bEnableWvlOffsets = on;
  return c.Reply("%s", on ? "Wvl Offsets enabled.\n" : "Wvl Offsets disabled.\n");
}
int GetEnableWvlOffsets(CCommandContext& c) { return c.Reply("%s", c.Server.bEnableWvlOffsets ? "1" : "0"); }

// The dB table: entry i of a DUT channel is the gain code for a gain of i / 10 dB. Clients of
// several threads may write and read it; each entry is taken whole.
std::atomic_ref<uint16_t> Db2CountsEntry(CVr480Server& s, int ch, int index) {
  return std::atomic_ref<uint16_t>(s.Db2Counts[ch][index]);
}
bool ReadDbEntry(const CCommandContext& c, int& ch, int& index) {
  ch = ReadDutChannel(c, 1);
  const long i = c.Int(2);
  index = static_cast<int>(i);
  return ch >= 0 && i >= 0 && i <= kDb2CountsLastIndex;
}

// Arguments out of range make the command unknown: the client gets the invalid-command reply.
int SetDb2Counts(CCommandContext& c) {
  int ch, index;
  if (!ReadDbEntry(c, ch, index)) return kReplyNoMatch;
  const uint16_t counts = static_cast<uint16_t>(c.Int(3));
  Db2CountsEntry(c.Server, ch, index).store(counts, std::memory_order_relaxed);
  return c.Reply("Setting Db2Counts[%d][%d] to %d", ch + 1, index, counts);
}
int GetDb2Counts(CCommandContext& c) {
  int ch, index;
  if (!ReadDbEntry(c, ch, index)) return c.Reply("0");
  return c.Reply("%d", Db2CountsEntry(c.Server, ch, index).load(std::memory_order_relaxed));
}

// ---- Sensor binning ---------------------------------------------------------------------------------
// None of these is saved but the bin width: binning starts over from learning after a restart.

int SetEnableSensorBins(CCommandContext& c) {
  const bool on = (c.Int(1) & 1) != 0;
  c.Server.StartSensorTracking(on);
  return c.Reply("Sensor binning %s.\n", on ? "enabled" : "disabled");
}
int GetEnableSensorBins(CCommandContext& c) { return c.Reply("%d", c.Server.bEnableSensorBins ? 1 : 0); }

// Learns the bins again from the next records: for sensors that were moved or exchanged.
int ResetSensorBins(CCommandContext& c) {
  CVr480Server& s = c.Server;
  if (s.bEnableSensorBins) {
    s.StartSensorTracking(false);
    s.StartSensorTracking(true);
  }
  return c.Reply("Sensor binning Reset.\n");
}

int SetSensorBinWidth(CCommandContext& c) {
  CVr480Server& s = c.Server;
  s.SetMaxSensorSlewRate(static_cast<int32_t>(c.Int(1)));
  return c.Reply("Roving Bin Width set to %d.\n", static_cast<int>(s.SensorBinWidth));
}
int GetSensorBinWidth(CCommandContext& c) { return c.Reply("%d", static_cast<int>(c.Server.SensorBinWidth)); }

int GetLastBinFaultCnt(CCommandContext& c) {
  const SChannelArg ch = ReadChannelArg(c, 1, kLogicalChannels);
  if (ch.Index < 0) return ReplyBadChannel(c, ch.bLegacy);
  return c.Reply("%d", std::atomic_ref<int32_t>(c.Server.LastBinFaultCnt[ch.Index]).load(std::memory_order_relaxed));
}

const SCommandRow kRows[] = {
    // References: the argument count picks the form
    {"#SET_REFERENCE", 3, 3, kNone, SetReferenceValue},
    {"#SET_REFERENCE", 2, 2, kNone, SetSensorReferenceToCurrent},
    {"#SET_REFERENCE", 1, 1, kNone, SetChannelReferencesToCurrent},
    {"#SET_REFERENCE", 0, 0, kNone, SetAllReferencesToCurrent},
    {"#GET_REFERENCE", 2, 2, kNone, GetReference},
    {"#CLEAR_REFERENCE", 2, 2, kNone, ClearSensorReference},
    {"#CLEAR_REFERENCE", 1, 1, kNone, ClearChannelReferences},
    {"#CLEAR_REFERENCE", 0, 0, kNone, ClearAllReferences},
    {"#SET_USE_REFERENCES", 1, 1, kTag, SetUseReferences},
    {"#GET_USE_REFERENCES", 0, 0, kNone, GetUseReferences},
    // Averaging
    {"#SET_NUM_AVERAGES", 3, 3, kNone, SetSensorAverages},
    {"#SET_NUM_AVERAGES", 2, 2, kNone, SetChannelAverages},
    {"#SET_NUM_AVERAGES", 1, 1, kNone, SetAllAverages},
    {"#GET_NUM_AVERAGES", 2, 2, kNone, GetNumAverages},
    {"#SET_MIN_NUM_AVERAGES", 1, 1, kTag, SetMinNumAverages},
    {"#GET_MIN_NUM_AVERAGES", 0, 0, kNone, GetMinNumAverages},
    // Gain offsets and the dB table
    {"#SET_GAIN_WVL_OFFSET", 3, 3, kNone, SetGainWvlOffset},
    {"#GET_GAIN_WVL_OFFSET", 2, 2, kNone, GetGainWvlOffset},
    {"#SET_ENABLE_WVL_OFFSETS", 1, 1, kTag, SetEnableWvlOffsets},
    {"#GET_ENABLE_WVL_OFFSETS", 0, 0, kNone, GetEnableWvlOffsets},
    {"#SET_DB2COUNTS", 3, 3, kNone, SetDb2Counts},
    {"#GET_DB2COUNTS", 2, 2, kNone, GetDb2Counts},
    // Sensor binning
    {"#SET_ENABLE_SENSOR_BINS", 1, 1, kNone, SetEnableSensorBins},
    {"#GET_ENABLE_SENSOR_BINS", 0, 0, kNone, GetEnableSensorBins},
    {"#RESET_SENSOR_BINS", 0, 0, kNone, ResetSensorBins},
    {"#SET_SENSOR_BIN_WIDTH", 1, 1, kTag, SetSensorBinWidth},
    {"#GET_SENSOR_BIN_WIDTH", 0, 0, kNone, GetSensorBinWidth},
    {"#GET_LAST_BIN_FAULT_CNT", 1, 1, kNone, GetLastBinFaultCnt},
};

}  // namespace

void RegisterSensorCommands(CCommandTable& table) { table.Add(kRows); }
