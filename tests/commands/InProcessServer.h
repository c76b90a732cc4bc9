// The whole server in process on a fresh root and the simulated card, Init and Run as vr480d runs
// them, on a free loopback port. One at a time per process (the host, card seam and options are global).
#pragma once

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <fstream>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "device/CardSeam.h"
#include "host/Host.h"
#include "server/Globals.h"
#include "server/Options.h"
#include "server/Vr480Server.h"
#include "sim/SimCardProvider.h"
#include "support/ServerProcess.h"
#include "support/TempDir.h"
#include "support/TestClient.h"

namespace laser_test {

// FPGA command codes the tests look for in the card's log.
constexpr uint8_t kBiasCode = 0x03;
constexpr uint8_t kScanAmpCode = 0x04;
constexpr uint8_t kReadyLedCode = 0x07;
constexpr uint8_t kDataRateDividerCode = 0x17;
constexpr uint8_t kSoaDriveCode = 0x18;
constexpr uint8_t kSoaOnCountCode = 0x2D;
constexpr uint8_t kSyncHiCode = 0x31;
constexpr uint8_t kSyncLoCode = 0x32;

// Tags that start the simulated laser at its ready bias and scan amplitude (no wait for the loops).
inline std::vector<std::string> ReadyLaserTags() {
  return {"#SET_SCAN_AMP = \"40800\"", "#SET_INITIAL_BIAS = \"28440\""};
}

class CInProcessServer {
 public:
  // `beforeInit` runs with the host installed (files under the root, scripted host answers);
  // `beforeRun` after a successful Init, where vr480d starts its front panel.
  explicit CInProcessServer(const std::vector<std::string>& extraTags = ReadyLaserTags(),
                            sim::CSimOptions card = {},
                            const std::function<void(const std::string& root)>& beforeInit = {},
                            const std::function<void(CVr480Server&)>& beforeRun = {}) {
    std::string error;
    EXPECT_TRUE(PrepareWorkstationRoot(Root.Path(), error)) << error;
    std::ofstream tags(Root / "vr480/vr480.tag", std::ios::app);
    for (const std::string& line : extraTags) tags << line << "\n";
    tags.close();
    InstallHost(Root.Path());
    card.Root = Root.Path();
    Provider = std::make_shared<sim::CSimCardProvider>(card);
    InstallCard(Provider);
    ServerOptions.Port = FreePort();
    ServerOptions.ListenAddress = "127.0.0.1";

    if (beforeInit) beforeInit(Root.Path());
    bStopSignalled = false;
    Server = std::make_unique<CVr480Server>();
    InitCode = Server->Init();
    EXPECT_EQ(InitCode, kInitOk);
    if (InitCode != kInitOk) return;
    if (beforeRun) beforeRun(*Server);
    Acquisition = std::thread([this] { RunResult = Server->Run(); });
  }

  ~CInProcessServer() {
    bStopSignalled = true;
    bRun = false;
    if (Acquisition.joinable()) Acquisition.join();
    Server->Shutdown();
    Server.reset();
    bStopSignalled = false;
    InstallCard(std::make_shared<CRealCardProvider>());
    InstallHost("/");
    ServerOptions = CServerOptions();
  }

  CVr480Server& S() { return *Server; }
  sim::CSimCard& Card() { return Provider->Card(); }
  int Port() const { return ServerOptions.Port; }
  const std::string& RootPath() const { return Root.Path(); }
  bool Started() const { return InitCode == kInitOk; }
  // Run's result once it has returned (-1 while it runs).
  int RunResultCode() const { return RunResult; }
  bool RunEnded() const { return RunResult != -1; }

  // The arguments of the words with `code` the card received since `from` (a log size).
  std::vector<uint32_t> Sent(uint8_t code, size_t from) {
    std::vector<uint32_t> args;
    const auto log = Card().CommandLog();
    for (size_t i = from; i < log.size(); ++i)
      if (log[i].Word >> 24 == code) args.push_back(log[i].Word & 0xFFFFFF);
    return args;
  }
  size_t LogSize() { return Card().CommandLog().size(); }

 private:
  CTempDir Root;
  std::shared_ptr<sim::CSimCardProvider> Provider;
  std::unique_ptr<CVr480Server> Server;
  std::thread Acquisition;
  int16_t InitCode = -1;
  std::atomic<int> RunResult{-1};
};

// Polls a condition every 20 ms until it holds or the time is up.
template <class Condition>
bool WaitFor(Condition condition, std::chrono::milliseconds timeout) {
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  while (!condition()) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  return true;
}

// Waits until "#READY?" answers 1.
inline bool WaitReady(CTestClient& client, std::chrono::milliseconds timeout = std::chrono::seconds(15)) {
  return WaitFor([&] { return client.Command("#READY?") == "1"; }, timeout);
}

// Tests sharing one server: each starts with its own client on a ready laser, ends by proving it answers.
template <class Suite>
class CSharedServerSuite : public ::testing::Test {
 protected:
  static void SetUpTestSuite() { Server = new CInProcessServer(); }
  static void TearDownTestSuite() {
    delete Server;
    Server = nullptr;
  }
  void SetUp() override {
    ASSERT_TRUE(Server->Started());
    ASSERT_TRUE(Client.Connect(Server->Port()));
    ASSERT_TRUE(WaitReady(Client, std::chrono::seconds(30))) << "the laser did not come up ready";
  }
  void TearDown() override { EXPECT_EQ(Client.Command("#IDN?").substr(0, 7), "Zorvane"); }

  CVr480Server& S() { return Server->S(); }
  sim::CSimCard& Card() { return Server->Card(); }

  static inline CInProcessServer* Server = nullptr;
  CTestClient Client;
};

}  // namespace laser_test
