// Sensor distances: the time-of-flight table that compensates each sensor's wavelength for its
// distance along the fibre, and the two-rate measurement that finds those distances.
//
// The measurement runs on the acquisition thread when a client asks for it. It takes the
// sweeps itself: with the card's clock divider off and then on it stores one sweep of every
// multiplexer layer, then reprocesses those stored sweeps through the ordinary peak pipeline
// (which does not publish while the measurement is active) at trial distances. For each
// sensor the wavelength difference between the two rates vanishes at its true distance; a
// secant iteration finds that zero. Every exit path puts the operating parameters back.
#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <string>

#include "host/Host.h"
#include "processing/ProcessedRecord.h"
#include "server/Globals.h"
#include "server/Vr480Server.h"

namespace {

constexpr double kCountsPerSweep = 131072.0;  // one laser period
constexpr double kFirstGuessM = 5000.0;       // the secant's first starting distance
constexpr int kMaxDividerSweeps = 512;        // sweeps to wait for the divider to show in the headers
constexpr int kSettleSweeps = 20;             // sweeps discarded while the optics settle (twice in 2 kHz mode)

const char* RateName(int divider) { return divider == kDistMeasFast ? "1kHz" : "500Hz"; }

uint16_t KeptCount(const uint8_t* slot, int ch) { return GetRecU16(slot, kRecKeptCountsOffset + 2 * ch); }

// Index of a channel's first value among the record's sensor values.
uint32_t FirstValue(const uint8_t* slot, int ch) {
  uint32_t first = 0;
  for (int before = 0; before < ch; ++before) first += KeptCount(slot, before);
  return first;
}

int SlotLayer(const uint8_t* slot) { return slot[kRecHeaderOffset + offsetof(struct_dma_peaks_status, flags1_lo)] & 3; }

}  // namespace

// ---- Time-of-flight table -------------------------------------------------------------------

double CVr480Server::TimeOfFlightCounts(int logical, double metres, double sweepRate) const {
  const double inFibre = SpeedOfLight / IndexOfRefraction[logical];  // m/s
  return 2.0 * metres / inFibre * sweepRate * kCountsPerSweep;
}

void CVr480Server::UpdateTimeOfFlight(int logical, int sensor) {
  const double rate = SweepRate();
  const int firstCh = logical < 0 ? 0 : logical, lastCh = logical < 0 ? kLogicalChannels - 1 : logical;
  for (int ch = firstCh; ch <= lastCh; ++ch) {
    const int firstS = sensor < 0 ? 0 : sensor, lastS = sensor < 0 ? kSensorsPerChannel - 1 : sensor;
    for (int s = firstS; s <= lastS; ++s)
      TimeOfFlightInCounts[ch][s] = TimeOfFlightCounts(ch, SensorDistances[ch][s], rate);
  }
}

void CVr480Server::BuildTimeOfFlightLUT() { UpdateTimeOfFlight(-1, -1); }

void CVr480Server::RequestAveragesReset(int logical, int sensor) {
  std::lock_guard<std::mutex> g(AvgResetLock);
  // A flood of single resets before the next record collapses into one reset of everything.
  if (AvgResets.size() >= kSensorsPerChannel) AvgResets.assign(1, {-1, -1});
  AvgResets.emplace_back(logical, sensor);
  bAvgResetsPending = true;
}

void CVr480Server::ApplyAveragesResets() {
  std::vector<std::pair<int, int>> resets;
  {
    std::lock_guard<std::mutex> g(AvgResetLock);
    resets.swap(AvgResets);
  }
  std::lock_guard<std::mutex> g(AveragingLock);
  for (const auto& [ch, s] : resets) {
    if (ch < 0) WvlAvg.Reset();
    else if (s < 0) WvlAvg.Reset(static_cast<uint8_t>(ch));
    else WvlAvg.Reset(static_cast<uint8_t>(ch), static_cast<uint16_t>(s));
  }
}

// ---- The measurement ----------------------------------------------------------------------

SDistMeasState& CVr480Server::DistMeasState() {
  if (!DistMeas) DistMeas = std::make_unique<SDistMeasState>();
  return *DistMeas;
}

void CVr480Server::DistMeasPrint(const char* format, ...) {
  va_list args;
  va_start(args, format);
  va_list copy;
  va_copy(copy, args);
  std::vfprintf(stdout, format, args);
  if (DistMeas && DistMeas->Log) std::vfprintf(DistMeas->Log, format, copy);
  va_end(copy);
  va_end(args);
}

int CVr480Server::MeasureSensorDistances() {
  SDistMeasState& dm = DistMeasState();
  Host().Run(std::string("rm -f ") + kDistMeasLogPath);
  const std::string logPath = Host().Path(kDistMeasLogPath);
  dm.Log = std::fopen(logPath.c_str(), "w");
  if (!dm.Log) {
    std::printf("Error opening %s.\n", kDistMeasLogPath);
    return -1;
  }
  auto finish = [&](int result) {
    DistMeas_RestoreOperatingParams();
    std::fclose(dm.Log);
    dm.Log = nullptr;
    std::fflush(stdout);
    return result;
  };

  for (auto& channel : MeasuredLocation)
    for (auto& location : channel) location = 0.0;
  DistMeas_SaveOperatingParams();

  const int averages = LocMeasAverages > 0 ? LocMeasAverages.load() : 1;
  const int maxIterations = LocMeasMaxIterations;
  const double tolerance = LocMeasMaxWvlErrNm;
  const int channels = kOpticalChannels * MuxLevel;
  for (int m = 1; m <= averages; ++m) {
    for (auto& channel : dm.DistEstimate)
      for (double& d : channel) d = kFirstGuessM;
    if (DistMeas_GetData() != 0) return finish(-1);
    if (DistMeas_ProcessData() != 0) return finish(-2);
    std::memcpy(dm.DistPrevious, dm.DistEstimate, sizeof dm.DistPrevious);
    std::memcpy(dm.WvlErrPrevious, dm.WvlErr, sizeof dm.WvlErrPrevious);
    for (auto& channel : dm.DistEstimate)
      for (double& d : channel) d = LocMeasJ;

    int i = 1;
    double maxErr = tolerance + 1.0;
    while (i < maxIterations && maxErr > tolerance) {
      if (!bRun) return finish(-1);  // the server is stopping
      DistMeasPrint("\n\n --- Iteration #%d ---\n", i);
      DistMeas_DumpData();
      if (DistMeas_ProcessData() != 0) return finish(-2);
      maxErr = 0.0;
      for (int index = 0; index < channels; ++index) {
        const uint8_t* fast = dm.Processed[kDistMeasFast][index / kOpticalChannels];
        const int sensors = KeptCount(fast, index % kOpticalChannels);
        for (int j = 0; j < sensors; ++j) {
          const double e = dm.WvlErr[index][j], e0 = dm.WvlErrPrevious[index][j];
          const double d = dm.DistEstimate[index][j], d0 = dm.DistPrevious[index][j];
          // Across a flat error there is no slope to follow: stay.
          dm.DistNext[index][j] = std::fabs(e - e0) > tolerance ? d - (d - d0) * e / (e - e0) : d;
          maxErr = std::max(maxErr, std::fabs(e));
        }
        for (int j = 0; j < sensors; ++j) {
          dm.DistPrevious[index][j] = dm.DistEstimate[index][j];
          dm.WvlErrPrevious[index][j] = dm.WvlErr[index][j];
          dm.DistEstimate[index][j] = dm.DistNext[index][j];
        }
      }
      ++i;
    }
    DistMeasPrint("\n=============== Measurement #%d  (%d iterations ) ====================\n", m, i - 1);
    DistMeas_DumpData();
    DistMeasPrint("\n===============================================================\n\n");
    if (i == maxIterations) {
      DistMeasPrint("Reached max# of iterations.\n");
      return finish(-2);
    }
    for (int index = 0; index < kLogicalChannels; ++index)
      for (int j = 0; j < kSensorsPerChannel; ++j)
        MeasuredLocation[index][j] = MeasuredLocation[index][j] + dm.DistEstimate[index][j];
  }

  for (auto& channel : MeasuredLocation)
    for (auto& location : channel) location = location / averages;
  for (int index = 0; index < channels; ++index) {
    const double offset = LocMeasChOffsetMeters[index] + ZorLocMeasChOffsetMeters[index];
    for (auto& location : MeasuredLocation[index]) location = location + offset;
  }

  DistMeasPrint("\n---------- averaged distances (+offsets) ----------\n");
  DistMeasChannelLines(kDistMeasFast, [this](int index, int j) { return MeasuredLocation[index][j].load(); });
  return finish(0);
}

// ---- Operating parameters -----------------------------------------------------------------

int CVr480Server::DistMeas_SaveOperatingParams() {
  SDistMeasState& dm = DistMeasState();
  bDistMeasActive = true;
  auto& saved = dm.Saved;
  saved.bSwitchdownEnable = bSwitchdownEnable;
  saved.SwitchdownLimit1 = SwitchdownLimit[1];
  saved.DataRateDivider = DataRateDivider;
  saved.TriggeringMode = static_cast<uint8_t>(GetTriggeringMode());
  saved.OperatingMode = static_cast<uint8_t>(Driver.GetOperatingMode());
  saved.LowerWvlLimit = LowerWvlLimit;
  saved.UpperWvlLimit = UpperWvlLimit;
  saved.bHwClkDivider = Driver.GetHwClkDivider_();

  Host().Run(std::string("rm -f ") + kDistMeasAveragesPath);
  if (FILE* f = std::fopen(Host().Path(kDistMeasAveragesPath).c_str(), "w")) {
    for (int ch = 0; ch < kLogicalChannels; ++ch)
      for (int s = 0; s < kSensorsPerChannel; ++s) std::fprintf(f, "%u\n", static_cast<unsigned>(SensorAverages[ch][s]));
    std::fclose(f);
  } else {
    std::printf("Error opening temp averages File.\n");
  }
  ExecuteInternal("#SET_NUM_AVERAGES 1");  // every sweep counts on its own

  for (int ch = 0; ch < kLogicalChannels; ++ch)
    for (int s = 0; s < kSensorsPerChannel; ++s) saved.TimeOfFlight[ch][s] = TimeOfFlightInCounts[ch][s];

  const int rate = SweepRate();
  bSwitchdownEnable = false;
  SwitchdownLimit[1] = static_cast<uint16_t>(1000000 / rate);
  SetDataRateDivider(1);
  SetTriggeringMode(0, false);
  SetOperatingMode(0);
  // Trial distances shift every sensor: none may fall out of the reporting window meanwhile.
  LowerWvlLimit = 100.0;
  UpperWvlLimit = 40000.0;
  return 0;
}

int CVr480Server::DistMeas_RestoreOperatingParams() {
  SDistMeasState& dm = DistMeasState();
  const auto& saved = dm.Saved;
  DistMeas_SetHwClkDiv(saved.bHwClkDivider);
  for (int ch = 0; ch < kLogicalChannels; ++ch)
    for (int s = 0; s < kSensorsPerChannel; ++s) TimeOfFlightInCounts[ch][s] = saved.TimeOfFlight[ch][s];
  SetOperatingMode(saved.OperatingMode);
  SetTriggeringMode(saved.TriggeringMode, false);
  SwitchdownLimit[1] = saved.SwitchdownLimit1;
  bSwitchdownEnable = saved.bSwitchdownEnable;
  SetDataRateDivider(saved.DataRateDivider);
  LowerWvlLimit = saved.LowerWvlLimit;
  UpperWvlLimit = saved.UpperWvlLimit;

  if (FILE* f = std::fopen(Host().Path(kDistMeasAveragesPath).c_str(), "r")) {
    char line[101];
    for (int ch = 0; ch < kLogicalChannels; ++ch)
      for (int s = 0; s < kSensorsPerChannel; ++s) {
        long n = 1;
        if (std::fgets(line, sizeof line, f)) n = std::strtol(line, nullptr, 10);
        SensorAverages[ch][s] = static_cast<uint16_t>(n <= 0 || n > 65535 ? 1 : n);
      }
    std::fclose(f);
    bAveragingDepthsChanged = true;
  } else {
    std::printf("Error opening averages file.\n");
  }
  Host().Run(std::string("rm -f ") + kDistMeasAveragesPath);
  bDistMeasActive = false;
  return 0;
}

// ---- Sweeps -------------------------------------------------------------------------------

int CVr480Server::DistMeas_SetHwClkDiv(bool on) {
  Driver.SetHwClkDivider(on);
  const uint16_t want = on ? 1 : 0;
  bool seen = false;
  for (int n = 0; n < kMaxDividerSweeps && bRun; ++n) {
    if (!GetData()) break;
    if (pLastPeaks.load()->status.ClkDivider == want) {
      seen = true;
      break;
    }
  }
  if (!seen) {
    const struct_dma_peaks_data* last = pLastPeaks;
    DistMeasPrint("Failed to set HwClkDivider to %d\n", on ? 1 : 0);
    DistMeasPrint("status->ClkDivider = %d\n", last ? last->status.ClkDivider : 0);
    return -1;
  }
  const int settle = Driver.Get2khzMode() ? 2 * kSettleSweeps : kSettleSweeps;
  for (int n = 0; n < settle && bRun; ++n)
    if (!GetData()) break;
  return 0;
}

int CVr480Server::DistMeas_GetData() {
  SDistMeasState& dm = DistMeasState();
  const struct_dma_peaks_data* latest = pLastPeaks;
  const uint8_t marker = static_cast<uint8_t>((latest ? latest->status.fw_version : 0) + 1);
  for (auto& rate : dm.RawData)
    for (auto& sweep : rate) sweep.status.fw_version = marker;

  const int level = MuxLevel;
  for (int divider = kDistMeasFast; divider <= kDistMeasSlow; ++divider) {
    DistMeas_SetHwClkDiv(divider == kDistMeasSlow);
    for (int n = 0; n < level; ++n) {
      if (!bRun || !GetData()) return -1;
      const struct_dma_peaks_data& rec = *pPeaks;
      const int clk = rec.status.ClkDivider ? 1 : 0;
      dm.RawData[clk][rec.Layer()] = rec;
      if (rec.status.fw_version == marker)
        DistMeasPrint("Warning dm.RawData[%d][%d].status.fw_version = %d\n", clk, rec.Layer(), marker);
    }
  }

  const char* invalid = "CVr480Server::DistMeas_GetData() produced invalid data.\n";
  const uint8_t expected = dm.RawData[0][0].status.fw_version;
  if (expected == marker) {
    DistMeasPrint("%s", invalid);
    DistMeasPrint("dm.RawData[0][0].status.fw_version = %d\n", marker);
    return -1;
  }
  for (int divider = 0; divider < 2; ++divider)
    for (int layer = 0; layer < level; ++layer) {
      const uint8_t found = dm.RawData[divider][layer].status.fw_version;
      if (found == expected) continue;
      DistMeasPrint("%s", invalid);
      DistMeasPrint("dm.RawData[%d][%d].status.fw_version did not contain the expected value of %d\n", divider, layer,
                    expected);
      DistMeasPrint("dm.RawData[%d][%d].status.fw_version = %d\n", divider, layer, found);
      return -2;
    }
  for (int layer = 0; layer < level; ++layer)
    for (int ch = 0; ch < kOpticalChannels; ++ch) {
      const uint16_t fast = dm.RawData[kDistMeasFast][layer].status.NumPeaks[2 + ch];
      const uint16_t slow = dm.RawData[kDistMeasSlow][layer].status.NumPeaks[2 + ch];
      if (fast == slow) continue;
      const int n = layer * kOpticalChannels + ch + 1;
      DistMeasPrint("%s", invalid);
      DistMeasPrint("Sensor Count is inconsistent.\n");
      DistMeasPrint("DUT ch %d @ 1khz SensorCount = %d\n", n, fast);
      DistMeasPrint("DUT ch %d @ 500hz SensorCount = %d\n", n, slow);
      return -3;
    }
  return 0;
}

// ---- Processing at the estimates ------------------------------------------------------------

int CVr480Server::DistMeas_CalcTimeOfFlight(int divider) {
  const SDistMeasState& dm = DistMeasState();
  const double rate = Driver.Get2khzMode() ? 2000.0 : 1000.0;
  const double sweepRate = divider == kDistMeasSlow ? rate / 2.0 : rate;
  for (int ch = 0; ch < kLogicalChannels; ++ch)
    for (int s = 0; s < kSensorsPerChannel; ++s)
      TimeOfFlightInCounts[ch][s] = TimeOfFlightCounts(ch, dm.DistEstimate[ch][s], sweepRate);
  return 0;
}

int CVr480Server::DistMeas_ProcessData() {
  SDistMeasState& dm = DistMeasState();
  const int level = MuxLevel;
  // The pipeline reads the record to process through these; the stored sweeps stand in for
  // the card's buffers meanwhile, and the card's are put back afterwards.
  struct_dma_peaks_data* const peaks = pPeaks;
  struct_dma_peaks_data* const last = pLastPeaks;
  for (int divider = kDistMeasFast; divider <= kDistMeasSlow; ++divider) {
    DistMeas_CalcTimeOfFlight(divider);
    for (int layer = 0; layer < level; ++layer) {
      pPeaks = &dm.RawData[divider][layer];
      pLastPeaks = pPeaks;
      ProcessPeaksData();
      std::memcpy(dm.Processed[divider][layer],
                  ProcessedData + static_cast<size_t>(ProcessedWriteIndex.load()) * kProcessedRecordBytes,
                  kProcessedRecordBytes);
    }
  }
  pPeaks = peaks;
  pLastPeaks = last;

  for (int layer = 0; layer < level; ++layer)
    for (int ch = 0; ch < kOpticalChannels; ++ch) {
      const uint16_t fast = KeptCount(dm.Processed[kDistMeasFast][layer], ch);
      const uint16_t slow = KeptCount(dm.Processed[kDistMeasSlow][layer], ch);
      if (fast == slow) continue;
      const int n = layer * kOpticalChannels + ch + 1;
      DistMeasPrint("CVr480Server::DistMeas_ProcessData() produced invalid data.\n");
      DistMeasPrint("Sensor Count is inconsistent.\n");
      DistMeasPrint("DUT ch %d @ 1khz ProcessedData = %d\n", n, fast);
      DistMeasPrint("DUT ch %d @ 500hz ProcessedData = %d\n", n, slow);
      return -3;
    }

  for (int layer = 0; layer < level; ++layer) {
    const uint8_t* fast = dm.Processed[kDistMeasFast][layer];
    const uint8_t* slow = dm.Processed[kDistMeasSlow][layer];
    const double granularity = static_cast<int32_t>(GetRecU32(fast, kRecGranularityOffset));
    for (int ch = 0; ch < kOpticalChannels; ++ch) {
      const int index = SlotLayer(fast) * kOpticalChannels + ch;
      const uint32_t first = FirstValue(fast, ch);
      for (int j = 0; j < KeptCount(fast, ch); ++j) {
        const double a = GetRecI32(fast, kRecSensorsOffset + 4 * (first + j));
        const double b = GetRecI32(slow, kRecSensorsOffset + 4 * (first + j));
        dm.WvlErr[index][j] = granularity != 0.0 ? (a - b) / granularity : 0.0;
      }
    }
  }
  return 0;
}

// ---- Log ----------------------------------------------------------------------------------

// One line per channel with sensors in the stored sweeps of a rate: "<index>: v\tv\t...\n".
void CVr480Server::DistMeasChannelLines(int divider, const std::function<double(int index, int sensor)>& value) {
  const SDistMeasState& dm = DistMeasState();
  for (int layer = 0; layer < MuxLevel; ++layer) {
    const uint8_t* slot = dm.Processed[divider][layer];
    for (int ch = 0; ch < kOpticalChannels; ++ch) {
      const int sensors = KeptCount(slot, ch);
      if (sensors == 0) continue;
      const int index = SlotLayer(slot) * kOpticalChannels + ch;
      DistMeasPrint("%d: ", index);
      for (int j = 0; j < sensors; ++j) DistMeasPrint("%.9g\t", value(index, j));
      DistMeasPrint("\n");
    }
  }
}

int CVr480Server::DistMeas_DumpData() {
  const SDistMeasState& dm = DistMeasState();
  for (int divider = 0; divider < 2; ++divider) {
    DistMeasPrint("\n---------- Raw Sensor Count: %s ----------\n", RateName(divider));
    for (int layer = 0; layer < MuxLevel; ++layer) {
      for (int ch = 0; ch < kOpticalChannels; ++ch) DistMeasPrint("%d\t", dm.RawData[divider][layer].status.NumPeaks[2 + ch]);
      DistMeasPrint("\n");
    }
    DistMeasPrint("\n");
  }
  for (int divider = 0; divider < 2; ++divider) {
    DistMeasPrint("\n---------- Wavelengths: %s ----------\n", RateName(divider));
    DistMeasChannelLines(divider, [&](int index, int j) { return DistMeas_GetWvl(divider, index, j); });
  }
  DistMeasPrint("\n---------- wvl_err ----------\n");
  DistMeasChannelLines(kDistMeasFast, [&](int index, int j) { return dm.WvlErr[index][j]; });
  DistMeasPrint("\n---------- distances ----------\n");
  DistMeasChannelLines(kDistMeasFast, [&](int index, int j) { return dm.DistEstimate[index][j]; });
  return 0;
}

// ---- Plot and accessors ---------------------------------------------------------------------

double CVr480Server::DistMeas_GetWvl(int divider, int index, int sensor) {
  if (divider < 0 || divider > 1 || index < 0 || index >= kLogicalChannels || sensor < 0 || sensor >= kSensorsPerChannel)
    return 0.0;
  const uint8_t* slot = DistMeasState().Processed[divider][index / kOpticalChannels];
  const int ch = index % kOpticalChannels;
  if (sensor >= KeptCount(slot, ch)) return 0.0;
  const double granularity = static_cast<int32_t>(GetRecU32(slot, kRecGranularityOffset));
  return granularity != 0.0 ? GetRecI32(slot, kRecSensorsOffset + 4 * (FirstValue(slot, ch) + sensor)) / granularity
                            : 0.0;
}

int CVr480Server::DistMeas_GetCountVal(int divider, int index, int sensor) {
  if (divider < 0 || divider > 1 || index < 0 || index >= kLogicalChannels || sensor < 0 || sensor >= kSensorsPerChannel)
    return 0;
  const struct_dma_peaks_data& raw = DistMeasState().RawData[divider][index / kOpticalChannels];
  const int ch = index % kOpticalChannels;
  if (sensor >= raw.status.NumPeaks[2 + ch] || sensor >= kPeakListSize) return 0;
  return static_cast<int>(raw.DutPeaks[ch][sensor]);
}

int CVr480Server::DistMeas_GeneratePlot(bool newData, double startM, double stopM, double stepM, int index,
                                        int sensor) {
  SDistMeasState& dm = DistMeasState();
  DistMeas_SaveOperatingParams();
  std::printf("\n====================================================\n");
  if (newData) {
    if (DistMeas_GetData() != 0) {
      DistMeas_RestoreOperatingParams();
      return -1;
    }
    std::printf("Acquired new data.\n");
  } else {
    std::printf("Using previously acquired data.\n");
  }
  std::printf("count location @ 1kHz: %d\n", DistMeas_GetCountVal(kDistMeasFast, index, sensor));
  std::printf("count location @ 500 Hz: %d\n", DistMeas_GetCountVal(kDistMeasSlow, index, sensor));
  std::printf("\nL\tWvl @1khz\tWvl @500Hz\tWvl Err\n");
  // The command refuses a step that is not positive or too many rows; the row bound also ends
  // a step too small to move a large distance.
  long row = 0;
  for (double d = startM; stepM > 0.0 && d <= stopM && row < kMaxPlotRows; d += stepM, ++row) {
    for (auto& channel : dm.DistEstimate)
      for (double& e : channel) e = d;
    if (DistMeas_ProcessData() != 0) {
      DistMeas_RestoreOperatingParams();
      return -2;
    }
    const double w1 = DistMeas_GetWvl(kDistMeasFast, index, sensor);
    const double w2 = DistMeas_GetWvl(kDistMeasSlow, index, sensor);
    std::printf("%f\t%f\t%f\t%f\n", d, w1, w2, w1 - w2);
  }
  DistMeas_RestoreOperatingParams();
  std::fflush(stdout);
  return 0;
}
