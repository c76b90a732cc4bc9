#include "settings/TagManager.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "support/TempDir.h"

namespace {

using testing::internal::CaptureStdout;
using testing::internal::GetCapturedStdout;

struct SSplit {
  std::string Command;
  std::string Argument;
};

SSplit Split(const std::string& line) {
  SSplit s;
  EXPECT_EQ(CTagManager::AnalyzeTag(line, &s.Command, &s.Argument), 0);
  return s;
}

std::vector<std::string> Tags(const CTagManager& tags) {
  std::vector<std::string> out;
  for (uint16_t i = 0; i < tags.GetNumTags(); ++i) out.push_back(tags.GetTag(i));
  return out;
}

// The dispatcher splits every client line this way, so a stored tag and the same command
// typed by hand must give the same command and argument.
TEST(TagManager, SplitsTypedAndStoredLinesAlike) {
  const SSplit typed = Split("#SET_CH_ENABLE 3 0");
  EXPECT_EQ(typed.Command, "#SET_CH_ENABLE");
  EXPECT_EQ(typed.Argument, "3 0");
  const SSplit stored = Split("#SET_CH_ENABLE = \"3 0\"");
  EXPECT_EQ(stored.Command, typed.Command);
  EXPECT_EQ(stored.Argument, typed.Argument);

  const SSplit compact = Split("  #set_dhcp=1");
  EXPECT_EQ(compact.Command, "#SET_DHCP");
  EXPECT_EQ(compact.Argument, "1");

  // Quotes keep every space; an unclosed quote runs to the end.
  EXPECT_EQ(Split("#SET_IDN_TXT = \"  two  spaces \"").Argument, "  two  spaces ");
  EXPECT_EQ(Split("#SET_IDN_TXT \"open end ").Argument, "open end ");

  // Without "=" the argument is the text after the command word; with "=" the text after it.
  EXPECT_EQ(Split("#SET_IDN_TXT Lab unit 7").Argument, "Lab unit 7");
  EXPECT_EQ(Split("#SET_IDN_TXT = \"a=b\"").Argument, "a=b");
  EXPECT_EQ(Split("#SET_IDN_TXT a=b").Argument, "b");

  // Arguments keep their case; a CR left by a PC editor is trimmed unless quoted.
  EXPECT_EQ(Split("#set_ntp_server0 Pool.Example\r").Argument, "Pool.Example");
  EXPECT_EQ(Split("#SET_DHCP = \"1\"\r").Argument, "1");

  EXPECT_EQ(CTagManager::GetCommand("#set_mux_level\t2"), "#SET_MUX_LEVEL");
}

TEST(TagManager, ReplaceTagKeepsOneCanonicalTagPerCommand) {
  CTagManager tags;
  CaptureStdout();
  EXPECT_EQ(tags.ReplaceTag("#set_dhcp=1"), 0);
  EXPECT_EQ(GetCapturedStdout(), "Adding Tag [#SET_DHCP = \"1\"]\n");
  EXPECT_EQ(Tags(tags), std::vector<std::string>{"#SET_DHCP = \"1\""});
  EXPECT_EQ(tags.GetRemark(0), "No Help Available.");

  // The typed form with a space gives the very same canonical line and replaces silently.
  CaptureStdout();
  tags.ReplaceTag("#SET_DHCP 1");
  tags.ReplaceTag("#set_dhcp 0");
  EXPECT_EQ(GetCapturedStdout(), "");
  EXPECT_EQ(Tags(tags), std::vector<std::string>{"#SET_DHCP = \"0\""});

  CaptureStdout();
  tags.ReplaceTag("#SET_IDN_TXT Lab unit 7");
  tags.ReplaceTag("#SET_DHCP = \"1\"");
  EXPECT_EQ(GetCapturedStdout(), "Adding Tag [#SET_IDN_TXT = \"Lab unit 7\"]\n");
  EXPECT_EQ(Tags(tags), (std::vector<std::string>{"#SET_DHCP = \"1\"", "#SET_IDN_TXT = \"Lab unit 7\""}));

  EXPECT_EQ(tags.GetTagsText(), "#SET_DHCP = \"1\"\n#SET_IDN_TXT = \"Lab unit 7\"\n");

  EXPECT_EQ(tags.ClearTags(), 0);
  EXPECT_EQ(tags.GetNumTags(), 0);
  EXPECT_EQ(tags.GetTagsText(), "");
}

TEST(TagManager, ReplaceTagOnArgKeepsOneTagPerChannel) {
  CTagManager tags;
  const short channel[] = {1};
  CaptureStdout();
  tags.ReplaceTagOnArg("#SET_CH_ENABLE 1 1", 1, channel);
  tags.ReplaceTagOnArg("#SET_CH_ENABLE 3 1", 1, channel);
  GetCapturedStdout();

  CaptureStdout();
  tags.ReplaceTagOnArg("#SET_CH_ENABLE 2 1", 1, channel);
  EXPECT_EQ(GetCapturedStdout(), "Adding Tag [#SET_CH_ENABLE = \"2 1\"]\n");
  CaptureStdout();
  tags.ReplaceTagOnArg("#set_ch_enable = \"3 0\"", 1, channel);
  EXPECT_EQ(GetCapturedStdout(), "");
  EXPECT_EQ(Tags(tags), (std::vector<std::string>{"#SET_CH_ENABLE = \"1 1\"", "#SET_CH_ENABLE = \"3 0\"",
                                                  "#SET_CH_ENABLE = \"2 1\""}));

  // Keyed on two columns: one tag per channel and sensor.
  const short channelAndSensor[] = {1, 2};
  CaptureStdout();
  tags.ReplaceTagOnArg("#SET_USER_VAR 1 5 10", 2, channelAndSensor);
  tags.ReplaceTagOnArg("#SET_USER_VAR 1 6 10", 2, channelAndSensor);
  tags.ReplaceTagOnArg("#SET_USER_VAR 1 5 20", 2, channelAndSensor);
  GetCapturedStdout();
  EXPECT_EQ(tags.GetTag(3), "#SET_USER_VAR = \"1 5 20\"");
  EXPECT_EQ(tags.GetTag(4), "#SET_USER_VAR = \"1 6 10\"");

}

TEST(TagManager, RemovedTagsAreCommentedOutSavedAndNotReloaded) {
  CTempDir dir;
  CTagManager tags;
  tags.AddTag("#SET_CH_ENABLE = \"1 1\"");
  tags.AddTag("#SET_DHCP = \"1\"");
  tags.AddTag("#SET_CH_ENABLE = \"2 1\"");
  tags.AddTag("#set_ch_enable 3 1");

  CaptureStdout();
  EXPECT_EQ(tags.RemoveTag("#set_ch_enable"), 1);
  EXPECT_EQ(tags.RemoveTag("#SET_CH_ENABLE"), 1);
  EXPECT_EQ(tags.RemoveTag("#SET_CH_ENABLE 9 9"), 1);  // only the command counts
  EXPECT_EQ(tags.RemoveTag("#SET_CH_ENABLE"), -1);
  EXPECT_EQ(GetCapturedStdout(),
            "Removing Tag [#SET_CH_ENABLE = \"1 1\"]\n"
            "Removing Tag [#SET_CH_ENABLE = \"2 1\"]\n"
            "Removing Tag [#set_ch_enable 3 1]\n"
            "Could not remove Tag #SET_CH_ENABLE.  Tag not found.\n");
  EXPECT_EQ(tags.GetNumTags(), 4);

  const std::string base = dir / "vr480";
  EXPECT_EQ(tags.SaveTags(base), 0);
  EXPECT_EQ(ReadFile(base + ".tag"),
            "//#SET_CH_ENABLE = \"1 1\"\n#SET_DHCP = \"1\"\n//#SET_CH_ENABLE = \"2 1\"\n"
            "//#set_ch_enable 3 1\n");

  CTagManager reloaded;
  EXPECT_EQ(reloaded.LoadTags(base), 0);
  EXPECT_EQ(Tags(reloaded), std::vector<std::string>{"#SET_DHCP = \"1\""});

  // A commented-out tag no longer counts for its command, so a setter adds a fresh one.
  CaptureStdout();
  tags.ReplaceTag("#SET_CH_ENABLE 1 0");
  EXPECT_EQ(GetCapturedStdout(), "Adding Tag [#SET_CH_ENABLE = \"1 0\"]\n");
}

TEST(TagManager, LoadTagsTakesTrimmedCommandLinesOnly) {
  CTempDir dir;
  const std::string base = dir / "vr480";
  WriteFile(base + ".tag", "  #SET_DHCP = \"1\"\n// note\n\n#SET_DHCP = \"0\"\n");

  CTagManager tags;
  EXPECT_EQ(tags.LoadTags(base), 0);
  EXPECT_EQ(Tags(tags), (std::vector<std::string>{"#SET_DHCP = \"1\"", "#SET_DHCP = \"0\""}));
  EXPECT_EQ(tags.GetRemark(1), "No Help Available.");
  CaptureStdout();
  tags.ReplaceTag("#SET_DHCP 1");
  EXPECT_EQ(GetCapturedStdout(), "");
  EXPECT_EQ(Tags(tags), (std::vector<std::string>{"#SET_DHCP = \"1\"", "#SET_DHCP = \"0\""}));

  // CR LF file, tabs before a tag, text before a "#", last line without LF; loading appends.
  WriteFile(base + ".tag", "#SET_MUX_LEVEL 2\r\n\t\r #SET_IDN_TXT = \"x\"\r\nnote #SET_SN 5\n#SET_SN 7");
  EXPECT_EQ(tags.LoadTags(base), 0);
  EXPECT_EQ(Tags(tags), (std::vector<std::string>{"#SET_DHCP = \"1\"", "#SET_DHCP = \"0\"",
                                                  "#SET_MUX_LEVEL 2\r", "#SET_IDN_TXT = \"x\"\r",
                                                  "#SET_SN 7"}));
  EXPECT_EQ(tags.GetArgument(uint16_t{2}), "2");
  EXPECT_EQ(tags.GetArgument(uint16_t{3}), "x");

  // An over-long line is cut at 999 characters and reading goes on behind it.
  WriteFile(base + ".tag", "#SET_IDN_TXT " + std::string(2000, 'a') + "\n#SET_SN 8\n");
  CTagManager cut;
  EXPECT_EQ(cut.LoadTags(base), 0);
  EXPECT_EQ(Tags(cut), (std::vector<std::string>{"#SET_IDN_TXT " + std::string(986, 'a'), "#SET_SN 8"}));

  CTagManager missing;
  CaptureStdout();
  EXPECT_EQ(missing.LoadTags(dir / "none"), -1);
  EXPECT_EQ(GetCapturedStdout(), "Error opening input Tag File " + (dir / "none.tag") + "\n");
  EXPECT_EQ(missing.GetNumTags(), 0);
  EXPECT_EQ(missing.LoadRems(dir / "none.rem"), 0);
}

TEST(TagManager, SaveThenLoadRoundTripsByteForByte) {
  CTempDir dir;
  const std::string base = dir / "vr480";
  const std::string file =
      "#SET_DHCP = \"1\"\n#SET_IDN_TXT = \"  two  spaces \"\n#SET_MUX_LEVEL 2\r\n"
      "#SET_CH_ENABLE = \"3 0\"\n#SET_NTP_SERVER0 = \"pool\tntp\"\n";
  WriteFile(base + ".tag", file);

  CTagManager first;
  ASSERT_EQ(first.LoadTags(base), 0);
  EXPECT_EQ(first.SaveTags(dir / "copy"), 0);
  EXPECT_EQ(ReadFile(dir / "copy.tag"), file);

  CTagManager second;
  ASSERT_EQ(second.LoadTags(dir / "copy"), 0);
  EXPECT_EQ(Tags(second), Tags(first));

  // Saving over an existing file replaces it whole and leaves no temporary file behind.
  second.ReplaceTag("#SET_DHCP 0");
  EXPECT_EQ(second.SaveTags(base), 0);
  EXPECT_EQ(ReadFile(base + ".tag"), "#SET_DHCP = \"0\"" + file.substr(file.find('\n')));
  EXPECT_FALSE(std::filesystem::exists(base + ".tag.tmp"));

  // An empty list saves an empty file.
  CTagManager empty;
  EXPECT_EQ(empty.SaveTags(dir / "empty"), 0);
  EXPECT_EQ(ReadFile(dir / "empty.tag"), "");

  CaptureStdout();
  EXPECT_EQ(first.SaveTags(dir / "no/such/dir/vr480"), -1);
  EXPECT_EQ(GetCapturedStdout(), "Error opening output Tag File " + (dir / "no/such/dir/vr480.tag") + "\n");
}

TEST(TagManager, DumpTagsListsToConsoleAndFile) {
  CTempDir dir;
  CTagManager tags;
  tags.AddTag("#SET_DHCP = \"1\"");
  tags.AddTag("//#SET_SN = \"5\"");

  CaptureStdout();
  tags.DumpTags();
  EXPECT_EQ(GetCapturedStdout(), "Tag[0] #SET_DHCP = \"1\"\nTag[1] //#SET_SN = \"5\"\n");

  EXPECT_EQ(tags.DumpTags(dir / "unix.txt", 0), 0);
  EXPECT_EQ(ReadFile(dir / "unix.txt"), "Tag[0] #SET_DHCP = \"1\"\nTag[1] //#SET_SN = \"5\"\n");
  EXPECT_EQ(tags.DumpTags(dir / "unix.txt", 1), 0);  // truncates what was there
  EXPECT_EQ(ReadFile(dir / "unix.txt"), "Tag[0] #SET_DHCP = \"1\"\r\nTag[1] //#SET_SN = \"5\"\r\n");

  CaptureStdout();
  EXPECT_EQ(tags.DumpTags(dir / "odd.txt", 2), -2);
  EXPECT_EQ(tags.DumpTags(dir / "no/dir.txt", 0), -1);
  EXPECT_EQ(GetCapturedStdout(), "CTagManager: Unknown file mode: 2\nError opening " +
                                     (dir / "no/dir.txt") + ".\n");
  EXPECT_FALSE(std::filesystem::exists(dir / "odd.txt"));
}

// Client service threads record settings concurrently while others read the list.
TEST(TagManager, ConcurrentReplacementsLeaveOneTagPerKey) {
  CTagManager tags;
  constexpr int kThreads = 4;
  constexpr int kRounds = 300;
  const short channel[] = {1};

  CaptureStdout();
  std::vector<std::thread> writers;
  for (int t = 0; t < kThreads; ++t) {
    writers.emplace_back([&tags, &channel, t] {
      for (int r = 0; r < kRounds; ++r) {
        tags.ReplaceTag("#SET_SHARED " + std::to_string(t));
        tags.ReplaceTag("#SET_OWN_" + std::to_string(t) + " " + std::to_string(r));
        tags.ReplaceTagOnArg("#SET_CH_ENABLE " + std::to_string(r % 8 + 1) + " " + std::to_string(t), 1,
                             channel);
      }
    });
  }
  std::thread reader([&tags] {
    // Every line is complete: a reader never sees a half-written tag.
    for (int r = 0; r < kRounds; ++r) {
      const std::string text = tags.GetTagsText();
      for (size_t k = text.find('\n'); k != std::string::npos; k = text.find('\n', k + 1)) EXPECT_EQ(text[k - 1], '"');
    }
  });
  for (auto& w : writers) w.join();
  reader.join();
  GetCapturedStdout();

  // 1 shared + 4 own + 8 channels, each exactly once.
  ASSERT_EQ(tags.GetNumTags(), 13);
  std::vector<std::string> keys;
  for (uint16_t i = 0; i < tags.GetNumTags(); ++i) {
    const std::string command = tags.GetCommand(i);
    keys.push_back(command == "#SET_CH_ENABLE" ? command + CTagManager::GetArgument(tags.GetTag(i)).substr(0, 1)
                                               : command);
  }
  std::sort(keys.begin(), keys.end());
  EXPECT_EQ(std::adjacent_find(keys.begin(), keys.end()), keys.end());
  for (int t = 0; t < kThreads; ++t) {
    const std::string own = "#SET_OWN_" + std::to_string(t);
    EXPECT_NE(std::find(keys.begin(), keys.end(), own), keys.end()) << own;
  }
  for (uint16_t i = 0; i < tags.GetNumTags(); ++i) {
    if (tags.GetCommand(i).rfind("#SET_OWN_", 0) == 0) {
      EXPECT_EQ(tags.GetArgument(i), std::to_string(kRounds - 1));
    }
  }
}

}  // namespace
