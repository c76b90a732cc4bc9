// A minimal driver for the simulated card, written against the device contract only (ioctl
// requests, register and mailbox protocol, nvRAM access, mapping), so that the card's tests
// talk to it as the server's driver interface does. Cards are built in Step mode: nothing
// happens between Step() calls, which makes every record predictable.
#pragma once

#include <gtest/gtest.h>

#include <array>
#include <chrono>
#include <memory>
#include <string>
#include <vector>

#include "device/PeaksData.h"
#include "sim/SimCard.h"
#include "sim/SimCardProvider.h"

namespace simtest {

using namespace sim;

inline CSimOptions StepOptions() { return [] { CSimOptions o; o.Mode = EProducerMode::Step; return o; }(); }

// FPGA command codes the tests use.
namespace cmd {
constexpr uint8_t kDma = 0x01, kBias = 0x03, kScanAmp = 0x04, kGain = 0x06, kThresh = 0x0D, kLockout = 0x0E,
                  kNoiseThreshEnable = 0x0F, kDataRateDivider = 0x17, kSoaDrive = 0x18, kSoaEnable = 0x19, kAlign = 0x1E,
                  kTrigEnable = 0x21, kTrigSource = 0x22, kSwStart = 0x23, kTrigStopType = 0x25, kTrigAcq = 0x28,
                  kMaxDutPeaks = 0x2F;
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
    while (Read(4, 0x34) & 0x0F)
      if (std::chrono::steady_clock::now() > deadline) return -1;
    return Write(4, 0x00, (static_cast<uint32_t>(code) << 24) | (arg & 0xFFFFFF));
  }
  // The nvRAM interface: an access code to 0x3F once the busy bit clears, then a byte through
  // 0x3E (address low, address high, data to write) or a read of it.
  void NvWait() {
    for (int i = 0; i < 100000 && (Read(1, 0x3F) & 0x80); ++i) continue;
  }
  void Nv(uint8_t code, int data = -1) {
    NvWait();
    Write(1, 0x3F, code);
    if (data >= 0) Write(1, 0x3E, static_cast<uint32_t>(data));
  }
  uint8_t NvRead(uint16_t addr) {
    Nv(0x80, addr & 0xFF), Nv(0xA0, addr >> 8), Nv(0xE0), NvWait();
    return static_cast<uint8_t>(Read(1, 0x3E));
  }
  void NvWrite(uint16_t addr, uint8_t b) { Nv(0x80, addr & 0xFF), Nv(0xA0, addr >> 8), Nv(0x00, b), Nv(0xC0), NvWait(); }
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
  // Steps one record period and takes the record; Advance steps n and returns the last.
  struct_dma_peaks_data& StepNext() {
    EXPECT_EQ(Card().Step(1), 1);
    return Next();
  }
  struct_dma_peaks_data& Advance(int n) {
    for (int i = 1; i < n; ++i) StepNext();
    return StepNext();
  }
  std::shared_ptr<CSimCardProvider> Provider;
  std::unique_ptr<CDeviceFile> File;
  std::array<struct_dma_peaks_data*, kDmaBuffers> Buffers{};
  int LastIndex = -1;
};

}  // namespace simtest
