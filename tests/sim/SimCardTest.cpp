// The simulated card: its device contract as the driver sees it, the instrument behind it and
// its scene files. (Time of flight shows in the distance results, the sensors' wavelengths in the
// end-to-end records, the multiplexer layers in the acquisition suite.)
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "device/PeaksData.h"
#include "sim/SimCard.h"
#include "sim/SimCardProvider.h"
#include "support/TempDir.h"

namespace {

using namespace sim;

CSimOptions StepOptions() { return [] { CSimOptions o; o.Mode = EProducerMode::Step; return o; }(); }

// FPGA command codes the tests use.
namespace cmd {
constexpr uint8_t kDma = 0x01, kBias = 0x03, kScanAmp = 0x04, kGain = 0x06, kThresh = 0x0D, kLockout = 0x0E,
                  kNoiseThreshEnable = 0x0F, kDataRateDivider = 0x17, kSoaDrive = 0x18, kSoaEnable = 0x19, kAlign = 0x1E,
                  kTrigEnable = 0x21, kTrigSource = 0x22, kSwStart = 0x23, kTrigStopType = 0x25, kTrigAcq = 0x28,
                  kMaxDutPeaks = 0x2F;
}

// A minimal driver written against the device contract only (ioctl requests, registers,
// mailbox, nvRAM, mapping), as the server's driver interface talks to the card. Cards run in
// Step mode: nothing happens between Step() calls, so every record is predictable.
class CTestDriver {
 public:
  explicit CTestDriver(const CSimOptions& options = StepOptions())
      : Provider(std::make_shared<CSimCardProvider>(options)) {
    File = Provider->Open("/dev/vr480");
  }
  CSimCard& Card() { return Provider->Card(); }
  CDeviceFile& Dev() { return *File; }
  uint32_t Read(int width, uint32_t reg) {
    CRegisterAccess a{reg, 0};  // requests 0x80043500-02 read 1, 2 or 4 bytes
    EXPECT_NE(File->Ioctl(0x80043500ul + width / 2, reinterpret_cast<uintptr_t>(&a)), -1) << "register " << reg;
    return a.Value;
  }
  int Write(int width, uint32_t reg, uint32_t value) {
    CRegisterAccess a{reg, value};  // 0x40043503-05 write them
    return File->Ioctl(0x40043503ul + width / 2, reinterpret_cast<uintptr_t>(&a));
  }
  // As the driver sends an FPGA command: wait for the mailbox (the driver gives up after 20 ms;
  // the tests wait longer, since a loaded machine may keep the card's thread away), then write
  // it. Returns -1 when the mailbox stayed full (the command is lost).
  int Command(uint8_t code, uint32_t arg, std::chrono::milliseconds patience = std::chrono::seconds(5)) {
    const auto deadline = std::chrono::steady_clock::now() + patience;
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
    if (programAddresses && Get16(0x80043507) >= 50)
      for (uint32_t i = 0; i < kDmaBuffers; ++i) ProgramAddress(i);
    ASSERT_EQ(File->Ioctl(0x350C, 0), 0);
    for (int k = 0; k < kDmaBuffers; ++k)
      ASSERT_NE(Buffers[k] = static_cast<struct_dma_peaks_data*>(File->Map(kPeaksRecordBytes)), nullptr) << "mapping " << k;
    ASSERT_EQ(Command(cmd::kDma, 1), 0);
  }
  void Send(std::initializer_list<std::pair<uint8_t, uint32_t>> words) {
    for (auto [code, arg] : words) Command(code, arg);
  }
  void ProgramAddress(uint32_t index) {
    uint32_t address = index;
    ASSERT_EQ(File->Ioctl(0x40043512, reinterpret_cast<uintptr_t>(&address)), 0);
    Send({{0x38, address & 0xFFFF}, {0x39, address >> 16}, {0x3A, index}});
  }
  // Laser on at the sweep the server's loops settle at (the card's factory calibration), SOA on.
  void LaserOn() {
    Send({{cmd::kSoaDrive, 30000}, {cmd::kSoaEnable, 1}, {cmd::kScanAmp, factory::kScanAmp}, {cmd::kBias, factory::kBias}});
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

// A started card with the laser at the working point, its records drained.
struct CReadyCard : CTestDriver {
  CReadyCard() {
    Start();
    LaserOn();
    Advance(8);
  }
};

}  // namespace

TEST(SimDevice, RequestTable) {
  CTestDriver d;
  // Device ID, driver release, client count (only the server), data ready (nothing recorded yet).
  EXPECT_EQ(std::vector<uint16_t>({d.Get16(0x80043506), d.Get16(0x80043507), d.Get16(0x80043513), d.Get16(0x8004350E)}),
            std::vector<uint16_t>({0x8882, 52, 1, 0}));
  uint32_t address = 5;
  ASSERT_EQ(d.Dev().Ioctl(0x40043512, reinterpret_cast<uintptr_t>(&address)), 0);
  EXPECT_EQ(address, CSimRing::BusAddress(0) + 5 * 8192);
  address = 512;
  EXPECT_EQ(d.Dev().Ioctl(0x40043512, reinterpret_cast<uintptr_t>(&address)), -1);
  EXPECT_EQ(d.Dev().Ioctl(0x40043510, 0x123456), 0);
  EXPECT_EQ(d.Card().DebugWords(), std::vector<unsigned long>{0x123456});
  EXPECT_EQ(d.Dev().Ioctl(0x80043599, 0), -1) << "unknown request";
  EXPECT_EQ(d.Dev().Ioctl(0x80043506, 0), -1) << "missing argument";
  CRegisterAccess outside{0x40, 0};
  EXPECT_EQ(d.Dev().Ioctl(0x80043502, reinterpret_cast<uintptr_t>(&outside)), -1);
  d.Card().SetClientCount(2, 1);  // another client for the next query
  EXPECT_EQ(std::vector<uint16_t>({d.Get16(0x80043513), d.Get16(0x80043513)}), std::vector<uint16_t>({2, 1}));
  // Start arms the ring; records flow once DMA is on too.
  d.Start(), d.LaserOn();
  EXPECT_EQ(d.Card().Step(3), 3);
  EXPECT_EQ(d.Get16(0x8004350E), 1);
}

TEST(SimDevice, MailboxHandshakeStallAndRegisters) {
  CTestDriver d;
  EXPECT_EQ(d.Read(4, 0x34) & 0xF, 0u);
  ASSERT_EQ(d.Write(4, 0x00, 0x03006E28), 0);  // bias 28200
  // Mailbox 1 reads back the last word; it shows full until the FPGA takes it, after one read.
  EXPECT_EQ(std::vector<uint32_t>({d.Read(4, 0x00), d.Read(4, 0x34) & 0xF, d.Read(4, 0x34) & 0xF}),
            std::vector<uint32_t>({0x03006E28, 0xF, 0}));
  EXPECT_EQ(d.Card().Applied().Bias, 0) << "applies at the next sweep boundary";
  d.Card().Step(1);
  EXPECT_EQ(d.Card().Applied().Bias, 28200);
  EXPECT_EQ(d.Read(4, 0x14), 0x03006E28u) << "incoming mailbox 2: last applied word";
  // A word nobody polls for is taken at the next sweep.
  d.Write(4, 0x00, 0x04009F60);
  d.Card().Step(1);
  EXPECT_EQ(d.Card().Applied().ScanAmp, 0x9F60);
  d.Write(1, 0x0D, 0x77);  // outgoing mailboxes 2-4 (the analog outputs) are plain storage, by byte
  EXPECT_EQ(d.Card().AnalogOutputs()[2], 0x7700u);
  // A stalled mailbox loses commands.
  d.Write(4, 0x10, 0x02000001);  // test control word: stall the mailbox
  EXPECT_EQ(d.Command(cmd::kBias, 1000), 0) << "the mailbox was empty: written, but stuck";
  EXPECT_EQ(d.Command(cmd::kBias, 2000, std::chrono::milliseconds(20)), -1) << "the driver times out";
  d.Card().Step(5);
  EXPECT_EQ(d.Card().Applied().Bias, 28200) << "the card never applies the stuck word";
  EXPECT_EQ(d.Read(4, 0x18), 1u) << "incoming mailbox 3: lost words";
  EXPECT_EQ(d.Card().CommandLog().size(), 3u) << "only the written word reached the card";
  d.Card().SetMailboxStall(false);
  EXPECT_EQ(d.Read(4, 0x34) & 0xF, 0u);
  EXPECT_EQ(d.Command(cmd::kBias, 3000), 0);
  EXPECT_EQ((d.Card().Step(1), d.Card().Applied().Bias), 3000);
}

TEST(SimDevice, CommandLogAndControlWords) {
  CTestDriver d;
  d.Card().Step(7);
  d.Send({{cmd::kScanAmp, 100}, {0x55, 1}});  // 0x55 is not in the command table
  d.Card().Step(1);
  auto log = d.Card().CommandLog();
  ASSERT_EQ(log.size(), 2u);
  EXPECT_TRUE(log[0].Word == 0x04000064u && log[0].SweepCounter == 7u) << std::hex << log[0].Word;
  EXPECT_NEAR(log[0].CardSeconds, 0.007, 1e-9);
  EXPECT_TRUE(d.Card().UnknownCommands() == 1u && d.Card().StoredArgument(0x55) == 1u);
  // Test control words through incoming mailbox 1, for tests that speak only TCP.
  d.Write(4, 0x10, 0x04000000 | (40 * 128));  // internal temperature 40 degC
  EXPECT_DOUBLE_EQ(d.Card().InternalTemperature(), 40.0);
  EXPECT_EQ(d.Read(4, 0x10), 0x04000000u | (40 * 128));
  d.Write(4, 0x10, 0x0D000002);  // spurious peak on DUT channel 1
  EXPECT_EQ(d.Card().Faults().SpuriousDutChannel, 1);
}

TEST(SimDevice, NvramPersistsAndDeviceIdLatchesAtPowerUp) {
  CTempDir root;
  CSimOptions o = StepOptions();
  o.Root = root.Path();
  o.NvramImage = ENvramImage::Blank;
  {
    CTestDriver d(o);
    EXPECT_EQ(d.Get16(0x80043506), 0x4750);
    // Build the configuration image, as the server does for a blank bridge.
    for (auto [addr, v] : {std::pair<uint16_t, uint8_t>{0x40, 0xE8}, {0x41, 0x10}, {0x42, 0x82}, {0x43, 0x88}, {0x48, 3}, {0x80, 'Q'}})
      d.NvWrite(addr, v);
    EXPECT_EQ(d.NvRead(0x48), 3);
    EXPECT_EQ(d.Get16(0x80043506), 0x4750) << "the ID changes only at the next power-up";
  }
  EXPECT_TRUE(std::filesystem::exists(o.Root + "/vr480/sim_nvram.bin"));
  o.NvramImage.reset();  // power cycle: the card comes up from its file
  CTestDriver again(o);
  EXPECT_EQ(again.Get16(0x80043506), 0x8882);
  EXPECT_TRUE(again.NvRead(0x48) == 3 && again.NvRead(0x80) == 'Q');
}

TEST(SimRing, LappingKeepsNewestAndSparesTheHeldBuffer) {
  CTestDriver d;
  d.Start(), d.LaserOn();
  d.Card().Step(1);
  auto& held = d.Next();
  const int heldIndex = d.LastIndex;
  held.status.Byte49 = 3;  // the server patches the record it holds in place
  const struct_dma_peaks_data snapshot = held;
  d.Card().Step(511);  // fills every other buffer: 511 undelivered
  EXPECT_TRUE(d.Card().Overruns() == 0u && d.Card().Ring().Undelivered() == 511u);
  d.Card().Step(1);  // laps
  EXPECT_TRUE(d.Card().Overruns() == 1u && d.Read(4, 0x1C) == 1u) << "incoming mailbox 4: overruns";
  EXPECT_EQ(std::memcmp(&snapshot, &held, kPeaksRecordBytes), 0) << "held buffer untouched";
  // The server resumes at the present: the newest record before the lap, then the new one.
  EXPECT_EQ(d.Next().status.SweepCounter, 511u);
  EXPECT_NE(d.LastIndex, heldIndex);
  EXPECT_EQ(d.Next().status.SweepCounter, 512u);
}

TEST(SimRing, Release50FillsOnlyProgrammedBuffers) {
  CTestDriver d;
  d.Start(false);
  d.ProgramAddress(3);
  d.ProgramAddress(7);
  d.Send({{0x38, 0x1234}, {0x39, 1}, {0x3A, 9}});  // a wrong address for buffer 9
  d.LaserOn();
  d.Card().Step(2);
  EXPECT_EQ(d.Card().BufferAddressErrors(), 1u);
  for (int index : {3, 7}) EXPECT_EQ((d.Next(), d.LastIndex), index);
  // Records written in five periods when nothing was programmed: none, but with an older
  // driver that programs nothing every buffer is used.
  for (int release : {52, 48}) {
    CSimOptions o = StepOptions();
    o.DriverRelease = static_cast<uint16_t>(release);
    CTestDriver t(o);
    t.Start(false), t.LaserOn();
    EXPECT_EQ(t.Card().Step(5), release < 50 ? 5 : 0) << release;
  }
}

TEST(SimRing, MappingFaultAndBlockingWait) {
  CTestDriver d;
  d.Card().FailMapping(4);
  for (int k = 0; k < 8; ++k) EXPECT_EQ(d.Dev().Map(6176) == nullptr, k == 4) << k;
  EXPECT_EQ(d.Dev().Map(6176 * 2), nullptr) << "a mapping is one buffer";
  // Wait for data blocks until a record arrives, and a close ends it.
  CTestDriver w;
  w.Start(), w.LaserOn();
  for (bool close : {false, true}) {
    uint16_t index = 0xFFFF;
    int result = 0;
    std::thread waiter([&] { result = w.Dev().Ioctl(0x8004350D, reinterpret_cast<uintptr_t>(&index)); });
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    close ? static_cast<void>(w.Dev().Close()) : static_cast<void>(w.Card().Step(1));
    waiter.join();
    EXPECT_EQ(result, close ? -1 : 0);
    EXPECT_TRUE(close || index < kDmaBuffers) << index;
  }
}

// Closing the device and destroying the card wake the producer's wait, free-running or in a
// ten-second sweep: nothing hangs until the sweep ends.
TEST(SimProducer, DestroyingTheCardStopsPromptly) {
  const auto t0 = std::chrono::steady_clock::now();
  for (double scale : {1.0, 0.0001}) {
    CSimOptions o;
    o.Mode = scale == 1.0 ? EProducerMode::FreeRunning : EProducerMode::RealTime;
    o.TimeScale = scale;
    CTestDriver d(o);
    d.Start(), d.LaserOn();
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    d.File.reset();
  }
  EXPECT_LT(std::chrono::steady_clock::now() - t0, std::chrono::seconds(5));
}

// Record counter, sweep counter (dropped sweeps count too) and phase over more than one lap.
TEST(SimInstrument, CountersPhaseAndDivider) {
  CReadyCard d;
  d.Command(cmd::kDataRateDivider, 3);
  auto prev = d.StepNext().status;
  for (int i = 0; i < 200; ++i) {
    const auto r = d.StepNext().status;
    ASSERT_EQ(std::vector<uint32_t>({r.RecordCounter, r.SweepCounter, r.CurrentLayer, r.DataRateDivider}),
              std::vector<uint32_t>({static_cast<uint16_t>(prev.RecordCounter + 1), prev.SweepCounter + 3,
                                     (prev.CurrentLayer + 1) % 128u, 3}));
    prev = r;
  }
  d.Command(cmd::kDataRateDivider, 0);  // 0 counts as 1
  EXPECT_EQ(d.Advance(3).status.DataRateDivider, 1);
}

TEST(SimInstrument, BiasAndScanAmplitudeMoveThePeaks) {
  CReadyCard d;
  auto& r0 = d.StepNext();
  ASSERT_EQ(r0.status.NumPeaks[0], 1);
  const double fbg0 = r0.FbgPeaks[0];
  EXPECT_EQ(r0.status.FbgPosition & 0xFFFFFF, r0.FbgPeaks[0]);
  EXPECT_NEAR(fbg0, 32768, 600) << "the working point puts the grating near mid-sweep";
  EXPECT_GT(r0.status.NumPeaks[1], 120);
  d.Command(cmd::kBias, sim::factory::kBias + 500);
  auto& r1 = d.StepNext();
  EXPECT_NEAR(r1.FbgPeaks[0] - fbg0, 505, 6) << "about one count per bias LSB";
  d.Command(cmd::kScanAmp, 45000);  // wider span: the comb teeth crowd together
  auto& r2 = d.StepNext();
  EXPECT_NEAR(static_cast<double>(r2.FfpiPeaks[60] - r2.FfpiPeaks[20]) / (r1.FfpiPeaks[60] - r1.FfpiPeaks[20]), sim::factory::kScanAmp / 45000.0, 0.01);
  d.Command(cmd::kScanAmp, 0);  // no sweep, no peaks
  auto& r3 = d.StepNext();
  EXPECT_EQ(std::vector<uint32_t>(r3.status.NumPeaks, r3.status.NumPeaks + 6), std::vector<uint32_t>(6, 0));
  EXPECT_EQ(r3.status.FbgPosition & 0xFFFFFF, 0u);
  // The record reports the grating's thermistor reading; the server's model gives back its temperature.
  d.Card().SetGratingTemperature(31.25);
  auto& r4 = d.StepNext();
  EXPECT_NEAR(ServerThermistorDegC(r4.status.Vth), 31.25, 0.01);
  EXPECT_EQ(r4.status.InternalTemp, 35 * 128);
}

TEST(SimInstrument, DetectionRules) {
  CReadyCard d;
  // Strong, weak, and one about 60 counts after the strong one.
  d.Card().SetSensors(0, {CSimSensor{1550.0, 0.0, 9000.0}, CSimSensor{1535.0, 0.0, 2000.0}, CSimSensor{1550.1, 0.0, 9000.0}});
  d.Send({{cmd::kLockout, 2 << 16 | 200}, {cmd::kNoiseThreshEnable, 2 << 16 | 1},
          {cmd::kThresh, 0x32 << 16 | static_cast<uint16_t>(3000 * 9.765625 / 2 + 32768)}});
  auto& r = d.StepNext();
  ASSERT_EQ(r.status.NumPeaks[2], 1) << "weak under threshold, close inside the lockout";
  d.Send({{cmd::kNoiseThreshEnable, 2 << 16 | 0}, {cmd::kLockout, 2 << 16 | 20}});
  auto& r2 = d.StepNext();
  EXPECT_EQ(r2.status.NumPeaks[2], 3);
  EXPECT_LT(r2.DutPeaks[0][0], r2.DutPeaks[0][1]) << "reported by position";
  EXPECT_LT(r2.DutPeaks[0][1], r2.DutPeaks[0][2]);
  d.Send({{cmd::kGain, (0x32 << 16) | 65535}, {cmd::kNoiseThreshEnable, 2 << 16 | 1}});  // +40 dB: over any threshold
  EXPECT_EQ(d.StepNext().status.Gain[0], 65535);
  d.Command(cmd::kMaxDutPeaks, 2);
  EXPECT_EQ(d.StepNext().status.NumPeaks[2], 2);
}

// A software start opens one window of consecutive sweeps; once done, a start needs a new enable.
TEST(SimModes, SoftwareTriggerWindows) {
  CReadyCard d;
  d.Send({{cmd::kTrigSource, 0}, {cmd::kTrigStopType, 0}, {cmd::kTrigAcq, 5}, {cmd::kTrigEnable, 1}});
  d.Advance(3);
  EXPECT_EQ(d.Card().TriggerState(), ETriggerState::Armed);
  auto& armed = d.StepNext();
  EXPECT_TRUE(armed.TriggeredAcquisition() && !armed.InTriggerWindow());
  d.Command(cmd::kSwStart, 0);
  auto& opened = d.StepNext();
  EXPECT_TRUE(opened.InTriggerWindow());
  const uint32_t first = opened.status.SweepCounter;
  for (uint32_t i = 1; i < 5; ++i) {
    auto& r = d.StepNext();
    EXPECT_TRUE(r.InTriggerWindow() && r.status.SweepCounter == first + i) << i;
  }
  auto& after = d.StepNext();
  EXPECT_TRUE(!after.InTriggerWindow() && after.TriggeredAcquisition());
  EXPECT_EQ(d.Card().TriggerState(), ETriggerState::Done);
  d.Command(cmd::kSwStart, 0);
  EXPECT_FALSE(d.StepNext().InTriggerWindow());
}

// The alignment pattern numbers the 32768 points of a spectrum in order, sample i of phase p
// at point 128 i + p. (Where the lines lie in the samples shows in the full spectrum's offset
// calibration and calibrated spectra.)
TEST(SimSamples, AlignmentPatternNumbersThePointsInOrder) {
  CReadyCard d;
  d.Command(cmd::kAlign, 1);
  d.Advance(2);
  std::vector<int> points(32768, -1);
  for (int n = 0; n < 128; ++n) {
    const auto& r = d.StepNext();
    for (int i = 0; i < 256; ++i) {
      ASSERT_EQ(r.FsSamples[i] >> 16, 0xA5A5u) << "marker in the high half of every word";
      points[128 * i + r.status.CurrentLayer] = static_cast<int>(r.FsSamples[i] & 0xFFFF);
    }
  }
  for (int k = 0; k < 32768; ++k) ASSERT_EQ(points[k], k);
}

TEST(SimScene, ParsesSensorsAndKnobsAndNamesTheBadLine) {
  const std::string text =
      "# a test scene\n"
      "\n"
      "1      1530.0   12.5  9000\n"
      "2.1    1545.2   800   12000  fwhm 0.2  sine 0.05 2   # dot notation: channel 2, layer 1\n"
      "16     1560     0     5000   dropout 1.5 0.25\n"
      "1.4    1550     3     7000   step -0.1 4\n"
      "internal_temp 30\ngrating_temp 27.5\nscan_gain 3.6e-4\ncalibration_error -0.2\nmaster_divider 5\n"
      "channel_length 2 15.5\nlayer_length 4 100\ngrating_list 3\ncard_absent 1\ndevice_id 0x1234\ndriver_release 49\n";
  CSceneParseResult r = ParseScene(text);
  ASSERT_TRUE(r.bOk) << r.Error;
  const CSimScene& s = r.Scene;
  for (int ch : {0, 1, 12, 15}) ASSERT_EQ(s.Sensors[ch].size(), 1u) << ch;  // 2.1 is logical channel 1, 1.4 is 12
  const auto& e = s.Environment;
  const auto& h = s.Hardware;
  // Distance, width, sine modulation, drop-out window, step; then the settings.
  EXPECT_THAT((std::vector<double>{s.Sensors[0][0].DistanceM, s.Sensors[1][0].FwhmNm, s.Sensors[1][0].WavelengthAt(0.5),
                                   1.0 * s.Sensors[15][0].PresentAt(1.0), 1.0 * s.Sensors[15][0].PresentAt(1.2),
                                   s.Sensors[12][0].WavelengthAt(3.0), e.InternalDegC + e.GratingOffsetDegC,
                                   s.Optics.ScanGainThzPerLsb, s.Optics.CalibrationErrorFsr, 1.0 * e.MasterDivider,
                                   e.ChannelLengthM[1], e.LayerLengthM[3], 1.0 * s.Optics.GratingList, 1.0 * h.bAbsent,
                                   1.0 * h.DeviceIdOverride, 1.0 * h.DriverRelease}),
              testing::Pointwise(testing::DoubleNear(1e-9), std::vector<double>{12.5, 0.2, 1545.25, 1, 0, 1549.9, 27.5, 3.6e-4,
                                                                                -0.2, 5, 15.5, 100, 3, 1, 0x1234, 49}));
  // Errors name the line.
  const std::pair<std::string, std::string> cases[] = {
      {"1 1530 0 9000\n17 1530 0 9000\n", "line 2: bad channel '17'"},
      {"5.1 1530 0 9000\n", "line 1: bad channel '5.1'"},
      {"1 abc 0 9000\n", "line 1: expected wavelength in nm, got 'abc'"},
      {"# only\n1 1530 0\n", "line 2: missing amplitude"},
      {"1 1530 -4 9000\n", "line 1: distance in m -4 is outside"},
      {"1 1530 0 9000 wobble 3\n", "line 1: unknown sensor option 'wobble'"},
      {"1 1530 0 9000 sine 0.1\n", "line 1: missing modulation period in s"},
      {"\n\nwarp_drive 9\n", "line 3: unknown setting 'warp_drive'"},
      {"internal_temp\n", "line 1: 'internal_temp' takes 1 value(s), got 0"},
      {"grating_list 1\n", "line 1: grating_list must be 0 or 2-5"},
      {"channel_length 2.5 3\n", "line 1: index must be a whole number 1-4"},
      {"\ndevice_id 0xZZ\n", "line 2:"},
  };
  for (const auto& [bad, expect] : cases) {
    const CSceneParseResult refused = ParseScene(bad);
    EXPECT_TRUE(!refused.bOk && refused.Error.rfind(expect, 0) == 0) << bad << " -> " << refused.Error;
  }
  std::string many;
  for (int i = 0; i < 251; ++i) many += "3 1550 0 100\n";
  EXPECT_EQ(ParseScene(many).Error, "line 251: more than 250 sensors on channel 3");
  EXPECT_TRUE(ParseScene("").bOk);
}

// A scene file with an error leaves the built-in scene (three sensors on each channel of layer 0)
// and names the line; a missing file is named too. (Scene files that load are the distance and
// binning suites' cases.)
TEST(SimScene, BadSceneFileFallsBackToTheBuiltInScene) {
  CTempDir dir;
  WriteFile(dir / "scene.txt", "2 1550 0 9000\n2 1551 zero 9000\n");
  CSimOptions o = StepOptions();
  o.SceneFile = dir / "scene.txt";
  CTestDriver bad(o);
  EXPECT_NE(bad.Card().SceneError().find("line 2: expected distance in m, got 'zero'"), std::string::npos)
      << bad.Card().SceneError();
  for (int ch = 0; ch < 4; ++ch) EXPECT_EQ(bad.Card().Sensors(ch).size(), 3u) << ch;
  EXPECT_TRUE(bad.Card().Sensors(4).empty()) << "layer 1 is empty";
  std::string error;
  EXPECT_FALSE(bad.Card().LoadSceneFile(dir / "missing.txt", &error));
  EXPECT_NE(error.find("cannot read scene file"), std::string::npos);
  std::vector<std::optional<int>> channels;
  for (const char* text : {"1", "16", "3.2", "0", "1."}) channels.push_back(ParseLogicalChannel(text));
  EXPECT_EQ(channels, (std::vector<std::optional<int>>{0, 15, 6, std::nullopt, std::nullopt}));
}
