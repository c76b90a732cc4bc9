// The acquisition thread's share of the full spectrum, on hand-made records: sample history, peak
// amplitudes, 128 sweeps interleaved into one spectrum, and its hand-over.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <iterator>
#include <memory>
#include <vector>

#include "SpectrumBench.h"

namespace {

// A record of the given sampling phase, layer and amplitude channel whose sample i reads
// `base` + i, with the level bits of multiplexer level `level`.
struct_dma_peaks_data MakeRecord(int phase, int layer = 0, int ampChannel = 0, int level = 1, int base = 1000) {
  struct_dma_peaks_data r;
  std::memset(&r, 0, sizeof r);
  r.status.CurrentLayer = static_cast<uint8_t>(phase);
  r.status.Status3 = static_cast<uint8_t>(0x20 | ampChannel);
  r.status.flags1_lo = static_cast<uint8_t>(layer | (level == 4 ? 3 : level - 1) << 2);
  for (int i = 0; i < kFsSamplesPerRecord; ++i) r.FsSamples[i] = 0xA5A50000u | static_cast<uint32_t>(base + i);
  return r;
}

// Hands a record over as the acquisition loop does, and builds the spectrum with it.
void Build(CVr480Server& s, struct_dma_peaks_data& r) {
  s.pPeaks = &r;
  s.pLastPeaks = &r;
  FullSpectrumAccess::BuildSpectrum(s);
}

std::unique_ptr<CVr480Server> MakeServer() {
  auto s = std::make_unique<CVr480Server>();
  EXPECT_TRUE(s->AllocateRings());
  return s;
}

void FillHistory(CVr480Server& s, int layer, uint16_t value) {
  for (uint16_t* sweep : s.FS_RawHistoryBuffer[layer]) std::fill(sweep, sweep + kFsSamples, value);
}

void MarkAllDirty(CVr480Server& s, bool dirty = true) {
  for (auto& row : s.PeakAmpDirty) std::fill(std::begin(row), std::end(row), dirty);
}

// A number in the raw spectrum record; its points start at byte 100.
template <class T>
T Raw(const CVr480Server& s, size_t at) {
  T v;
  std::memcpy(&v, s.RawSpectrumBuffer + at, sizeof v);
  return v;
}

}  // namespace

// Guards the history per layer, its wrap at the depth (also a lowered one), and stale amplitudes.
TEST(FullSpectrumBuild, HistoryFillsPerLayerAndWrapsAtItsDepth) {
  auto s = MakeServer();
  s->PeakAmpBufDepth = 4;
  MarkAllDirty(*s, false);
  auto r = MakeRecord(0, 2, 2, 4, 500);
  s->pPeaks = &r;
  FullSpectrumAccess::BuildRawFSBuffer(*s);
  EXPECT_EQ((std::vector<int>{s->FsHistoryIndex[2], s->FsHistoryIndex[0]}), (std::vector<int>{1, 0})) << "each layer its own history";
  EXPECT_EQ(s->FS_RawHistoryBuffer[2][0][7], 507) << "the low 16 bits of each word";
  for (int i = 0; i < 3; ++i) FullSpectrumAccess::BuildRawFSBuffer(*s);
  EXPECT_EQ(s->FsHistoryIndex[2], 0) << "wrapped at the depth";
  EXPECT_TRUE(s->PeakAmpDirty[0][200] && s->PeakAmpDirty[3][0]) << "every cached amplitude is stale after a wrap";
  s->PeakAmpBufDepth = 128;
  for (int i = 0; i < 10; ++i) FullSpectrumAccess::BuildRawFSBuffer(*s);
  ASSERT_EQ(s->FsHistoryIndex[2], 10);
  s->PeakAmpBufDepth = 5;  // below the index: wraps at the next record
  FullSpectrumAccess::BuildRawFSBuffer(*s);
  EXPECT_EQ(s->FsHistoryIndex[2], 0);
}

// Guards the peak search: its window over every recent sweep, the cache until the history wraps,
// the clamp at the low end, and samples compared as signed numbers.
TEST(FullSpectrumBuild, PeakAmplitudeSearchesTheWindowOverTheHistoryAndCachesIt) {
  auto s = MakeServer();
  FillHistory(*s, 1, 300);
  MarkAllDirty(*s);
  s->FS_RawHistoryBuffer[1][77][49] = 9000;  // window 1: the sample below and the sample itself
  s->FS_RawHistoryBuffer[1][3][51] = 9500;   // above the window
  EXPECT_EQ((std::vector<int>{s->GetPeakAmplitude(1, 50), s->GetPeakAmplitude(1, 51), s->GetPeakAmplitude(0, 50)}),
            (std::vector<int>{9000, 9500, 0}));
  s->FS_RawHistoryBuffer[1][0][50] = 12000;
  EXPECT_EQ(s->GetPeakAmplitude(1, 50), 9000);  // cached
  MarkAllDirty(*s);
  EXPECT_EQ(s->GetPeakAmplitude(1, 50), 12000);
  s->PeakAmpSearchWnd = 3;  // sample 0 is searched around sample 3 (samples 0-5)
  s->FS_RawHistoryBuffer[1][5][5] = 7000;
  s->FS_RawHistoryBuffer[1][5][6] = 7500;
  MarkAllDirty(*s);
  EXPECT_EQ(s->GetPeakAmplitude(1, 0), 7000);
  s->PeakAmpSearchWnd = 1;
  FillHistory(*s, 2, 0xFFF0);
  s->FS_RawHistoryBuffer[2][8][20] = 0x8000;
  s->FS_RawHistoryBuffer[2][9][20] = 0xFFFF;
  MarkAllDirty(*s);
  EXPECT_EQ(s->GetPeakAmplitude(2, 20), -1);
}

// Guards where each phase, layer and level puts its samples, and the console dump past two spectra.
TEST(FullSpectrumBuild, SamplesInterleaveByPhaseAndLayer) {
  auto s = MakeServer();
  // Grating and comb: every sweep, sample i of phase p at point 128 i + p.
  auto r = MakeRecord(5, 0, 1, 1, 2000);
  Build(*s, r);
  const int16_t* a = s->FsAssembly;
  EXPECT_EQ((std::vector<int>{a[5], a[128 * 9 + 5], a[128 * 255 + 5], a[6]}), (std::vector<int>{2000, 2009, 2255, 0}));
  r = MakeRecord(6, 3, 0, 4, 3000);  // layer 3: the grating's detector is not multiplexed
  Build(*s, r);
  EXPECT_EQ(a[128 * 9 + 6], 3009);
  r = MakeRecord(7, 1, 3, 2, 4000);  // level 2: layer 1 takes the upper half at half the resolution
  Build(*s, r);
  const int o = (32768 + 7) / 2;
  EXPECT_EQ(a[o], 4000);
  EXPECT_EQ(a[64 * 255 + o], 4255);
  r = MakeRecord(10, 2, 4, 4, 5000);  // level 4: layer 2 takes the third quarter
  Build(*s, r);
  EXPECT_EQ(a[(2 * 32768 + 10) / 4 + 32 * 3], 5003);

  // A layer the level does not have places nothing.
  int16_t before[CVr480Server::kFsPoints];
  std::memcpy(before, s->FsAssembly, sizeof before);
  r = MakeRecord(11, 2, 2, 2, 6000);
  Build(*s, r);
  EXPECT_EQ(std::memcmp(before, s->FsAssembly, sizeof before), 0);
  r = MakeRecord(3, 3, 2, 1, 6000);  // beyond two spectra: described on the console
  testing::internal::CaptureStdout();
  Build(*s, r);
  EXPECT_EQ(testing::internal::GetCapturedStdout(),
            "peaks_data->status.flags1_lo: 3\n"
            "(peaks_data->status.flags1_lo)&0x03: 3\n"
            "GET_SW_POSITION(peaks_data->status): 3\n"
            "NUM_FS_DATA_POINTS: 32768\n"
            "status->CurrentLayer: 3\n"
            "MuxLevel: 1\n"
            "offset: 98307\n");
  EXPECT_EQ(std::memcmp(before, s->FsAssembly, sizeof before), 0);
}

// Guards the hand-over after a full cycle of phases: the record, its comb points (clamped to the
// spectrum) and frequencies, and a spectrum without a comb when the scale failed.
TEST(FullSpectrumBuild, SpectrumIsHandedOverWhenThePhaseReturnsToTheCycleStart) {
  auto s = MakeServer();
  s->FsCountOffset = 80;
  s->FfpiRefPeakIndex = 4;
  s->bScaleValid = true;
  s->bFsRestart = true;

  auto r = MakeRecord(40, 0, 0);
  r.status.NumPeaks[1] = 6;
  for (int j = 0; j < 6; ++j) r.FfpiPeaks[j] = 10000 + 1001 * j;
  r.status.Vth = 1234;
  Build(*s, r);
  EXPECT_EQ((std::vector<int64_t>{s->FsPhaseStart, s->bFsRestart, s->FsCalGeneration}), (std::vector<int64_t>{40, false, 0}))
      << "a restart begins the cycle at the current phase";

  // Phases 41 ... 127, 0 ... 40: the spectrum is handed over on the last one only.
  auto cycle = [&](unsigned generation) {
    for (int k = 1; k <= 128; ++k) {
      ASSERT_EQ(s->FsCalGeneration, generation - 1) << "phase " << (40 + k) % 128;
      r.status.CurrentLayer = static_cast<uint8_t>((40 + k) % 128);
      FullSpectrumAccess::BuildSpectrum(*s);
    }
    ASSERT_EQ(s->FsCalGeneration, generation);
  };
  cycle(1);

  // The raw spectrum: the finishing record's header, every point filled, the body length.
  const auto h = Raw<struct_dma_peaks_status>(*s, 12);
  EXPECT_EQ(h.Vth, 1234);
  EXPECT_EQ(h.CurrentLayer, 40);
  EXPECT_EQ(Raw<uint32_t>(*s, 65636), 65624u);
  for (int i = 0; i < CVr480Server::kFsPoints; i += 777) ASSERT_EQ(Raw<int16_t>(*s, 100 + 2 * i), 1000 + i / 128) << i;
  ASSERT_EQ(s->FsFfpiCount, 6);  // the comb teeth on spectrum points, with the scale's frequencies
  EXPECT_EQ(s->FsFfpiRefIndex, 4);
  for (int j = 0; j < 6; ++j) {
    EXPECT_EQ(s->FsFfpiPoints[j], static_cast<int>((10000 + 1001 * j) / 2) - 80);
    EXPECT_DOUBLE_EQ(s->FsFfpiThz[j], 194.0 + (4 - j) * 0.1);
  }
  s->bScaleValid = false;  // a record the scale could not place: a spectrum without a comb
  cycle(2);
  EXPECT_EQ(s->FsFfpiCount, 0);

  s->bScaleValid = true;  // comb points are clamped to the spectrum at both ends
  r.status.NumPeaks[1] = 3;
  r.FfpiPeaks[0] = 100;    // 50 - 80 < 0
  r.FfpiPeaks[1] = 30000;
  r.FfpiPeaks[2] = 65535;  // 32767 - 80
  cycle(3);
  EXPECT_EQ((std::vector<int>{s->FsFfpiPoints[0], s->FsFfpiPoints[1], s->FsFfpiPoints[2]}), (std::vector<int>{0, 14920, 32687}));
  s->FsCountOffset = -200;
  cycle(4);
  EXPECT_EQ(s->FsFfpiPoints[2], 32767);
}
