// A minimal driver for the simulated card, written against the device contract only (ioctl
// requests, register and mailbox protocol, nvRAM access, mapping), so that the card's tests
// talk to it as the server's driver interface does. Cards are built in Step mode: nothing
// happens between Step() calls, which makes every record predictable.
#pragma once

#include <gtest/gtest.h>

#include <array>
#include <chrono>
#include <cmath>
#include <memory>
#include <string>
#include <vector>

#include "device/PeaksData.h"
#include "sim/SimCard.h"
#include "sim/SimCardProvider.h"

namespace simtest {

using namespace sim;

inline CSimOptions StepOptions() {
  CSimOptions o;
  o.Mode = EProducerMode::Step;
  return o;
}

// FPGA command codes the tests use.
namespace cmd {
constexpr uint8_t kDma = 0x01, kBias = 0x03, kScanAmp = 0x04, kGain = 0x06, kClkDiv = 0x0C,
                  kThresh = 0x0D, kLockout = 0x0E, kNoiseThreshEnable = 0x0F, kConverter = 0x12,
                  kDataRateDivider = 0x17, kSoaDrive = 0x18, kSoaEnable = 0x19, kAlign = 0x1E,
                  kOperatingMode = 0x20, kTrigEnable = 0x21, kTrigSource = 0x22, kSwStart = 0x23,
                  kSwStop = 0x24, kTrigStopType = 0x25, kTrigStartEdge = 0x26, kTrigStopEdge = 0x27,
                  kTrigAcq = 0x28, kAutoReTrig = 0x29, kOptoA = 0x2A, kOptoB = 0x2B, kSoaOn = 0x2D,
                  kSoaOff = 0x2E, kMaxDutPeaks = 0x2F, k2kHz = 0x30;
}

class CTestDriver {
 public:
  explicit CTestDriver(const CSimOptions& options = StepOptions())
      : Provider(std::make_shared<CSimCardProvider>(options)) {
    File = Provider->Open("/dev/vr480");
  }

  CSimCard& Card() { return Provider->Card(); }
  CDeviceFile& Dev() { return *File; }

  uint32_t Read(int width, uint32_t reg) {
    CRegisterAccess a{reg, 0};
    const unsigned long r = width == 1 ? 0x80043500 : width == 2 ? 0x80043501 : 0x80043502;
    EXPECT_NE(File->Ioctl(r, reinterpret_cast<uintptr_t>(&a)), -1) << "register " << reg;
    return a.Value;
  }
  int Write(int width, uint32_t reg, uint32_t value) {
    CRegisterAccess a{reg, value};
    const unsigned long r = width == 1 ? 0x40043503 : width == 2 ? 0x40043504 : 0x40043505;
    return File->Ioctl(r, reinterpret_cast<uintptr_t>(&a));
  }

  // As the driver sends an FPGA command: wait up to 20 ms for the mailbox, then write it.
  // Returns -1 when the mailbox stayed full (the command is lost).
  int Command(uint8_t code, uint32_t arg) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(20);
    while (Read(4, 0x34) & 0x0F) {
      if (std::chrono::steady_clock::now() > deadline) return -1;
    }
    return Write(4, 0x00, (static_cast<uint32_t>(code) << 24) | (arg & 0xFFFFFF));
  }
  int ChannelCommand(uint8_t code, int ch, uint16_t v, bool offset30) {
    return Command(code, (static_cast<uint32_t>(offset30 ? 0x30 + ch : ch) << 16) | v);
  }

  void WaitNvram() {
    for (int i = 0; i < 100000 && (Read(1, 0x3F) & 0x80); ++i) {
    }
  }
  // Latches an nvRAM address: low byte, then high byte.
  void NvAddress(uint16_t addr) {
    WaitNvram();
    Write(1, 0x3F, 0x80);
    Write(1, 0x3E, addr & 0xFF);
    WaitNvram();
    Write(1, 0x3F, 0xA0);
    Write(1, 0x3E, addr >> 8);
  }
  uint8_t NvRead(uint16_t addr) {
    NvAddress(addr);
    WaitNvram();
    Write(1, 0x3F, 0xE0);
    WaitNvram();
    return static_cast<uint8_t>(Read(1, 0x3E));
  }
  void NvWrite(uint16_t addr, uint8_t b) {
    NvAddress(addr);
    WaitNvram();
    Write(1, 0x3F, 0x00);
    WaitNvram();
    Write(1, 0x3E, b);
    Write(1, 0x3F, 0xC0);
    WaitNvram();
  }

  uint16_t Get16(unsigned long request) {
    uint16_t v = 0xFFFF;
    EXPECT_EQ(File->Ioctl(request, reinterpret_cast<uintptr_t>(&v)), 0);
    return v;
  }

  // Start-up as the driver interface does it: program the buffer addresses (release >= 50),
  // start, map the buffers; then enable DMA.
  void Start(bool programAddresses = true) {
    if (programAddresses && Get16(0x80043507) >= 50) {
      for (uint32_t i = 0; i < kDmaBuffers; ++i) ProgramAddress(i);
    }
    ASSERT_EQ(File->Ioctl(0x350C, 0), 0);
    for (int k = 0; k < kDmaBuffers; ++k) {
      Buffers[k] = static_cast<struct_dma_peaks_data*>(File->Map(kPeaksRecordBytes));
      ASSERT_NE(Buffers[k], nullptr) << "mapping " << k;
    }
    ASSERT_EQ(Command(cmd::kDma, 1), 0);
  }
  void ProgramAddress(uint32_t index) {
    uint32_t address = index;
    ASSERT_EQ(File->Ioctl(0x40043512, reinterpret_cast<uintptr_t>(&address)), 0);
    Command(0x38, address & 0xFFFF);
    Command(0x39, address >> 16);
    Command(0x3A, index);
  }

  // Laser on at the sweep the server's loops settle at (the card's factory calibration), SOA on.
  void LaserOn(uint16_t bias = sim::factory::kBias, uint16_t scanAmp = sim::factory::kScanAmp) {
    Command(cmd::kSoaDrive, 30000);
    Command(cmd::kSoaEnable, 1);
    Command(cmd::kScanAmp, scanAmp);
    Command(cmd::kBias, bias);
  }

  // The next record as the driver's GetData hands it out (the card must have one pending).
  struct_dma_peaks_data& Next() {
    uint16_t index = 0xFFFF;
    EXPECT_EQ(File->Ioctl(0x8004350D, reinterpret_cast<uintptr_t>(&index)), 0);
    EXPECT_LT(index, kDmaBuffers);
    LastIndex = index;
    return *Buffers[index % kDmaBuffers];
  }
  // Steps one record period and takes the record.
  struct_dma_peaks_data& StepNext() {
    EXPECT_EQ(Card().Step(1), 1);
    return Next();
  }
  // Steps n periods and drains every record, returning the last.
  struct_dma_peaks_data& Advance(int n) {
    for (int i = 0; i < n; ++i) StepNext();
    return *Buffers[LastIndex];
  }

  std::shared_ptr<CSimCardProvider> Provider;
  std::unique_ptr<CDeviceFile> File;
  std::array<struct_dma_peaks_data*, kDmaBuffers> Buffers{};
  int LastIndex = -1;
};

// The server's wavelength scale on one record: places the comb with the grating's
// thermistor-derived frequency and converts counts by interpolation between comb teeth.
struct CTestScale {
  bool bValid = false;
  double WvlCorrCoef = 0.0;
  int RefIndex = 0;  // comb index of the reference tooth
  std::vector<double> ToothThz;

  explicit CTestScale(const struct_dma_peaks_data& r, double fsrGhz = 100.0, double refThz = 194.0) {
    const int n = r.status.NumPeaks[1];
    if (n < 11 || r.status.NumPeaks[0] != 1) return;
    const double fsr = fsrGhz / 1000.0;
    const uint32_t* P = r.FfpiPeaks;
    const double pf = r.FbgPeaks[0];
    int k = 0;
    while (k < n && P[k] <= pf) ++k;
    if (k == 0 || k == n) return;
    // The server's grating frequency from its thermistor table (reference reading 32767).
    const double tRef = ServerThermistorDegC(32767);
    const double wvl = (ServerThermistorDegC(r.status.Vth) - tRef) * 0.01 + 1550.0;
    const double fbgThz = 299792458.0 * 0.001 / wvl;
    WvlCorrCoef = (fbgThz + (pf - P[k - 1]) * fsr / (P[k] - P[k - 1]) - refThz) / fsr;
    const int m = static_cast<int>(std::nearbyint(WvlCorrCoef));
    const int ref = k + m - 1;
    RefIndex = ref;
    for (int i = 0; i < n; ++i) ToothThz.push_back(refThz + (ref - i) * fsr);
    Peaks.assign(P, P + n);
    bValid = true;
  }

  double Counts2Wvl(double x) const {
    const int n = static_cast<int>(Peaks.size());
    int k = 1;
    if (x > Peaks[n - 1]) {
      k = n - 1;
    } else if (x >= Peaks[0]) {
      while (k < n - 1 && Peaks[k] < x) ++k;
    }
    const double f = ToothThz[k - 1] - (x - Peaks[k - 1]) * (ToothThz[k - 1] - ToothThz[k]) / (Peaks[k] - Peaks[k - 1]);
    return 299792458.0 * 0.001 / f;
  }

  std::vector<double> Peaks;
};

}  // namespace simtest
