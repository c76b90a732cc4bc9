// The event log and the command history, end to end.
#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <regex>
#include <string>
#include <vector>

#include "system/DataLogger.h"
#include "system/SystemSuite.h"

namespace {
std::string LogPath(const std::string& root) { return root + "/vr480/vr480.log"; }
}  // namespace

TEST_F(SystemSuite, LogAndCommandHistoryCommands) {
  std::filesystem::remove(LogPath(Server->RootPath()));
  const size_t before = Host().CommandLog().size();
  EXPECT_EQ(Client.Command("#LOG_ENTRY Fan failure"), "Log Entry: >>Fan failure<<.\n");
  EXPECT_EQ(HostCommandsSince(before), kRemountBracket) << "the entry is written inside one remount bracket";
  EXPECT_EQ(Client.Command("#LOG_ENTRY"), "Log Entry: >><<.\n");

  const std::string log = ReadFile(LogPath(Server->RootPath()));
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
      {"#READY?", ""},
      {"#READY?", ""},
      {"#READY?", ""},
      {"#GET_TAGS", ""},
      // A run is listed once it ends; the first entry after a flush is the empty line's.
      {"#GET_CMD_LOG", "1 \n3 #READY? \n1 #GET_TAGS \n"},
      {"#LOG_ENTRY " + text49, "Log Entry: >>" + text49 + "<<.\n"},
      {"#GET_CMD_LOG", "1 \n3 #READY? \n1 #GET_TAGS \n1 #GET_CMD_LOG \n1 #LOG_ENTRY " + text49.substr(0, 26) + "\n"},
      {"#SET_ENABLE_CMD_LOG 0", "Command Log disabled.\n"},
      {"#GET_ENABLE_CMD_LOG", "0"},
      {"#FLUSH_CMD_LOG", "Command Log Flushed.\n"},
      {"#GET_CMD_LOG", ""},
  };
  for (const Row& r : rows) {
    const std::string reply = Client.Command(r.line);
    if (r.reply.empty() && r.line != "#GET_CMD_LOG") continue;  // only recorded
    EXPECT_EQ(reply, r.reply) << r.line;
  }
}

// The log only grows: a missing file answers the NUL alone, a new logger appends to what is
// there, and a long log answers with its first 31999 bytes without being read whole.
TEST_F(SystemSuite, LogFileGrowsAndAnswersItsFirstBytes) {
  std::filesystem::remove(LogPath(Server->RootPath()));
  EXPECT_EQ(Client.Command("#GET_LOG"), std::string(1, '\0'));

  for (int run = 0; run < 2; ++run) {  // two server lives, each with its own logger
    CDataLogger logger;
    EXPECT_EQ(logger.OpenLog("vr480.log"), run == 0 ? 1 : 0);
    logger.UseDateStamp(false);
    EXPECT_EQ(logger.LogEntry("run " + std::to_string(run)), 0);
    EXPECT_EQ(logger.CloseLog(), 0);
  }
  EXPECT_EQ(ReadFile(LogPath(Server->RootPath())), "run 0\nrun 1\n");

  std::string big;
  for (int i = 0; i < 100000; ++i) big += "Wed Nov 18 14:35:48 2026:\tentry " + std::to_string(i) + "\n";
  WriteFile(LogPath(Server->RootPath()), big);
  EXPECT_EQ(Client.Command("#GET_LOG"), big.substr(0, 31999) + '\0');
}
