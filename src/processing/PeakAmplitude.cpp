// Amplitude of the reflected light near a peak, from the full-spectrum samples.
//
// Every record carries 256 samples of the light on the amplitude channel's detector, one every
// 256 counts along the sweep, and the card moves the sampling instant by two counts from sweep
// to sweep. One sweep's samples would mostly miss a reflection only tens of counts wide; the
// recent sweeps of the same multiplexer layer (the raw sample history, `PeakAmpBufDepth` deep)
// together look at every second count, so the largest of their samples near the peak is the
// peak's height. With W = `PeakAmpSearchWnd` the window runs from W samples below the peak's
// sample to W - 1 above it: the peak's position still carries part of the detector latency,
// so the light lies in the sample it points at or in the one below.
//
// The search costs 2W x depth comparisons. Its result is cached per layer and sample until the
// history has been refilled (BuildRawFSBuffer marks every entry stale when an index wraps),
// so it is paid once per history cycle and sample, not once per peak and record.
#include <algorithm>

#include "server/Vr480Server.h"

int CVr480Server::GetPeakAmplitude(int layer, int sample) {
  const int l = layer & (kMaxMuxLevel - 1);
  const int window = std::clamp<int32_t>(PeakAmpSearchWnd, 0, kFsSamples / 2 - 1);
  const int depth = std::clamp<int32_t>(PeakAmpBufDepth, 1, kFsHistoryDepth);
  const int i = std::clamp(sample, window, kFsSamples - 1 - window);
  if (!PeakAmpDirty[l][i]) return PeakAmpCache[l][i];

  // Samples are compared as the signed 16-bit numbers the card delivers.
  int16_t v = static_cast<int16_t>(FS_RawHistoryBuffer[l][0][i]);
  for (int k = i - window; k < i + window; ++k)
    for (int d = 0; d < depth; ++d) v = std::max(v, static_cast<int16_t>(FS_RawHistoryBuffer[l][d][k]));
  PeakAmpCache[l][i] = v;
  PeakAmpDirty[l][i] = false;
  return v;
}
