// The settings commands against the real server on the simulated card: the tag file it
// replays at start-up, the tag list commands, what #SAVE_SETTINGS and #SAVE_WVL_OFFSETS write
// (inside the remount bracket), and the data files it names when they are missing.
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
    "#SET_SOA_DRIVE = \"30000\"\n#SET_SCAN_AMP = \"40000\"\n#SET_INITIAL_BIAS = \"28000\"\n#SET_AUTOBIAS = \"1\"\n"
    "#SET_AUTO_SCAN_AMP = \"1\"\n#SET_ZOR_FS_ENABLE = \"1\"\n#SET_ZOR_LOC_MEAS_ENABLE = \"1\"\n";

// Waits for each line on its own (other threads print between them), then checks they came in
// this order, as the one thread that prints them wrote them.
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

}  // namespace

// Tag file replay, the tag commands' replies and console lines (counts, dump indexes), and
// what the two saves write inside the remount bracket.
TEST(SettingsFilesServer, TagCommandsAndSaveInsideTheBracket) {
  CTempDir root;
  WriteFile(root / "cfc_build.dat", "12\nignored\n");
  WriteFile(root / "vr480/vr480.tag", std::string(kBaselineTags) + "// a remark, lost at the next save\n\n"
                                          "#SET_USER_VAR = \"1 5\"\n   #SET_USER_VAR = \"2 6\"\n#SET_IDN_TXT = \"Lab unit 7\"\n");
  CServerProcess server(root.Path(), FreePort());
  ASSERT_TRUE(server.WaitForOutput("Error opening db2counts file.\n", std::chrono::seconds(40)))
      << server.Output().substr(0, 4000);
  EXPECT_EQ(server.Output().find("Error opening cfc_build file."), std::string::npos);
  ExpectLinesInOrder(server, {"CMD: #SET_USER_VAR = \"2 6\"\n", "CMD: #SET_IDN_TXT = \"Lab unit 7\"\n",
                              "Error opening db2counts file.\n"});
  CTestClient client(server.Port());
  ASSERT_TRUE(client.Connected());
  EXPECT_EQ(client.Command("#GET_TAGS"),
            std::string(kBaselineTags) + "#SET_USER_VAR = \"1 5\"\n#SET_USER_VAR = \"2 6\"\n#SET_IDN_TXT = \"Lab unit 7\"\n");
  EXPECT_EQ(client.Command("#remove_tag #set_user_var"), "Removing 2 tag(s).\n");
  EXPECT_EQ(client.Command("#REMOVE_TAG #SET_NO_SUCH_SETTING"), "Removing 0 tag(s).\n");
  EXPECT_EQ(client.Command("#DUMP_TAGS"), "Dumping Tags...\n");
  size_t logAt = 0;
  EXPECT_EQ(client.Command("#SAVE_SETTINGS"), "Settings Saved.\n");
  ExpectBracketAfter(root, &logAt);
  EXPECT_EQ(client.Command("#SAVE_WVL_OFFSETS"), "Wvl Offsets Saved.\n");
  ExpectBracketAfter(root, &logAt);
  ExpectLinesInOrder(server, {"Removing Tag [#SET_USER_VAR = \"1 5\"]\n", "Removing Tag [#SET_USER_VAR = \"2 6\"]\n",
                              "Could not remove Tag #SET_NO_SUCH_SETTING.  Tag not found.\n",
                              "Tag[0] #SET_SOA_DRIVE = \"30000\"\n", "Tag[7] //#SET_USER_VAR = \"1 5\"\n",
                              "Tag[9] #SET_IDN_TXT = \"Lab unit 7\"\n", "Setting saved.\n"});
  // The remark and the blank line are gone; removed tags stay, commented out.
  EXPECT_EQ(ReadFile(root / "vr480/vr480.tag"), std::string(kBaselineTags) +
            "//#SET_USER_VAR = \"1 5\"\n//#SET_USER_VAR = \"2 6\"\n#SET_IDN_TXT = \"Lab unit 7\"\n");
  EXPECT_EQ(ReadFile(root / "vr480/gain_wvl_offsets.dat").size(), 1048560u);
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
