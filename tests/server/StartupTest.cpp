// The server process from start to exit on the simulated card: what it prints, which codes
// its configuration memory leads to, and how it stops.
#include <gtest/gtest.h>
#include <signal.h>

#include <functional>
#include <future>
#include <memory>

#include "host/Host.h"
#include "server/Options.h"
#include "sim/SimCard.h"
#include "sim/SimNvram.h"
#include "support/ServerProcess.h"
#include "support/TempDir.h"

using namespace std::chrono_literals;

namespace {

// Asserts that `texts` appear in `output` in this order.
void ExpectInOrder(const std::string& output, const std::vector<std::string>& texts) {
  size_t at = 0;
  for (const auto& t : texts) {
    const size_t found = output.find(t, at);
    ASSERT_NE(found, std::string::npos) << "missing or out of order: [" << t << "]";
    at = found + t.size();
  }
}

void WriteNvram(const std::string& root, sim::ENvramImage image) {
  const auto bytes = sim::MakeNvramImage(image, "SN-TEST-0000042");
  WriteFile(sim::NvramPath(root), std::string(bytes.begin(), bytes.end()));
}

const std::vector<std::string> kHostStart = {"/sbin/hwclock --hctosys", "stty -F /dev/ttyS0 ospeed 115200 cs8 -cstopb -parenb"};

// What start-up ends with, by what the root holds: a blank bridge or a too-old configuration
// memory is rewritten and start-up ends there (the new image takes effect at the next
// power-up); without a card, or with a card that is no vr480, the server says so.
struct SRow {
  const char* Name;
  std::function<void(const std::string& root)> Prepare;
  int Code;
  std::vector<std::string> Texts;  // in this order
};
const std::vector<SRow>& Rows() {
  static const std::vector<SRow> rows = {
      {"blank", [](const std::string& r) { WriteNvram(r, sim::ENvramImage::Blank); }, 4,
       {"\n\n\n********************************\n***** Found an AMCC S5335. *****\n"
        "********************************\nBuilding ZOR device...\n",
        "** Warning: No RID was specified.  Assuming a Rev. 3 ZOR device... **\n",
        "Initialization of vr480 failed with error code 4.\n"}},
      // Revision 2 on the board that needs revision 3: rewritten, serial number kept.
      {"rev2 on the new board",
       [](const std::string& r) {
         WriteNvram(r, sim::ENvramImage::Rev2);
         WriteFile(r + "/vr480.9361.id", "");
       },
       5,
       {"***** Found a Rev. 2 ZOR vr480. *****\n", "**********  Reflashing ZOR device... **********\n",
        "Initialization of vr480 failed with error code 5.\n"}},
      {"rev1", [](const std::string& r) { WriteNvram(r, sim::ENvramImage::Rev1); }, 5, {}},  // too old on any board
      {"no card", [](const std::string& r) { WriteFile(r + "/vr480/sim_scene.txt", "card_absent 1\n"); }, 1,
       {"Could not find an AMCC/ZOR device.\nMake sure an vr480 card is installed before running this program.\n"
        "Initialization of vr480 failed with error code 1.\n"}},
      {"unknown card", [](const std::string& r) { WriteFile(r + "/vr480/sim_scene.txt", "device_id 0x1234\n"); }, 1,
       {"Warning: Unknown Device ID 4660.\nPlease notify engineering.\nInitialization of vr480 failed with error code 1.\n"}},
  };
  return rows;
}

// The runs start with the suite and go side by side: each is mostly waiting.
class ServerLifecycle : public testing::Test {
 protected:
  static void SetUpTestSuite() {
    WriteNvram(Rev2Root.Path(), sim::ENvramImage::Rev2);
    Rev2 = std::make_unique<CServerProcess>(Rev2Root.Path(), FreePort());
    for (const auto& row : Rows()) {
      Roots.push_back(std::make_unique<CTempDir>());
      row.Prepare(Roots.back()->Path());
      Runs.push_back(std::async(std::launch::async, [root = Roots.back()->Path()] {
        std::string out;
        const int code = RunServerToExit({"--root", root, "--port", std::to_string(FreePort())}, &out, 90s);
        return std::make_pair(code, out);
      }));
    }
  }
  static void TearDownTestSuite() {
    for (auto& run : Runs)
      if (run.valid()) run.wait();
    Runs.clear();
    Roots.clear();
    Rev2.reset();
  }
  static inline CTempDir Rev2Root;
  static inline std::unique_ptr<CServerProcess> Rev2;
  static inline std::vector<std::unique_ptr<CTempDir>> Roots;
  static inline std::vector<std::future<std::pair<int, std::string>>> Runs;
};

}  // namespace

// Guards the start-up and stop texts in order, and the host commands that come before Init.
TEST_F(ServerLifecycle, FreshRootStartsOnTheSimulatedCardAndStopsOnSigterm) {
  CTempDir root;
  CServerProcess server(root.Path(), FreePort());
  ASSERT_TRUE(server.WaitForOutput("**FsCountOffset = ", 40s)) << server.Output().substr(0, 4000);
  ExpectInOrder(server.Output(), {
                                     "The current output terminal is ",
                                     "\n\n\n*************************************\n"
                                     "***** Found a Rev. 3 ZOR vr480. *****\n"
                                     "*************************************\n",
                                     "Wvl Avg Est Memory Requirements = 40017096\n",
                                     "Error opening cfc_build file.\n",
                                     "**** FS is optimized ****\n",
                                     "\nAutoBias time = ",
                                     "\n--------------------------------------------------------\n"
                                     "SVN Base Build 47, Mon Dec  6 22:30:32 GMT-5 2010\n"
                                     "--------------------------------------------------------\n"
                                     "Server Release 2.0h\n"
                                     "Driver Release 52\n"
                                     "FPGA Synthesis Release 101\n"
                                     "Base CFC Build 1\n"
                                     "--------------------------------------------------------\n\n",
                                     "eth0:\tIP Address: ",
                                     "**FsCountOffset = ",
                                 });
  EXPECT_EQ(server.Stop(SIGTERM, 15s), 0);
  ExpectInOrder(server.Output(), {
                                     "Canceling the FS calibration thread...done.\n",
                                     "Waiting for client threads to halt...\n",
                                     "Client threads halted.\n",
                                     "Waiting for GUI to halt...\n",
                                     "GUI halted.\n",
                                     "Attempting to free 40017096 bytes from averaging buffers...OK.\n",
                                     "\nServer Terminated Normally.\n",
                                 });
  // The clock is loaded from the hardware clock before Init, whose first command sets up the port.
  const auto log = CHost(root.Path()).CommandLog();
  ASSERT_GE(log.size(), 2u);
  EXPECT_EQ(std::vector<std::string>(log.begin(), log.begin() + 2), kHostStart);
}

// Guards the start-up codes and texts by root, and the rewritten configuration memory.
TEST_F(ServerLifecycle, RootDecidesTheStartupCode) {
  for (size_t i = 0; i < Rows().size(); ++i) {
    SCOPED_TRACE(Rows()[i].Name);
    const auto [code, out] = Runs[i].get();
    EXPECT_EQ(code, Rows()[i].Code) << out;
    ExpectInOrder(out, Rows()[i].Texts);
  }
  std::string nv = ReadFile(sim::NvramPath(Roots[0]->Path()));
  ASSERT_EQ(nv.size(), 256u);
  EXPECT_EQ(static_cast<uint8_t>(nv[0x48]), 3);
  EXPECT_EQ(nv.substr(0x40, 4), std::string("\xE8\x10\x82\x88", 4));
  nv = ReadFile(sim::NvramPath(Roots[1]->Path()));
  EXPECT_EQ(static_cast<uint8_t>(nv[0x48]), 3);
  EXPECT_EQ(nv.substr(0x80, 15), "SN-TEST-0000042");
  EXPECT_EQ(CHost(Roots[3]->Path()).CommandLog(), kHostStart);
}

// Guards the board marker: revision 2 without it is no reason to rewrite.
TEST_F(ServerLifecycle, RevisionTwoWithoutTheBoardMarkerStartsNormally) {
  ASSERT_TRUE(Rev2->WaitForOutput("**** FS is optimized ****", 60s));
  EXPECT_NE(Rev2->Output().find("***** Found a Rev. 2 ZOR vr480. *****"), std::string::npos);
  EXPECT_EQ(Rev2->Output().find("Reflashing"), std::string::npos);
  EXPECT_EQ(Rev2->Stop(SIGINT, 15s), 0);
}

TEST_F(ServerLifecycle, HelpAndBadOptions) {
  std::string out;
  EXPECT_EQ(RunServerToExit({"--help"}, &out), 0);
  EXPECT_EQ(out, UsageText());
  EXPECT_EQ(RunServerToExit({"--port", "0"}, &out), 2);
  EXPECT_NE(out.find("vr480d: invalid port '0' (1-9999)"), std::string::npos);
}
