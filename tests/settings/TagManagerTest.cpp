#include "settings/TagManager.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "support/TempDir.h"

namespace {

using testing::internal::CaptureStdout;
using testing::internal::GetCapturedStdout;

std::vector<std::string> Tags(const CTagManager& tags) {
  std::vector<std::string> out;
  for (uint16_t i = 0; i < tags.GetNumTags(); ++i) out.push_back(tags.GetTag(i));
  return out;
}

// The dispatcher splits every client line this way, so a stored tag and the same command typed
// by hand must give the same command and argument.
TEST(TagManager, SplitsTypedAndStoredLinesAlike) {
  const std::vector<std::vector<std::string>> rows = {
      // line, command, argument
      {"#SET_CH_ENABLE 3 0", "#SET_CH_ENABLE", "3 0"},
      {"#SET_CH_ENABLE = \"3 0\"", "#SET_CH_ENABLE", "3 0"},
      {"  #set_dhcp=1", "#SET_DHCP", "1"},
      {"#SET_IDN_TXT = \"  two  spaces \"", "#SET_IDN_TXT", "  two  spaces "},  // quotes keep spaces
      {"#SET_IDN_TXT \"open end ", "#SET_IDN_TXT", "open end "},  // an unclosed quote runs to the end
      {"#SET_IDN_TXT Lab unit 7", "#SET_IDN_TXT", "Lab unit 7"},
      {"#SET_IDN_TXT = \"a=b\"", "#SET_IDN_TXT", "a=b"},
      {"#SET_IDN_TXT a=b", "#SET_IDN_TXT", "b"},  // with "=" the text after it
      {"#set_ntp_server0 Pool.Example\r", "#SET_NTP_SERVER0", "Pool.Example"},  // case kept, CR trimmed
      {"#SET_DHCP = \"1\"\r", "#SET_DHCP", "1"},
      {"#set_x\xe9 1", "#SET_X\xe9", "1"},  // bytes above ASCII stay as they are
  };
  for (const auto& row : rows) {
    std::string command, argument;
    EXPECT_EQ(CTagManager::AnalyzeTag(row[0], &command, &argument), 0) << row[0];
    EXPECT_EQ(command + "|" + argument, row[1] + "|" + row[2]) << row[0];
  }
  EXPECT_EQ(CTagManager::GetCommand("#set_mux_level\t2"), "#SET_MUX_LEVEL");
}

// One canonical tag per command (per key columns with ReplaceTagOnArg); only additions print.
TEST(TagManager, ReplaceTagKeepsOneCanonicalTagPerKey) {
  CTagManager tags;
  CaptureStdout();
  EXPECT_EQ(tags.ReplaceTag("#set_dhcp=1"), 0);
  tags.ReplaceTag("#SET_DHCP 1");
  tags.ReplaceTag("#set_dhcp 0");
  tags.ReplaceTag("#SET_IDN_TXT Lab unit 7");
  EXPECT_EQ(GetCapturedStdout(), "Adding Tag [#SET_DHCP = \"1\"]\nAdding Tag [#SET_IDN_TXT = \"Lab unit 7\"]\n");
  EXPECT_EQ(tags.GetTagsText(), "#SET_DHCP = \"0\"\n#SET_IDN_TXT = \"Lab unit 7\"\n");
  EXPECT_EQ(tags.ClearTags(), 0);
  EXPECT_EQ(tags.GetTagsText(), "");

  const short channel[] = {1}, channelAndSensor[] = {1, 2};
  CaptureStdout();
  for (const char* line : {"#SET_CH_ENABLE 1 1", "#SET_CH_ENABLE 3 1", "#SET_CH_ENABLE 2 1", "#set_ch_enable = \"3 0\""})
    tags.ReplaceTagOnArg(line, 1, channel);
  for (const char* line : {"#SET_USER_VAR 1 5 10", "#SET_USER_VAR 1 6 10", "#SET_USER_VAR 1 5 20"})
    tags.ReplaceTagOnArg(line, 2, channelAndSensor);
  GetCapturedStdout();
  EXPECT_EQ(Tags(tags), (std::vector<std::string>{"#SET_CH_ENABLE = \"1 1\"", "#SET_CH_ENABLE = \"3 0\"",
                                                  "#SET_CH_ENABLE = \"2 1\"", "#SET_USER_VAR = \"1 5 20\"",
                                                  "#SET_USER_VAR = \"1 6 10\""}));
}

// Removal comments a tag out (only the command counts), the file keeps it, and a setter then adds
// a fresh tag (a reload skips "//" lines like any remark).
TEST(TagManager, RemovedTagsAreCommentedOutSavedAndNotReloaded) {
  CTempDir dir;
  CTagManager tags;
  for (const char* t : {"#SET_CH_ENABLE = \"1 1\"", "#SET_DHCP = \"1\"", "#set_ch_enable 3 1"}) tags.AddTag(t);
  CaptureStdout();
  EXPECT_EQ(tags.RemoveTag("#set_ch_enable"), 1);
  EXPECT_EQ(tags.RemoveTag("#SET_CH_ENABLE 9 9"), 1);
  EXPECT_EQ(tags.RemoveTag("#SET_CH_ENABLE"), -1);
  tags.ReplaceTag("#SET_CH_ENABLE 1 0");
  GetCapturedStdout();  // the console texts are checked on the server
  EXPECT_EQ(tags.SaveTags(dir / "vr480"), 0);
  EXPECT_EQ(ReadFile(dir / "vr480.tag"),
            "//#SET_CH_ENABLE = \"1 1\"\n#SET_DHCP = \"1\"\n//#set_ch_enable 3 1\n#SET_CH_ENABLE = \"1 0\"\n");
}

// Loading keeps trimmed command lines only (CR LF, tabs, text before "#", no final LF, lines
// cut at 999 characters) and appends; a save, then a load, gives the same bytes; failures named.
TEST(TagManager, LoadTagsTakesTrimmedCommandLinesAndSavesRoundTrip) {
  CTempDir dir;
  const std::string base = dir / "vr480";
  WriteFile(base + ".tag", "  #SET_DHCP = \"1\"\n// note\n\n#SET_DHCP = \"0\"\n");
  CTagManager tags;
  EXPECT_EQ(tags.LoadTags(base), 0);
  WriteFile(base + ".tag", "#SET_MUX_LEVEL 2\r\n\t\r #SET_IDN_TXT = \"x\"\r\nnote #SET_SN 5\n#SET_SN 7");
  EXPECT_EQ(tags.LoadTags(base), 0);
  EXPECT_EQ(Tags(tags), (std::vector<std::string>{"#SET_DHCP = \"1\"", "#SET_DHCP = \"0\"", "#SET_MUX_LEVEL 2\r",
                                                  "#SET_IDN_TXT = \"x\"\r", "#SET_SN 7"}));
  EXPECT_EQ(tags.GetArgument(uint16_t{2}), "2");
  EXPECT_EQ(tags.GetArgument(uint16_t{3}), "x");
  WriteFile(base + ".tag", "#SET_IDN_TXT " + std::string(2000, 'a') + "\n#SET_SN 8\n");
  CTagManager cut;
  EXPECT_EQ(cut.LoadTags(base), 0);
  EXPECT_EQ(Tags(cut), (std::vector<std::string>{"#SET_IDN_TXT " + std::string(986, 'a'), "#SET_SN 8"}));

  // Save then load gives the same bytes; a save replaces the file whole and leaves no temporary.
  const std::string file = "#SET_DHCP = \"1\"\n#SET_IDN_TXT = \"  two  spaces \"\n#SET_MUX_LEVEL 2\r\n"
                           "#SET_NTP_SERVER0 = \"pool\tntp\"\n";
  WriteFile(base + ".tag", file);
  CTagManager round;
  ASSERT_EQ(round.LoadTags(base), 0);
  round.ReplaceTag("#SET_DHCP 0");
  EXPECT_EQ(round.SaveTags(base), 0);
  EXPECT_EQ(ReadFile(base + ".tag"), "#SET_DHCP = \"0\"" + file.substr(file.find('\n')));
  EXPECT_FALSE(std::filesystem::exists(base + ".tag.tmp"));
  EXPECT_EQ(CTagManager().SaveTags(dir / "empty"), 0);
  EXPECT_EQ(ReadFile(dir / "empty.tag"), "");
  CaptureStdout();
  EXPECT_EQ(cut.LoadTags(dir / "none"), -1);
  EXPECT_EQ(round.SaveTags(dir / "no/such/dir/vr480"), -1);
  round.DumpTags();
  EXPECT_EQ(GetCapturedStdout(), "Error opening input Tag File " + (dir / "none.tag") + "\n" +
                                     "Error opening output Tag File " + (dir / "no/such/dir/vr480.tag") +
                                     "\nTag[0] #SET_DHCP = \"0\"\nTag[1] #SET_IDN_TXT = \"  two  spaces \"\n"
                                     "Tag[2] #SET_MUX_LEVEL 2\r\nTag[3] #SET_NTP_SERVER0 = \"pool\tntp\"\n");
}

// Client service threads record settings concurrently while others read the list: one tag per
// key, each the last given, and a reader never sees a half-written line.
TEST(TagManager, ConcurrentReplacementsLeaveOneTagPerKey) {
  CTagManager tags;
  constexpr int kThreads = 4, kRounds = 300;
  const short channel[] = {1};
  CaptureStdout();
  std::vector<std::thread> writers;
  for (int t = 0; t < kThreads; ++t) {
    writers.emplace_back([&tags, &channel, t] {
      for (int r = 0; r < kRounds; ++r) {
        tags.ReplaceTag("#SET_SHARED " + std::to_string(t));
        tags.ReplaceTag("#SET_OWN_" + std::to_string(t) + " " + std::to_string(r));
        tags.ReplaceTagOnArg("#SET_CH_ENABLE " + std::to_string(r % 8 + 1) + " " + std::to_string(t), 1, channel);
      }
    });
  }
  std::thread reader([&tags] {
    for (int r = 0; r < kRounds; ++r) {
      const std::string text = tags.GetTagsText();
      for (size_t k = text.find('\n'); k != std::string::npos; k = text.find('\n', k + 1)) EXPECT_EQ(text[k - 1], '"');
    }
  });
  for (auto& w : writers) w.join();
  reader.join();
  GetCapturedStdout();
  ASSERT_EQ(tags.GetNumTags(), 13);  // 1 shared + 4 own + 8 channels
  std::set<std::string> keys;
  for (uint16_t i = 0; i < tags.GetNumTags(); ++i) {
    const std::string command = tags.GetCommand(i);
    keys.insert(command == "#SET_CH_ENABLE" ? command + CTagManager::GetArgument(tags.GetTag(i)).substr(0, 1) : command);
    if (command.rfind("#SET_OWN_", 0) == 0) {
      EXPECT_EQ(tags.GetArgument(i), std::to_string(kRounds - 1));
    }
  }
  EXPECT_EQ(keys.size(), 13u) << "one tag per key";
  for (int t = 0; t < kThreads; ++t) EXPECT_EQ(keys.count("#SET_OWN_" + std::to_string(t)), 1u);
}

}  // namespace
