// The data commands' rows, and the handlers that work on a client's read position in the
// processed-data ring: the record replies, the backlog count and flush, and the newest record
// converted back to sweep counts.
#include "protocol/DataCommands.h"

#include <algorithm>
#include <cstring>

#include "commands/Families.h"
#include "processing/ProcessedRecord.h"
#include "processing/WavelengthScale.h"
#include "protocol/CommandTable.h"
#include "server/Vr480Server.h"

namespace data_commands {
namespace {


int GetData(CCommandContext& c) { return ServeRecord(c, c.Command == "#GET_DATA_AND_LEVELS"); }

int GetUnbufferedData(CCommandContext& c) {
  return ServeNewestRecord(c, c.Command == "#GET_UNBUFFERED_DATA_AND_LEVELS" ? "#GET_DATA_AND_LEVELS" : "#GET_DATA");
}

int GetBufferCount(CCommandContext& c) { return c.Reply("%d", UnreadRecords(c.Server, c.Row)); }

int FlushBuffer(CCommandContext& c) {
  c.Server.ProcessedReadIndex[c.Row] = c.Server.ProcessedWriteIndex.load();
  return c.Reply("Client %d buffers flushed.\n", c.Client);
}

// The sweep position at which the card reported a sensor: the position of its wavelength on
// the current comb, plus the time its light spent travelling to the grating and back (the card
// sees a far sensor late in the sweep), less the full-spectrum offset in half counts.
int32_t SensorCount(CVr480Server& s, uint32_t value, int logical, int sensor, double sweepRate) {
  const double flight = s.TimeOfFlightCounts(logical, s.SensorDistances[logical][sensor], sweepRate);
  const double onComb = s.Wvl2Counts(static_cast<double>(value) / static_cast<double>(s.Granularity.load()));
  return TruncateToInt32(flight + onComb) - 2 * s.FsCountOffset;
}

// The newest record with levels, followed by one signed 32-bit sweep count per sensor: what a
// client needs to compare the server's wavelengths with the card's raw positions.
int GetWvlLvlCnts(CCommandContext& c) {
  CVr480Server& s = c.Server;
  char* body = nullptr;
  unsigned length = 0;
  const int code = s.ProcessCmd(static_cast<short>(c.Client), "#GET_UNBUFFERED_DATA_AND_LEVELS", &body, &length);
  uint8_t* out = s.WvlLvlCntsBuffer[c.Row] + kRecHeaderOffset;
  if (code != kReplyRecord || length < kHeaderBytes || length > kRecSensorBytesOffset - kRecHeaderOffset) length = 0;
  if (length) std::memcpy(out, body, length);
  // The record now lives in this reply's own buffer; its ring slot can go.
  s.ReleaseClientRecord(static_cast<uint16_t>(c.Row));

  double sweepRate = s.Driver.Get2khzMode() ? 2000.0 : 1000.0;
  if (s.Driver.GetHwClkDivider_()) sweepRate /= 2.0;
  // Sensors in the order of the values: DUT channel 0's first, each numbered within its channel.
  const uint32_t total = length ? (length - kHeaderBytes) / 4 : 0;
  const int layer = length ? out[kBodyLayerByte] & 0x03 : 0;
  uint8_t* counts = out + length;
  uint32_t i = 0;
  for (int ch = 0; length && ch < kOpticalChannels; ++ch) {
    const int logical = layer * kOpticalChannels + ch;
    const int n = std::min<int>(GetRecU16(out, kBodyCounts + 2 * ch), kSensorsPerChannel);
    for (int j = 0; j < n && i < total; ++j, ++i) {
      const uint32_t value = GetRecU32(out, kHeaderBytes + 4 * i);
      PutRecI32(counts, 4 * i, SensorCount(s, value, logical, j, sweepRate));
    }
  }
  c.SetBody(reinterpret_cast<const char*>(out), length + 4 * i);
  return kReplyText;
}

const SCommandRow kRows[] = {
    {"#GET_DATA", 0, 0, kNone, GetData},
    {"#GET_DATA_AND_LEVELS", 0, 0, kNone, GetData},
    {"#GET_UNBUFFERED_DATA", 0, 0, kNone, GetUnbufferedData},
    {"#GET_UNBUFFERED_DATA_AND_LEVELS", 0, 0, kNone, GetUnbufferedData},
    {"#GET_WVL_LVL_CNTS", 0, 0, kNone, GetWvlLvlCnts},
    {"#GET_BUFFER_COUNT", 0, 0, kNone, GetBufferCount},
    {"#FLUSH_BUFFER", 0, 0, kNone, FlushBuffer},
    {"#RESUME_AFTER_SWEEP", 1, 1, kNone, ResumeAfterSweep},
    {"#GET_RAW_DATA", 0, 0, kNone, GetRawData},
    {"#GET_HIGH_SPEED_FS", 0, 0, kNone, GetHighSpeedFs},
    {"#GET_SPECTRUM", 0, 0, kNone, GetSpectrum},
    {"#GET_RAW_SPECTRUM", 0, 0, kNone, GetRawSpectrum},
    {"#WEB_STATUS", 0, 0, kNone, WebStatus},
};

}  // namespace
}  // namespace data_commands

void RegisterDataCommands(CCommandTable& table) { table.Add(data_commands::kRows); }
