// The server on the simulated card: in process, what the card receives from start-up and the mode
// setters, how fetched records are patched, temperature, multiplexer, triggering, repeated messages;
// as a process, what it prints from start to exit, its start-up codes by root, and how it stops.
#include <gtest/gtest.h>
#include <signal.h>

#include <algorithm>
#include <cstdio>
#include <functional>
#include <future>
#include <memory>
#include <thread>

#include "host/Host.h"
#include "server/Globals.h"
#include "server/Options.h"
#include "server/RepeatingMessage.h"
#include "server/Vr480Server.h"
#include "sim/SimCardProvider.h"
#include "sim/SimNvram.h"
#include "support/ServerProcess.h"
#include "support/TempDir.h"

using namespace std::chrono_literals;

// Drives start-up stages and acquisition passes one by one.
struct ServerAccess {
  static void KnownState(CVr480Server& s) { s.PutCardInKnownState(); }
  static void Pass(CVr480Server& s) { s.AcquisitionPass(); }
  static void InitAveraging(CVr480Server& s) { s.InitAveragingStore(); }
  static int BuildTable(CVr480Server& s) { return s.build_FBG_Vth2Thz_LUT(); }
};

namespace {

template <class F>
std::string Captured(F f) {
  testing::internal::CaptureStdout();
  f();
  std::fflush(stdout);
  return testing::internal::GetCapturedStdout();
}

// A server object over its own open simulated card; nothing else started (no TCP server, no threads).
class AcquisitionTest : public testing::Test {
 protected:
  void Open(sim::EProducerMode mode, const sim::CSimScene* scene = nullptr) {
    sim::CSimOptions options;
    options.Mode = mode;
    Card = std::make_unique<sim::CSimCardProvider>(options);
    if (scene) Card->Card().LoadScene(*scene);
    Server = std::make_unique<CVr480Server>();
    Server->Driver.SetCardProvider(Card.get());
    Server->Driver.SetSleepHook([](unsigned long) {});
    Captured([&] { bOpen = Server->Driver.init_vr480() == 0; });
    ASSERT_TRUE(bOpen);
  }
  void TearDown() override { if (bOpen) Server->Driver.close_vr480(); }
  // Known state, the laser at the working point the loops settle on with the default scene.
  void AtWorkingPoint() {
    ServerAccess::KnownState(*Server);
    Server->Driver.SetSOADrive(30000);
    Server->Driver.SetScanAmp(40800);
    Server->Driver.SetBias(28620);
    Server->Bias = 28620;
  }
  // What Init does for acquisition besides the known state: grating table, averaging store, rings.
  void PrepareAcquisition() {
    ServerAccess::BuildTable(*Server);
    Captured([&] { ServerAccess::InitAveraging(*Server); });
    ASSERT_TRUE(Server->AllocateRings());
  }
  // The FPGA words the card received since `from`, without the buffer-address words.
  std::vector<uint32_t> Words(size_t from = 0) {
    std::vector<uint32_t> words;
    auto log = Card->Card().CommandLog();
    for (size_t i = from; i < log.size(); ++i)
      if (const uint32_t code = log[i].Word >> 24; code < 0x38 || code > 0x3A) words.push_back(log[i].Word);
    return words;
  }
  size_t LogSize() { return Card->Card().CommandLog().size(); }

  std::unique_ptr<sim::CSimCardProvider> Card;
  std::unique_ptr<CVr480Server> Server;
  bool bOpen = false;
};

}  // namespace

// Guards every word start-up sends the card, in order.
TEST_F(AcquisitionTest, StartUpPutsTheCardInItsKnownState) {
  Open(sim::EProducerMode::Step);
  const size_t from = LogSize();
  ServerAccess::KnownState(*Server);
  std::vector<uint32_t> expected = {0x2F0000FA, 0x01000001, 0x08000000, 0x07000000, 0x12008810, 0x1200AAA0,
                                    0x1200CAA0, 0x17000001, 0x0C000000, 0x30000000, 0x37000000, 0x04000000,
                                    0x03000000, 0x18000000, 0x19000001, 0x0900001E, 0x0B000028, 0x1A000003,
                                    0x1B000003};
  for (uint32_t ch = 0; ch < 6; ++ch)
    for (uint32_t w : {0x06000000 | ((0x30 + ch) << 16), 0x0D000000 | ((0x30 + ch) << 16), 0x0F000001 | (ch << 16),
                       0x0E0000C8 | (ch << 16), 0x100005DC | (ch << 16), 0x11000001 | (ch << 16)})
      expected.push_back(w);
  for (uint32_t w : {0x0A000000u, 0x20000000u, 0x21000000u, 0x22000000u, 0x24000000u, 0x26000000u, 0x27000000u,
                     0x25000000u, 0x28000000u, 0x29000000u, 0x2D000000u, 0x2E000000u, 0x31000000u, 0x32010000u,
                     0x2A000000u, 0x2B000000u})
    expected.push_back(w);
  EXPECT_EQ(Words(from), expected);
  EXPECT_EQ(Server->DataRateDivider, 1);
  EXPECT_EQ(Server->GetMuxLevel(), 1);
  EXPECT_FALSE(Server->bMuxLevelChanged);
  EXPECT_EQ(Card->Card().LostCommands(), 0u);
}

// Guards the lost-command console text and the driver's shadow of a lost setting.
TEST_F(AcquisitionTest, StalledMailboxLosesTheCommandButTheShadowKeepsIt) {
  Open(sim::EProducerMode::Step);
  Card->Card().SetMailboxStall(true);
  EXPECT_EQ(Captured([&] { EXPECT_EQ(Server->Driver.SetBias(5), -1); }),
            "Warning: timeout on S5335 OMBX1.  Last command is lost.\nLost Command: 50331653  (cmd= 3, arg=5)\n");
  EXPECT_EQ(Server->Driver.GetBias(), 5);
  Card->Card().SetMailboxStall(false);
  EXPECT_NE(Card->Card().Applied().Bias, 5);
  EXPECT_EQ(Server->Driver.SetBias(6), 0);
}

// Guards the mode setters' limits as the card sees them: a bad multiplexer level, the divider's
// range, a minimum divider that refuses, and no divider while a multiplexer cycles.
TEST_F(AcquisitionTest, ModeSetterEdgeCasesAsTheCardSeesThem) {
  Open(sim::EProducerMode::Step);
  ServerAccess::KnownState(*Server);
  size_t from = LogSize();
  Server->SetMuxLevel(3);  // not a level: level 1, both opto outputs off
  EXPECT_EQ(Server->GetMuxLevel(), 1);
  EXPECT_EQ(Words(from), (std::vector<uint32_t>{0x2A000000, 0x2B000000}));
  Server->MinDataRateDivider = 2;
  from = LogSize();
  Server->SetDataRateDivider(0);
  EXPECT_EQ(Server->DataRateDivider, 2);
  Server->SetDataRateDivider(5000);
  EXPECT_EQ(Server->DataRateDivider, 2000);
  EXPECT_EQ(Words(from), (std::vector<uint32_t>{0x17000002, 0x170007D0}));
  Server->MinDataRateDivider = 3;
  from = LogSize();
  EXPECT_EQ(Server->SetOperatingMode(1), -1);
  EXPECT_EQ(Server->SetMuxLevel(2), -1);
  EXPECT_TRUE(Words(from).empty());
  Server->MinDataRateDivider = 1;
  Server->SetDataRateDivider(1);
  ASSERT_EQ(Server->SetMuxLevel(2), 0);
  EXPECT_TRUE(Server->bMuxLevelChanged);
  from = LogSize();
  Server->SetDataRateDivider(7);
  EXPECT_EQ(Server->DataRateDivider, 1);
  EXPECT_TRUE(Words(from).empty());
}

// Guards the patches made to each fetched record: a disabled channel's peaks, the grating's
// temperature, the grating taken from a DUT channel, and the layer numbering.
TEST_F(AcquisitionTest, FetchedRecordsArePatchedBeforeAnyoneReadsThem) {
  sim::CSimScene scene = sim::DefaultScene();
  scene.Sensors[1].clear();
  for (int i = 0; i < 20; ++i) scene.Sensors[1].push_back({1525.0 + 2.0 * i, 0.0, 12000.0});
  Open(sim::EProducerMode::FreeRunning, &scene);
  AtWorkingPoint();
  Server->ChEnable[2] = false;  // logical channel 3: DUT channel 2 of layer 0
  for (int i = 0; i < 20; ++i) Server->GetData();
  struct_dma_peaks_data* rec = Server->pPeaks;
  EXPECT_EQ(Server->pLastPeaks.load(), rec);
  EXPECT_EQ(rec->status.Byte49, 3);
  EXPECT_GT(rec->status.NumPeaks[2], 0);
  EXPECT_GT(rec->status.NumPeaks[3], 0);
  EXPECT_EQ(rec->status.NumPeaks[4], 0) << "a disabled channel reports no peaks";
  EXPECT_EQ(FpgaWatchDog.load(), 0u);
  EXPECT_NEAR(Server->thermistor_Vth2degC(rec->status.Vth), Card->Card().GratingTemperature(), 0.01);

  Server->FbgChannel = 3;  // the grating taken from DUT channel 1's list: its first 16 peaks
  Server->GetData();
  rec = Server->pPeaks;
  ASSERT_EQ(rec->status.NumPeaks[3], 20);
  EXPECT_EQ(rec->status.NumPeaks[0], 16);
  for (int i = 0; i < 16; ++i) EXPECT_EQ(rec->FbgPeaks[i], rec->DutPeaks[1][i]);
  EXPECT_EQ(rec->status.FbgPosition & 0xFFFFFF, rec->DutPeaks[1][0] & 0xFFFFFF);

  // The card numbers layers 1 and 2 the other way round; fetched, a sweep's layer is its counter modulo the level.
  Server->FbgChannel = 0;
  ASSERT_EQ(Server->SetMuxLevel(4), 0);
  for (int i = 0; i < 40; ++i) Server->GetData();
  for (int i = 0; i < 8; ++i) {
    Server->GetData();
    ASSERT_EQ(Server->pPeaks->AppliedLevelBits(), 3);
    EXPECT_EQ(static_cast<uint32_t>(Server->pPeaks->Layer()), Server->pPeaks->status.SweepCounter % 4);
  }
}

// Guards the temperature monitor: a log entry for each new extreme only.
TEST_F(AcquisitionTest, TemperatureMonitorLogsEachNewExtreme) {
  CTempDir root;  // the entries go to the event log on the settings file system
  std::string error;
  ASSERT_TRUE(PrepareWorkstationRoot(root.Path(), error)) << error;
  InstallHost(root.Path());
  Open(sim::EProducerMode::FreeRunning);
  ServerAccess::KnownState(*Server);
  auto monitorAt = [&](double degC) {
    Card->Card().SetInternalTemperature(degC);
    for (int i = 0; i < 10; ++i) Server->GetData();
    return Captured([&] { Server->TemperatureMonitor(); });
  };
  EXPECT_EQ(monitorAt(35.0).find("Log Entry"), std::string::npos);
  EXPECT_NE(monitorAt(50.5).find("Log Entry: >>Warning: Internal operating temperature is 50.500000 C.<<"), std::string::npos);
  EXPECT_EQ(monitorAt(50.2).find("Log Entry"), std::string::npos) << "not a new extreme";
  EXPECT_NE(monitorAt(51.0).find("is 51.000000 C."), std::string::npos);
  EXPECT_NE(monitorAt(-1.0).find("is -1.000000 C."), std::string::npos);
  EXPECT_FLOAT_EQ(Server->MaxInternalTempC, 51.0f);
  EXPECT_FLOAT_EQ(Server->MinInternalTempC, -1.0f);
  const std::string log = ReadFile(root / "vr480/vr480.log");
  EXPECT_EQ(std::count(log.begin(), log.end(), '\n'), 3) << log;
  InstallHost("/");
}

// Guards the multiplexer change: the averaging store is rebuilt and keeps a stored target.
TEST_F(AcquisitionTest, MultiplexerChangeRebuildsTheAveragingStore) {
  Open(sim::EProducerMode::FreeRunning);
  ServerAccess::KnownState(*Server);
  PrepareAcquisition();
  Server->SetNumAverages(9, 5, 7);  // a layer not in use yet: stored for later
  bRun = true;
  const std::string out = Captured([&] {
    ASSERT_EQ(Server->SetMuxLevel(4), 0);
    ServerAccess::Pass(*Server);
  });
  bRun = false;
  EXPECT_NE(out.find("MuxLevel changed to 4.  Releasing WvlAvg buffers...OK.\n"), std::string::npos) << out;
  EXPECT_NE(out.find("New Mux Level ----->3\n"), std::string::npos);
  EXPECT_EQ(Server->WvlAvg.GetTargetNumAvg(9, 5), 7);
  EXPECT_EQ(Server->GetNumAverages(9, 5), 7);
  EXPECT_EQ(Server->pPeaks->AppliedLevelBits(), 3);
}

// Switching triggering on waits (at most a second) for the acquisition loop to report the card
// triggered, then points every client at the newest record.
TEST_F(AcquisitionTest, EnablingTriggeringWaitsForTheCardAndSkipsWhatWasBuffered) {
  Open(sim::EProducerMode::RealTime);
  AtWorkingPoint();
  PrepareAcquisition();
  std::atomic<bool> stop{false};
  bRun = true;
  std::thread loop([&] {
    while (!stop) ServerAccess::Pass(*Server);
  });
  std::this_thread::sleep_for(200ms);
  for (int i = 0; i < kClientSlots; ++i) Server->ProcessedReadIndex[i] = 0;
  const std::string out = Captured([&] { EXPECT_EQ(Server->SetTriggeringMode(1), 0); });
  stop = true;
  loop.join();
  bRun = false;
  EXPECT_EQ(out.find("Failed to enter triggered mode"), std::string::npos) << out;
  EXPECT_TRUE(Server->bTriggeredModeEntered);
  EXPECT_EQ(Server->GetTriggeringMode(), 1);
  EXPECT_NE(Server->ProcessedReadIndex[0].load(), 0) << "clients skip what was buffered before the trigger";
  EXPECT_EQ(Server->ProcessedReadIndex[0].load(), Server->ProcessedReadIndex[9].load());
}

// A failure repeating every sweep prints once, then once per interval with the count held back;
// another text is news at once.
TEST(RepeatingMessage, PrintsOnceThenOncePerIntervalWithTheCountHeldBack) {
  CRepeatingMessage message(2s);  // far longer than the calls between two looks take
  const std::string out = Captured([&] {
    for (int i = 0; i < 1000; ++i) message.Print("Error: %d grating peaks\r", 0);
    std::fflush(stdout);
    EXPECT_EQ(message.HeldBack(), 999u);
    std::this_thread::sleep_for(2100ms);
    message.Print("Error: %d grating peaks\r", 0);
    message.Print("Error: %d grating peaks\r", 0);
    message.Print("Error: %d grating peaks\r", 2);
  });
  EXPECT_EQ(out, "Error: 0 grating peaks\rError: 0 grating peaks (999 more since)\r"
                 "Error: 0 grating peaks (1 more since)\rError: 2 grating peaks\r");
  EXPECT_EQ(message.HeldBack(), 0u);
}

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

// What start-up ends with, by what the root holds: a blank bridge or a too-old configuration memory
// is rewritten and start-up ends (the image takes effect at power-up); no card or no vr480 is said.
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
       [](const std::string& r) { WriteNvram(r, sim::ENvramImage::Rev2); WriteFile(r + "/vr480.9361.id", ""); }, 5,
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
  EXPECT_EQ(server.Stop(SIGTERM, 40s), 0);  // within the stop's own waits (10 s for clients, 10 s for the panel)
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
