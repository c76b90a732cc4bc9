#include "device/DriverInterface.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstring>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "device/CardSeam.h"
#include "device/ParallelPort.h"
#include "device/PeaksData.h"

using testing::internal::CaptureStdout;
using testing::internal::GetCapturedStdout;

namespace {

// A recording stand-in for "/dev/vr480" and "/dev/pp_driver": bridge registers, mailbox busy
// bits, the nvRAM state machine, ring addresses, client count and the 512 record buffers, with
// switches for the faults the driver must survive, and everything it received.
struct FakeCardState {
  std::mutex Lock;
  bool Absent = false, NvRamStuckBusy = false;  // opening "/dev/vr480" fails; nvRAM busy forever
  uint16_t DeviceId = 0x8882, DriverRelease = 52;
  std::deque<uint16_t> ClientCounts;  // successive client-count answers; the last one repeats
  int MailboxBusyReads = 1;       // reads of 0x34 that show the mailbox full after a command
  std::atomic<int> MailboxReadPauseUs{0};  // pause after every mailbox status read
  int FailMapAt = -1;             // this mapping fails
  std::deque<int> WaitIndices;    // answers of the wait-for-data request
  std::vector<unsigned long> Requests;  // every ioctl request, in order
  std::vector<uint32_t> Commands;       // words written to outgoing mailbox 1
  int WritesWhileFull = 0, Unmaps = 0;  // mailbox writes the FPGA had not made room for
  std::vector<size_t> MapLengths;
  bool Closed = false, PpClosed = false;
  std::vector<uint8_t> PpBytes;         // data bytes written to the parallel port
  std::map<uint32_t, uint32_t> Registers;
  uint8_t NvRam[256];
  std::vector<struct_dma_peaks_data> Buffers = std::vector<struct_dma_peaks_data>(kDmaBuffers);
  static constexpr uint32_t kBusBase = 0x1F000000;  // bus address of buffer 0; 8192 apart
  FakeCardState() { std::memset(NvRam, 0xFF, sizeof NvRam); }
  int FirstRequest(unsigned long request) {  // -1 if never sent
    std::lock_guard<std::mutex> g(Lock);
    const auto at = std::find(Requests.begin(), Requests.end(), request);
    return at == Requests.end() ? -1 : static_cast<int>(at - Requests.begin());
  }
  int Ioctl(unsigned long request, uintptr_t arg) {
    std::lock_guard<std::mutex> g(Lock);
    Requests.push_back(request);
    auto* access = reinterpret_cast<VrRegisterAccess*>(arg);
    auto* u16 = reinterpret_cast<uint16_t*>(arg);
    const uint32_t mask = request == kVrReadReg8 || request == kVrWriteReg8     ? 0xFF
                          : request == kVrReadReg16 || request == kVrWriteReg16 ? 0xFFFF : 0xFFFFFFFF;
    switch (request) {
      case kVrReadReg8: case kVrReadReg16: case kVrReadReg32: access->value = ReadRegister(access->reg) & mask; return 0;
      case kVrWriteReg8: case kVrWriteReg16: case kVrWriteReg32: WriteRegister(access->reg, access->value & mask); return 0;
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
  int MailboxFullReads = 0, NvBusyPolls = 0;  // reads of 0x34 / 0x3F still showing full / busy
  uint8_t NvMode = 0, NvDataLatch = 0, NvReadData = 0;  // NvMode: last access code written to 0x3F
  uint16_t NvAddr = 0;
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

class DriverTest : public testing::Test {
 protected:
  DriverTest() : Driver(&Provider) { Driver.SetSleepHook([this](unsigned long us) { Sleeps.push_back(us); }); }
  ~DriverTest() override { Driver.close_vr480(); }
  FakeCardState& Fake() { return Provider.Card(); }
  // Opens the card and forgets what the opening sent.
  void Open() {
    ASSERT_EQ(Driver.init_vr480(), 0);
    std::lock_guard<std::mutex> g(Fake().Lock);
    Fake().Commands.clear(), Fake().Requests.clear(), Fake().PpBytes.clear(), Sleeps.clear();
  }
  uint32_t LastCommand() { std::lock_guard<std::mutex> g(Fake().Lock); return Fake().Commands.empty() ? 0xDEADBEEF : Fake().Commands.back(); }
  size_t CommandCount() { std::lock_guard<std::mutex> g(Fake().Lock); return Fake().Commands.size(); }
  FakeCardProvider Provider;
  C480_DriverInterface Driver;
  std::vector<unsigned long> Sleeps;
};

// Opening counts the clients, programs every buffer's bus address, then arms the ring, maps it
// and darkens both LEDs; closing undoes all of it.
TEST_F(DriverTest, InitProgramsRingAddressesArmsMapsAndDarkensLeds) {
  CaptureStdout();
  ASSERT_EQ(Driver.init_vr480(), 0);
  EXPECT_EQ(GetCapturedStdout(), "");
  std::vector<uint32_t> words;  // low half, high half, index, in ring order
  for (uint32_t k = 0; k < kDmaBuffers; ++k) {
    const uint32_t a = FakeCardState::kBusBase + 8192 * k;
    words.insert(words.end(), {0x38000000 | (a & 0xFFFF), 0x39000000 | (a >> 16), 0x3A000000 | k});
  }
  EXPECT_EQ(Fake().Commands, words);
  const auto& req = Fake().Requests;
  const long lastWrite = std::find(req.rbegin(), req.rend(), kVrWriteReg32).base() - req.begin() - 1;
  ASSERT_GE(Fake().FirstRequest(kVrClientCount), 0);
  EXPECT_LT(Fake().FirstRequest(kVrClientCount), Fake().FirstRequest(kVrWriteReg32));
  EXPECT_GT(Fake().FirstRequest(kVrStart), lastWrite);
  EXPECT_EQ(Sleeps, std::vector<unsigned long>{1000000});  // settle before the addresses
  EXPECT_EQ(Fake().MapLengths, std::vector<size_t>(kDmaBuffers, 6176));
  for (int k = 0; k < kDmaBuffers; ++k) ASSERT_EQ(Driver.PeaksData[k], &Fake().Buffers[k]);
  EXPECT_EQ(Fake().PpBytes, (std::vector<uint8_t>{4, 4}));  // port byte 4, then the LED bits one at a time
  EXPECT_TRUE(pp_shadow == 4 && pp_driver_fd == 0);
  EXPECT_EQ(Driver.close_vr480(), 0);
  EXPECT_EQ(Fake().Unmaps, kDmaBuffers);
  EXPECT_TRUE(Fake().Closed && Fake().PpClosed);
  EXPECT_EQ(Driver.PeaksData[0], nullptr);
}

// Old driver releases program no addresses and have no client count; a client that leaves is
// waited for, one that stays is not; a missing card or a failed mapping fails the opening.
TEST_F(DriverTest, InitEdgeCases) {
  Fake().DriverRelease = 49;
  ASSERT_EQ(Driver.init_vr480(), 0);
  EXPECT_TRUE(Fake().Commands.empty() && Sleeps.empty());
  EXPECT_EQ(Fake().FirstRequest(kVrClientCount), -1);
  EXPECT_GE(Fake().FirstRequest(kVrStart), 0);
  Driver.close_vr480();
  // A fresh card whose client count answers `counts`: the opening's result, output and sleeps.
  struct Opening { FakeCardProvider Card; int Result = 0; size_t Sleeps = 0; std::string Out; };
  auto open = [](std::deque<uint16_t> counts) {
    auto o = std::make_unique<Opening>();
    C480_DriverInterface d(&o->Card);
    d.SetSleepHook([&](unsigned long) { ++o->Sleeps; });
    o->Card.Card().ClientCounts = std::move(counts);
    CaptureStdout();
    o->Result = d.init_vr480();
    o->Out = GetCapturedStdout();
    return o;
  };
  auto waiting = open({2, 2, 1});
  EXPECT_EQ(waiting->Out, "Waiting on 1 driver clients...89\rWaiting on 0 driver clients...88\r");
  // Opened after two polls and the settle, the addresses programmed.
  EXPECT_TRUE(waiting->Result == 0 && waiting->Sleeps == 3u && waiting->Card.Card().Commands.size() == 3u * kDmaBuffers);
  auto staying = open({3});
  EXPECT_TRUE(staying->Result == -1 && staying->Sleeps == 90u);
  EXPECT_NE(staying->Out.find("Waiting on 2 driver clients...89\r"), std::string::npos);
  EXPECT_TRUE(staying->Out.ends_with("...0\rError: a client is already attached to the driver. \n")) << staying->Out;
  EXPECT_TRUE(staying->Card.Card().Commands.empty() && staying->Card.Card().FirstRequest(kVrStart) == -1);
  Fake().Absent = true;
  CaptureStdout();
  EXPECT_EQ(Driver.init_vr480(), -1);
  EXPECT_EQ(GetCapturedStdout(), "Error opening /dev/vr480 [-1]\n");
  EXPECT_EQ(Driver.GetDID(), 0);  // nothing to talk to: readers answer 0
  Fake().Absent = false, Fake().FailMapAt = 7;
  CaptureStdout();
  EXPECT_EQ(Driver.init_vr480(), -2);
  EXPECT_EQ(GetCapturedStdout(), "Failed to mmap peaks_data[7].\n");
  EXPECT_EQ(Driver.PeaksData[7], nullptr);
}

// What the card receives for each FPGA command, and what the driver's shadow keeps.
TEST_F(DriverTest, CommandWordsAndShadows) {
  Open();
  C480_DriverInterface& d = Driver;
  struct Row {
    std::function<int()> Set;
    uint32_t Word;                 // what the card receives
    std::function<long()> Shadow;  // what the driver keeps (clamped and masked like the word)
    long Kept;
  };
  const Row rows[] = {
      {[&] { return d.SetChGain(2, 0x1234); }, 0x06321234, [&] { return d.GetChGain(2); }, 0x1234},
      {[&] { return d.SetChGain(5, 77); }, 0x0635004D, [&] { return d.GetChGain(5); }, 77},
      {[&] { return d.SetChThresh(5, 0x0100); }, 0x0D350100, nullptr, 0},
      {[&] { return d.SetChLockoutPeriod(2, 200); }, 0x0E0200C8, nullptr, 0},
      {[&] { return d.SetChNoiseThreshEnabled(1, true); }, 0x0F010001, nullptr, 0},
      {[&] { return d.SetChNtValidPeriod(4, 1500); }, 0x100405DC, nullptr, 0},
      {[&] { return d.SetChNtvResetOnZc(0, false); }, 0x11000000, [&] { return d.GetChNtvResetOnZc(0); }, 0},
      {[&] { return d.SetBias(28000); }, 0x03006D60, [&] { return d.GetBias(); }, 28000},
      {[&] { return d.SetScanAmp(40800); }, 0x04009F60, [&] { return d.GetScanAmp(); }, 40800},
      {[&] { return d.EnableDMA(true); }, 0x01000001, nullptr, 0},
      {[&] { return d.SetHwClkDivider(true); }, 0x0C000001, [&] { return d.GetHwClkDivider_(); }, 1},
      {[&] { return d.SwStopTrig(); }, 0x24000000, nullptr, 0},
      {[&] { return d.SetFan1ControlTemp(0); }, 0x09000001, [&] { return d.GetFan1ControlTemp(); }, 1},
      {[&] { return d.SetFan2ControlTemp(200); }, 0x0B000096, [&] { return d.GetFan2ControlTemp(); }, 150},
      {[&] { return d.SetSyncHiCount(0x20000); }, 0x31000000, [&] { return d.GetSyncHiCount(); }, 0},
      {[&] { return d.SetSyncLoCount(65536); }, 0x32010000, nullptr, 0},
      {[&] { return d.SetTrigStopType(5); }, 0x25000001, [&] { return d.GetTrigStopType(); }, 5},
      {[&] { return d.SetOperatingMode(7); }, 0x20000003, [&] { return d.GetOperatingMode(); }, 3},
      {[&] { return d.SetTrigSource(2); }, 0x22000000, nullptr, 0},
      {[&] { return d.SetFpgaDebug(0xAB123456); }, 0x14123456, [&] { return d.GetFpgaDebug(); }, 0x123456},
      {[&] { return d.SetTrigAcqTime(0x1000001); }, 0x28000001, [&] { return d.GetTrigAcqTime(); }, 1},
  };
  for (const Row& r : rows) {
    EXPECT_EQ(r.Set(), 0);
    EXPECT_EQ(LastCommand(), r.Word) << std::hex << r.Word;
    if (r.Shadow) {
      EXPECT_EQ(r.Shadow(), r.Kept) << std::hex << r.Word;
    }
  }
  EXPECT_TRUE(d.GetChNtvResetOnZc(3));  // the constructor's default
  // SetAnalogVout reaches nothing; channels above five are refused and read 0.
  const size_t before = CommandCount();
  EXPECT_TRUE(d.SetAnalogVout(1, 1000) == 0 && d.GetAnalogVout(1) == 0);
  for (int r : {d.SetChGain(6, 77), d.SetChThresh(6, 1), d.SetChLockoutPeriod(200, 1), d.SetChNoiseThreshEnabled(6, true),
                d.SetChNtValidPeriod(6, 1), d.SetChNtvResetOnZc(6, true)})
    EXPECT_EQ(r, -1);
  EXPECT_TRUE(CommandCount() == before && d.GetChGain(6) == 0);
  // Converter words carry the amplitude channel and keep the control write's reference bit;
  // the LEDs go to the FPGA and to the port.
  d.SetAmpCh(5), d.WriteAd7329ControlRegister(0x810), d.WriteAd7329RangeRegister2(0xAA0), d.SetAmpCh(5);
  d.SetClientLed(true), d.SetReadyLed(true), d.SetClientLed(false);
  EXPECT_EQ(std::vector<uint32_t>(Fake().Commands.begin() + static_cast<long>(before), Fake().Commands.end()),
            (std::vector<uint32_t>{0x12009400, 0x12008810, 0x1200CAA0, 0x12009410, 0x08000001, 0x07000001, 0x08000000}));
  EXPECT_EQ(d.GetAmpCh(), 5);
  EXPECT_EQ(Fake().PpBytes, (std::vector<uint8_t>{0x0C, 0x1C, 0x14}));
  EXPECT_TRUE(d.GetReadyLed());
}

// Each word waits for the FPGA to take the one before, under a class-wide lock: two interfaces on
// the same card, each used from two threads, never write into a full mailbox and lose nothing.
TEST_F(DriverTest, MailboxLockSerialisesThreadsAndInstances) {
  Open();
  C480_DriverInterface second(&Provider);
  second.SetSleepHook([](unsigned long) {});
  ASSERT_EQ(second.init_vr480(), 0);
  {
    std::lock_guard<std::mutex> g(Fake().Lock);
    Fake().Commands.clear();
    Fake().MailboxBusyReads = 3;
  }
  Fake().MailboxReadPauseUs = 20;
  constexpr int kPerThread = 100;
  auto send = [](C480_DriverInterface* d, uint8_t ch) {
    for (int i = 0; i < kPerThread; ++i) d->SetChLockoutPeriod(ch, static_cast<uint16_t>(i));
  };
  CaptureStdout();
  std::vector<std::thread> threads;
  for (uint8_t ch = 0; ch < 4; ++ch) threads.emplace_back(send, ch < 2 ? &Driver : &second, ch);
  for (auto& t : threads) t.join();
  // A thread descheduled for longer than the 20 ms mailbox wait (a loaded machine) loses its
  // word, as on the card, and says so; every other word arrives, in its thread's order.
  const std::string console = GetCapturedStdout();
  size_t lost = 0;
  for (size_t at = console.find("Last command is lost."); at != std::string::npos; at = console.find("Last command is lost.", at + 1)) ++lost;
  EXPECT_EQ(CommandCount() + lost, 4u * kPerThread);
  EXPECT_EQ(Fake().WritesWhileFull, 0);
  int last[4] = {-1, -1, -1, -1};
  for (uint32_t w : Fake().Commands) {
    const int ch = (w >> 16) & 0xFF;
    ASSERT_LT(ch, 4);
    ASSERT_GT(static_cast<int>(w & 0xFFFF), last[ch]);
    last[ch] = static_cast<int>(w & 0xFFFF);
  }
  second.close_vr480();
}

// An index outside the ring is never used: WaitForData reports -1 and GetData waits for the
// next valid record.
TEST_F(DriverTest, RecordIndexOutsideRingIsRejected) {
  Open();
  Fake().WaitIndices = {600, 3, 512, 0xFFFF, 7};
  CaptureStdout();
  EXPECT_EQ(Driver.WaitForData(), -1);
  EXPECT_EQ(Driver.WaitForData(), 3);
  struct_dma_peaks_data* record = nullptr;
  EXPECT_EQ(Driver.GetData(&record), 0);
  EXPECT_EQ(record, &Fake().Buffers[7]);
  std::string out = GetCapturedStdout();
  EXPECT_NE(out.find("buffer 600 outside the ring"), std::string::npos);
  EXPECT_EQ(out.find("buffer 512"), std::string::npos);  // reported once, not per record
  EXPECT_EQ(Driver.WaitForData(), -1);  // the request itself fails: nothing delivered
  Driver.close_vr480();
  EXPECT_EQ(Driver.GetData(&record), -1);
}

TEST_F(DriverTest, NvRamAccessAndConfigurationImage) {
  Open();
  EXPECT_EQ(Driver.nvRAM_write(0x10, 0xAB), 0);
  EXPECT_EQ(Driver.nvRAM_read(0x10), 0xAB);
  EXPECT_EQ(Sleeps, std::vector<unsigned long>{10000});  // the EEPROM's programming time
  Fake().NvRam[0x20] = 0x00;  // (writing the serial number is the memory commands' case)
  EXPECT_EQ(Driver.make_ZOR_device(3), 0);
  std::vector<uint8_t> image(256, 0xFF);  // the whole memory is erased first
  const std::vector<std::pair<int, uint8_t>> set3 = {{0x40, 0xE8}, {0x41, 0x10}, {0x42, 0x82}, {0x43, 0x88}, {0x45, 0x01},
                                                     {0x48, 0x03}, {0x4B, 0xFF}, {0x4D, 0xFF}, {0x50, 0xC1}, {0x51, 0xFF},
                                                     {0x52, 0xE8}, {0x53, 0x10}, {0x7C, 0xFF}, {0x7D, 0x01}, {0x7E, 0xFF}};
  std::fill(image.begin() + 0x40, image.begin() + 0x80, 0x00);
  for (auto [a, v] : set3) image[a] = v;
  EXPECT_EQ(std::vector<uint8_t>(Fake().NvRam, Fake().NvRam + 256), image);
  EXPECT_EQ(Driver.GetNvRamRev(), 3);
  Driver.make_ZOR_device(1);
  EXPECT_EQ(std::vector<uint8_t>({Fake().NvRam[0x45], Fake().NvRam[0x4D], Fake().NvRam[0x7E]}),
            std::vector<uint8_t>({0x81, 0x00, 0x00}));
  EXPECT_EQ(Driver.GetNvRamRev(), 1);
  // Without a revision the driver release decides.
  for (int release : {52, 49}) {
    Fake().DriverRelease = static_cast<uint16_t>(release);
    CaptureStdout();
    Driver.make_ZOR_device();
    const int rev = release >= 50 ? 3 : 2;
    EXPECT_EQ(GetCapturedStdout(),
              "** Warning: No RID was specified.  Assuming a Rev. " + std::to_string(rev) + " ZOR device... **\n");
    EXPECT_EQ(Driver.GetNvRamRev(), rev);
  }
  EXPECT_TRUE(Fake().NvRam[0x45] == 0x81 && Fake().NvRam[0x4D] == 0xFF);
  // An nvRAM whose busy bit never clears is given up on, and said so.
  Fake().NvRamStuckBusy = true;
  CaptureStdout();
  Driver.nvRAM_read(0x48);
  EXPECT_EQ(Driver.wait_for_mcsr_ready(), -1);
  EXPECT_EQ(GetCapturedStdout(), "MCSR not ready\nMCSR not ready\nMCSR not ready\nMCSR not ready\nMCSR not ready\n");
}

}  // namespace
