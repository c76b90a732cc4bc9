// The full spectrum end to end: the real vr480d on the simulated card, its start-up offset
// calibration on the console, and a real client's #GET_SPECTRUM and #GET_DATA_AND_LEVELS.
#include <gtest/gtest.h>
#include <signal.h>

#include <chrono>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include "FullSpectrumHarness.h"
#include "protocol/DataWire.h"
#include "support/SceneServer.h"
#include "support/ServerProcess.h"
#include "support/TempDir.h"
#include "support/TestClient.h"

using namespace std::chrono_literals;

namespace {

// DUT channel 1 is the amplitude channel after start-up: its sensors make the spectrum. The
// third lies 400 m down the fibre, so its light comes back late in the sweep.
struct SSensor {
  double Nm;
  double DistanceM;
  double Amplitude;
};
constexpr SSensor kChannel1[] = {{1530.0, 0.0, 12000.0}, {1545.0, 0.0, 11000.0}, {1560.0, 400.0, 10000.0}};

class FullSpectrumProcess : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    std::string scene = "# channel  wavelength  distance  amplitude\n";
    for (const SSensor& s : kChannel1)
      scene += "1 " + std::to_string(s.Nm) + " " + std::to_string(s.DistanceM) + " " + std::to_string(s.Amplitude) + "\n";
    scene += "2 1540.0 0 9000\n3 1550.0 0 9000\n4 1555.0 0 9000\n";
    Rig = new CSceneServer(scene);
    Server = Rig->Process();
    bStarted = Rig->Started();
  }
  static void TearDownTestSuite() {
    delete Rig;
    Rig = nullptr;
    Server = nullptr;
  }
  void SetUp() override { ASSERT_TRUE(bStarted) << Server->Output().substr(0, 4000); }

  // A client once the scan loop is ready and the bias loop has stopped stepping (each step
  // moves every line along the sweep).
  static std::unique_ptr<CTestClient> SettledClient() {
    auto c = std::make_unique<CTestClient>(Server->Port());
    EXPECT_TRUE(c->Connected());
    const auto end = std::chrono::steady_clock::now() + 40s;
    while (c->Command("#READY?") != "1" && std::chrono::steady_clock::now() < end) std::this_thread::sleep_for(100ms);
    EXPECT_EQ(c->Command("#READY?"), "1");
    std::string bias = c->Command("#GET_BIAS");
    while (std::chrono::steady_clock::now() < end) {
      std::this_thread::sleep_for(1500ms);
      const std::string now = c->Command("#GET_BIAS");
      if (now == bias) break;
      bias = now;
    }
    return c;
  }

  static CSceneServer* Rig;
  static CServerProcess* Server;
  static bool bStarted;
};

CSceneServer* FullSpectrumProcess::Rig = nullptr;
CServerProcess* FullSpectrumProcess::Server = nullptr;
bool FullSpectrumProcess::bStarted = false;

}  // namespace

TEST_F(FullSpectrumProcess, StartUpCalibratesTheOffsetOnTheGrating) {
  const std::string console = Server->Output();
  const size_t at = console.find("**FsCountOffset = ");
  ASSERT_NE(at, std::string::npos);
  const size_t end = console.find("**\n", at + 18);
  ASSERT_NE(end, std::string::npos);
  const std::string value = console.substr(at + 18, end - at - 18);
  ASSERT_FALSE(value.empty());
  ASSERT_EQ(value.find_first_not_of("-0123456789"), std::string::npos) << value;
  // The peak detector reports 160 counts late; spectrum points are two counts apart.
  EXPECT_NEAR(std::atoi(value.c_str()), 80, 1);
  RecordProperty("FsCountOffset", value);
  EXPECT_NE(console.find("Entering FS Calibration thread...\n"), std::string::npos);
  EXPECT_EQ(console.find("CalibrateFsOffset() failed"), std::string::npos);
}

TEST_F(FullSpectrumProcess, SpectrumLinesSitAtTheSensorsUncompensatedWavelengths) {
  auto c = SettledClient();
  std::string body;
  std::vector<double> lines;
  for (int i = 0; i < 30 && lines.size() != 3; ++i) {
    body = c->Command("#GET_SPECTRUM", 5s);
    lines = fstest::SpectrumLinesNm(body);
  }
  ASSERT_EQ(body.size(), 65624u);
  ASSERT_EQ(lines.size(), 3u);
  EXPECT_EQ(data_wire::U8(body, 0), 15u);
  EXPECT_EQ(data_wire::U8(body, 7) >> 4, 2u);
  EXPECT_EQ(data_wire::U8(body, 3) & 0x07, 2u) << "DUT channel 1's detector";
  EXPECT_EQ(data_wire::U32(body, 72), 1000000u);
  EXPECT_EQ(static_cast<int32_t>(data_wire::U32(body, 80)), 1520000000);
  EXPECT_EQ(static_cast<int32_t>(data_wire::U32(body, 84)), 1570000000);

  // The sensors at the instrument at their own wavelengths; the far one where the server
  // reports it without distance compensation (no locations are loaded), well beyond its own.
  c->Command("#FLUSH_BUFFER");
  const data_wire::SRecord rec{c->Command("#GET_DATA")};
  ASSERT_EQ(rec.Count(0), 3u);
  std::string errors;
  for (int j = 0; j < 3; ++j) {
    const double reported = rec.Value(0, j) / static_cast<double>(rec.Granularity());
    const double expected = kChannel1[j].DistanceM == 0.0 ? kChannel1[j].Nm : reported;
    // The far sensor's line and its peak come from sweeps a few records apart, between which
    // the loops may still trim the scale: it is allowed 25 pm, the others 10 pm.
    EXPECT_NEAR((lines[j] - expected) * 1000.0, 0.0, kChannel1[j].DistanceM == 0.0 ? 10.0 : 25.0) << "sensor " << j + 1;
    errors += std::to_string((lines[j] - expected) * 1000.0) + " ";
  }
  EXPECT_GT(lines[2] - kChannel1[2].Nm, 0.5);
  RecordProperty("line_errors_pm", errors);

  // The sweep's ends bracket the calibrated grid.
  EXPECT_LT(std::atof(c->Command("#GET_HIGH_SPEED_FS_START_WVL").c_str()), 1520.0);
  EXPECT_GT(std::atof(c->Command("#GET_HIGH_SPEED_FS_END_WVL").c_str()), 1570.0);
}

TEST_F(FullSpectrumProcess, LevelsMatchTheScenesAmplitudes) {
  auto c = SettledClient();
  for (int reading = 0; reading < 3; ++reading) {
    c->Command("#FLUSH_BUFFER");
    const data_wire::SRecord rec{c->Command("#GET_DATA_AND_LEVELS")};
    ASSERT_EQ(rec.Type(), 5u);
    ASSERT_EQ(rec.AmplitudeChannel(), 2u);
    ASSERT_EQ(rec.Count(0), 3u);
    ASSERT_EQ(rec.Levels(), 3u);
    for (uint32_t j = 0; j < 3; ++j)
      EXPECT_NEAR(rec.Level(j), kChannel1[j].Amplitude, 0.05 * kChannel1[j].Amplitude) << "sensor " << j + 1;
    std::this_thread::sleep_for(300ms);
  }
}
