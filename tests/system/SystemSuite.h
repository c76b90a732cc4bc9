// One in-process server on the simulated card for every test of the folder (a start costs
// seconds); each test starts from the default network settings, no host answers scripted and
// shell commands allowed. Tests that need the laser ready wait themselves. The last test shuts
// the server down.
#pragma once

#include <algorithm>
#include <string>
#include <vector>

#include "commands/InProcessServer.h"
#include "system/NetworkGlobals.h"

// The host commands recorded since `from` (a size of the command log).
inline std::vector<std::string> HostCommandsSince(size_t from, const std::vector<std::string>& log = Host().CommandLog()) {
  return {log.begin() + static_cast<long>(std::min(from, log.size())), log.end()};
}

inline const std::vector<std::string> kRemountBracket = {"/bin/mount -o,remount /vr480", "/bin/sync",
                                                         "/bin/mount -o,remount,ro /vr480"};

class SystemSuite : public ::testing::Test {
 protected:
  static void SetUpTestSuite() { RestoreNetworkDefaults(), Server = new laser_test::CInProcessServer(); }
  static void TearDownTestSuite() { delete Server, Server = nullptr, RestoreNetworkDefaults(); }
  void SetUp() override {
    ASSERT_TRUE(Server->Started());
    ASSERT_TRUE(Client.Connect(Server->Port()));
    RestoreNetworkDefaults();
    S().bEmbeddedMode = false;
    Host().ClearScripts();
  }
  void TearDown() override {
    ServerOptions.bNoShellCommands = false;
    Host().ClearScripts();
    if (!bShutDown) EXPECT_EQ(Client.Command("#GET_FIRMWARE_VER"), "2.0h") << "the server answers on";
  }
  CVr480Server& S() { return Server->S(); }
  std::string RootFile(const std::string& path) { return ReadFile(Server->RootPath() + path); }
  // Rows of command line, exact reply, and the host commands it ran, in order.
  struct Row {
    std::string Line, Reply;
    std::vector<std::string> Host;
  };
  void RunRows(const std::vector<Row>& rows) {
    for (const Row& r : rows) {
      const size_t before = Host().CommandLog().size();
      EXPECT_EQ(Client.Command(r.Line), r.Reply) << r.Line;
      EXPECT_EQ(HostCommandsSince(before), r.Host) << r.Line;
    }
  }
  static inline laser_test::CInProcessServer* Server = nullptr;
  static inline bool bShutDown = false;
  CTestClient Client;
};
