// The acquisition side of the server against the simulated card, in process: what the card
// receives from start-up and from the mode setters, how each fetched record is patched, the
// temperature monitor, the multiplexer change, triggering, and the acquisition's repeated
// failure message.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <memory>
#include <thread>

#include "host/Host.h"
#include "server/Globals.h"
#include "server/Options.h"
#include "server/RepeatingMessage.h"
#include "server/Vr480Server.h"
#include "sim/SimCardProvider.h"
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

// A server object over its own simulated card: the card is open, nothing else is started (no
// TCP server, no threads of the server's own).
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
  void TearDown() override {
    if (bOpen) Server->Driver.close_vr480();
  }
  // Known state, and the laser at the working point the control loops settle on with the
  // default scene.
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
  EXPECT_EQ(Server->Switchdown(0), Server->Switchdown(1));
  EXPECT_EQ(Server->Switchdown(12), Server->Switchdown(9));
  EXPECT_EQ(Server->Switchdown(9), 4500);
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

  // The card numbers layers 1 and 2 the other way round; after the fetch the layer of a sweep
  // is its sweep counter modulo the level.
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

// Switching triggering on waits (at most a second) until the acquisition loop reports the
// card in triggered acquisition, then points every client at the newest record.
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

// A failure that repeats every sweep prints once, then at most once per interval with the
// number of occurrences held back; another text is news at once.
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
