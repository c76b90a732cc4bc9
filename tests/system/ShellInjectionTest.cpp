// Off the instrument no text a client typed reaches a shell: every command that builds a shell
// command line from client text only records it, and nothing appears outside the root, whatever
// shell syntax the text carries.
#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <vector>

#include "commands/InProcessServer.h"
#include "system/NetworkGlobals.h"

namespace {

using namespace laser_test;
namespace fs = std::filesystem;

TEST(ShellInjection, ClientTextIsOnlyRecordedAndNothingAppearsOutsideTheRoot) {
  CTempDir outside;  // where a shell that ran the text would leave its mark
  const std::string mark = (fs::path(outside.Path()) / "pwned").string();
  const std::vector<std::string> payloads = {
      "x; touch " + mark,       "x | touch " + mark,   "x `touch " + mark + "`", "x $(touch " + mark + ")",
      "x && touch " + mark,     "x' \"; touch " + mark + "; echo '",             "x\ntouch " + mark,
  };
  // Each command line carries the payload where a client's text goes into a shell command.
  const std::vector<std::string> lines = {"#SYSTEM ",       "#NTPQ ",        "#SET_NTP_SERVER0 ", "#SET_DATE ",
                                          "#SET_HEADER_TXT ", "#SET_IDN_TXT ", "#SET_ZOR_SN ",      "#SET_PRODUCT_ID "};

  CInProcessServer server;
  CTestClient client;
  ASSERT_TRUE(client.Connect(server.Port()));
  ASSERT_TRUE(WaitReady(client, std::chrono::seconds(60)));  // the bundle of a ready laser takes seconds, not half a minute
  ASSERT_EQ(client.Command("#SET_ENABLE_NTP 1"), "NTP Services turned ON.\n");
  for (const std::string& payload : payloads) {
    for (const std::string& line : lines) {
      const size_t before = Host().CommandLog().size();
      ASSERT_TRUE(client.Send(line + payload));
      bool ok = false;
      client.ReadFrame(&ok, std::chrono::seconds(30));
      EXPECT_TRUE(ok) << line << payload;
      if (payload.find('\n') != std::string::npos) client.ReadFrame(&ok);  // the rest is a line of its own
      // What reached the host seam was recorded, not run.
      for (size_t i = before; i < Host().CommandLog().size(); ++i)
        EXPECT_FALSE(fs::exists(mark)) << Host().CommandLog()[i];
    }
    ASSERT_EQ(client.Command("#START_NTP").substr(0, 4), "NTP ");  // the server name goes into ntpdate's line
  }
  // The archive's password is one word: the shell's own spelling of a space makes it a command.
  const std::string password = "$(touch${IFS}" + mark + ")";
  const std::string bundle = client.Command("#DUMP_CORE " + password, std::chrono::seconds(120));
  EXPECT_EQ(bundle, "Core File is /tmp/vr_core.zip.  Now, #DOWNLOAD /tmp/vr_core.zip");

  // The texts went as far as the recorded commands, whole.
  const std::vector<std::string> log = Host().CommandLog();
  auto recorded = [&](const std::string& text) {
    for (const std::string& l : log)
      if (l == text) return true;
    return false;
  };
  EXPECT_TRUE(recorded("x; touch " + mark + " &>/tmp/sys.cmd"));
  EXPECT_TRUE(recorded("ntpq -c x | touch " + mark + " &>/tmp/ntpq.dat"));
  EXPECT_TRUE(recorded("ntpdate -u x && touch " + mark));
  bool zipped = false;
  for (const std::string& l : log) zipped = zipped || l.rfind("zip -j -P " + password + " /tmp/vr_core.zip", 0) == 0;
  EXPECT_TRUE(zipped);
  EXPECT_FALSE(fs::exists(mark));
  EXPECT_TRUE(fs::is_empty(outside.Path()));
  RestoreNetworkDefaults();
}

}  // namespace
