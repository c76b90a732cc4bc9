// The simulated card's device contract: ioctl requests, registers, mailbox, nvRAM.
#include <gtest/gtest.h>

#include <filesystem>

#include "SimTestDriver.h"

using namespace simtest;

namespace {

std::string TempRoot(const std::string& name) {
  auto dir = std::filesystem::temp_directory_path() / ("vr480-sim-" + name + "-" + std::to_string(::getpid()));
  std::filesystem::remove_all(dir);
  std::filesystem::create_directories(dir);
  return dir.string();
}

}  // namespace

TEST(SimDevice, RequestTable) {
  CTestDriver d;
  EXPECT_EQ(d.Get16(0x80043506), 0x8882);  // configured card
  EXPECT_EQ(d.Get16(0x80043507), 52);      // default driver release
  EXPECT_EQ(d.Get16(0x80043513), 1);       // only the server has the device open
  EXPECT_EQ(d.Get16(0x8004350E), 0);       // nothing recorded yet

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

  // Start arms the ring; records flow once DMA is on too.
  d.Start();
  d.LaserOn();
  EXPECT_EQ(d.Card().Step(3), 3);
  EXPECT_EQ(d.Get16(0x8004350E), 1);
}

TEST(SimDevice, ClientCountAndReleaseKnobs) {
  CTestDriver d;
  d.Card().SetClientCount(2, 3);  // another client for the next three queries
  EXPECT_EQ(d.Get16(0x80043513), 2);
  EXPECT_EQ(d.Get16(0x80043513), 2);
  EXPECT_EQ(d.Get16(0x80043513), 2);
  EXPECT_EQ(d.Get16(0x80043513), 1);
  d.Card().SetDriverRelease(48);
  EXPECT_EQ(d.Get16(0x80043507), 48);
}

TEST(SimDevice, CardAbsentAndParallelPort) {
  CSimOptions o = StepOptions();
  o.bCardAbsent = true;
  CSimCardProvider provider(o);
  EXPECT_EQ(provider.Open("/dev/vr480"), nullptr);
  EXPECT_EQ(provider.Open("/dev/other"), nullptr);
  auto pp = provider.Open("/dev/pp_driver");
  ASSERT_NE(pp, nullptr);
  EXPECT_EQ(pp->Ioctl(0x40043602, 0x18), 0);
  EXPECT_TRUE(provider.PpPort().ReadyLed());
  provider.Card().SetAbsent(false);
  EXPECT_NE(provider.Open("/dev/vr480"), nullptr);
}

TEST(SimDevice, MailboxHandshakeAndRegisters) {
  CTestDriver d;
  EXPECT_EQ(d.Read(4, 0x34) & 0xF, 0u);
  ASSERT_EQ(d.Write(4, 0x00, 0x03006E28), 0);  // bias 28200
  EXPECT_EQ(d.Read(4, 0x00), 0x03006E28u) << "mailbox 1 reads back the last word";
  EXPECT_EQ(d.Read(4, 0x34) & 0xF, 0xFu) << "full until the FPGA takes it";
  EXPECT_EQ(d.Read(4, 0x34) & 0xF, 0u) << "taken after one read";
  EXPECT_EQ(d.Card().Applied().Bias, 0) << "applies at the next sweep boundary";
  d.Card().Step(1);
  EXPECT_EQ(d.Card().Applied().Bias, 28200);
  EXPECT_EQ(d.Read(4, 0x14), 0x03006E28u) << "incoming mailbox 2: last applied word";

  // A word nobody polls for is taken at the next sweep.
  d.Write(4, 0x00, 0x04009F60);
  d.Card().Step(1);
  EXPECT_EQ(d.Card().Applied().ScanAmp, 0x9F60);

  // Analog outputs: outgoing mailboxes 2-4 are plain storage.
  d.Write(2, 0x04, 0x1234);
  d.Write(4, 0x08, 0xCAFEF00D);
  d.Write(1, 0x0D, 0x77);
  EXPECT_EQ(d.Card().AnalogOutputs(), (std::array<uint32_t, 3>{0x1234, 0xCAFEF00D, 0x7700}));
  EXPECT_EQ(d.Read(2, 0x0A), 0xCAFEu);
}

TEST(SimDevice, StalledMailboxLosesCommands) {
  CTestDriver d;
  d.Card().SetMailboxStall(true);
  EXPECT_EQ(d.Command(cmd::kBias, 1000), 0) << "the mailbox was empty: written, but stuck";
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(d.Command(cmd::kBias, 2000), -1) << "the driver times out";
  EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(20));
  d.Card().Step(5);
  EXPECT_EQ(d.Card().Applied().Bias, 0) << "the card never applies the stuck word";
  EXPECT_EQ(d.Read(4, 0x18), 1u) << "incoming mailbox 3: lost words";
  EXPECT_EQ(d.Card().CommandLog().size(), 1u) << "only the written word reached the card";

  d.Card().SetMailboxStall(false);
  EXPECT_EQ(d.Read(4, 0x34) & 0xF, 0u);
  EXPECT_EQ(d.Command(cmd::kBias, 3000), 0);
  d.Card().Step(1);
  EXPECT_EQ(d.Card().Applied().Bias, 3000);
}

TEST(SimDevice, CommandLogAndControlWords) {
  CTestDriver d;
  d.Card().Step(7);
  d.Command(cmd::kScanAmp, 100);
  d.Command(0x55, 1);  // not in the command table
  d.Card().Step(1);
  auto log = d.Card().CommandLog();
  ASSERT_EQ(log.size(), 2u);
  EXPECT_EQ(log[0].Word, 0x04000064u);
  EXPECT_EQ(log[0].SweepCounter, 7u);
  EXPECT_NEAR(log[0].CardSeconds, 0.007, 1e-9);
  EXPECT_EQ(d.Card().UnknownCommands(), 1u);
  EXPECT_EQ(d.Card().StoredArgument(0x55), 1u);

  // Test control words through incoming mailbox 1, for tests that speak only TCP.
  d.Write(4, 0x10, 0x04000000 | (40 * 128));  // internal temperature 40 degC
  EXPECT_DOUBLE_EQ(d.Card().InternalTemperature(), 40.0);
  EXPECT_EQ(d.Read(4, 0x10), 0x04000000u | (40 * 128));
  d.Write(4, 0x10, 0x02000001);  // stall the mailbox
  d.Command(cmd::kBias, 5);
  EXPECT_EQ(d.Command(cmd::kBias, 6), -1);
  d.Write(4, 0x10, 0x02000000);
  d.Write(4, 0x10, 0x0D000002);  // spurious peak on DUT channel 1
  EXPECT_EQ(d.Card().Faults().SpuriousDutChannel, 1);
}

TEST(SimDevice, NvramImagesAndBusyPolls) {
  for (auto [image, rev] : {std::pair{ENvramImage::Rev3, 3}, {ENvramImage::Rev2, 2}, {ENvramImage::Rev1, 1}}) {
    CSimOptions o = StepOptions();
    o.NvramImage = image;
    CTestDriver d(o);
    EXPECT_EQ(d.Get16(0x80043506), 0x8882);
    EXPECT_EQ(d.NvRead(0x48), rev);
    EXPECT_EQ(d.NvRead(0x40), 0xE8);
    std::string serial;
    for (int i = 0; i < 16; ++i) serial += static_cast<char>(d.NvRead(0x80 + i));
    EXPECT_EQ(serial, "VR480SIM00000001");
  }

  CSimOptions o = StepOptions();
  o.NvramImage = ENvramImage::Blank;
  CTestDriver blank(o);
  EXPECT_EQ(blank.Get16(0x80043506), 0x4750);
  EXPECT_EQ(blank.NvRead(0x48), 0xFF);

  // Busy for exactly two polls after a read.
  blank.Write(1, 0x3F, 0x80);
  blank.Write(1, 0x3E, 0x48);
  blank.Write(1, 0x3F, 0xE0);
  EXPECT_TRUE(blank.Read(1, 0x3F) & 0x80);
  EXPECT_TRUE(blank.Read(4, 0x3C) & 0x80000000u);
  EXPECT_FALSE(blank.Read(1, 0x3F) & 0x80);

  o.NvramImage.reset();
  o.DeviceIdOverride = 0x1234;
  CTestDriver unknown(o);
  EXPECT_EQ(unknown.Get16(0x80043506), 0x1234);
}

TEST(SimDevice, NvramPersistsAndDeviceIdLatchesAtPowerUp) {
  CSimOptions o = StepOptions();
  o.Root = TempRoot("nvram");
  o.NvramImage = ENvramImage::Blank;
  {
    CTestDriver d(o);
    EXPECT_EQ(d.Get16(0x80043506), 0x4750);
    // Build the configuration image, as the server does for a blank bridge.
    const uint8_t id[] = {0xE8, 0x10, 0x82, 0x88};
    for (int i = 0; i < 4; ++i) d.NvWrite(0x40 + i, id[i]);
    d.NvWrite(0x48, 3);
    d.NvWrite(0x80, 'Q');
    EXPECT_EQ(d.NvRead(0x48), 3);
    EXPECT_EQ(d.Get16(0x80043506), 0x4750) << "the ID changes only at the next power-up";
  }
  EXPECT_TRUE(std::filesystem::exists(o.Root + "/vr480/sim_nvram.bin"));
  o.NvramImage.reset();  // power cycle: the card comes up from its file
  CTestDriver again(o);
  EXPECT_EQ(again.Get16(0x80043506), 0x8882);
  EXPECT_EQ(again.NvRead(0x48), 3);
  EXPECT_EQ(again.NvRead(0x80), 'Q');
  std::filesystem::remove_all(o.Root);
}
