// The settings commands against the real server on the simulated card: the tag file replayed at
// start-up, the tag list commands, the two saves inside the remount bracket, missing data files.
#include <gtest/gtest.h>

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

// Guards the tag commands' replies and console lines (counts, dump indexes), a tag list of exactly
// the reply limit sent whole and refused once longer, and what the saves write or fail to write.
TEST(SettingsFilesServer, TagCommandsReplyLimitAndSaves) {
  CTempDir root;
  WriteFile(root / "cfc_build.dat", "12\nignored\n");
  std::string tags = std::string(kBaselineTags) + "#SET_USER_VAR = \"1 5\"\n#SET_USER_VAR = \"2 6\"\n#SET_IDN_TXT = \"Lab unit 7\"\n";
  for (int i = 0; tags.size() < 32000; ++i) {  // filled up to exactly the reply limit
    std::string line = "#TEST_TAG_" + std::to_string(i) + " = \"" + std::string(80, 'a') + "\"\n";
    if (tags.size() + line.size() > 32000) line = line.substr(0, 32000 - tags.size() - 3) + "a\"\n";
    tags += line;
  }
  ASSERT_EQ(tags.size(), 32000u);
  WriteFile(root / "vr480/vr480.tag", "// a remark, lost at the next save\n\n   " + tags);
  CServerProcess server(root.Path(), FreePort());
  ASSERT_TRUE(server.WaitForOutput("Error opening db2counts file.\n", std::chrono::seconds(40)))
      << server.Output().substr(0, 4000);
  EXPECT_EQ(server.Output().find("Error opening cfc_build file."), std::string::npos);
  ExpectLinesInOrder(server, {"CMD: #SET_USER_VAR = \"2 6\"\n", "CMD: #SET_IDN_TXT = \"Lab unit 7\"\n",
                              "Error opening locations file.\n", "Error opening reference file.\n",
                              "Error opening averages file.\n", "Error opening wvl gain offsets file.\n",
                              "DB2COUNTS_FILE contains 201 entries.\n", "Error opening db2counts file.\n"});
  CTestClient client(server.Port());
  ASSERT_TRUE(client.Connected());
  EXPECT_EQ(client.Command("#GET_TAGS"), tags);
  EXPECT_EQ(client.Command("#remove_tag #set_user_var"), "Removing 2 tag(s).\n");
  EXPECT_EQ(client.Command("#REMOVE_TAG #SET_NO_SUCH_SETTING"), "Removing 0 tag(s).\n");
  EXPECT_EQ(client.Command("#GET_TAGS"), "!The Response to #GET_TAGS exceeds MAX_RESPONSE_LENGTH\n");
  EXPECT_EQ(client.Command("#GET_TAGS"), "!The Response to #GET_TAGS exceeds MAX_RESPONSE_LENGTH\n");
  EXPECT_EQ(client.Command("#DUMP_TAGS"), "Dumping Tags...\n");
  size_t logAt = 0;
  EXPECT_EQ(client.Command("#SAVE_SETTINGS"), "Settings Saved.\n");
  ExpectBracketAfter(root, &logAt);
  EXPECT_EQ(client.Command("#SAVE_WVL_OFFSETS"), "Wvl Offsets Saved.\n");
  ExpectBracketAfter(root, &logAt);
  const std::string stars(57, '*');
  ExpectLinesInOrder(server, {"Removing Tag [#SET_USER_VAR = \"1 5\"]\n", "Removing Tag [#SET_USER_VAR = \"2 6\"]\n",
                              "Could not remove Tag #SET_NO_SUCH_SETTING.  Tag not found.\n", stars + "\n",
                              "The Response to #GET_TAGS exceeds MAX_RESPONSE_LENGTH\n", "MAX_RESPONSE_LENGTH =32000\n",
                              "#GET_TAGS response_length = 32004\n", stars + "\n", "Tag[0] #SET_SOA_DRIVE = \"30000\"\n",
                              "Tag[7] //#SET_USER_VAR = \"1 5\"\n", "Tag[9] #SET_IDN_TXT = \"Lab unit 7\"\n", "Setting saved.\n"});
  // The remark and the blank line are gone; removed tags stay, commented out.
  std::string saved = tags;
  for (const char* removed : {"#SET_USER_VAR = \"1 5\"", "#SET_USER_VAR = \"2 6\""}) saved.insert(saved.find(removed), "//");
  EXPECT_EQ(ReadFile(root / "vr480/vr480.tag"), saved);
  EXPECT_EQ(ReadFile(root / "vr480/gain_wvl_offsets.dat").size(), 1048560u);

  // A save that cannot write a file answers "!" with the file, and the server answers on.
  std::filesystem::create_directories(root / "vr480/references.dat.tmp");
  std::filesystem::create_directories(root / "vr480/gain_wvl_offsets.dat.tmp");
  EXPECT_EQ(client.Command("#SAVE_SETTINGS"), "!Failed to save settings: references.dat.\n");
  EXPECT_EQ(client.Command("#SAVE_WVL_OFFSETS"), "!Failed to save wvl offsets: gain_wvl_offsets.dat.\n");
  ExpectLinesInOrder(server, {"Error opening references File.\n", "Error opening gain wvl offsets File.\n"});
}
