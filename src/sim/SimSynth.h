// Fills one peaks record from a sweep snapshot (CRecordJob): the peak lists the card's
// detectors report and the full-spectrum samples of the amplitude channel.
//
// Peak detection, per list: a reflection is reported when the source shines (SOA enabled,
// drive at least 5000, and inside the SOA on/off window when the two counts differ) and is in
// band, its amplitude (times the detector gain) lies above the channel's noise threshold when
// that is enabled, it comes later than the channel's lockout after the previously reported
// peak, and the list is not full (16 grating, 250 comb, the max-peaks setting on a DUT list).
// A position is round(sweep position + detector latency + time of flight + kappa x gain dB +
// noise), reported only within 1-65535 and in detection order (by position).
//
// Full-spectrum samples: sample i of phase p looks at count 256 i + 2 p; it is the detector's
// dark level plus the Gaussian lines (or, on the comb channel, the Airy comb) of that detector,
// without the peak detector's latency, plus noise, clamped to 0-32767, with a marker in the
// high 16 bits. With the align pattern on, sample i of phase p is 128 i + p.
//
// One synthesizer belongs to one producer thread (it owns the random generator and scratch
// space); it touches only the buffer it is given.
#pragma once

#include <cstdint>
#include <vector>

#include "device/PeaksData.h"
#include "sim/SimInstrument.h"
#include "sim/SimRandom.h"

namespace sim {

constexpr uint8_t kHeaderMarker = 0xA5;       // fills header bytes the card does not use
constexpr uint32_t kSampleMarker = 0xA5A5u;   // high 16 bits of every full-spectrum word

class CSimSynthesizer {
 public:
  explicit CSimSynthesizer(uint64_t seed = 1) : Random(seed) {}
  void Reseed(uint64_t seed) { Random.Seed(seed); }

  void Fill(const CRecordJob& job, struct_dma_peaks_data& record);

 private:
  struct CCandidate {
    double Position;   // counts, before rounding
    double Amplitude;  // detector units after gain
  };
  struct CLine {
    double X;          // counts
    double Amplitude;  // detector units after gain
    double Width;      // FWHM, counts
  };

  void FillHeader(const CRecordJob& job, struct_dma_peaks_data& record);
  void CollectGrating(const CRecordJob& job, int list, bool forSamples);
  void CollectComb(const CRecordJob& job);
  void CollectSensors(const CRecordJob& job, int dutChannel, bool forSamples);
  // Applies the detection rules to Candidates and writes the list; returns its count.
  uint16_t Detect(const CRecordJob& job, int list, int cap, uint32_t* out);
  void FillSamples(const CRecordJob& job, struct_dma_peaks_data& record);

  // Per-record context.
  const CSweep* Sweep = nullptr;
  bool bLight = false;

  std::vector<CCandidate> Candidates;  // reused scratch
  std::vector<CLine> Lines;
  CSimRandom Random;
};

}  // namespace sim
