// Cost of the peak pipeline per record, on the heaviest record the card can deliver: four DUT
// channels of 250 sensors each, every sensor distance-compensated, gain-corrected, referenced
// and averaged over 100 values, plus the amplitudes of one channel and the analog outputs.
// At 2 kHz a sweep lasts 500 us and the acquisition thread also builds spectra and runs the
// control loops in that time, so the pipeline should stay well under it (target: 25 us).
//
// BM_ProcessPeaksData is the usual mean per record (run with repetitions for its spread);
// BM_ProcessPeaksDataPercentiles times every record of a long run on its own and reports the
// median and 99th percentile, and both as a fraction of the 500 us sweep period.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <memory>
#include <random>
#include <vector>

#include "server/Vr480Server.h"

#include "QuietStdout.h"

// The pipeline is private to the server; the benchmark drives it as the acquisition loop does.
struct ProcessingAccess {
  static int Process(CVr480Server& s) { return s.ProcessPeaksData(); }
  static void BuildGratingTable(CVr480Server& s) { s.build_FBG_Vth2Thz_LUT(); }
};

namespace {

constexpr double kSweepPeriodUs = 500.0;  // 2 kHz
constexpr int kRecords = 64;              // distinct sweeps cycled through, with detector noise
constexpr int kTeeth = 101;


// A server as start-up leaves it, with every per-sensor correction switched on, and a set of
// full sweeps: 101 comb teeth 512 counts apart with the grating between teeth 60 and 61, and
// 250 sensors per channel spread over 1520-1570 nm.
struct PipelineBench {
  std::unique_ptr<CVr480Server> S = std::make_unique<CVr480Server>();
  std::vector<struct_dma_peaks_data> Sweeps = std::vector<struct_dma_peaks_data>(kRecords);
  int Next = 0;

  explicit PipelineBench(uint16_t depth = 100) {
    CQuietStdout quiet;
    S->AllocateRings();
    S->WvlAvg.Init(4, 250, 10000);
    S->WvlAvg.SetTargetNumAvg(depth);
    S->DataRateDivider = 2;  // 1000 sensors fit one period at divider 2
    S->MinDataRateDivider = 1;
    S->FbgRefVth = 1000;
    S->FbgRefWvlNm = 299792458.0 * 0.001 / 192.95;
    ProcessingAccess::BuildGratingTable(*S);
    S->bUseReferences = true;
    S->bEnableWvlOffsets = true;
    for (int l = 0; l < 4; ++l)
      for (int s = 0; s < 250; ++s) {
        S->SensorReferences[l][s] = 1545000000 + 1000 * s;
        S->TimeOfFlightInCounts[l][s] = 12.5 + 0.1 * s;
      }
    for (int ch = 0; ch < 4; ++ch) S->GainWvlOffset[ch][20000] = 1500;

    std::mt19937 noise(1);
    std::uniform_int_distribution<int> jitter(-1, 1);
    for (auto& r : Sweeps) {
      std::memset(&r, 0, sizeof r);
      r.status.Status3 = 0x20 | 2;  // published; amplitudes of DUT channel 0
      r.status.Vth = 1000;
      r.status.NumPeaks[0] = 1;
      r.FbgPeaks[0] = 4000 + 512 * 60 + 256;
      r.status.NumPeaks[1] = kTeeth;
      for (int j = 0; j < kTeeth; ++j) r.FfpiPeaks[j] = 4000 + 512 * j + jitter(noise);
      for (int ch = 0; ch < 4; ++ch) {
        r.status.Gain[ch] = 20000;
        r.status.NumPeaks[2 + ch] = 250;
        for (int i = 0; i < 250; ++i) r.DutPeaks[ch][i] = 13500 + 120 * i + 7 * ch + jitter(noise);
      }
      for (int k = 0; k < kFsSamplesPerRecord; ++k) r.FsSamples[k] = 300 + (k * 37) % 5000;
    }
  }

  void ProcessOne() {
    struct_dma_peaks_data& r = Sweeps[Next];
    Next = (Next + 1) % kRecords;
    S->pPeaks = &r;
    S->pLastPeaks = &r;
    ProcessingAccess::Process(*S);
  }
};

// Argument: averaging depth of every sensor. The cost should not depend on it.
void BM_ProcessPeaksData(benchmark::State& state) {
  PipelineBench bench(static_cast<uint16_t>(state.range(0)));
  for (int i = 0; i < 2000; ++i) bench.ProcessOne();  // fill the averages
  for (auto _ : state) bench.ProcessOne();
  state.SetItemsProcessed(state.iterations());
  state.counters["sensors"] = 1000;
}
BENCHMARK(BM_ProcessPeaksData)->Arg(1)->Arg(100)->Arg(10000)->Unit(benchmark::kMicrosecond)->Repetitions(5)->ReportAggregatesOnly(true);

// Argument 2: 0 measures the ring's first lap, where every record lands on memory the process
// has never touched (a freshly started server's first 15 s at 2 kHz); 1 first fills the whole
// ring once, as in a server that has run for a while.
void BM_ProcessPeaksDataPercentiles(benchmark::State& state) {
  PipelineBench bench;
  const bool warmRing = state.range(1) != 0;
  const int warmUp = warmRing ? kProcessedRingSlots : 2000;
  for (int i = 0; i < warmUp; ++i) bench.ProcessOne();
  const int records = static_cast<int>(state.range(0));
  std::vector<double> us(static_cast<size_t>(records));
  for (auto _ : state) {
    for (int i = 0; i < records; ++i) {
      const auto t0 = std::chrono::steady_clock::now();
      bench.ProcessOne();
      const auto t1 = std::chrono::steady_clock::now();
      us[static_cast<size_t>(i)] = std::chrono::duration<double, std::micro>(t1 - t0).count();
    }
  }
  std::sort(us.begin(), us.end());
  const double median = us[us.size() / 2];
  const double p99 = us[us.size() * 99 / 100];
  state.counters["median_us"] = median;
  state.counters["p99_us"] = p99;
  state.counters["max_us"] = us.back();
  state.counters["median_of_period"] = median / kSweepPeriodUs;
  state.counters["p99_of_period"] = p99 / kSweepPeriodUs;
}
BENCHMARK(BM_ProcessPeaksDataPercentiles)
    ->Args({20000, 0})
    ->Args({20000, 1})
    ->ArgNames({"records", "warm_ring"})
    ->Iterations(1)
    ->Unit(benchmark::kMillisecond);

}  // namespace
