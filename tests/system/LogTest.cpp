// The event log and the command history, end to end.
#include <gtest/gtest.h>

#include <filesystem>
#include <regex>
#include <string>
#include <vector>

#include "system/DataLogger.h"
#include "system/SystemSuite.h"

const std::string kLog = "/vr480/vr480.log";

// Entries are time-stamped lines written inside one remount bracket; the command history lists
// runs of one command once they end, its lines cut short.
TEST_F(SystemSuite, LogAndCommandHistoryCommands) {
  std::filesystem::remove(Server->RootPath() + kLog);
  const size_t before = Host().CommandLog().size();
  EXPECT_EQ(Client.Command("#LOG_ENTRY Fan failure"), "Log Entry: >>Fan failure<<.\n");
  EXPECT_EQ(HostCommandsSince(before), kRemountBracket) << "the entry is written inside one remount bracket";
  EXPECT_EQ(Client.Command("#LOG_ENTRY"), "Log Entry: >><<.\n");
  const std::string log = RootFile(kLog);
  const std::string stamp = R"([A-Z][a-z]{2} [A-Z][a-z]{2} [ 0-9]\d \d\d:\d\d:\d\d \d{4}:\t)";  // asctime, no line feed
  EXPECT_TRUE(std::regex_match(log, std::regex(stamp + "Fan failure\n" + stamp + "\n"))) << log;
  EXPECT_EQ(Client.Command("#GET_LOG"), log + '\0');
  const std::string text49(49, 'x');  // "#LOG_ENTRY " and 49 characters: a 60-character line
  const std::pair<std::string, std::string> rows[] = {
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
  for (const auto& [line, expected] : rows) {
    const std::string reply = Client.Command(line);
    if (!expected.empty() || line == "#GET_CMD_LOG") EXPECT_EQ(reply, expected) << line;  // others only recorded
  }
}

// The log only grows: a missing file answers the NUL alone, a new logger appends to what is
// there, and a long log answers with its first 31999 bytes without being read whole.
TEST_F(SystemSuite, LogFileGrowsAndAnswersItsFirstBytes) {
  std::filesystem::remove(Server->RootPath() + kLog);
  EXPECT_EQ(Client.Command("#GET_LOG"), std::string(1, '\0'));
  for (int run = 0; run < 2; ++run) {  // two server lives, each with its own logger
    CDataLogger logger;
    EXPECT_EQ(logger.OpenLog("vr480.log"), run == 0 ? 1 : 0);
    logger.UseDateStamp(false);
    EXPECT_EQ(logger.LogEntry("run " + std::to_string(run)), 0);
    EXPECT_EQ(logger.CloseLog(), 0);
  }
  EXPECT_EQ(RootFile(kLog), "run 0\nrun 1\n");
  std::string big;
  for (int i = 0; i < 100000; ++i) big += "Wed Nov 18 14:35:48 2026:\tentry " + std::to_string(i) + "\n";
  WriteFile(Server->RootPath() + kLog, big);
  EXPECT_EQ(Client.Command("#GET_LOG"), big.substr(0, 31999) + '\0');
}
