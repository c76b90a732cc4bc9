// Sensor binning and tracking.
//
// Without binning a sensor's number is its rank among the peaks its channel shows in one
// sweep: when one grating fades out (too weak, or outside the window) every sensor behind it
// takes the next one's number. Binning pins the numbers. The server first learns where each
// sensor's peak lies on every logical channel (one published record per multiplexer layer,
// see the pipeline), then sorts every later record's peaks into those positions, the bins.
// A bin follows its sensor as long as the sensor moves less than `SensorBinWidth` counts from
// one record to the next, so slow strain or temperature drifts are tracked. A bin whose sensor
// is missing reports position 0, which the pipeline turns into the value 0 under the same
// sensor number; a missing or an extra peak is recorded as a bin fault.
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <thread>

#include "server/Vr480Server.h"

namespace {

constexpr int32_t kDefaultBinWidth = 200;  // counts: about 0.35 nm at the usual sweep span
constexpr int kFaultMarkShift = 8;         // binning marks word: bit 8 + ch, bin fault on DUT channel ch

}  // namespace

int CVr480Server::StartSensorTracking(bool on) {
  if (bEnableSensorBins == on) return 0;  // while learning binning is still off: "on" starts over
  if (on) {
    if (SensorBinWidth < 1) SensorBinWidth = kDefaultBinWidth;
    for (auto& count : SensorBinCount) count = 0;
    SensorBinLearnRecords = 0;
    bSensorBinLearning = true;
    return 0;
  }
  bEnableSensorBins = false;
  // The acquisition thread may be inside a binned record right now (one per layer of a
  // multiplexer cycle in flight): let two cycles of records go by before replying, so that the
  // caller sees unbinned records from here on.
  const auto period = std::chrono::microseconds(1000000 / SweepRate());
  const int records = 2 * MuxLevel;
  for (int i = 0; i < records; ++i) {
    std::unique_lock<std::mutex> lock(DataMutex);
    std::this_thread::sleep_for(period);
    DataCond.wait_for(lock, std::chrono::seconds(1));  // wakes even if acquisition has stopped
  }
  return 0;
}

void CVr480Server::BinAcquiredData() {
  BinAcquiredData(*pRawPeaks, BinnedPeaks);
}

// Each channel's peaks are matched to its bins in order: a peak goes into the first bin at or
// after the last one filled that lies closer than the bin width, so two peaks never swap bins
// and a peak never lands before an already filled one. Unmatched peaks are dropped.
int CVr480Server::BinAcquiredData(const struct_dma_peaks_data& raw, struct_dma_peaks_data& out) {
  if (&raw != &out) std::memcpy(&out, &raw, sizeof out);
  std::memset(out.DutPeaks, 0, sizeof out.DutPeaks);

  const int layer = raw.Layer();
  const int64_t width = SensorBinWidth;
  for (int ch = 0; ch < kOpticalChannels; ++ch) {
    const int logical = layer * kOpticalChannels + ch;
    int bins = SensorBinCount[logical];
    if (bins > kSensorsPerChannel) bins = kSensorsPerChannel;
    if (bins < 0) bins = 0;
    uint32_t* binPosition = SensorBinPositions[logical];
    const int rawCount = raw.status.NumPeaks[2 + ch];
    const int peaks = rawCount < kPeakListSize ? rawCount : kPeakListSize;
    const uint32_t* position = raw.DutPeaks[ch];

    int next = 0, matched = 0;
    for (int i = 0; i < peaks; ++i) {
      for (int b = next; b < bins; ++b) {
        const int64_t move = static_cast<int32_t>(position[i] - binPosition[b]);
        if (std::llabs(move) < width) {
          out.DutPeaks[ch][b] = position[i];
          binPosition[b] = position[i];  // the bin follows its sensor
          next = b + 1;
          ++matched;
          break;
        }
      }
    }
    if (matched == bins && rawCount == bins) continue;
    out.status.NumPeaks[2 + ch] = static_cast<uint16_t>(bins);
    out.status.BinningMarks |= static_cast<uint16_t>(1u << (kFaultMarkShift + ch));
    std::atomic_ref<int32_t>(LastBinFaultCnt[logical]).store(rawCount, std::memory_order_relaxed);  // clients read it
  }
  return 0;
}
