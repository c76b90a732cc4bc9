// The peak pipeline: one pass per peaks record, on the acquisition thread.
//
// A record is usable only if its reference grating and comb are (see the wavelength scale).
// Every record places the comb, so the scan loop follows each sweep; only records the card
// marks for publication (and, in triggered acquisition, only those inside a trigger window)
// go further: their sensor peaks become wavelengths, corrected for the detector gain's
// wavelength offset, the sensor's reference and the time the light spent travelling to the
// sensor, are averaged, and land in the next slot of the processed-data ring from which every
// client reads. The same pass reports the amplitudes of one detector's peaks, drives the six
// analog outputs and, when the sensors no longer fit in one sweep period, slows the card down.
//
// Runs at up to 2000 records a second: no allocation, and no console output except the
// failure and switch-down messages. Settings are read once per record into locals, so a
// handler changing one mid-record affects the next record, not half of this one.
#include <algorithm>
#include <cstdio>
#include <cstring>
#include <mutex>

#include "processing/ProcessedRecord.h"
#include "processing/WavelengthScale.h"
#include "server/Globals.h"
#include "server/Vr480Server.h"
#include "server/RepeatingMessage.h"

namespace {

constexpr uint8_t kPublishBit = 0x20;        // status byte 3: the card lets this sweep be published
constexpr uint8_t kTriggerWindowBit = 0x80;  // status byte 3: inside a trigger window
constexpr uint8_t kTriggeredModeBit = 0x10;  // flags1_lo: the card acquires on triggers
constexpr uint8_t kAnalogOutputRegs[3] = {0x04, 0x08, 0x0C};  // bridge mailboxes 2-4, two outputs each
constexpr double kFullScaleOutput = 65535.0;

int ListCount(uint16_t count) { return count < kPeakListSize ? count : kPeakListSize; }

bool Publishes(const struct_dma_peaks_status& hdr) {
  if (!(hdr.Status3 & kPublishBit)) return false;
  return !(hdr.flags1_lo & kTriggeredModeBit) || (hdr.Status3 & kTriggerWindowBit);
}

void SetStatusCode(uint8_t* slot, uint8_t code) { slot[kRecStatusCodeOffset] = code; }

}  // namespace

int CVr480Server::ProcessPeaksData() {
  bScaleValid = false;
  if (!pPeaks || !ProcessedData) return 0;
  const struct_dma_peaks_data& rec = *pPeaks;
  const struct_dma_peaks_data* last = pLastPeaks.load();
  const struct_dma_peaks_status& hdr = last ? last->status : rec.status;
  const bool learning = bSensorBinLearning;
  CountSweep(hdr.SweepCounter);
  if (bAveragingDepthsChanged.load(std::memory_order_relaxed) && bAveragingDepthsChanged.exchange(false))
    ApplyAveragingDepths();
  if (bAvgResetsPending.load(std::memory_order_relaxed) && bAvgResetsPending.exchange(false)) ApplyAveragesResets();
  SnapshotScale(rec);

  uint8_t status = CheckScaleReferences(rec, hdr);
  const bool publish = Publishes(hdr);
  uint8_t* slot = ProcessedData + static_cast<size_t>(ProcessedWriteIndex.load()) * kProcessedRecordBytes;
  if (publish) {
    std::memcpy(slot + kRecHeaderOffset, &hdr, sizeof hdr);
    SetStatusCode(slot, status);
    PutRecU32(slot, kRecGranularityOffset, static_cast<uint32_t>(static_cast<int32_t>(Granularity)));
  }

  const int combCount = ListCount(hdr.NumPeaks[1]);
  CombPlacement placement;
  if (status == kPeaksOk && !PlaceComb(rec, combCount, placement)) {
    static CRepeatingMessage message;
    message.Print("Error: reference FFPI peak outside the comb\r");
    status = kPeaksRefToothOutside;
    if (publish) SetStatusCode(slot, status);
  }
  if (!publish) return 0;

  uint32_t kept = 0, skip = 0;
  if (status != kPeaksOk) {
    for (int ch = 0; ch < kOpticalChannels; ++ch) PutRecU16(slot, kRecKeptCountsOffset + 2 * ch, 0);
  } else {
    FinishComb(rec, combCount, placement, slot);
    const uint32_t limit = Switchdown(DataRateDivider);
    kept = ConvertSensors(rec, hdr, combCount, limit, learning, slot, skip);
    ApplySensorLimit(kept, limit, slot);
  }
  CountBinLearningRecord(learning);
  if (bDistMeasActive) return 0;  // the measurement reads the slot itself; nothing is announced

  const uint32_t amplitudes = WriteAmplitudes(rec, hdr, kept, skip, slot);
  PutRecU32(slot, kRecSensorBytesOffset, 88 + 4 * kept);
  PutRecU32(slot, kRecTotalBytesOffset, 88 + 4 * kept + 2 * amplitudes);
  slot[kRecInUseOffset] = 0;
  WriteAnalogOutputs();
  AdvanceProcessedRing();
  return 0;
}

// Converts the peaks of the four DUT channels, in channel order, until `limit` sensors are
// kept. A sensor's number is its rank among the kept peaks of its channel; it indexes the
// per-sensor tables (time of flight, reference, averages). Returns the number kept; `skip`
// counts the amplitude channel's peaks dropped below the window, which the amplitude list
// steps over.
//
// Two passes per channel. The first converts every peak as if all before it were kept
// (sensor number = list index), which is what happens unless a peak below the window is
// dropped: each conversion then depends on no other, and the card's thousand conversions per
// record (two divisions each) overlap in the processor instead of waiting one for another.
// The second pass keeps, references and averages in list order and takes the first pass's
// wavelength while the guess holds; after the first dropped peak it converts each peak itself,
// with the time of flight of its true sensor number. The results are those of one pass.
uint32_t CVr480Server::ConvertSensors(const struct_dma_peaks_data& rec, const struct_dma_peaks_status& hdr,
                                      int combCount, uint32_t limit, bool learning, uint8_t* slot, uint32_t& skip) {
  const uint32_t* teeth = rec.FfpiPeaks;
  const double fsr = FfpiFsrGhz / 1000.0;
  const double cOver1000 = SpeedOfLight * 0.001;
  const double lower = LowerWvlLimit, upper = UpperWvlLimit;
  const double granularity = static_cast<int32_t>(Granularity);
  const bool keepAll = bEnableSensorBins;  // binned sensors keep their numbers wherever they move
  const bool gainOffsets = bEnableWvlOffsets, references = bUseReferences;
  const int layer = hdr.flags1_lo & 0x03;
  const int amplitudeChannel = hdr.Status3 & 0x07;
  // Wavelength of peak i converted with sensor number i, and the comb segment reached then.
  double guessNm[kPeakListSize];
  int guessSegment[kPeakListSize];

  uint32_t kept = 0;
  for (int ch = 0; ch < kOpticalChannels; ++ch) {
    const int logical = layer * kOpticalChannels + ch;
    const uint8_t avgChannel = static_cast<uint8_t>(logical);
    const int count = ListCount(hdr.NumPeaks[2 + ch]);
    const uint32_t* peaks = rec.DutPeaks[ch];
    const Relaxed<double>* flight = TimeOfFlightInCounts[logical];
    const Relaxed<int32_t>* reference = SensorReferences[logical];
    const uint32_t gainOffset = GainWvlOffset[ch][hdr.Gain[ch]];
    // A record whose layer lies above the multiplexer level the averages were built for
    // (while the card changes level) is reported unaveraged.
    const bool averaged = WvlAvg.GetTargetNumAvg(avgChannel, kSensorsPerChannel - 1) != 0;

    const int guesses = std::min<int>(count, static_cast<int>(limit - kept));
    int k = 1;  // comb segment; peaks are ascending, so it only moves forward
    for (int i = 0; i < guesses; ++i) {
      const uint32_t raw = peaks[i];
      if (raw == 0) continue;
      // The card sees a far sensor's reflection later in the sweep than its wavelength alone
      // would put it: take the round trip back off before converting.
      const double x = static_cast<double>(raw) - flight[i];
      while (k < combCount - 1 && teeth[k] < x) ++k;
      guessNm[i] = cOver1000 / CombFrequencyThz(teeth, FfpiPeakThz, k, x, fsr);
      guessSegment[i] = k;
    }

    int sensor = 0;
    k = 1;
    for (int i = 0; i < count && kept < limit; ++i) {
      const uint32_t raw = peaks[i];
      if (raw == 0) {  // a binned sensor that is missing: it keeps its number and reads 0
        PutRecI32(slot, kRecSensorsOffset + 4 * kept++, 0);
        ++sensor;
        continue;
      }
      double nm;
      if (sensor == i) {
        nm = guessNm[i];
        k = guessSegment[i];
      } else {
        const double x = static_cast<double>(raw) - flight[sensor];
        while (k < combCount - 1 && teeth[k] < x) ++k;
        nm = cOver1000 / CombFrequencyThz(teeth, FfpiPeakThz, k, x, fsr);
      }
      if (keepAll || (nm >= lower && nm <= upper)) {
        uint32_t w = static_cast<uint32_t>(TruncateToInt32(granularity * nm));  // wraps like the card's integers
        if (gainOffsets) w -= gainOffset;
        if (references) w -= static_cast<uint32_t>(reference[sensor]);
        int32_t value = static_cast<int32_t>(w);
        if (averaged) value = WvlAvg.AddAndAverage(avgChannel, static_cast<uint16_t>(sensor), value);
        PutRecI32(slot, kRecSensorsOffset + 4 * kept++, value);
        if (learning) {
          SensorBinPositions[logical][sensor] = raw;
          SensorBinCount[logical] = SensorBinCount[logical] + 1;
        }
        ++sensor;
      } else if (nm < lower && ch + 2 == amplitudeChannel) {
        ++skip;
      }
    }
    PutRecU16(slot, kRecKeptCountsOffset + 2 * ch, static_cast<uint16_t>(sensor));
  }
  return kept;
}

// One sweep period holds a limited number of sensors at each data rate. When a record fills
// it, the record is marked, and if allowed the card is slowed to the first divider whose
// limit the sensors fit under.
void CVr480Server::ApplySensorLimit(uint32_t kept, uint32_t limit, uint8_t* slot) {
  if (kept != limit) return;
  SetStatusCode(slot, kPeaksSensorLimit);
  const uint16_t divider = DataRateDivider;
  if (!bSwitchdownEnable || divider > 8) return;
  const uint16_t minDivider = MinDataRateDivider > 0 ? MinDataRateDivider.load() : uint16_t{1};
  // A divider below the minimum (a command changed either since this record's limit was taken)
  // starts the search at the minimum itself, never at 0, which would divide the rate by zero.
  unsigned d = std::max(1u, static_cast<unsigned>(divider / minDivider));
  while (minDivider * d <= 8 && Switchdown(static_cast<uint16_t>(minDivider * d)) <= kept) ++d;
  int rate = Driver.Get2khzMode() ? 2000 : 1000;
  if (Driver.GetHwClkDivider_()) rate /= 2;
  rate = static_cast<int>(rate / d / minDivider);
  std::printf("Switching down to %dHz operation.\n", rate);
  SetDataRateDivider(static_cast<uint16_t>(d));
  bUpdateGui = true;
}

// Learning takes one published record per multiplexer layer; then binning is in force.
void CVr480Server::CountBinLearningRecord(bool learning) {
  if (!learning) return;
  if (SensorBinLearnRecords.fetch_add(1) + 1 >= MuxLevel) {
    SensorBinLearnRecords = 0;
    bSensorBinLearning = false;
    bEnableSensorBins = true;
  }
}

// The card reports the light level along the sweep on one detector (the amplitude channel);
// each of that detector's peaks gets the level near it. Peaks of a DUT channel that were
// dropped below the window are stepped over, so the amplitudes follow the kept sensors. The
// grating's own list is not reported.
uint32_t CVr480Server::WriteAmplitudes(const struct_dma_peaks_data& rec, const struct_dma_peaks_status& hdr,
                                       uint32_t kept, uint32_t skip, uint8_t* slot) {
  const int channel = hdr.Status3 & 0x07;
  uint32_t count;
  if (channel >= 2 && channel <= 5)
    count = GetRecU16(slot, kRecKeptCountsOffset + 2 * (channel - 2));
  else if (channel == 1)
    count = static_cast<uint32_t>(ListCount(hdr.NumPeaks[1]));
  else
    return 0;
  const uint32_t* positions = rec.PeakList(channel);
  const int layer = hdr.flags1_lo & 0x03;
  const uint32_t offset = static_cast<uint32_t>(static_cast<int32_t>(FsCountOffset));
  const size_t base = kRecSensorsOffset + 4 * kept;
  for (uint32_t i = 0; i < count; ++i) {
    const uint32_t index = i + skip;
    const uint32_t p = index < static_cast<uint32_t>(kPeakListSize) ? positions[index] : 0;
    const int sample = static_cast<int>((p - offset) / 256);  // full-spectrum samples are 256 counts apart
    PutRecU16(slot, base + 2 * i, static_cast<uint16_t>(GetPeakAmplitude(layer, sample)));
  }
  return count;
}

// Six analog outputs follow the averaged wavelength of chosen sensors: the output sits at
// `AvoReferenceVout` of full scale when the sensor reads `AvoReference`, and moves
// `AvoScalingFactor` steps per nm from there. Two 16-bit outputs share each mailbox word.
void CVr480Server::WriteAnalogOutputs() {
  const double granularity = static_cast<int32_t>(Granularity);
  uint16_t out[kAnalogOutputs];
  for (int k = 0; k < kAnalogOutputs; ++k) {
    const uint8_t channel = AvoChannel[k];
    const uint16_t sensor = AvoSensor[k];
    const int32_t average =
        WvlAvg.GetTargetNumAvg(channel, sensor) != 0 ? WvlAvg.GetAverage(channel, sensor) : kWvlAvgNoValue;
    const uint64_t key = (static_cast<uint64_t>(channel) << 16 | sensor) + 1;
    AvoShownAverage[k] = key << 32 | static_cast<uint32_t>(average);
    double v = (average - AvoReference[k]) * AvoScalingFactor[k] / granularity + AvoReferenceVout[k] * kFullScaleOutput;
    if (!(v > 0.0)) v = 0.0;  // also catches NaN
    if (v > kFullScaleOutput) v = kFullScaleOutput;
    out[k] = static_cast<uint16_t>(v);
  }
  for (int r = 0; r < 3; ++r)
    Driver.WriteReg32(kAnalogOutputRegs[r], static_cast<uint32_t>(out[2 * r]) | static_cast<uint32_t>(out[2 * r + 1]) << 16);
}

// The metrics' view of the card's sweeps: every record counts, and a sweep counter that jumps
// by more than one means the card dropped sweeps in between. Only the acquisition thread calls.
void CVr480Server::CountSweep(uint32_t sweep) {
  const uint64_t n = RecordsProcessed.fetch_add(1, std::memory_order_relaxed);
  const uint32_t step = sweep - LastSweepSeen;
  if (n > 0 && step > 1 && step < 0x80000000u) {
    SweepGaps.fetch_add(1, std::memory_order_relaxed);
    SweepsMissed.fetch_add(step - 1, std::memory_order_relaxed);
  }
  LastSweepSeen = sweep;
}

void CVr480Server::AdvanceProcessedRing() {
  RecordsPublished.fetch_add(1, std::memory_order_relaxed);
  {
    std::lock_guard<std::mutex> g(DataMutex);
    const uint16_t index = ProcessedWriteIndex;
    ProcessedWriteIndex = index >= kProcessedRingSlots - 1 ? 0 : static_cast<uint16_t>(index + 1);
  }
  // Woken after the lock is let go, the streaming sessions do not queue up on it.
  DataCond.notify_all();
}
