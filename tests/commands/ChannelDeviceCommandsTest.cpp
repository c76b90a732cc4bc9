// The detector channel and device maintenance commands through a real client against the
// whole server on the simulated card: exact replies and refusals, the words the card
// received, its bridge registers and configuration memory, and a restart that brings every
// saved channel setting back. The tests touch only the DUT detectors (2-5), so the comb and
// the reference grating keep the laser ready for the next test.
#include <csignal>
#include <cstdint>
#include <optional>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "commands/InProcessServer.h"

namespace {

using namespace laser_test;
using namespace std::chrono_literals;
using Words = std::vector<uint32_t>;

constexpr uint8_t kGainCode = 0x06;
constexpr uint8_t kThreshCode = 0x0D;
constexpr uint8_t kLockoutCode = 0x0E;
constexpr uint8_t kNoiseEnableCode = 0x0F;
constexpr uint8_t kNtvPeriodCode = 0x10;
constexpr uint8_t kNtvResetCode = 0x11;

const char* const kRange04 = "!Illegal parameters.  Acceptable ranges are: Ch# 0 to 5 .\n";
const char* const kRange14 = "!Illegal parameters.  Acceptable ranges are: Ch# 1 to 4 .\n";
const char* const kSubchannel = "!Illegal parameters.  This function requires a channel # (not a subchannel).";

// A command line, its exact reply, and the words of one FPGA code the card then received
// (none expected when `Code` is 0).
struct Row {
  const char* Line;
  std::string Reply;
  uint8_t Code = 0;
  Words Sent = {};
};

class ChannelDeviceCommands : public CSharedServerSuite<ChannelDeviceCommands> {
 protected:

  std::string Cmd(const std::string& line) { return Client.Command(line, 30s); }
  void Run(const std::vector<Row>& rows) {
    for (const Row& r : rows) {
      const size_t from = Server->LogSize();
      EXPECT_EQ(Cmd(r.Line), r.Reply) << r.Line;
      if (r.Code) {
        EXPECT_EQ(Server->Sent(r.Code, from), r.Sent) << r.Line;
      }
    }
  }
  bool HasTag(const std::string& tag) {
    return Server->S().TagManager.GetTagsText().find(tag + "\n") != std::string::npos;
  }
  bool HasTagOf(const std::string& command) {
    return Server->S().TagManager.GetTagsText().find(command + " = ") != std::string::npos;
  }

};

uint32_t ChWord(int detector, uint32_t v) { return (static_cast<uint32_t>(0x30 + detector) << 16) + v; }
uint32_t PlainWord(int detector, uint32_t v) { return (static_cast<uint32_t>(detector) << 16) + v; }

TEST_F(ChannelDeviceCommands, GainsInCountsAndDecibels) {
  // Gain tables of DUT channels 1 and 2: 100 counts at 0 dB, 150 more per 0.1 dB.
  for (int ch = 0; ch < 2; ++ch)
    for (int k = 0; k < kDbTableEntries; ++k) Server->S().Db2Counts[ch][k] = static_cast<uint16_t>(100 + 150 * k);
  Run({
      {"#SET_ZOR_CH_GAIN 2 1000", "Channel 2 gain set to 1000.\n", kGainCode, {ChWord(2, 1000)}},
      {"#SET_ZOR_CH_GAIN 2 70000", "Channel 2 gain set to 4464.\n", kGainCode, {ChWord(2, 4464)}},
      {"#SET_ZOR_CH_GAIN -1 5", kRange04, kGainCode, {}},
      {"#GET_ZOR_CH_GAIN 2", "4464"},
      {"#GET_ZOR_CH_GAIN 6", "!Invalid command or argument: #GET_ZOR_CH_GAIN 6."},
      {"#SET_MAX_DUT_CH_GAIN 2 3000", "Max Ch 2 gain set to 3000.\n"},
      {"#GET_MAX_DUT_CH_GAIN 2", "3000"},
      {"#SET_ZOR_CH_GAIN 3 5000", "Channel 3 gain set to 3000.\n", kGainCode, {ChWord(3, 3000)}},
      {"#SET_MAX_DUT_CH_GAIN 2 65535", "Max Ch 2 gain set to 65535.\n"},
      {"#GET_MAX_DUT_CH_GAIN 0", "!Invalid command or argument: #GET_MAX_DUT_CH_GAIN 0."},
      // User channels forward to the detector behind them.
      {"#SET_CH_GAIN 1 1234", "Setting DUT channel 1 gain to 1234.\n", kGainCode, {ChWord(2, 1234)}},
      {"#GET_CH_GAIN 1", "1234"},
      {"#SET_CH_GAIN 5 1", kRange14, kGainCode, {}},
      {"#GET_CH_GAIN 5", "!Invalid command or argument: #GET_CH_GAIN 5."},
      // dB through the tables; 2.3 dB held as a float falls to the 2.2 dB step.
      {"#SET_CH_GAIN_DB 1 2.3", "Setting Ch 1 gain to 2.300000 dB.\n", kGainCode, {ChWord(2, 100 + 150 * 22)}},
      {"#GET_CH_GAIN_DB 1", "2.200000"},
      {"#SET_CH_GAIN_DB 2 50", "Setting Ch 2 gain to 40.099998 dB.\n", kGainCode, {ChWord(3, 100 + 150 * 400)}},
      {"#SET_CH_GAIN_DB 1 -1", "Setting Ch 1 gain to -1.000000 dB.\n", kGainCode, {ChWord(2, 0)}},
      {"#SET_CH_GAIN_DB 1.2 10", kSubchannel, kGainCode, {}},
      {"#SET_CH_GAIN_DB 5 10",
       "!Illegal parameters.  Acceptable ranges are: Ch# 1 to 4 and db -40.100000 to 40.100000.\n", kGainCode, {}},
      {"#GET_CH_GAIN_DB 0", "!Invalid command or argument: #GET_CH_GAIN_DB 0."},
      {"#SET_ZOR_MAX_GAIN_DB 30", "Max dB gain set to 30.000000.\n"},
      {"#GET_MAX_GAIN_DB", "30.000000"},
      {"#SET_CH_GAIN_DB 2 35", "Setting Ch 2 gain to 30.000000 dB.\n", kGainCode, {ChWord(3, 100 + 150 * 300)}},
      {"#SET_ZOR_MAX_GAIN_DB 40.1", "Max dB gain set to 40.100000.\n"},
      {"#SET_ZOR_MAX_GAIN_DB nan", "!Illegal parameters.  Not a finite number: nan.\n"},
      {"#GET_ZOR_MAX_GAIN_DB", "40.100000"},
      {"#SET_MIN_CH_PWR_LEVEL 3 222", "Min Ch 3 Pwr Level set to 222.\n"},
      {"#GET_MIN_CH_PWR_LEVEL 3", "222"},
      {"#SET_MAX_CH_PWR_LEVEL 0 1", kRange14},
  });
  // The forwarded "ZOR" command keeps the setting; the user-level one is no tag of its own.
  EXPECT_TRUE(HasTag("#SET_ZOR_CH_GAIN = \"2 0\""));
  EXPECT_FALSE(HasTagOf("#SET_CH_GAIN"));
  EXPECT_FALSE(HasTagOf("#SET_CH_GAIN_DB"));
  EXPECT_TRUE(HasTag("#SET_MAX_DUT_CH_GAIN = \"2 65535\""));
  Cmd("#SET_ZOR_CH_GAIN 2 0");
  Cmd("#SET_ZOR_CH_GAIN 3 0");
}

TEST_F(ChannelDeviceCommands, ThresholdsAndPeakTiming) {
  Run({
      {"#SET_ZOR_CH_NOISE_THRESH 2 0", "ZOR Channel 2 noise threshold set to 0.\n", kThreshCode, {ChWord(2, 32768)}},
      {"#SET_ZOR_CH_NOISE_THRESH 2 100", "ZOR Channel 2 noise threshold set to 100.\n", kThreshCode,
       {ChWord(2, 33256)}},
      {"#GET_ZOR_CH_NOISE_THRESH 2", "100"},
      {"#SET_ZOR_CH_NOISE_THRESH 6 1", kRange04, kThreshCode, {}},
      {"#SET_CH_NOISE_THRESH 2 50", "Setting Ch 2 Noise Threshold to 50.\n", kThreshCode, {ChWord(3, 33012)}},
      {"#GET_CH_NOISE_THRESH 2", "50"},
      {"#GET_CH_NOISE_THRESH 0", kRange14},
      {"#SET_CH_NOISE_THRESH 1.2 5", kSubchannel, kThreshCode, {}},
      {"#SET_CH_NOISE_THRESH_ENABLE 3 0", "Channel 3 noise threshold disabled.\n", kNoiseEnableCode,
       {PlainWord(3, 0)}},
      {"#GET_CH_NOISE_THRESH_ENABLE 3", "0"},
      {"#SET_CH_NOISE_THRESH_ENABLE 3 7", "Channel 3 noise threshold enabled.\n", kNoiseEnableCode,
       {PlainWord(3, 1)}},
      {"#SET_CH_LOCKOUT_PERIOD 2 300", "Channel 2 lockout period set to 300.\n", kLockoutCode, {PlainWord(2, 300)}},
      {"#GET_CH_LOCKOUT_PERIOD 2", "300"},
      // The driver refuses a channel above 5 silently; the reply confirms regardless.
      {"#SET_CH_LOCKOUT_PERIOD 9 5", "Channel 9 lockout period set to 5.\n", kLockoutCode, {}},
      {"#SET_CH_NTV_PERIOD 4 1600", "Channel 4 N/T valid period set to 1600.\n", kNtvPeriodCode,
       {PlainWord(4, 1600)}},
      {"#GET_CH_NTV_PERIOD 4", "1600"},
      {"#SET_CH_NTV_RESET_ON_ZC 4 0", "Channel 4 NTV Reset on ZC disabled.\n", kNtvResetCode, {PlainWord(4, 0)}},
      {"#GET_CH_NTV_RESET_ON_ZC 4", "0"},
  });
  EXPECT_TRUE(HasTag("#SET_ZOR_CH_NOISE_THRESH = \"3 50\""));
  EXPECT_FALSE(HasTagOf("#SET_CH_NOISE_THRESH"));
  Cmd("#SET_CH_LOCKOUT_PERIOD 2 200");
  Cmd("#SET_CH_NTV_PERIOD 4 1500");
  Cmd("#SET_CH_NTV_RESET_ON_ZC 4 1");
}

TEST_F(ChannelDeviceCommands, AmplitudeChannelAndTransmitterTemperature) {
  const std::string original = Cmd("#GET_ZOR_AMP_CH");
  // Each change is answered once a spectrum taken on the new channel is out: by then the
  // spectrum thread has dropped the three spectra it was asked to.
  Run({
      {"#SET_ZOR_AMP_CH 1", "Selected amplitude channel set to 1.\n"},
      {"#GET_AMP_CH", "0"},
      {"#SET_ZOR_AMP_CH 9", "Selected amplitude channel set to 5.\n"},
      {"#SET_AMP_CH 3", "Setting Amp channel to 3.\n"},
      {"#GET_ZOR_AMP_CH", "4"},
      {"#GET_AMP_CH", "3"},
      {"#SET_AMP_CH 0", kRange14},
      {"#SET_AMP_CH 2.1", kSubchannel},
  });
  EXPECT_EQ(Server->S().FsSkipCount, 0);
  EXPECT_TRUE(HasTag("#SET_ZOR_AMP_CH = \"4\""));
  EXPECT_FALSE(HasTagOf("#SET_AMP_CH"));
  Cmd("#SET_ZOR_AMP_CH " + original);

  Server->Card().SetInternalTemperature(41.5);
  EXPECT_TRUE(WaitFor([&] { return Cmd("#GET_TX_DEGC") == "41.50"; }, 30s));
}

std::vector<std::string> Lines(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  return lines;
}

TEST_F(ChannelDeviceCommands, BridgeRegisters) {
  auto& device = Server->Card().Device();
  Run({
      {"#LIST_S5335_REGISTERS",
       "OMB1, OMB2, OMB3, OMB4, IMB1, IMB2, IMB3, IMB4 FIFO, MWAR, MWTC, MRAR, MRTC, MBEF, INTCSR, MCSR\n"},
      {"#WRITE_S5335_REGISTER fifo 1234", "Writing 1234 to S5335 register fifo\n"},
      {"#WRITE_S5335_REGISTER FIFO 5678", "Writing 5678 to S5335 register FIFO\n"},
      {"#WRITE_S5335_REGISTER mwar 4096", "Writing 4096 to S5335 register mwar\n"},
      {"#WRITE_S5335_REGISTER mrar -1", "Writing -1 to S5335 register mrar\n"},
      {"#READ_S5335_REGISTER MWAR", "4096"},
      {"#READ_S5335_REGISTER mrar", "-1"},
      {"#INTERPRET_S5335_REGISTER mwar", "PCI controlled bus master write address = 4096."},
      {"#READ_S5335_REGISTER status", "!Unknown Register status.\n"},
      {"#INTERPRET_S5335_REGISTER status", "Invalid register\n"},
  });

  // The dump reads every register but the FIFO, which it would drain.
  const uint32_t fifoReads = device.FifoReads();
  const std::vector<std::string> dump = Lines(Cmd("#DUMP_S5335_REGISTERS"));
  ASSERT_EQ(dump.size(), 16u);
  EXPECT_EQ(dump[8], "fifo ...Skipped");
  EXPECT_EQ(dump[9], "mwar = 4096 { 0000 0000 0000 0000 0001 0000 0000 0000}");
  EXPECT_EQ(dump[11], "mrar = 4294967295 { 1111 1111 1111 1111 1111 1111 1111 1111}");
  EXPECT_EQ(dump[15].substr(0, 7), "mcsr = ");
  EXPECT_EQ(device.FifoReads(), fifoReads);
  // Both words are still there, and a read takes them out.
  EXPECT_EQ(Cmd("#READ_S5335_REGISTER fifo"), "1234");
  EXPECT_EQ(Cmd("#READ_S5335_REGISTER fifo"), "5678");
  EXPECT_EQ(device.FifoReads(), fifoReads + 2);
}

TEST_F(ChannelDeviceCommands, ConfigurationMemory) {
  auto serialBytes = [&] {
    const auto nv = Server->Card().Nvram();
    return std::string(nv.begin() + sim::kNvramSerialAddress, nv.begin() + sim::kNvramSerialAddress + 16);
  };
  Run({
      {"#SET_NVRAM_SN ABC 123", "Setting NvRAM S/N to 'ABC 123'.\n"},
      {"#GET_NVRAM_SN", "ABC 123"},
      {"#SET_NVRAM_SN 0123456789ABCDEFGH", "Setting NvRAM S/N to '0123456789ABCDE'.\n"},
      {"#GET_NVRAM_SN", "0123456789ABCDE"},
      {"#READ_NVRAM_BYTE 72", "NvRAM offset 72 reads 3.\n"},
  });
  EXPECT_EQ(serialBytes(), std::string("0123456789ABCDE") + '\0');

  // Clearing erases the bridge's image and keeps the serial number.
  EXPECT_EQ(Cmd("#CLEAR_ZOR_DEVICE"), "ZOR Device cleared.\n");
  auto nv = Server->Card().Nvram();
  for (int a = 0; a < 128; ++a) ASSERT_EQ(nv[a], 0xFF) << a;
  EXPECT_EQ(serialBytes(), std::string("0123456789ABCDE") + '\0');

  // Building writes the image of the revision asked for (the driver's default: 3) and erases
  // the serial number.
  EXPECT_EQ(Cmd("#BUILD_ZOR_DEVICE 2"), "ZOR Device built.\n");
  nv = Server->Card().Nvram();
  EXPECT_EQ(nv[0x40], 0xE8);
  EXPECT_EQ(nv[0x43], 0x88);
  EXPECT_EQ(nv[0x45], 0x81);
  EXPECT_EQ(nv[0x48], 2);
  EXPECT_EQ(serialBytes(), std::string(16, '\xFF'));
  EXPECT_EQ(Cmd("#BUILD_ZOR_DEVICE"), "ZOR Device built.\n");
  nv = Server->Card().Nvram();
  EXPECT_EQ(nv[0x45], 0x01);
  EXPECT_EQ(Cmd("#READ_NVRAM_BYTE 72"), "NvRAM offset 72 reads 3.\n");
}

// Every saved setting of these families, set on two channels, comes back after a restart.
TEST(ChannelSettingsPersistence, SavedChannelSettingsSurviveARestart) {
  const std::vector<std::pair<std::string, std::string>> kSettings = {
      {"#SET_ZOR_CH_GAIN 2 1111", "#GET_ZOR_CH_GAIN 2"},
      {"#SET_ZOR_CH_GAIN 4 2222", "#GET_ZOR_CH_GAIN 4"},
      {"#SET_MAX_DUT_CH_GAIN 1 50000", "#GET_MAX_DUT_CH_GAIN 1"},
      {"#SET_MAX_DUT_CH_GAIN 3 40000", "#GET_MAX_DUT_CH_GAIN 3"},
      {"#SET_ZOR_MAX_GAIN_DB 35.5", "#GET_ZOR_MAX_GAIN_DB"},
      {"#SET_MIN_CH_PWR_LEVEL 1 100", "#GET_MIN_CH_PWR_LEVEL 1"},
      {"#SET_MIN_CH_PWR_LEVEL 3 300", "#GET_MIN_CH_PWR_LEVEL 3"},
      {"#SET_MAX_CH_PWR_LEVEL 1 9000", "#GET_MAX_CH_PWR_LEVEL 1"},
      {"#SET_MAX_CH_PWR_LEVEL 3 8000", "#GET_MAX_CH_PWR_LEVEL 3"},
      {"#SET_ZOR_CH_NOISE_THRESH 2 100", "#GET_ZOR_CH_NOISE_THRESH 2"},
      {"#SET_ZOR_CH_NOISE_THRESH 4 250", "#GET_ZOR_CH_NOISE_THRESH 4"},
      {"#SET_CH_NOISE_THRESH_ENABLE 2 0", "#GET_CH_NOISE_THRESH_ENABLE 2"},
      {"#SET_CH_NOISE_THRESH_ENABLE 4 0", "#GET_CH_NOISE_THRESH_ENABLE 4"},
      {"#SET_CH_LOCKOUT_PERIOD 2 300", "#GET_CH_LOCKOUT_PERIOD 2"},
      {"#SET_CH_LOCKOUT_PERIOD 4 400", "#GET_CH_LOCKOUT_PERIOD 4"},
      {"#SET_CH_NTV_PERIOD 2 1600", "#GET_CH_NTV_PERIOD 2"},
      {"#SET_CH_NTV_PERIOD 4 1700", "#GET_CH_NTV_PERIOD 4"},
      {"#SET_CH_NTV_RESET_ON_ZC 2 0", "#GET_CH_NTV_RESET_ON_ZC 2"},
      {"#SET_CH_NTV_RESET_ON_ZC 4 0", "#GET_CH_NTV_RESET_ON_ZC 4"},
      {"#SET_ZOR_AMP_CH 4", "#GET_ZOR_AMP_CH"},
  };
  CTempDir root;
  std::string tags;
  for (const std::string& line : sim::BaselineTagLines()) tags += line + "\n";
  for (const std::string& line : ReadyLaserTags()) tags += line + "\n";
  // A user-level setter in the tag file does nothing while it is replayed at start-up.
  tags += "#SET_CH_NOISE_THRESH = \"3 500\"\n";
  WriteFile(root / "vr480/vr480.tag", tags);
  std::vector<std::string> before;
  {
    CServerProcess server(root.Path(), FreePort());
    CTestClient client;
    ASSERT_TRUE(client.Connect(server.Port()));
    ASSERT_TRUE(WaitReady(client, 30s));
    EXPECT_NE(client.Command("#GET_CH_NOISE_THRESH 3"), "500");
    for (const auto& [setter, getter] : kSettings) {
      const std::string reply = client.Command(setter, 30s);
      ASSERT_FALSE(reply.empty() || reply[0] == '!') << setter << " -> " << reply;
      before.push_back(client.Command(getter));
    }
    EXPECT_EQ(before[0], "1111");
    EXPECT_EQ(before[4], "35.500000");
    EXPECT_EQ(before[10], "250");
    EXPECT_EQ(before[19], "4");
    client.Command("#SAVE_SETTINGS");
    EXPECT_EQ(server.Stop(SIGTERM), 0);
  }
  CServerProcess server(root.Path(), FreePort());
  CTestClient client;
  ASSERT_TRUE(client.Connect(server.Port()));
  ASSERT_TRUE(WaitReady(client, 30s));
  for (size_t i = 0; i < kSettings.size(); ++i)
    EXPECT_EQ(client.Command(kSettings[i].second), before[i]) << kSettings[i].second;
  EXPECT_EQ(server.Stop(SIGTERM), 0);
}

}  // namespace
