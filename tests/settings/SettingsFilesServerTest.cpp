// The settings commands against the real server on the simulated card: the files it loads at
// start-up, what #SAVE_SETTINGS and #SAVE_WVL_OFFSETS write (inside the remount bracket), the
// tag list commands, and a restart that loads what was saved.
#include <gtest/gtest.h>
#include <signal.h>

#include <filesystem>
#include <string>
#include <vector>

#include "host/Host.h"
#include "support/ServerProcess.h"
#include "support/TempDir.h"
#include "support/TestClient.h"

namespace {

constexpr const char* kBaselineTags =
    "#SET_SOA_DRIVE = \"30000\"\n"
    "#SET_SCAN_AMP = \"40000\"\n"
    "#SET_INITIAL_BIAS = \"28000\"\n"
    "#SET_AUTOBIAS = \"1\"\n"
    "#SET_AUTO_SCAN_AMP = \"1\"\n"
    "#SET_ZOR_FS_ENABLE = \"1\"\n"
    "#SET_ZOR_LOC_MEAS_ENABLE = \"1\"\n";

// Waits for each line on its own (other threads print between them, and the console reaches
// the test some time after the reply), then checks that they came in this order, as the one
// thread that prints them wrote them.
void ExpectLinesInOrder(CServerProcess& server, const std::vector<std::string>& lines) {
  for (const auto& line : lines)
    ASSERT_TRUE(server.WaitForOutput(line, std::chrono::seconds(30))) << "missing: [" << line << "]";
  const std::string output = server.Output();
  size_t at = 0;
  for (const auto& line : lines) {
    const size_t found = output.find(line, at);
    ASSERT_NE(found, std::string::npos) << "out of order: [" << line << "]";
    at = found + line.size();
  }
}

std::string Lines(int count, int (*value)(int)) {
  std::string text;
  for (int i = 0; i < count; ++i) text += std::to_string(value(i)) + "\n";
  return text;
}

// Data files in the server's own format, so that saving them again must give the same bytes.
struct SDataFiles {
  std::string References = Lines(4000, [](int i) { return 1545000000 + i * 17; });
  std::string Averages = Lines(4000, [](int i) { return 1 + i % 300; });
  std::string Db2Counts = Lines(1608, [](int i) { return 65535 - i * 11; });
  std::string Locations;
  std::string Gains;

  SDataFiles() {
    for (int i = 0; i < 4000; ++i) {
      char buf[40];
      std::snprintf(buf, sizeof buf, "%.9g\n", 0.125 * i + (i % 250) * 1e-6);
      Locations += buf;
    }
    for (uint32_t e = 0; e < 4u * 65535u; ++e) {
      const uint32_t v = e * 2654435761u;
      const char bytes[4] = {static_cast<char>(v), static_cast<char>(v >> 8), static_cast<char>(v >> 16),
                             static_cast<char>(v >> 24)};
      Gains.append(bytes, 4);
    }
  }

  void WriteTo(const CTempDir& root) const {
    WriteFile(root / "vr480/references.dat", References);
    WriteFile(root / "vr480/locations.dat", Locations);
    WriteFile(root / "vr480/averages.dat", Averages);
    WriteFile(root / "vr480/db2counts.dat", Db2Counts);
    WriteFile(root / "vr480/gain_wvl_offsets.dat", Gains);
  }

  void ExpectIn(const CTempDir& root) const {
    EXPECT_EQ(ReadFile(root / "vr480/references.dat"), References);
    EXPECT_EQ(ReadFile(root / "vr480/locations.dat"), Locations);
    EXPECT_EQ(ReadFile(root / "vr480/averages.dat"), Averages);
    EXPECT_EQ(ReadFile(root / "vr480/db2counts.dat"), Db2Counts);
    EXPECT_EQ(ReadFile(root / "vr480/gain_wvl_offsets.dat"), Gains);
  }
};

// The position of the last bracket in the command log, checking its three commands in order.
void ExpectBracketAfter(const CTempDir& root, size_t* from) {
  const auto log = CHost(root.Path()).CommandLog();
  size_t i = *from;
  for (const char* command : {"/bin/mount -o,remount /vr480", "/bin/sync", "/bin/mount -o,remount,ro /vr480"}) {
    while (i < log.size() && log[i] != command) ++i;
    ASSERT_LT(i, log.size()) << "no [" << command << "] after entry " << *from;
    ++i;
  }
  *from = i;
}

const std::vector<std::string> kLoaded = {
    "Locations data loaded.\n",        "References data loaded.\n",
    "Averages data loaded.\n",         "Wvl gain offsets data loaded.\n",
    "DB2COUNTS_FILE contains 401 entries.\n", "Db2Counts data loaded.\n"};

std::vector<std::string> Then(std::vector<std::string> first, const std::vector<std::string>& more) {
  first.insert(first.end(), more.begin(), more.end());
  return first;
}

}  // namespace

TEST(SettingsFilesServer, SaveWritesTheFilesInsideTheBracketAndARestartLoadsThem) {
  CTempDir root;
  const SDataFiles data;
  data.WriteTo(root);
  WriteFile(root / "cfc_build.dat", "12\nignored\n");
  WriteFile(root / "vr480/vr480.tag", std::string(kBaselineTags) +
                                          "// a remark, lost at the next save\n"
                                          "\n"
                                          "#SET_USER_VAR = \"1 5\"\n"
                                          "   #SET_USER_VAR = \"2 6\"\n"
                                          "#SET_IDN_TXT = \"Lab unit 7\"\n");
  const std::string kept = std::string(kBaselineTags) + "#SET_IDN_TXT = \"Lab unit 7\"\n";
  size_t logAt = 0;
  {
    CServerProcess server(root.Path(), FreePort());
    ASSERT_TRUE(server.WaitForOutput("Db2Counts data loaded.\n", std::chrono::seconds(40)))
        << server.Output().substr(0, 4000);
    EXPECT_EQ(server.Output().find("Error opening cfc_build file."), std::string::npos);
    ExpectLinesInOrder(server, Then({"CMD: #SET_USER_VAR = \"2 6\"\n", "CMD: #SET_IDN_TXT = \"Lab unit 7\"\n"}, kLoaded));

    CTestClient client(server.Port());
    ASSERT_TRUE(client.Connected());
    EXPECT_EQ(client.Command("#GET_TAGS"), std::string(kBaselineTags) +
                                               "#SET_USER_VAR = \"1 5\"\n"
                                               "#SET_USER_VAR = \"2 6\"\n"
                                               "#SET_IDN_TXT = \"Lab unit 7\"\n");
    EXPECT_EQ(client.Command("#remove_tag #set_user_var"), "Removing 2 tag(s).\n");
    EXPECT_EQ(client.Command("#REMOVE_TAG #SET_NO_SUCH_SETTING"), "Removing 0 tag(s).\n");
    EXPECT_EQ(client.Command("#DUMP_TAGS"), "Dumping Tags...\n");
    EXPECT_EQ(client.Command("#SAVE_SETTINGS"), "Settings Saved.\n");
    EXPECT_EQ(client.Command("#SAVE_WVL_OFFSETS"), "Wvl Offsets Saved.\n");
    // Argument counts are checked before any handler runs; the server answers on.
    EXPECT_EQ(client.Command("#SAVE_SETTINGS now"), "!Invalid command or argument: #SAVE_SETTINGS now.");
    EXPECT_EQ(client.Command("#REMOVE_TAG"), "!Invalid command or argument: #REMOVE_TAG .");
    EXPECT_EQ(client.Command("#GET_TAGS"), std::string(kBaselineTags) +
                                               "//#SET_USER_VAR = \"1 5\"\n"
                                               "//#SET_USER_VAR = \"2 6\"\n"
                                               "#SET_IDN_TXT = \"Lab unit 7\"\n");

    ExpectLinesInOrder(server, {"Removing Tag [#SET_USER_VAR = \"1 5\"]\n",
                                    "Removing Tag [#SET_USER_VAR = \"2 6\"]\n",
                                    "Could not remove Tag #SET_USER_VAR.  Tag not found.\n",
                                    "Could not remove Tag #SET_NO_SUCH_SETTING.  Tag not found.\n",
                                    "Tag[0] #SET_SOA_DRIVE = \"30000\"\n", "Tag[7] //#SET_USER_VAR = \"1 5\"\n",
                                    "Tag[9] #SET_IDN_TXT = \"Lab unit 7\"\n", "Setting saved.\n"});
    ExpectBracketAfter(root, &logAt);  // #SAVE_SETTINGS
    ExpectBracketAfter(root, &logAt);  // #SAVE_WVL_OFFSETS

    // The remark and the blank line are gone; removed tags stay, commented out.
    EXPECT_EQ(ReadFile(root / "vr480/vr480.tag"), std::string(kBaselineTags) +
                                                      "//#SET_USER_VAR = \"1 5\"\n"
                                                      "//#SET_USER_VAR = \"2 6\"\n"
                                                      "#SET_IDN_TXT = \"Lab unit 7\"\n");
    data.ExpectIn(root);
    EXPECT_EQ(server.Stop(SIGTERM), 0);
  }

  // The restart replays only the live tags and loads the tables that were saved; saving them
  // again gives the same bytes.
  CServerProcess server(root.Path(), FreePort());
  ASSERT_TRUE(server.WaitForOutput("Db2Counts data loaded.\n", std::chrono::seconds(40)))
      << server.Output().substr(0, 4000);
  EXPECT_EQ(server.Output().find("CMD: //"), std::string::npos);
  ExpectLinesInOrder(server, Then({"CMD: #SET_IDN_TXT = \"Lab unit 7\"\n"}, kLoaded));
  CTestClient client(server.Port());
  ASSERT_TRUE(client.Connected());
  EXPECT_EQ(client.Command("#GET_TAGS"), kept);
  EXPECT_EQ(client.Command("#SAVE_SETTINGS"), "Settings Saved.\n");
  EXPECT_EQ(client.Command("#SAVE_WVL_OFFSETS"), "Wvl Offsets Saved.\n");
  ExpectBracketAfter(root, &logAt);
  ExpectBracketAfter(root, &logAt);
  EXPECT_EQ(ReadFile(root / "vr480/vr480.tag"), kept);
  data.ExpectIn(root);
}

// A tag list of exactly the reply limit is sent whole; two characters more and the client gets
// the "!" reply while the console explains. Missing data files are named at start-up; a save
// that cannot write a file answers "!" with the file, and the server answers on.
TEST(SettingsFilesServer, GetTagsAtTheReplyLimitAndMissingDataFiles) {
  CTempDir root;
  std::string tags;
  for (int i = 0; i < 320; ++i) {
    char line[101];
    std::snprintf(line, sizeof line, "#TEST_TAG_%03d = \"%s\"\n", i, std::string(81, 'a').c_str());
    tags += line;
  }
  ASSERT_EQ(tags.size(), 32000u);
  WriteFile(root / "vr480/vr480.tag", tags);
  std::filesystem::create_directories(root / "vr480/references.dat.tmp");
  std::filesystem::create_directories(root / "vr480/gain_wvl_offsets.dat.tmp");

  CServerProcess server(root.Path(), FreePort());
  ASSERT_TRUE(server.WaitForOutput("Error opening db2counts file.\n", std::chrono::seconds(40)))
      << server.Output().substr(0, 4000);
  ExpectLinesInOrder(server, {"Error opening cfc_build file.\n", "Error opening locations file.\n",
                              "Error opening reference file.\n", "Error opening averages file.\n",
                              "Error opening wvl gain offsets file.\n", "DB2COUNTS_FILE contains 201 entries.\n",
                              "Error opening db2counts file.\n"});

  CTestClient client(server.Port());
  ASSERT_TRUE(client.Connected());
  EXPECT_EQ(client.Command("#GET_TAGS"), tags);
  EXPECT_EQ(client.Command("#REMOVE_TAG #TEST_TAG_000"), "Removing 1 tag(s).\n");
  EXPECT_EQ(client.Command("#GET_TAGS"), "!The Response to #GET_TAGS exceeds MAX_RESPONSE_LENGTH\n");
  EXPECT_EQ(client.Command("#GET_TAGS"), "!The Response to #GET_TAGS exceeds MAX_RESPONSE_LENGTH\n");
  const std::string stars(57, '*');
  ExpectLinesInOrder(server, {stars + "\n", "The Response to #GET_TAGS exceeds MAX_RESPONSE_LENGTH\n",
                              "MAX_RESPONSE_LENGTH =32000\n", "#GET_TAGS response_length = 32002\n", stars + "\n"});
  EXPECT_EQ(client.Command("#REMOVE_TAG #TEST_TAG_001"), "Removing 1 tag(s).\n");
  EXPECT_EQ(client.Command("#SAVE_SETTINGS"), "!Failed to save settings: references.dat.\n");
  EXPECT_EQ(client.Command("#SAVE_WVL_OFFSETS"), "!Failed to save wvl offsets: gain_wvl_offsets.dat.\n");
  ExpectLinesInOrder(server, {"Error opening references File.\n", "Error opening gain wvl offsets File.\n"});
  EXPECT_EQ(ReadFile(root / "vr480/locations.dat").size(), 4000u * 2);  // the other files were written
}
