#include "sim/SimDevice.h"

#include <algorithm>
#include <cerrno>

namespace sim {

namespace {

constexpr uint32_t kRegisterSpace = 0x40;
constexpr uint32_t kFifoPort = 0x20;
constexpr size_t kFifoDepth = 8;  // words the bridge's FIFO holds
constexpr uint32_t kMailboxStatus = 0x34;
constexpr uint32_t kMasterControl = 0x3C;
// Master control/status after reset: both FIFOs empty, transfer counts zero, bus-master
// writes enabled.
constexpr uint32_t kMasterControlReset = 0x000004E4;

int32_t Signed24(uint32_t arg) { return static_cast<int32_t>((arg ^ 0x800000u) - 0x800000u); }

template <typename T>
T* Pointer(uintptr_t arg) {
  return reinterpret_cast<T*>(arg);
}

}  // namespace

CSimDevice::CSimDevice(std::mutex& cardLock, CSimInstrument& instrument, CSimRing& ring,
                       std::unique_ptr<CSimNvram> nvram, uint16_t deviceIdOverride, uint16_t release)
    : CardLock(cardLock), Instrument(instrument), Ring(ring), Memory(std::move(nvram)), Release(release) {
  // Power-up: the bridge loads its identity from the configuration memory once.
  LatchedDeviceId = deviceIdOverride != 0 ? deviceIdOverride : Memory->DeviceIdFromContent();
  Registers[kMasterControl / 4] = kMasterControlReset;
}

int CSimDevice::Ioctl(unsigned long req, uintptr_t arg, const std::atomic<bool>& closed) {
  switch (req) {
    case request::kWaitForData: {
      // Holds only the ring's lock while it blocks.
      if (!arg) return -1;
      const int slot = Ring.WaitForData(closed);
      if (slot < 0) {
        errno = EINTR;  // as if a signal had interrupted the wait
        return -1;
      }
      *Pointer<uint16_t>(arg) = static_cast<uint16_t>(slot);
      return 0;
    }
    case request::kDataReady:
      if (!arg) return -1;
      *Pointer<uint16_t>(arg) = Ring.DataReady() ? 1 : 0;
      return 0;
    case request::kStart: {
      std::lock_guard<std::mutex> g(CardLock);
      // Drivers from release 50 on hand the FPGA each buffer's bus address; the card then
      // fills only buffers it was told about.
      Ring.RequireProgrammedAddresses(Release >= 50);
      Ring.Arm();
      return 0;
    }
    default: break;
  }

  std::lock_guard<std::mutex> g(CardLock);
  switch (req) {
    case request::kReadReg8:
    case request::kReadReg16:
    case request::kReadReg32: {
      if (!arg) return -1;
      auto* access = Pointer<CRegisterAccess>(arg);
      const int width = req == request::kReadReg8 ? 1 : req == request::kReadReg16 ? 2 : 4;
      uint32_t value = 0;
      if (ReadRegister(access->Reg, width, &value) != 0) return -1;
      access->Value = value;
      return static_cast<int>(value);
    }
    case request::kWriteReg8:
    case request::kWriteReg16:
    case request::kWriteReg32: {
      if (!arg) return -1;
      const auto* access = Pointer<CRegisterAccess>(arg);
      const int width = req == request::kWriteReg8 ? 1 : req == request::kWriteReg16 ? 2 : 4;
      return WriteRegister(access->Reg, width, access->Value);
    }
    case request::kDeviceId:
      if (!arg) return -1;
      *Pointer<uint16_t>(arg) = LatchedDeviceId;
      return 0;
    case request::kDriverRelease:
      if (!arg) return -1;
      *Pointer<uint16_t>(arg) = Release;
      return 0;
    case request::kDebug:
      Debug.push_back(static_cast<unsigned long>(arg));
      return 0;
    case request::kBusAddress: {
      if (!arg) return -1;
      auto* p = Pointer<uint32_t>(arg);
      if (*p >= static_cast<uint32_t>(kDmaBuffers)) return -1;
      *p = CSimRing::BusAddress(static_cast<int>(*p));
      return 0;
    }
    case request::kClientCount:
      if (!arg) return -1;
      if (ClientCountReads == 0) {
        *Pointer<uint16_t>(arg) = 1;
      } else {
        *Pointer<uint16_t>(arg) = ClientCount;
        if (ClientCountReads > 0) --ClientCountReads;
      }
      return 0;
    default:
      return -1;
  }
}

void* CSimDevice::MapBuffer(int k) {
  std::lock_guard<std::mutex> g(CardLock);
  if (k == FailMapIndex) {
    FailMapIndex = -1;  // fails once
    return nullptr;
  }
  return Ring.Buffer(k % kDmaBuffers);
}

int CSimDevice::ReadRegister(uint32_t reg, int width, uint32_t* value) {
  if (reg >= kRegisterSpace || (reg & 3) + width > 4) return -1;
  const uint32_t shift = 8 * (reg & 3);
  const uint32_t mask = width == 4 ? 0xFFFFFFFFu : (1u << (8 * width)) - 1;
  const uint32_t word = ReadWord(reg & ~3u, mask << shift);
  *value = (word >> shift) & mask;
  return 0;
}

uint32_t CSimDevice::ReadWord(uint32_t aligned, uint32_t byteMask) {
  switch (aligned) {
    case 0x10: return LastControl;
    case 0x14: return Instrument.LastAppliedWord();
    case 0x18: return LostCount;
    case 0x1C: return static_cast<uint32_t>(Ring.Overruns());
    case kFifoPort: {
      ++FifoReadCount;
      if (Fifo.empty()) return 0;
      const uint32_t word = Fifo.front();
      Fifo.pop_front();
      return word;
    }
    case kMailboxStatus: {
      const uint32_t v = Registers[aligned / 4] | (bMailboxFull ? 0xFu : 0u);
      // The FPGA notices the word right after the driver has seen the mailbox full once.
      if (bMailboxFull && !bStalled && (byteMask & 0xFF)) TakeMailbox();
      return v;
    }
    case kMasterControl: {
      uint32_t v = Registers[aligned / 4] & 0xFFFF;
      v |= static_cast<uint32_t>(Memory->ReadData()) << 16;
      // Only a read that includes byte 0x3F counts as a busy poll.
      if (byteMask & 0xFF000000u) v |= static_cast<uint32_t>(Memory->ReadControl()) << 24;
      return v;
    }
    default: return Registers[aligned / 4];
  }
}

int CSimDevice::WriteRegister(uint32_t reg, int width, uint32_t value) {
  if (reg >= kRegisterSpace || (reg & 3) + width > 4) return -1;
  const uint32_t aligned = reg & ~3u;
  const uint32_t shift = 8 * (reg & 3);
  const uint32_t mask = (width == 4 ? 0xFFFFFFFFu : (1u << (8 * width)) - 1) << shift;
  const uint32_t word = (Registers[aligned / 4] & ~mask) | ((value << shift) & mask);
  switch (aligned) {
    case 0x00:
      Registers[0] = word;
      WriteFpgaCommand(word);
      break;
    case 0x10:
      Registers[aligned / 4] = word;
      ControlWord(word);
      break;
    case kFifoPort:
      if (Fifo.size() < kFifoDepth) Fifo.push_back(value);  // a full FIFO ignores the write
      break;
    case 0x14: case 0x18: case 0x1C: case kMailboxStatus:
      break;  // read-backs and status: writes have no effect
    case kMasterControl:
      Registers[aligned / 4] = (Registers[aligned / 4] & 0xFFFF0000u) | (word & 0xFFFF);
      // Data byte before the control byte, so a combined write commits the new data.
      if (mask & 0x00FF0000u) Memory->WriteData(static_cast<uint8_t>(word >> 16));
      if (mask & 0xFF000000u) Memory->WriteControl(static_cast<uint8_t>(word >> 24));
      break;
    default:
      Registers[aligned / 4] = word;
      break;
  }
  return 0;
}

void CSimDevice::WriteFpgaCommand(uint32_t word) {
  Instrument.LogCommand(word);
  if (bMailboxFull && !bStalled) ++LostCount;  // overwritten before the FPGA took it
  if (bStalled) ++LostCount;                   // will never be taken
  bMailboxFull = true;
}

void CSimDevice::TakeMailbox() {
  if (!bMailboxFull) return;
  bMailboxFull = false;
  Instrument.Accept(Registers[0]);
}

void CSimDevice::TakeMailboxAtSweep() {
  if (!bStalled) TakeMailbox();
}

void CSimDevice::SetMailboxStall(bool stalled) {
  if (bStalled && !stalled) bMailboxFull = false;  // the stuck word is dropped, already counted
  bStalled = stalled;
}

std::array<uint32_t, 3> CSimDevice::AnalogOutputs() const { return {Registers[1], Registers[2], Registers[3]}; }

void CSimDevice::ControlWord(uint32_t word) {
  const uint32_t arg = word & 0xFFFFFF;
  LastControl = word;
  switch (word >> 24) {
    case 0x01: Instrument.TriggerEdge((arg & 1) != 0); break;
    case 0x02: SetMailboxStall((arg & 1) != 0); break;
    case 0x03: FailMapIndex = static_cast<int>(arg); break;
    case 0x04: Instrument.SetInternalTemperature(Signed24(arg) / 128.0, 0.0); break;
    case 0x05: Instrument.SetGratingTemperature(Signed24(arg) / 128.0); break;
    case 0x06: Instrument.Environment().MasterDivider = static_cast<uint16_t>(std::clamp<uint32_t>(arg, 1, 65535)); break;
    case 0x07: Instrument.Optics().CalibrationErrorFsr = Signed24(arg) / 1000.0; break;
    case 0x08: if (arg > 0) Instrument.Optics().CombFsrGhz = arg / 1000.0; break;
    case 0x09: Instrument.Optics().ScanGainThzPerLsb = arg * 1e-9; break;
    case 0x0A: Instrument.Faults().CombPeakLimit = arg == 0xFFFFFF ? -1 : static_cast<int>(arg); break;
    case 0x0B: Instrument.Faults().bNoGrating = (arg & 1) != 0; break;
    case 0x0C: Instrument.Faults().ExtraGratingPeaks = static_cast<int>(std::min<uint32_t>(arg, 8)); break;
    case 0x0D: Instrument.Faults().SpuriousDutChannel = arg >= 1 && arg <= 4 ? static_cast<int>(arg) - 1 : -1; break;
    default: break;
  }
}

}  // namespace sim
