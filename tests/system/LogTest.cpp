// The event log and the command history, end to end, and the acquisition watchdog that
// writes to the log when the card stops delivering records.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <regex>
#include <string>
#include <vector>

#include "commands/InProcessServer.h"
#include "server/Globals.h"
#include "system/DataLogger.h"

namespace {

using namespace std::chrono_literals;
using laser_test::CInProcessServer;
using laser_test::CSharedServerSuite;
using laser_test::WaitFor;

const std::vector<std::string> kBracket = {"/bin/mount -o,remount /vr480", "/bin/sync",
                                           "/bin/mount -o,remount,ro /vr480"};

std::vector<std::string> CommandsSince(size_t from) {
  const auto log = Host().CommandLog();
  return {log.begin() + static_cast<long>(std::min(from, log.size())), log.end()};
}

class LogTest : public CSharedServerSuite<LogTest> {
 protected:
  std::string LogPath() const { return Server->RootPath() + "/vr480/vr480.log"; }
};

TEST_F(LogTest, LogAndCommandHistoryCommands) {
  std::filesystem::remove(LogPath());
  const size_t before = Host().CommandLog().size();
  EXPECT_EQ(Client.Command("#LOG_ENTRY Fan failure"), "Log Entry: >>Fan failure<<.\n");
  EXPECT_EQ(CommandsSince(before), kBracket) << "the entry is written inside one remount bracket";
  EXPECT_EQ(Client.Command("#LOG_ENTRY"), "Log Entry: >><<.\n");

  const std::string log = ReadFile(LogPath());
  const std::string stamp = R"([A-Z][a-z]{2} [A-Z][a-z]{2} [ 0-9]\d \d\d:\d\d:\d\d \d{4}:\t)";  // asctime, no line feed
  EXPECT_TRUE(std::regex_match(log, std::regex(stamp + "Fan failure\n" + stamp + "\n"))) << log;
  EXPECT_EQ(Client.Command("#GET_LOG"), log + '\0');

  const std::string text49(49, 'x');  // "#LOG_ENTRY " and 49 characters: a 60-character line
  struct Row {
    std::string line, reply;
  };
  const Row rows[] = {
      {"#SET_ENABLE_CMD_LOG 1", "Command Log enabled.\n"},
      {"#GET_ENABLE_CMD_LOG", "1"},
      {"#FLUSH_CMD_LOG", "Command Log Flushed.\n"},
      {"#GET_DATA", ""},
      {"#GET_DATA", ""},
      {"#GET_DATA", ""},
      {"#GET_DATA", ""},
      {"#GET_DATA", ""},
      {"#GET_TAGS", ""},
      // A run is listed once it ends; the first entry after a flush is the empty line's.
      {"#GET_CMD_LOG", "1 \n5 #GET_DATA \n1 #GET_TAGS \n"},
      {"#LOG_ENTRY " + text49, "Log Entry: >>" + text49 + "<<.\n"},
      {"#GET_CMD_LOG", "1 \n5 #GET_DATA \n1 #GET_TAGS \n1 #GET_CMD_LOG \n1 #LOG_ENTRY " + text49.substr(0, 26) + "\n"},
      {"#SET_ENABLE_CMD_LOG 0", "Command Log disabled.\n"},
      {"#GET_ENABLE_CMD_LOG", "0"},
      {"#FLUSH_CMD_LOG", "Command Log Flushed.\n"},
      {"#GET_CMD_LOG", ""},
  };
  for (const Row& r : rows) {
    const std::string reply = Client.Command(r.line);
    if (r.reply.empty() && r.line != "#GET_CMD_LOG") continue;  // data and tags: only recorded
    EXPECT_EQ(reply, r.reply) << r.line;
  }
}

// The log only grows: a missing file answers the NUL alone, a new logger appends to what is
// there, and a long log answers with its first 31999 bytes without being read whole.
TEST_F(LogTest, LogFileGrowsAndAnswersItsFirstBytes) {
  std::filesystem::remove(LogPath());
  EXPECT_EQ(Client.Command("#GET_LOG"), std::string(1, '\0'));

  for (int run = 0; run < 2; ++run) {  // two server lives, each with its own logger
    CDataLogger logger;
    EXPECT_EQ(logger.OpenLog("vr480.log"), run == 0 ? 1 : 0);
    logger.UseDateStamp(false);
    EXPECT_EQ(logger.LogEntry("run " + std::to_string(run)), 0);
    EXPECT_EQ(logger.CloseLog(), 0);
  }
  EXPECT_EQ(ReadFile(LogPath()), "run 0\nrun 1\n");

  std::string big;
  for (int i = 0; i < 100000; ++i) big += "Wed Nov 18 14:35:48 2026:\tentry " + std::to_string(i) + "\n";
  WriteFile(LogPath(), big);
  EXPECT_EQ(Client.Command("#GET_LOG"), big.substr(0, 31999) + '\0');
}

// Five seconds without a record: the watchdog logs the reset, syncs, and reboots 5 s later.
// Disarmed, it does nothing however long the card stays silent.
TEST(WatchdogTest, CardWithoutRecordsRebootsTheMachineOnlyWhenArmed) {
  CInProcessServer server;
  ASSERT_TRUE(server.Started());
  CTestClient client;
  ASSERT_TRUE(client.Connect(server.Port()));
  const std::string logPath = server.RootPath() + "/vr480/vr480.log";
  auto logged = [&] { return ReadFile(logPath).find(":\tFPGA Watchdog reset.\n") != std::string::npos; };

  bFpgaWatchDogEnabled = false;
  EXPECT_EQ(client.Command("#ENABLE_DMA 0"), "DMA Disabled.\n");
  EXPECT_FALSE(WaitFor(logged, 7s)) << "a disarmed watchdog logged a reset";
  EXPECT_EQ(FpgaWatchDog.load(), 0u);

  const size_t before = Host().CommandLog().size();
  bFpgaWatchDogEnabled = true;
  ASSERT_TRUE(WaitFor(logged, 30s));
  std::vector<std::string> expected = kBracket;
  expected.push_back("/bin/sync");
  expected.push_back("echo f >/dev/pcm9381_wd");
  EXPECT_TRUE(WaitFor([&] { return CommandsSince(before).size() >= expected.size(); }, 30s));
  EXPECT_EQ(CommandsSince(before), expected);
}

}  // namespace
