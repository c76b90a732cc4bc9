// The simulated card's device contract, as the driver sees it: ioctl requests, registers,
// mailbox, nvRAM, the DMA ring, and how the producer stops.
#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>
#include <thread>

#include "SimTestDriver.h"
#include "support/TempDir.h"

using namespace simtest;

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
  d.Start();
  d.LaserOn();
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
  EXPECT_EQ(d.Command(cmd::kBias, 2000), -1) << "the driver times out";
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
  d.Command(cmd::kScanAmp, 100);
  d.Command(0x55, 1);  // not in the command table
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
  d.Start();
  d.LaserOn();
  d.Card().Step(1);
  auto& held = d.Next();
  const int heldIndex = d.LastIndex;
  held.status.Byte49 = 3;  // the server patches the record it holds in place
  std::vector<uint8_t> snapshot(reinterpret_cast<uint8_t*>(&held),
                                reinterpret_cast<uint8_t*>(&held) + kPeaksRecordBytes);
  d.Card().Step(511);  // fills every other buffer: 511 undelivered
  EXPECT_TRUE(d.Card().Overruns() == 0u && d.Card().Ring().Undelivered() == 511u);
  d.Card().Step(1);  // laps
  EXPECT_TRUE(d.Card().Overruns() == 1u && d.Read(4, 0x1C) == 1u) << "incoming mailbox 4: overruns";
  EXPECT_EQ(std::memcmp(snapshot.data(), &held, kPeaksRecordBytes), 0) << "held buffer untouched";
  // The server resumes at the present: the newest record before the lap, then the new one.
  EXPECT_EQ(d.Next().status.SweepCounter, 511u);
  EXPECT_NE(d.LastIndex, heldIndex);
  EXPECT_EQ(d.Next().status.SweepCounter, 512u);
}

TEST(SimRing, Release50FillsOnlyProgrammedBuffers) {
  CTestDriver d;
  ASSERT_EQ(d.Dev().Ioctl(0x350C, 0), 0);
  for (int k = 0; k < kDmaBuffers; ++k) d.Buffers[k] = static_cast<struct_dma_peaks_data*>(d.Dev().Map(6176));
  d.ProgramAddress(3);
  d.ProgramAddress(7);
  for (auto [code, arg] : {std::pair<uint8_t, uint32_t>{0x38, 0x1234}, {0x39, 1}, {0x3A, 9}, {cmd::kDma, 1}})
    d.Command(code, arg);  // a wrong address for buffer 9
  d.LaserOn();
  d.Card().Step(2);
  EXPECT_EQ(d.Card().BufferAddressErrors(), 1u);
  for (int index : {3, 7}) EXPECT_EQ((d.Next(), d.LastIndex), index);
  // Records written in five periods when nothing was programmed: none, but with an older
  // driver that programs nothing every buffer is used.
  auto records = [](CSimOptions o) {
    CTestDriver t(o);
    t.Start(false);
    t.LaserOn();
    return t.Card().Step(5);
  };
  EXPECT_EQ(records(StepOptions()), 0);
  CSimOptions old = StepOptions();
  old.DriverRelease = 48;
  EXPECT_EQ(records(old), 5);
}

TEST(SimRing, MappingFaultAndBlockingWait) {
  CTestDriver d;
  d.Card().FailMapping(4);
  for (int k = 0; k < 8; ++k) {
    void* p = d.Dev().Map(6176);
    EXPECT_EQ(p == nullptr, k == 4) << k;
  }
  EXPECT_EQ(d.Dev().Map(6176 * 2), nullptr) << "a mapping is one buffer";
  // Wait for data blocks until a record arrives, and a close ends it.
  CTestDriver w;
  w.Start();
  w.LaserOn();
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
    d.Start();
    d.LaserOn();
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    d.File.reset();
  }
  EXPECT_LT(std::chrono::steady_clock::now() - t0, std::chrono::seconds(5));
}
