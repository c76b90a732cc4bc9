// Every saved setting of the laser, timing and loop commands survives a restart: a client sets
// each to a value other than its default, reads the tag list, and a fresh server replaying
// that list as its tag file answers every getter as the first one did.
#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "support/ServerProcess.h"
#include "support/TempDir.h"
#include "support/TestClient.h"

namespace {

using namespace std::chrono_literals;

// The settings, in the order a client gives them. The order matters where settings interact,
// exactly as it will in the replay:
// - the loops are held while the sweep is disturbed (SOA window, rates), then switched on with
//   no scan step allowed, so that the scan amplitude stays where it was set;
// - the operating mode is set before the minimum divider (which would refuse it) and before the
//   triggering mode, which puts it back to 0 (the two modes exclude each other);
// - the multiplexer level is refused while the minimum divider is above 1 and stays 1.
const std::vector<std::string> kSettings = {
    "#SET_AUTOBIAS 0",
    "#SET_AUTO_SCAN_AMP 0",
    "#SET_OPERATING_MODE 1",
    "#SET_TRIG_START_EDGE 1",
    "#SET_TRIG_STOP_EDGE 1",
    "#SET_TRIG_STOP_TYPE 1",
    "#SET_TRIG_NUM_ACQ 1234",
    "#SET_AUTO_RETRIG 1",
    "#SET_TRIG_MODE 2",
    "#SET_EXT_SYNC_EDGE 1",
    "#SET_DATA_RATE_DIVIDER 3",
    "#SET_MIN_DATA_RATE_DIVIDER 2",
    "#SET_HWCLK_DIVIDER 2",
    "#SET_2KHZ_MODE 1",
    "#SET_MUX_LEVEL 2",
    "#SET_PZT_SYNC_OFFSET 77",
    "#SET_SOA_DRIVE 29000",
    "#SET_SOA_ON_WVL 1545.5",
    "#SET_SOA_OFF_WVL 1546.5",
    "#SET_SOA_ON_COUNT 1234",  // equal on and off counts: the light is never gated
    "#SET_SOA_OFF_COUNT 1234",
    "#SET_SYNC_HI_COUNT 111",
    "#SET_SYNC_LO_COUNT 22222",
    "#SET_SYNC_HI_WVL 1544.25",
    "#SET_SYNC_LO_WVL 1551.75",
    "#SET_SYNC_CTRL_MODE 1",
    "#SET_FAN1_CONTROL_TEMP 45",
    "#SET_FAN2_CONTROL_TEMP 55",
    "#SET_FAN1_TEMP_HYSTERESIS 5",
    "#SET_FAN2_TEMP_HYSTERESIS 6",
    "#SET_SWAP_P68_P155 1",
    "#SET_SCAN_AMP 40900",
    "#SET_INITIAL_BIAS 28500",
    "#SET_GRATING_TARGET_LOCATION 0.45",
    "#SET_BIAS_FEEDBACK_GAIN 0.15",
    "#SET_MAX_BIAS_ERROR 18",
    "#SET_MAX_BIAS_STEP 900",
    "#SET_AUTO_SCAN_RIGHT_PEAKS 50",
    "#SET_AUTO_SCAN_LEFT_PEAKS 40",
    "#SET_AUTO_SCAN_SPAN 0.69",
    "#SET_AUTO_SCAN_MAX_STEP 0",
    "#SET_AUTO_SCAN_MAX_ERROR 25",
    "#SET_AUTO_SCAN_FEEDBACK_GAIN 0.12",
    "#SET_ZOR_FS_ENABLE 1",
    "#SET_FS_WVL_OFFSET_NM 0.01234",
    "#SET_PEAK_AMP_SEARCH_WND 3",
    "#SET_PEAK_AMP_BUF_DEPTH 64",
    "#SET_SWITCHDOWN_ENABLE 1",
    "#SET_AUTO_SWITCHDOWN 2 1111",
    "#SET_AUTO_SWITCHDOWN 12 4444",
    "#SET_AVO_CHANNEL 2 7",
    "#SET_AVO_SENSOR 2 5",
    "#SET_AVO_SCALING_FACTOR 2 12.5",
    "#SET_AVO_REFERENCE_VOUT 2 0.3",
    "#SET_AVO_CHANNEL 5 3",
    "#SET_AVO_SENSOR 5 9",
    "#SET_AVO_SCALING_FACTOR 5 -2.5",
    "#SET_AVO_REFERENCE_VOUT 5 0.75",
    "#SET_AUTOBIAS 1",
    "#SET_AUTO_SCAN_AMP 1",
};

// Each getter with the value both servers must give.
const std::vector<std::pair<std::string, std::string>> kReadBack = {
    {"#GET_TRIG_START_EDGE", "1"},
    {"#GET_TRIG_STOP_EDGE", "1"},
    {"#GET_TRIG_STOP_TYPE", "1"},
    {"#GET_TRIG_NUM_ACQ", "1234"},
    {"#GET_AUTO_RETRIG", "1"},
    {"#GET_TRIG_MODE", "2"},
    {"#GET_OPERATING_MODE", "0"},
    {"#GET_EXT_SYNC_EDGE", "1"},
    {"#GET_DATA_RATE_DIVIDER", "3"},
    {"#GET_MIN_DATA_RATE_DIVIDER", "2"},
    {"#GET_HWCLK_DIVIDER", "1"},
    {"#GET_2KHZ_MODE", "1"},
    {"#GET_MUX_LEVEL", "1"},
    {"#GET_PZT_SYNC_OFFSET", "77"},
    {"#GET_SOA_DRIVE", "29000"},
    {"#GET_SOA_ON_WVL", "1545.500000"},
    {"#GET_SOA_OFF_WVL", "1546.500000"},
    {"#GET_SOA_ON_COUNT", "1234"},
    {"#GET_SOA_OFF_COUNT", "1234"},
    {"#GET_SYNC_CTRL_MODE", "1"},
    {"#GET_SYNC_HI_COUNT", "111"},
    {"#GET_SYNC_LO_COUNT", "22222"},
    {"#GET_SYNC_HI_WVL", "1544.250000"},
    {"#GET_SYNC_LO_WVL", "1551.750000"},
    {"#GET_FAN1_CONTROL_TEMP", "45"},
    {"#GET_FAN2_CONTROL_TEMP", "55"},
    {"#GET_FAN1_TEMP_HYSTERESIS", "5"},
    {"#GET_FAN2_TEMP_HYSTERESIS", "6"},
    {"#GET_SWAP_P68_P155", "1"},
    {"#GET_SCAN_AMP", "40900"},
    {"#GET_AUTOBIAS", "1"},
    {"#GET_INITIAL_BIAS", "28500"},
    {"#GET_GRATING_TARGET_LOCATION", "0.450000"},
    {"#GET_BIAS_FEEDBACK_GAIN", "0.150000"},
    {"#GET_MAX_BIAS_ERROR", "18"},
    {"#GET_MAX_BIAS_STEP", "900"},
    {"#GET_AUTO_SCAN_AMP", "1"},
    {"#GET_AUTO_SCAN_RIGHT_PEAKS", "50"},
    {"#GET_AUTO_SCAN_LEFT_PEAKS", "40"},
    {"#GET_AUTO_SCAN_SPAN", "0.690000"},
    {"#GET_AUTO_SCAN_MAX_STEP", "0"},
    {"#GET_AUTO_SCAN_MAX_ERROR", "25"},
    {"#GET_AUTO_SCAN_FEEDBACK_GAIN", "0.120000"},
    {"#GET_ZOR_FS_ENABLE", "1"},
    {"#GET_FS_WVL_OFFSET_NM", "0.01234"},
    {"#GET_PEAK_AMP_SEARCH_WND", "3"},
    {"#GET_PEAK_AMP_BUF_DEPTH", "64"},
    {"#GET_SWITCHDOWN_ENABLE", "1"},
    {"#GET_AUTO_SWITCHDOWN 2", "1111"},
    {"#GET_AUTO_SWITCHDOWN 9", "4444"},
    {"#GET_AVO_CHANNEL 2", "3.2"},
    {"#GET_AVO_SENSOR 2", "5"},
    {"#GET_AVO_SCALING_FACTOR 2", "12.500000"},
    {"#GET_AVO_REFERENCE_VOUT 2", "0.300000"},
    {"#GET_AVO_CHANNEL 5", "3.1"},
    {"#GET_AVO_SENSOR 5", "9"},
    {"#GET_AVO_SCALING_FACTOR 5", "-2.500000"},
    {"#GET_AVO_REFERENCE_VOUT 5", "0.750000"},
};

bool WaitReady(CTestClient& client, std::chrono::milliseconds timeout) {
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  while (std::chrono::steady_clock::now() < deadline) {
    if (client.Command("#READY?") == "1") return true;
    std::this_thread::sleep_for(50ms);
  }
  return false;
}

TEST(LaserSettingsPersistence, EverySavedSettingIsReplayedIntoAFreshServer) {
  // First server: a fresh root whose laser starts at its ready point.
  CTempDir first;
  WriteFile(first / "vr480/vr480.tag",
            "#SET_SOA_DRIVE = \"30000\"\n#SET_SCAN_AMP = \"40800\"\n#SET_INITIAL_BIAS = \"28440\"\n"
            "#SET_AUTOBIAS = \"1\"\n#SET_AUTO_SCAN_AMP = \"1\"\n#SET_ZOR_FS_ENABLE = \"1\"\n");
  std::string tags;
  {
    CServerProcess server(first.Path(), FreePort());
    CTestClient client;
    ASSERT_TRUE(client.Connect(server.Port()));
    // The SOA window needs a measured comb: wait until the laser is ready.
    ASSERT_TRUE(WaitReady(client, 20s));
    for (const std::string& line : kSettings) {
      const std::string reply = client.Command(line);
      ASSERT_FALSE(reply.empty()) << line;
      if (line != "#SET_MUX_LEVEL 2") EXPECT_NE(reply[0], '!') << line << " -> " << reply;
    }
    std::this_thread::sleep_for(500ms);
    for (const auto& [getter, value] : kReadBack) EXPECT_EQ(client.Command(getter), value) << getter;
    tags = client.Command("#GET_TAGS");
    EXPECT_EQ(server.Stop(SIGTERM), 0);
  }
  // One tag per saved command (per divider for the switch-down table), each as last given.
  for (const char* tag : {"#SET_SCAN_AMP = \"40900\"\n", "#SET_AUTOBIAS = \"1\"\n", "#SET_TRIG_MODE = \"2\"\n",
                          "#SET_OPERATING_MODE = \"1\"\n", "#SET_AUTO_SWITCHDOWN = \"2 1111\"\n",
                          "#SET_AUTO_SWITCHDOWN = \"12 4444\"\n", "#SET_AVO_REFERENCE_VOUT = \"2 0.3\"\n",
                          "#SET_SOA_ON_WVL = \"1545.5\"\n"})
    EXPECT_NE(tags.find(tag), std::string::npos) << tag << " missing from\n" << tags;

  // Second server: a fresh root whose tag file is that list.
  CTempDir second;
  WriteFile(second / "vr480/vr480.tag", tags);
  CServerProcess server(second.Path(), FreePort());
  CTestClient client;
  ASSERT_TRUE(client.Connect(server.Port()));
  for (const auto& [getter, value] : kReadBack) EXPECT_EQ(client.Command(getter), value) << getter;
  EXPECT_EQ(server.Stop(SIGTERM), 0);
}

}  // namespace
