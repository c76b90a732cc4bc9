#include "device/DriverInterface.h"

#include <time.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <thread>

#include "device/ParallelPort.h"

std::mutex C480_DriverInterface::bCmdLocked;

namespace {

constexpr const char* kDevicePath = "/dev/vr480";

// Driver releases from 50 on allow one client only and leave the ring's bus addresses to be
// programmed into the FPGA by the server.
constexpr uint16_t kFirstSingleClientRelease = 50;
constexpr int kClientWaitAttempts = 90;
constexpr unsigned long kOneSecondUs = 1000000;
constexpr unsigned long kNvRamWriteUs = 10000;  // EEPROM programming time per byte
constexpr unsigned long kMailboxTimeoutUs = 20000;
constexpr int kMcsrPolls = 100000;

// nvRAM access control codes written to MCSR byte 3.
constexpr uint8_t kNvLoadAddrLow = 0x80;
constexpr uint8_t kNvLoadAddrHigh = 0xA0;
constexpr uint8_t kNvRead = 0xE0;
constexpr uint8_t kNvLoadData = 0x00;
constexpr uint8_t kNvCommit = 0xC0;
constexpr uint8_t kNvBusy = 0x80;

// Parallel-port data bits wired to the front LEDs.
constexpr uint8_t kPpClientLedBit = 3;
constexpr uint8_t kPpReadyLedBit = 4;

bool ValidChannel(uint8_t ch) { return ch <= 5; }

void RealSleep(unsigned long us) { std::this_thread::sleep_for(std::chrono::microseconds(us)); }

}  // namespace

C480_DriverInterface::C480_DriverInterface(CCardProvider* provider)
    : Provider(provider), Sleeper(RealSleep) {}

C480_DriverInterface::~C480_DriverInterface() = default;

void C480_DriverInterface::SetSleepHook(SleepHook hook) {
  Sleeper = hook ? std::move(hook) : SleepHook(RealSleep);
}

int C480_DriverInterface::Request(unsigned long request, uintptr_t arg) {
  return Device ? Device->Ioctl(request, arg) : -1;
}

// ---------------------------------------------------------------------------------------------
// Opening and closing

// A second process on the driver would take records out of the ring under the server's feet.
// Another instance may be shutting down, so give it time to leave. 0, or -1 if it stays.
int C480_DriverInterface::WaitForDriverClients() {
  uint16_t clients = 0;
  Request(kVrClientCount, reinterpret_cast<uintptr_t>(&clients));
  int attempts = 0;
  while (clients > 1 && attempts < kClientWaitAttempts) {
    Request(kVrClientCount, reinterpret_cast<uintptr_t>(&clients));
    Sleep(kOneSecondUs);
    ++attempts;
    std::printf("Waiting on %d driver clients...%d\r", clients - 1,
                kClientWaitAttempts - attempts);
    std::fflush(stdout);
  }
  // The last attempt may have seen the other client go: only a client still attached fails.
  if (clients > 1) {
    std::printf("Error: a client is already attached to the driver. \n");
    return -1;
  }
  return 0;
}

int C480_DriverInterface::init_vr480() {
  CCardProvider& provider = Provider ? *Provider : Card();
  Device = provider.Open(kDevicePath);
  fd = Device ? 0 : -1;
  if (!Device) {
    std::printf("Error opening /dev/vr480 [%d]\n", fd);
    return -1;
  }

  if (GetDriverVersion() >= kFirstSingleClientRelease) {
    if (WaitForDriverClients() != 0) return -1;
    Sleep(kOneSecondUs);
    SetMWARs();
  }

  Request(kVrStart, 0);

  // The k-th mapping is buffer k of the ring, the one WaitForData later names with index k.
  for (int k = 0; k < kDmaBuffers; ++k) {
    PeaksData[k] = static_cast<struct_dma_peaks_data*>(Device->Map(sizeof(struct_dma_peaks_data)));
    if (!PeaksData[k]) {
      std::printf("Failed to mmap peaks_data[%d].\n", k);
      return -2;
    }
  }

  // Both LEDs off; bit 2 of the port stays set.
  init_pp_driver(Provider);
  pp_shadow = 4;
  pp_write_bit(kPpClientLedBit, 0);
  pp_write_bit(kPpReadyLedBit, 0);
  return 0;
}

int C480_DriverInterface::close_vr480() {
  close_pp_driver();
  for (auto& buffer : PeaksData) {
    if (buffer && Device) Device->Unmap(buffer, sizeof(struct_dma_peaks_data));
    buffer = nullptr;
  }
  int r = Device ? Device->Close() : -1;
  Device.reset();
  fd = -1;
  return r;
}

uint16_t C480_DriverInterface::GetDID() {
  uint16_t id = 0;
  Request(kVrGetDid, reinterpret_cast<uintptr_t>(&id));
  return id;
}

uint16_t C480_DriverInterface::GetDriverVersion() {
  uint16_t release = 0;
  Request(kVrGetDriverVersion, reinterpret_cast<uintptr_t>(&release));
  return release;
}

// ---------------------------------------------------------------------------------------------
// Bridge registers

uint8_t C480_DriverInterface::ReadReg8(uint8_t reg) {
  VrRegisterAccess access{reg, 0};
  Request(kVrReadReg8, reinterpret_cast<uintptr_t>(&access));
  return static_cast<uint8_t>(access.value);
}

uint16_t C480_DriverInterface::ReadReg16(uint8_t reg) {
  VrRegisterAccess access{reg, 0};
  Request(kVrReadReg16, reinterpret_cast<uintptr_t>(&access));
  return static_cast<uint16_t>(access.value);
}

uint32_t C480_DriverInterface::ReadReg32(uint8_t reg) {
  VrRegisterAccess access{reg, 0};
  Request(kVrReadReg32, reinterpret_cast<uintptr_t>(&access));
  return access.value;
}

int C480_DriverInterface::WriteReg8(uint8_t reg, uint8_t value) {
  VrRegisterAccess access{reg, value};
  return Request(kVrWriteReg8, reinterpret_cast<uintptr_t>(&access));
}

int C480_DriverInterface::WriteReg16(uint8_t reg, uint16_t value) {
  VrRegisterAccess access{reg, value};
  return Request(kVrWriteReg16, reinterpret_cast<uintptr_t>(&access));
}

int C480_DriverInterface::WriteReg32(uint8_t reg, uint32_t value) {
  VrRegisterAccess access{reg, value};
  return Request(kVrWriteReg32, reinterpret_cast<uintptr_t>(&access));
}

// ---------------------------------------------------------------------------------------------
// The FPGA mailbox

// Microseconds on the monotonic clock: the server sets the wall clock itself, which must not cut
// a wait short or stretch it. False (with the console text operators know) if it cannot be read.
static bool MonotonicUs(long long* us) {
  timespec t{};
  if (clock_gettime(CLOCK_MONOTONIC, &t) != 0) {
    std::printf("Error executing gettimeofday() function in C480_DriverInterface::WaitForOMBX1()\n");
    return false;
  }
  *us = t.tv_sec * 1000000LL + t.tv_nsec / 1000;
  return true;
}

// The mailbox status byte shows which bytes of outgoing mailbox 1 the FPGA has not yet taken.
int C480_DriverInterface::WaitForOMBX1(unsigned long timeoutUs) {
  if ((ReadReg32(kRegMbef) & 0x0F) == 0) return 0;
  long long start = 0, now = 0;
  if (!MonotonicUs(&start)) return -2;
  do {
    if ((ReadReg32(kRegMbef) & 0x0F) == 0) return 0;
    if (!MonotonicUs(&now)) return -2;
  } while (now - start < static_cast<long long>(timeoutUs));
  std::printf("Warning: timeout on S5335 OMBX1.  Last command is lost.\n");
  return -1;
}

int C480_DriverInterface::FPGA_CMD(uint32_t word) {
  std::lock_guard<std::mutex> lock(bCmdLocked);
  if (WaitForOMBX1(kMailboxTimeoutUs) == 0) return WriteReg32(kRegOmb1, word);
  std::printf("Lost Command: %u  (cmd= %u, arg=%u)\n", word, word >> 24, word & 0xFFFFFF);
  return -1;
}

// ---------------------------------------------------------------------------------------------
// Records

int C480_DriverInterface::WaitForData() {
  uint16_t index = 0;
  if (Request(kVrWaitForData, reinterpret_cast<uintptr_t>(&index)) < 0) return -1;
  if (index >= kDmaBuffers) {
    // Reported at the first and every thousandth one, so a confused driver cannot flood the
    // console at the record rate.
    unsigned n = RejectedIndices++;
    if (n % 1000 == 0)
      std::printf("Driver named record buffer %u outside the ring (%u so far); skipped.\n", index,
                  n + 1);
    return -1;
  }
  return index;
}

// A failed wait or an index outside the ring is not a record: wait for the next one rather than
// hand out a pointer beyond PeaksData (the acquisition loop does not expect GetData to fail).
// A failing request returns at once, so pause a millisecond between retries instead of spinning.
int C480_DriverInterface::GetData(struct_dma_peaks_data** out) {
  for (;;) {
    if (!Device) return -1;
    int k = WaitForData();
    if (k >= 0 && PeaksData[k]) {
      *out = PeaksData[k];
      return 0;
    }
    // An interrupted or failed wait: give up only when the server is stopping (a card that
    // delivers nothing must not keep the process from ending).
    if (StopRequested && StopRequested()) return -1;
    Sleep(1000);
  }
}

uint16_t C480_DriverInterface::DataReady() {
  uint16_t ready = 0;
  Request(kVrDataReady, reinterpret_cast<uintptr_t>(&ready));
  return ready;
}

int C480_DriverInterface::Vr480Debug(unsigned long v) { return Request(kVrDebug, v); }

// ---------------------------------------------------------------------------------------------
// Ring buffer addresses

uint32_t C480_DriverInterface::GetMWAR(uint32_t index) {
  uint32_t value = index;
  if (Request(kVrGetMwar, reinterpret_cast<uintptr_t>(&value)) < 0) return 0;
  return value;
}

int C480_DriverInterface::SetMWAR(int index, uint32_t address) {
  SendCommand(0x38, address & 0xFFFF);
  SendCommand(0x39, address >> 16);
  SendCommand(0x3A, static_cast<uint32_t>(index) & 0xFFFF);
  return 0;
}

int C480_DriverInterface::SetMWARs() {
  for (int k = 0; k < kDmaBuffers; ++k) SetMWAR(k, GetMWAR(static_cast<uint32_t>(k)));
  return 0;
}

// ---------------------------------------------------------------------------------------------
// Configuration memory. MCSR byte 3 selects what the next write of byte 2 means (address low,
// address high, data) and starts reads and commits; bit 7 reads busy while the serial EEPROM
// works.

int C480_DriverInterface::wait_for_mcsr_ready() {
  for (int n = 0; n < kMcsrPolls; ++n) {
    if ((ReadReg8(kRegNvControl) & kNvBusy) == 0) return 0;
  }
  std::printf("MCSR not ready\n");
  return -1;
}

// The bridge takes an nvRAM address one byte at a time through its data register.
void C480_DriverInterface::LatchNvRamAddress(uint16_t addr) {
  wait_for_mcsr_ready();
  WriteReg8(kRegNvControl, kNvLoadAddrLow);
  WriteReg8(kRegNvData, static_cast<uint8_t>(addr & 0xFF));
  wait_for_mcsr_ready();
  WriteReg8(kRegNvControl, kNvLoadAddrHigh);
  WriteReg8(kRegNvData, static_cast<uint8_t>(addr >> 8));
}

uint8_t C480_DriverInterface::nvRAM_read(uint16_t addr) {
  LatchNvRamAddress(addr);
  wait_for_mcsr_ready();
  WriteReg8(kRegNvControl, kNvRead);
  wait_for_mcsr_ready();
  return ReadReg8(kRegNvData);
}

int C480_DriverInterface::nvRAM_write(uint16_t addr, uint8_t value) {
  LatchNvRamAddress(addr);
  wait_for_mcsr_ready();
  WriteReg8(kRegNvControl, kNvLoadData);
  wait_for_mcsr_ready();
  WriteReg8(kRegNvData, value);
  WriteReg8(kRegNvControl, kNvCommit);
  wait_for_mcsr_ready();
  Sleep(kNvRamWriteUs);
  return 0;
}

uint8_t C480_DriverInterface::GetNvRamRev() { return nvRAM_read(kNvRamRevisionAddr); }

int C480_DriverInterface::read_nvRAM_SN(char* sn) {
  for (int i = 0; i < kSerialNumberLength; ++i)
    sn[i] = static_cast<char>(nvRAM_read(static_cast<uint16_t>(kNvRamSerialAddr + i)));
  return 0;
}

int C480_DriverInterface::write_nvRAM_SN(char* sn) {
  for (int i = 0; i < kSerialNumberLength; ++i)
    nvRAM_write(static_cast<uint16_t>(kNvRamSerialAddr + i), static_cast<uint8_t>(sn[i]));
  return 0;
}

int C480_DriverInterface::clear_device() {
  for (uint16_t a = 0; a < 128; ++a) nvRAM_write(a, 0xFF);
  return 0;
}

int C480_DriverInterface::make_ZOR_device() {
  if (GetDriverVersion() >= kFirstSingleClientRelease) {
    std::printf("** Warning: No RID was specified.  Assuming a Rev. 3 ZOR device... **\n");
    return make_ZOR_device(3);
  }
  std::printf("** Warning: No RID was specified.  Assuming a Rev. 2 ZOR device... **\n");
  return make_ZOR_device(2);
}

// The bridge loads its PCI configuration from this image at power-up: vendor 0x10E8, device
// 0x8882, the revision at 0x48. Revisions differ in the class code byte 0x45 and in 0x4D/0x7E.
int C480_DriverInterface::make_ZOR_device(int rid) {
  auto fill = [this](uint16_t from, uint16_t to, uint8_t value) {
    for (uint16_t a = from; a <= to; ++a) nvRAM_write(a, value);
  };
  fill(0x00, 0x3F, 0xFF);

  nvRAM_write(0x40, 0xE8);
  nvRAM_write(0x41, 0x10);
  nvRAM_write(0x42, 0x82);
  nvRAM_write(0x43, 0x88);
  nvRAM_write(0x44, 0x00);

  uint8_t classByte = 0x01, revision = 3, byte4D = 0xFF, byte7E = 0xFF;
  if (rid == 2) {
    classByte = 0x81, revision = 2;
  } else if (rid == 1) {
    classByte = 0x81, revision = 1, byte4D = 0x00, byte7E = 0x00;
  }
  nvRAM_write(0x45, classByte);
  nvRAM_write(0x48, revision);
  nvRAM_write(0x4D, byte4D);
  nvRAM_write(0x7E, byte7E);

  nvRAM_write(0x46, 0x00);
  nvRAM_write(0x47, 0x00);
  nvRAM_write(0x49, 0x00);
  nvRAM_write(0x4A, 0x00);
  nvRAM_write(0x4B, 0xFF);
  nvRAM_write(0x4C, 0x00);
  nvRAM_write(0x4E, 0x00);
  nvRAM_write(0x4F, 0x00);
  nvRAM_write(0x50, 0xC1);
  nvRAM_write(0x51, 0xFF);
  nvRAM_write(0x52, 0xE8);
  nvRAM_write(0x53, 0x10);
  fill(0x54, 0x67, 0x00);
  fill(0x68, 0x6F, 0x00);
  fill(0x70, 0x73, 0x00);
  fill(0x74, 0x7B, 0x00);
  nvRAM_write(0x7C, 0xFF);
  nvRAM_write(0x7D, 0x01);
  nvRAM_write(0x7F, 0x00);

  fill(0x80, 0xFF, 0xFF);
  return 0;
}

// ---------------------------------------------------------------------------------------------
// Laser, sweep and acquisition settings

int C480_DriverInterface::EnableDMA(bool b) { return SendCommand(0x01, b); }

int C480_DriverInterface::EnableSOA(bool b) { return SendCommand(0x19, b); }

int C480_DriverInterface::SetAnalogVout(uint8_t ch, uint16_t v) { return 0; }

int C480_DriverInterface::SetHwClkDivider(bool b) {
  bHwClkDivider = b;
  return SendCommand(0x0C, b);
}

int C480_DriverInterface::SetDataRateDivider(uint16_t v) {
  DataRateDivider = v;
  return SendCommand(0x17, v);
}

int C480_DriverInterface::SetPztSyncOffset(uint16_t v) {
  PztSyncOffset = v;
  return SendCommand(0x16, v);
}

int C480_DriverInterface::SetExtSyncEdge(bool b) {
  ExtSyncEdge = b;
  return SendCommand(0x0A, b);
}

int C480_DriverInterface::SetSOADrive(uint16_t v) {
  SOADrive = v;
  return SendCommand(0x18, v);
}

int C480_DriverInterface::SetScanAmp(uint16_t v) {
  ScanAmp = v;
  return SendCommand(0x04, v);
}

int C480_DriverInterface::SetBias(uint16_t v) {
  Bias = v;
  return SendCommand(0x03, v);
}

int C480_DriverInterface::SetFpgaDebug(uint32_t v) {
  FpgaDebug = v & 0xFFFFFF;
  return SendCommand(0x14, FpgaDebug);
}

int C480_DriverInterface::SetLayer0IndexOffset(uint8_t v) {
  Layer0IndexOffset = v;
  return SendCommand(0x1D, v);
}

int C480_DriverInterface::SetFsAlignPatternEnable(bool b) {
  FsAlignPatternEnable = b;
  return SendCommand(0x1E, b);
}

int C480_DriverInterface::SetOperatingMode(uint16_t m) {
  OperatingMode = m & 3;
  return SendCommand(0x20, OperatingMode);
}

int C480_DriverInterface::SetMaxDutPeaks(uint16_t n) {
  MaxDutPeaks = n;
  return SendCommand(0x2F, n);
}

int C480_DriverInterface::Set2khzMode(bool b) {
  b2khzMode = b;
  return SendCommand(0x30, b);
}

int C480_DriverInterface::SetSoaOnCount(uint32_t n) {
  SoaOnCount = n & 0x1FFFF;
  return SendCommand(0x2D, SoaOnCount);
}

int C480_DriverInterface::SetSoaOffCount(uint32_t n) {
  SoaOffCount = n & 0x1FFFF;
  return SendCommand(0x2E, SoaOffCount);
}

int C480_DriverInterface::SetSyncHiCount(uint32_t n) {
  SyncHiCount = n & 0x1FFFF;
  return SendCommand(0x31, SyncHiCount);
}

int C480_DriverInterface::SetSyncLoCount(uint32_t n) {
  SyncLoCount = n & 0x1FFFF;
  return SendCommand(0x32, SyncLoCount);
}

int C480_DriverInterface::SetDisablePztLPF(bool b) {
  DisablePztLPF = b;
  return SendCommand(0x36, b);
}

int C480_DriverInterface::SetSwapP68P155(bool b) {
  SwapP68P155 = b;
  return SendCommand(0x2C, b);
}

int C480_DriverInterface::SetEnableOptoA(bool b) {
  EnableOptoA = b;
  return SendCommand(0x2A, b);
}

int C480_DriverInterface::SetEnableOptoB(bool b) {
  EnableOptoB = b;
  return SendCommand(0x2B, b);
}

int C480_DriverInterface::SetTestSyncOutDivider(uint16_t v) {
  TestSyncOutDivider = v;
  return SendCommand(0x37, v);
}

int C480_DriverInterface::SetIntIntlvPwr(uint8_t v) {
  IntIntlvPwr = v;
  return SendCommand(0x3B, v);
}

// ---------------------------------------------------------------------------------------------
// Triggered acquisition

int C480_DriverInterface::SetTrigEnable(bool b) {
  TrigEnable = b;
  return SendCommand(0x21, b);
}

int C480_DriverInterface::SetTrigSource(uint8_t s) {
  TrigSource = s & 1;
  return SendCommand(0x22, TrigSource);
}

int C480_DriverInterface::SwStartTrig() { return SendCommand(0x23, 0); }

int C480_DriverInterface::SwStopTrig() { return SendCommand(0x24, 0); }

int C480_DriverInterface::SetTrigStartEdge(bool b) {
  TrigStartEdge = b;
  return SendCommand(0x26, b);
}

int C480_DriverInterface::SetTrigStopEdge(bool b) {
  TrigStopEdge = b;
  return SendCommand(0x27, b);
}

int C480_DriverInterface::SetTrigStopType(uint8_t t) {
  TrigStopType = t;
  return SendCommand(0x25, t != 0 ? 1 : 0);
}

int C480_DriverInterface::SetTrigAcqTime(uint32_t t) {
  TrigAcqTime = t & 0xFFFFFF;
  return SendCommand(0x28, TrigAcqTime);
}

int C480_DriverInterface::SetAutoReTrig(bool b) {
  AutoReTrig = b;
  return SendCommand(0x29, b);
}

// ---------------------------------------------------------------------------------------------
// Detector channels. Gain and threshold address their channel as 0x30 + ch in the argument's
// top byte; the peak-timing commands take the bare channel number.

int C480_DriverInterface::SetChGain(uint8_t ch, uint16_t v) {
  if (!ValidChannel(ch)) return -1;
  ChGain[ch] = v;
  return SendChannelCommand(0x06, static_cast<uint8_t>(0x30 + ch), v);
}

int C480_DriverInterface::SetChThresh(uint8_t ch, uint16_t v) {
  if (!ValidChannel(ch)) return -1;
  ChThresh[ch] = v;
  return SendChannelCommand(0x0D, static_cast<uint8_t>(0x30 + ch), v);
}

int C480_DriverInterface::SetChLockoutPeriod(uint8_t ch, uint16_t v) {
  if (!ValidChannel(ch)) return -1;
  ChLockoutPeriod[ch] = v;
  return SendChannelCommand(0x0E, ch, v);
}

int C480_DriverInterface::SetChNoiseThreshEnabled(uint8_t ch, bool b) {
  if (!ValidChannel(ch)) return -1;
  ChNoiseThreshEnabled[ch] = b;
  return SendChannelCommand(0x0F, ch, b);
}

int C480_DriverInterface::SetChNtValidPeriod(uint8_t ch, uint16_t v) {
  if (!ValidChannel(ch)) return -1;
  ChNtValidPeriod[ch] = v;
  return SendChannelCommand(0x10, ch, v);
}

int C480_DriverInterface::SetChNtvResetOnZc(uint8_t ch, bool b) {
  if (!ValidChannel(ch)) return -1;
  ChNtvResetOnZc[ch] = b;
  return SendChannelCommand(0x11, ch, b);
}

// ---------------------------------------------------------------------------------------------
// Amplitude converter

int C480_DriverInterface::SetAmpCh(uint8_t ch) {
  AmpCh = ch;
  return SendCommand(0x12, Ad7329.SelectInputChannel(ch));
}

int C480_DriverInterface::WriteAd7329ControlRegister(uint16_t v) {
  return SendCommand(0x12, Ad7329.WriteControlRegister(v));
}

int C480_DriverInterface::WriteAd7329SequenceRegister(uint16_t v) {
  return SendCommand(0x12, Ad7329.WriteSequenceRegister(v));
}

int C480_DriverInterface::WriteAd7329RangeRegister1(uint16_t v) {
  return SendCommand(0x12, Ad7329.WriteRangeRegister1(v));
}

int C480_DriverInterface::WriteAd7329RangeRegister2(uint16_t v) {
  return SendCommand(0x12, Ad7329.WriteRangeRegister2(v));
}

// ---------------------------------------------------------------------------------------------
// Front LEDs (lit both on the parallel port and by the FPGA) and fans

int C480_DriverInterface::SetClientLed(bool b) {
  ClientLed = b;
  pp_write_bit(kPpClientLedBit, b);
  return SendCommand(0x08, b);
}

int C480_DriverInterface::SetReadyLed(bool b) {
  ReadyLed = b;
  pp_write_bit(kPpReadyLedBit, b);
  return SendCommand(0x07, b);
}

// 0 would keep the fan running for ever, and above 150 degC it would never start.
static uint8_t ClampFanTemp(uint8_t t) { return std::clamp<uint8_t>(t, 1, 150); }

int C480_DriverInterface::SetFan1ControlTemp(uint8_t t) {
  Fan1ControlTemp = ClampFanTemp(t);
  return SendCommand(0x09, Fan1ControlTemp);
}

int C480_DriverInterface::SetFan2ControlTemp(uint8_t t) {
  Fan2ControlTemp = ClampFanTemp(t);
  return SendCommand(0x0B, Fan2ControlTemp);
}

int C480_DriverInterface::SetFan1TempHysteresis(uint8_t h) {
  Fan1TempHysteresis = h;
  return SendCommand(0x1A, h);
}

int C480_DriverInterface::SetFan2TempHysteresis(uint8_t h) {
  Fan2TempHysteresis = h;
  return SendCommand(0x1B, h);
}

// ---------------------------------------------------------------------------------------------
// Getters: the shadows

uint16_t C480_DriverInterface::GetAnalogVout(uint8_t ch) { return ch <= 7 ? AnalogVout[ch].load() : 0; }
bool C480_DriverInterface::GetHwClkDivider_() { return bHwClkDivider; }
uint16_t C480_DriverInterface::GetDataRateDivider() { return DataRateDivider; }
uint16_t C480_DriverInterface::GetPztSyncOffset() { return PztSyncOffset; }
bool C480_DriverInterface::GetExtSyncEdge() { return ExtSyncEdge; }
uint16_t C480_DriverInterface::GetSOADrive() { return SOADrive; }
uint16_t C480_DriverInterface::GetScanAmp() { return ScanAmp; }
uint16_t C480_DriverInterface::GetBias() { return Bias; }
uint16_t C480_DriverInterface::GetChGain(uint8_t ch) { return ValidChannel(ch) ? ChGain[ch].load() : 0; }
uint16_t C480_DriverInterface::GetChThresh(uint8_t ch) {
  return ValidChannel(ch) ? ChThresh[ch].load() : 0;
}
uint8_t C480_DriverInterface::GetAmpCh() { return AmpCh; }
bool C480_DriverInterface::GetClientLed() { return ClientLed; }
bool C480_DriverInterface::GetReadyLed() { return ReadyLed; }
uint16_t C480_DriverInterface::GetChLockoutPeriod(uint8_t ch) {
  return ValidChannel(ch) ? ChLockoutPeriod[ch].load() : 0;
}
uint16_t C480_DriverInterface::GetChNtValidPeriod(uint8_t ch) {
  return ValidChannel(ch) ? ChNtValidPeriod[ch].load() : 0;
}
bool C480_DriverInterface::GetChNoiseThreshEnabled(uint8_t ch) {
  return ValidChannel(ch) ? ChNoiseThreshEnabled[ch].load() : false;
}
bool C480_DriverInterface::GetChNtvResetOnZc(uint8_t ch) {
  return ValidChannel(ch) ? ChNtvResetOnZc[ch].load() : false;
}
uint32_t C480_DriverInterface::GetFpgaDebug() { return FpgaDebug; }
uint8_t C480_DriverInterface::GetLayer0IndexOffset() { return Layer0IndexOffset; }
bool C480_DriverInterface::GetFsAlignPatternEnable() { return FsAlignPatternEnable; }
uint16_t C480_DriverInterface::GetOperatingMode() { return OperatingMode; }
uint8_t C480_DriverInterface::GetTrigEnable() { return TrigEnable; }
uint8_t C480_DriverInterface::GetTrigSource() { return TrigSource; }
uint8_t C480_DriverInterface::GetTrigStartEdge() { return TrigStartEdge; }
uint8_t C480_DriverInterface::GetTrigStopEdge() { return TrigStopEdge; }
uint8_t C480_DriverInterface::GetTrigStopType() { return TrigStopType; }
uint32_t C480_DriverInterface::GetTrigAcqTime() { return TrigAcqTime; }
bool C480_DriverInterface::GetAutoReTrig() { return AutoReTrig; }
bool C480_DriverInterface::GetEnableOptoA() { return EnableOptoA; }
bool C480_DriverInterface::GetEnableOptoB() { return EnableOptoB; }
bool C480_DriverInterface::GetSwapP68P155() { return SwapP68P155; }
uint32_t C480_DriverInterface::GetSoaOnCount() { return SoaOnCount; }
uint32_t C480_DriverInterface::GetSoaOffCount() { return SoaOffCount; }
uint16_t C480_DriverInterface::GetMaxDutPeaks() { return MaxDutPeaks; }
bool C480_DriverInterface::Get2khzMode() { return b2khzMode; }
uint32_t C480_DriverInterface::GetSyncHiCount() { return SyncHiCount; }
uint32_t C480_DriverInterface::GetSyncLoCount() { return SyncLoCount; }
bool C480_DriverInterface::GetDisablePztLPF() { return DisablePztLPF; }
uint16_t C480_DriverInterface::GetTestSyncOutDivider() { return TestSyncOutDivider; }
uint8_t C480_DriverInterface::GetFan1ControlTemp() { return Fan1ControlTemp; }
uint8_t C480_DriverInterface::GetFan2ControlTemp() { return Fan2ControlTemp; }
uint8_t C480_DriverInterface::GetFan1TempHysteresis() { return Fan1TempHysteresis; }
uint8_t C480_DriverInterface::GetFan2TempHysteresis() { return Fan2TempHysteresis; }
uint8_t C480_DriverInterface::GetIntIntlvPwr() { return IntIntlvPwr; }
