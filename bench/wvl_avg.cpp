// Running-average cost: adding a value and reading the average must not depend on the ring
// length, and a re-initialisation on a multiplexer change must stay quick despite 40 MB of rings.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <unistd.h>

#include <cstdio>

#include "processing/WvlAvg.h"

#include "QuietStdout.h"

namespace {


// One published record: a value for every sensor of every channel, each read back at once.
void BM_AddAndAverage(benchmark::State& state) {
  CVr480WvlAvg avg;
  {
    CQuietStdout quiet;
    avg.Init(4, 250, 10000);
  }
  avg.SetTargetNumAvg(static_cast<uint16_t>(state.range(0)));
  int32_t v = 0;
  for (auto _ : state) {
    for (uint8_t ch = 0; ch < 4; ++ch)
      for (uint16_t s = 0; s < 250; ++s) {
        avg.AddValue(ch, s, v++);
        benchmark::DoNotOptimize(avg.GetAverage(ch, s));
      }
  }
  state.SetItemsProcessed(state.iterations() * 1000);
}
BENCHMARK(BM_AddAndAverage)->Arg(1)->Arg(100)->Arg(10000);

// Close and Init again, as the acquisition loop does when the multiplexer level changes.
void BM_Reinitialise(benchmark::State& state) {
  const auto mux = static_cast<uint8_t>(state.range(0));
  CVr480WvlAvg avg;
  CQuietStdout quiet;
  for (auto _ : state) {
    avg.Close();
    avg.Init(mux * 4, 250, static_cast<uint16_t>(10000 / mux));
  }
}
BENCHMARK(BM_Reinitialise)->Arg(1)->Arg(4)->Unit(benchmark::kMicrosecond);

}  // namespace
