// Records per second that the simulated card delivers through the driver interface in
// free-running mode: the ceiling for benchmarks that drive the server beyond real time
// (the instrument's fastest rate is 2000 records per second).
#include <benchmark/benchmark.h>

#include <cstdio>

#include "device/DriverInterface.h"
#include "QuietStdout.h"
#include "sim/SimCardProvider.h"

static void BM_DriverGetDataFreeRunning(benchmark::State& state) {
  sim::CSimOptions options;
  options.Mode = sim::EProducerMode::FreeRunning;
  sim::CSimCardProvider card(options);
  C480_DriverInterface driver(&card);
  driver.SetSleepHook([](unsigned long) {});
  int ok;
  {
    CQuietStdout quiet;  // init's console lines
    ok = driver.init_vr480();
  }
  if (ok != 0) {
    state.SkipWithError("init_vr480 failed");
    return;
  }
  // The laser at its working point, so that records carry a realistic peak load.
  driver.EnableDMA(true);
  driver.SetSOADrive(30000);
  driver.SetScanAmp(40800);
  driver.SetBias(28620);
  uint64_t peaks = 0;
  for (auto _ : state) {
    struct_dma_peaks_data* rec = nullptr;
    driver.GetData(&rec);
    peaks += rec->status.NumPeaks[1] + rec->status.NumPeaks[2];
  }
  benchmark::DoNotOptimize(peaks);
  state.SetItemsProcessed(state.iterations());
  state.counters["overruns"] = static_cast<double>(card.Card().Overruns());
  driver.close_vr480();
}
BENCHMARK(BM_DriverGetDataFreeRunning)->MinTime(2.0)->UseRealTime();
