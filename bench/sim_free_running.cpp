// Records per second the simulated card delivers in free-running mode, taken the way the
// driver takes them: the wait-for-data request, then a read of the record in its mapped
// buffer. The server's per-record pipeline must keep up with the real card's 2000 records
// per second; the simulated card must be far faster so that load tests measure the server.
#include <benchmark/benchmark.h>

#include <cstdint>
#include <memory>

#include "device/PeaksData.h"
#include "sim/SimCardProvider.h"

namespace {

constexpr unsigned long kStart = 0x0000350C;
constexpr unsigned long kWaitForData = 0x8004350D;
constexpr unsigned long kBusAddress = 0x40043512;
constexpr unsigned long kReadReg32 = 0x80043502;
constexpr unsigned long kWriteReg32 = 0x40043505;

struct CRegister {
  uint32_t Reg;
  uint32_t Value;
};

// Sends an FPGA command word through the mailbox as the driver interface does.
void Command(CDeviceFile& dev, uint8_t code, uint32_t arg) {
  CRegister status{0x34, 0};
  do {
    dev.Ioctl(kReadReg32, reinterpret_cast<uintptr_t>(&status));
  } while (status.Value & 0x0F);
  CRegister word{0x00, (static_cast<uint32_t>(code) << 24) | (arg & 0xFFFFFF)};
  dev.Ioctl(kWriteReg32, reinterpret_cast<uintptr_t>(&word));
}

void BM_FreeRunningRecords(benchmark::State& state) {
  sim::CSimOptions options;
  options.Mode = sim::EProducerMode::FreeRunning;
  sim::CSimCardProvider provider(options);
  auto dev = provider.Open("/dev/vr480");

  // Start-up as the driver interface does it, then the laser at its working point.
  for (uint32_t i = 0; i < kDmaBuffers; ++i) {
    uint32_t address = i;
    dev->Ioctl(kBusAddress, reinterpret_cast<uintptr_t>(&address));
    Command(*dev, 0x38, address & 0xFFFF);
    Command(*dev, 0x39, address >> 16);
    Command(*dev, 0x3A, i);
  }
  dev->Ioctl(kStart, 0);
  struct_dma_peaks_data* buffers[kDmaBuffers];
  for (auto& b : buffers) b = static_cast<struct_dma_peaks_data*>(dev->Map(kPeaksRecordBytes));
  Command(*dev, 0x18, 30000);  // SOA drive
  Command(*dev, 0x19, 1);      // SOA on
  Command(*dev, 0x04, 40800);  // scan amplitude
  Command(*dev, 0x03, 28650);  // bias
  Command(*dev, 0x01, 1);      // DMA on

  uint64_t peaks = 0;
  for (auto _ : state) {
    uint16_t index = 0;
    if (dev->Ioctl(kWaitForData, reinterpret_cast<uintptr_t>(&index)) != 0) {
      state.SkipWithError("wait for data failed");
      break;
    }
    const struct_dma_peaks_data& r = *buffers[index];
    for (int c = 0; c < kNumPeakLists; ++c) peaks += r.status.NumPeaks[c];
    benchmark::DoNotOptimize(r.FsSamples[255]);
  }
  state.counters["records/s"] = benchmark::Counter(static_cast<double>(state.iterations()), benchmark::Counter::kIsRate);
  state.counters["peaks/record"] = state.iterations() ? static_cast<double>(peaks) / state.iterations() : 0.0;
  state.counters["overruns"] = static_cast<double>(provider.Card().Overruns());
}

}  // namespace

BENCHMARK(BM_FreeRunningRecords)->UseRealTime()->MinTime(2.0);
