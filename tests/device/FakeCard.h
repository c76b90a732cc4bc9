// A recording stand-in for "/dev/vr480" and "/dev/pp_driver" for the driver interface's unit
// tests: bridge registers, the mailbox busy bits, the nvRAM state machine, ring addresses,
// client count and the 512 record buffers, with switches for the faults the driver must
// survive. Everything it received is kept for the test to read back.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstring>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "device/CardSeam.h"
#include "device/DriverInterface.h"
#include "device/PeaksData.h"
#include "device/ParallelPort.h"

struct FakeCardState {
  std::mutex Lock;
  // Configuration.
  bool Absent = false;            // opening "/dev/vr480" fails
  uint16_t DeviceId = 0x8882;
  uint16_t DriverRelease = 52;
  std::deque<uint16_t> ClientCounts;  // successive client-count answers; the last one repeats
  int MailboxBusyReads = 1;       // reads of 0x34 that show the mailbox full after a command
  std::atomic<int> MailboxReadPauseUs{0};  // pause after every mailbox status read
  bool NvRamStuckBusy = false;    // the nvRAM busy bit never clears
  int FailMapAt = -1;             // this mapping fails
  std::deque<int> WaitIndices;    // answers of the wait-for-data request
  // What the card received.
  std::vector<unsigned long> Requests;  // every ioctl request, in order
  std::vector<uint32_t> Commands;       // words written to outgoing mailbox 1
  int WritesWhileFull = 0;              // mailbox writes the FPGA had not made room for
  std::vector<size_t> MapLengths;
  int Unmaps = 0;
  bool Closed = false;                  // "/dev/vr480" closed
  bool PpClosed = false;                // "/dev/pp_driver" closed
  std::vector<uint8_t> PpBytes;         // data bytes written to the parallel port
  // Card memory.
  std::map<uint32_t, uint32_t> Registers;
  uint8_t NvRam[256];
  std::vector<struct_dma_peaks_data> Buffers = std::vector<struct_dma_peaks_data>(kDmaBuffers);
  static constexpr uint32_t kBusBase = 0x1F000000;  // bus address of buffer 0; 8192 apart
  FakeCardState() { std::memset(NvRam, 0xFF, sizeof NvRam); }
  // Position of the first occurrence of a request in the log, -1 if never sent.
  int FirstRequest(unsigned long request) {
    std::lock_guard<std::mutex> g(Lock);
    for (size_t i = 0; i < Requests.size(); ++i)
      if (Requests[i] == request) return static_cast<int>(i);
    return -1;
  }
  // Device side (called by the fake device files).
  int Ioctl(unsigned long request, uintptr_t arg) {
    std::lock_guard<std::mutex> g(Lock);
    Requests.push_back(request);
    auto* access = reinterpret_cast<VrRegisterAccess*>(arg);
    auto* u16 = reinterpret_cast<uint16_t*>(arg);
    switch (request) {
      case kVrReadReg8: case kVrReadReg16: case kVrReadReg32:
        access->value = ReadRegister(access->reg) &
                        (request == kVrReadReg8 ? 0xFF : request == kVrReadReg16 ? 0xFFFF : 0xFFFFFFFF);
        return 0;
      case kVrWriteReg8: case kVrWriteReg16: case kVrWriteReg32:
        WriteRegister(access->reg, access->value &
                                       (request == kVrWriteReg8 ? 0xFF : request == kVrWriteReg16 ? 0xFFFF : 0xFFFFFFFF));
        return 0;
      case kVrGetDid: *u16 = DeviceId; return 0;
      case kVrGetDriverVersion: *u16 = DriverRelease; return 0;
      case kVrStart: case kVrDebug: return 0;
      case kVrWaitForData:
        if (WaitIndices.empty()) return -1;
        *u16 = static_cast<uint16_t>(WaitIndices.front());
        WaitIndices.pop_front();
        return 0;
      case kVrDataReady: *u16 = WaitIndices.empty() ? 0 : 1; return 0;
      case kVrGetMwar: *reinterpret_cast<uint32_t*>(arg) = kBusBase + 8192u * *reinterpret_cast<uint32_t*>(arg); return 0;
      case kVrClientCount:
        *u16 = ClientCounts.empty() ? 1 : ClientCounts.front();
        if (ClientCounts.size() > 1) ClientCounts.pop_front();
        return 0;
      case kPpWriteRequest: PpBytes.push_back(static_cast<uint8_t>(arg)); return 0;
      case kPpReadStatusRequest: *reinterpret_cast<uint8_t*>(arg) = 0x78; return 0;
      default: return -1;
    }
  }
  void* Map(int k, size_t length) {  // the k-th mapping of an open
    std::lock_guard<std::mutex> g(Lock);
    MapLengths.push_back(length);
    return k == FailMapAt || k >= kDmaBuffers ? nullptr : &Buffers[k];
  }

 private:
  uint32_t ReadRegister(uint32_t reg) {
    if (reg == kRegMbef) return MailboxFullReads > 0 && MailboxFullReads-- ? 0x0F : 0;
    if (reg == kRegNvControl) return NvRamStuckBusy || (NvBusyPolls > 0 && NvBusyPolls--) ? 0x80 : 0;
    return reg == kRegNvData ? NvReadData : Registers[reg];
  }
  // The nvRAM interface: the access code written to 0x3F decides what the next write to 0x3E
  // means; a read or commit keeps the busy bit up for two polls.
  void WriteRegister(uint32_t reg, uint32_t value) {
    if (reg == kRegOmb1) {
      if (MailboxFullReads > 0) ++WritesWhileFull;
      Commands.push_back(value);
      MailboxFullReads = MailboxBusyReads;
    } else if (reg == kRegNvControl) {
      NvMode = value & 0xE0;
      if (NvMode == 0xE0) NvReadData = NvRam[NvAddr & 0xFF];
      if (NvMode == 0xC0) NvRam[NvAddr & 0xFF] = NvDataLatch;
      if (NvMode == 0xE0 || NvMode == 0xC0) NvBusyPolls = 2;
    } else if (reg == kRegNvData) {
      const uint8_t b = value & 0xFF;
      if (NvMode == 0x80) NvAddr = (NvAddr & 0xFF00) | b;
      else if (NvMode == 0xA0) NvAddr = static_cast<uint16_t>((NvAddr & 0x00FF) | (b << 8));
      else if (NvMode == 0x00) NvDataLatch = b;
    }
    Registers[reg] = value;
  }
  int MailboxFullReads = 0;  // remaining reads of 0x34 that show the mailbox full
  uint8_t NvMode = 0;        // last access code written to 0x3F
  uint16_t NvAddr = 0;
  uint8_t NvDataLatch = 0;
  uint8_t NvReadData = 0;
  int NvBusyPolls = 0;
};

class FakeDeviceFile : public CDeviceFile {
 public:
  FakeDeviceFile(std::shared_ptr<FakeCardState> state, bool pp) : State(std::move(state)), Pp(pp) {}
  int Ioctl(unsigned long request, uintptr_t arg) override {
    int r = State->Ioctl(request, arg);
    // Widen the gap between seeing an empty mailbox and writing it, so that writers who do
    // not hold the mailbox lock collide.
    if (request == kVrReadReg32 && reinterpret_cast<VrRegisterAccess*>(arg)->reg == kRegMbef &&
        State->MailboxReadPauseUs > 0)
      std::this_thread::sleep_for(std::chrono::microseconds(State->MailboxReadPauseUs));
    return r;
  }
  // Like the driver, every open maps the ring from buffer 0 again.
  void* Map(size_t length) override { return State->Map(MapCalls++, length); }
  int Unmap(void*, size_t) override { std::lock_guard<std::mutex> g(State->Lock); ++State->Unmaps; return 0; }
  int Close() override { std::lock_guard<std::mutex> g(State->Lock); (Pp ? State->PpClosed : State->Closed) = true; return 0; }

 private:
  std::shared_ptr<FakeCardState> State;
  bool Pp;
  int MapCalls = 0;
};

class FakeCardProvider : public CCardProvider {
 public:
  FakeCardProvider() : State(std::make_shared<FakeCardState>()) {}
  std::unique_ptr<CDeviceFile> Open(const std::string& devicePath) override {
    if (devicePath == "/dev/vr480" && !State->Absent) return std::make_unique<FakeDeviceFile>(State, false);
    // The LED port shares the card's request log: its requests differ from the card's.
    if (devicePath == "/dev/pp_driver") return std::make_unique<FakeDeviceFile>(State, true);
    return nullptr;
  }
  FakeCardState& Card() { return *State; }

 private:
  std::shared_ptr<FakeCardState> State;
};
