#include "device/FakeCard.h"

#include <chrono>
#include <cstring>
#include <thread>

#include "device/DriverInterface.h"
#include "device/ParallelPort.h"

FakeCardState::FakeCardState() { std::memset(NvRam, 0xFF, sizeof NvRam); }

int FakeCardState::FirstRequest(unsigned long request) {
  std::lock_guard<std::mutex> g(Lock);
  for (size_t i = 0; i < Requests.size(); ++i)
    if (Requests[i] == request) return static_cast<int>(i);
  return -1;
}

std::vector<uint32_t> FakeCardState::CommandsWithCode(uint8_t code) {
  std::lock_guard<std::mutex> g(Lock);
  std::vector<uint32_t> out;
  for (uint32_t w : Commands)
    if ((w >> 24) == code) out.push_back(w);
  return out;
}

uint32_t FakeCardState::ReadRegister(uint32_t reg) {
  if (reg == kRegMbef) {
    if (MailboxStalled) return 0x0F;
    if (MailboxFullReads > 0) {
      --MailboxFullReads;
      return 0x0F;
    }
    return 0;
  }
  if (reg == kRegNvControl) {
    if (NvRamStuckBusy) return 0x80;
    if (NvBusyPolls > 0) {
      --NvBusyPolls;
      return 0x80;
    }
    return 0;
  }
  if (reg == kRegNvData) return NvReadData;
  return Registers[reg];
}

// The nvRAM interface: the access code written to 0x3F decides what the next write to 0x3E
// means; a read or commit keeps the busy bit up for two polls.
void FakeCardState::WriteRegister(uint32_t reg, uint32_t value) {
  if (reg == kRegOmb1) {
    if (MailboxStalled || MailboxFullReads > 0) ++WritesWhileFull;
    Commands.push_back(value);
    MailboxFullReads = MailboxBusyReads;
  } else if (reg == kRegNvControl) {
    NvMode = value & 0xE0;
    if (NvMode == 0xE0) {
      NvReadData = NvRam[NvAddr & 0xFF];
      NvBusyPolls = 2;
    } else if (NvMode == 0xC0) {
      NvRam[NvAddr & 0xFF] = NvDataLatch;
      NvBusyPolls = 2;
    }
  } else if (reg == kRegNvData) {
    uint8_t b = value & 0xFF;
    if (NvMode == 0x80) NvAddr = (NvAddr & 0xFF00) | b;
    else if (NvMode == 0xA0) NvAddr = static_cast<uint16_t>((NvAddr & 0x00FF) | (b << 8));
    else if (NvMode == 0x00) NvDataLatch = b;
  }
  Registers[reg] = value;
}

int FakeCardState::Ioctl(unsigned long request, uintptr_t arg) {
  std::lock_guard<std::mutex> g(Lock);
  Requests.push_back(request);
  auto* access = reinterpret_cast<VrRegisterAccess*>(arg);
  auto* u16 = reinterpret_cast<uint16_t*>(arg);
  switch (request) {
    case kVrReadReg8:
      access->value = ReadRegister(access->reg) & 0xFF;
      return 0;
    case kVrReadReg16:
      access->value = ReadRegister(access->reg) & 0xFFFF;
      return 0;
    case kVrReadReg32:
      access->value = ReadRegister(access->reg);
      return 0;
    case kVrWriteReg8:
      WriteRegister(access->reg, access->value & 0xFF);
      return 0;
    case kVrWriteReg16:
      WriteRegister(access->reg, access->value & 0xFFFF);
      return 0;
    case kVrWriteReg32:
      WriteRegister(access->reg, access->value);
      return 0;
    case kVrGetDid:
      *u16 = DeviceId;
      return 0;
    case kVrGetDriverVersion:
      *u16 = DriverRelease;
      return 0;
    case kVrStart:
    case kVrDebug:
      return 0;
    case kVrWaitForData:
      if (WaitIndices.empty()) return -1;
      *u16 = static_cast<uint16_t>(WaitIndices.front());
      WaitIndices.pop_front();
      return 0;
    case kVrDataReady:
      *u16 = WaitIndices.empty() ? 0 : 1;
      return 0;
    case kVrGetMwar: {
      auto* p = reinterpret_cast<uint32_t*>(arg);
      *p = kBusBase + 8192u * *p;
      return 0;
    }
    case kVrClientCount:
      *u16 = ClientCounts.empty() ? 1 : ClientCounts.front();
      if (ClientCounts.size() > 1) ClientCounts.pop_front();
      return 0;
    case kPpWriteRequest:
      PpBytes.push_back(static_cast<uint8_t>(arg));
      return 0;
    case kPpReadStatusRequest:
      *reinterpret_cast<uint8_t*>(arg) = 0x78;
      return 0;
    default:
      return -1;
  }
}

void* FakeCardState::Map(int k, size_t length) {
  std::lock_guard<std::mutex> g(Lock);
  MapLengths.push_back(length);
  if (k == FailMapAt || k >= kDmaBuffers) return nullptr;
  return &Buffers[k];
}

namespace {

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
  int Unmap(void*, size_t) override {
    std::lock_guard<std::mutex> g(State->Lock);
    ++State->Unmaps;
    return 0;
  }
  int Close() override {
    std::lock_guard<std::mutex> g(State->Lock);
    (Pp ? State->PpClosed : State->Closed) = true;
    return 0;
  }

 private:
  std::shared_ptr<FakeCardState> State;
  bool Pp;
  int MapCalls = 0;
};

}  // namespace

std::unique_ptr<CDeviceFile> FakeCardProvider::Open(const std::string& devicePath) {
  if (devicePath == "/dev/vr480" && !State->Absent) return std::make_unique<FakeDeviceFile>(State, false);
  // The LED port shares the card's request log: its requests differ from the card's.
  if (devicePath == "/dev/pp_driver") return std::make_unique<FakeDeviceFile>(State, true);
  return nullptr;
}
