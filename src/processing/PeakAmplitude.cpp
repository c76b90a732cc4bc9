// Amplitude of the reflected light near a peak, from the full-spectrum samples.
//
// Every record carries 256 samples of the light on the amplitude channel's detector, one every
// 256 counts along the sweep. A peak's amplitude is the largest sample in a small window
// (`PeakAmpSearchWnd` samples either side) around the sample the peak falls on.
//
// This version searches the current sweep's own samples only. The full-spectrum subsystem
// replaces it with the search over the recent sweeps of the peak's multiplexer layer (the raw
// sample history, `PeakAmpBufDepth` sweeps deep, with its per-sample cache); the window rule
// and the result are the same, so the pipeline does not change when it does.
#include "server/Vr480Server.h"

int CVr480Server::GetPeakAmplitude(int layer, int sample) {
  const struct_dma_peaks_data* rec = pLastPeaks.load();
  if (!rec) return 0;
  int window = PeakAmpSearchWnd;
  if (window < 0) window = 0;
  if (window > kFsSamplesPerRecord / 2 - 1) window = kFsSamplesPerRecord / 2 - 1;
  if (sample < window) sample = window;
  if (sample > kFsSamplesPerRecord - 1 - window) sample = kFsSamplesPerRecord - 1 - window;
  // Samples are 16-bit signed values in the low half of each word.
  int16_t v = static_cast<int16_t>(rec->FsSamples[sample] & 0xFFFF);
  for (int k = sample - window; k < sample + window; ++k) {
    const int16_t s = static_cast<int16_t>(rec->FsSamples[k] & 0xFFFF);
    if (s > v) v = s;
  }
  return v;
}
