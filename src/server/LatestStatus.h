// The status header of the latest record the card delivered, copied by the acquisition thread
// as it hands the record to processing. Threads other than the acquisition (client sessions,
// the front panel, the status page, the diagnostic bundle) read the header here and never in
// the DMA ring, whose buffer the card refills once it comes round again.
#pragma once

#include <mutex>
#include <optional>

#include "device/PeaksData.h"

class CLatestStatus {
 public:
  void Set(const struct_dma_peaks_status& status) {
    std::lock_guard<std::mutex> g(Lock);
    Status = status;
  }
  // Empty before the first record.
  std::optional<struct_dma_peaks_status> Get() const {
    std::lock_guard<std::mutex> g(Lock);
    return Status;
  }
  // The FPGA synthesis release the records carry (0 before the first record).
  int SynthesisRelease() const {
    const auto s = Get();
    return s ? s->fw_version : 0;
  }
  // Temperature inside the transmitter in degrees C (0 before the first record).
  double InternalTempC() const {
    const auto s = Get();
    return s ? s->InternalTempC() : 0.0;
  }

 private:
  mutable std::mutex Lock;
  std::optional<struct_dma_peaks_status> Status;
};
