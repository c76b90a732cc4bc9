// A fresh instrument comes up ready on its own (start-up auto-bias), and every saved setting (and
// an entry of each data file), set off its default, survives a save and a restart on the same root.
#include <gtest/gtest.h>
#include <signal.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "commands/InProcessServer.h"
#include "protocol/DataWire.h"

namespace {

using namespace std::chrono_literals;

// A setter line; its getter is the same name with "#GET_" and all but the last argument, which
// is what the getter answers unless `Value` says otherwise ("" for a setter that is not read).
// Reals are given as their getters print them.
struct SSetting {
  const char* Set;
  const char* Value = nullptr;
  std::string Getter() const { return "#GET_" + std::string(Set).substr(5, std::string(Set).rfind(' ') - 5); }
  std::string Expected() const { return Value ? Value : std::string(Set).substr(std::string(Set).rfind(' ') + 1); }
};

// In the order that matters as it will in the replay: the granularity first (it scales later
// wavelengths); the amplitude channel before the sweep slows (its reply waits for a spectrum); the
// loops held while the SOA window is converted on the sweep's comb, its off edge first (the on edge
// can gate the comb away); the operating mode before the minimum divider (which refuses it, as it
// does the multiplexer level) and the triggering mode (which clears it); the grating source last
// (it takes the comb's anchor away). References, averages, gain offsets, dB table: data files.
const std::vector<SSetting> kSettings = {
    {"#SET_GRANULARITY 100000"}, {"#SET_FFPI_FSR_GHZ 100.0001", " 100.00010"}, {"#SET_STEINHART_B0 1.11162614687700e-03"},
    {"#SET_FBG_REF_VTH -2"}, {"#SET_FBG_REF_WVL_NM 1550.5000"}, {"#SET_FBG_NM_PER_DEGC 0.0101"}, {"#SET_PEAK2USE 2"},
    {"#SET_MONITORED_FBG 0"}, {"#SET_MAX_WVL_CORR_COEF_ERROR 0.200000"}, {"#SET_LOWER_WVL_LIMIT 1521.000000"},
    {"#SET_UPPER_WVL_LIMIT 1569.000000"}, {"#SET_CH_ENABLE 3 0"}, {"#SET_ZOR_NUM_DUT_CHANNELS 3"},
    {"#SET_USE_REFERENCES 1"}, {"#SET_MIN_NUM_AVERAGES 2"}, {"#SET_ENABLE_WVL_OFFSETS 0"}, {"#SET_SENSOR_BIN_WIDTH 150"},
    {"#SET_REFERENCE 2 3 1545.250000"}, {"#SET_NUM_AVERAGES 1 2 7"}, {"#SET_GAIN_WVL_OFFSET 3 12 0.005000"},
    {"#SET_DB2COUNTS 2 100 1234"}, {"#SET_ZOR_CH_GAIN 2 1111"}, {"#SET_MAX_DUT_CH_GAIN 1 50000"},
    {"#SET_ZOR_MAX_GAIN_DB 35.500000"}, {"#SET_MIN_CH_PWR_LEVEL 1 100"}, {"#SET_MAX_CH_PWR_LEVEL 3 8000"},
    {"#SET_ZOR_CH_NOISE_THRESH 2 100"}, {"#SET_ZOR_CH_NOISE_THRESH 4 250"}, {"#SET_CH_NOISE_THRESH_ENABLE 2 0"},
    {"#SET_CH_LOCKOUT_PERIOD 2 300"}, {"#SET_CH_NTV_PERIOD 4 1700"}, {"#SET_CH_NTV_RESET_ON_ZC 2 0"},
    {"#SET_ZOR_AMP_CH 4"}, {"#SET_AUTOBIAS 0", ""}, {"#SET_AUTO_SCAN_AMP 0"}, {"#SET_AUTO_SCAN_MAX_STEP 0"},
    {"#SET_SOA_DRIVE 29000"}, {"#SET_SOA_OFF_WVL 1546.500000"}, {"#SET_SOA_ON_WVL 1545.500000"},
    {"#SET_SOA_ON_COUNT 1234"}, {"#SET_SOA_OFF_COUNT 1234"},  // equal on and off counts: never gated
    {"#SET_OPERATING_MODE 1", "0"}, {"#SET_TRIG_START_EDGE 1"}, {"#SET_TRIG_STOP_TYPE 1"}, {"#SET_TRIG_NUM_ACQ 1234"},
    {"#SET_AUTO_RETRIG 1"}, {"#SET_TRIG_MODE 2"}, {"#SET_EXT_SYNC_EDGE 1"}, {"#SET_DATA_RATE_DIVIDER 3"},
    {"#SET_MIN_DATA_RATE_DIVIDER 2"}, {"#SET_HWCLK_DIVIDER 2", "1"}, {"#SET_2KHZ_MODE 1"}, {"#SET_MUX_LEVEL 2", "1"},
    {"#SET_PZT_SYNC_OFFSET 77"}, {"#SET_SYNC_HI_COUNT 111"}, {"#SET_SYNC_LO_COUNT 22222"},
    {"#SET_SYNC_HI_WVL 1544.250000"}, {"#SET_SYNC_LO_WVL 1551.750000"}, {"#SET_SYNC_CTRL_MODE 1"},
    {"#SET_FAN1_CONTROL_TEMP 45"}, {"#SET_FAN1_TEMP_HYSTERESIS 5"}, {"#SET_SWAP_P68_P155 1"}, {"#SET_SCAN_AMP 40900"},
    {"#SET_INITIAL_BIAS 28500"}, {"#SET_GRATING_TARGET_LOCATION 0.450000"}, {"#SET_BIAS_FEEDBACK_GAIN 0.150000"},
    {"#SET_MAX_BIAS_ERROR 18"}, {"#SET_AUTO_SCAN_RIGHT_PEAKS 50"}, {"#SET_AUTO_SCAN_SPAN 0.690000"},
    {"#SET_AUTO_SCAN_FEEDBACK_GAIN 0.120000"}, {"#SET_ZOR_FS_ENABLE 1"}, {"#SET_FS_WVL_OFFSET_NM 0.01234"},
    {"#SET_PEAK_AMP_SEARCH_WND 3"}, {"#SET_PEAK_AMP_BUF_DEPTH 64"}, {"#SET_SWITCHDOWN_ENABLE 1"},
    {"#SET_AUTO_SWITCHDOWN 2 1111"}, {"#SET_AUTO_SWITCHDOWN 12 4444"}, {"#SET_AVO_CHANNEL 2 7", "3.2"},
    {"#SET_AVO_SENSOR 2 5"}, {"#SET_AVO_SCALING_FACTOR 2 12.500000"}, {"#SET_AVO_REFERENCE_VOUT 2 0.300000"},
    {"#SET_AVO_CHANNEL 5 3", "3.1"}, {"#SET_AUTOBIAS 1"}, {"#SET_FBG_CHANNEL 1"},
};

void ExpectGetters(CTestClient& client, const char* server) {
  for (const SSetting& s : kSettings)
    EXPECT_EQ(s.Expected().empty() ? "" : client.Command(s.Getter()), s.Expected()) << s.Getter() << " on the " << server;
}

// Guards the start-up auto-bias, tag replay (a user-level setter in the file does nothing),
// the tag of every saved setter, and the data files' save and load.
TEST(SettingsPersistence, FreshRootComesUpReadyAndEverySavedSettingSurvivesARestart) {
  CTempDir root;
  std::string tags;
  for (const std::string& line : sim::BaselineTagLines()) tags += line + "\n";
  WriteFile(root / "vr480/vr480.tag", tags + "#SET_CH_NOISE_THRESH = \"3 500\"\n");
  {
    CServerProcess server(root.Path(), FreePort());
    CTestClient client;
    ASSERT_TRUE(client.Connect(server.Port()));
    // About 9.7 s on an idle machine; the bound leaves room for a loaded one.
    ASSERT_TRUE(laser_test::WaitReady(client, 60s)) << server.Output();
    // The start-up auto-bias reports how long it took, in seconds of sweeps.
    ASSERT_TRUE(server.WaitForOutput("(Max time = 60)\n", 1s));
    const std::string out = server.Output();
    const double autoBias = std::atof(out.c_str() + out.find("\nAutoBias time = ") + 17);
    EXPECT_TRUE(autoBias > 0.0 && autoBias < 10.0) << out;
    EXPECT_EQ(out.find("Initial Auto-bias failed"), std::string::npos);
    EXPECT_NE(client.Command("#GET_CH_NOISE_THRESH 3"), "500");

    for (const SSetting& s : kSettings) {
      const std::string reply = client.Command(s.Set, 30s), set = s.Set;
      EXPECT_TRUE(set == "#SET_MUX_LEVEL 2" || (!reply.empty() && reply[0] != '!')) << s.Set << " -> " << reply;
      // Read on until the records carry the new granularity (not the empty header or a late reply).
      ASSERT_TRUE(set != "#SET_GRANULARITY 100000" || laser_test::WaitFor([&] {
        const data_wire::SRecord rec{client.Command("#GET_DATA")};
        return rec.Size() > 88 && rec.Granularity() == 100000;
      }, 60s));
    }
    std::this_thread::sleep_for(500ms);
    ExpectGetters(client, "first");
    // One tag per saved command (per divider for the switch-down table), each as last given.
    const std::string saved = client.Command("#GET_TAGS");
    for (const char* tag : {"#SET_SCAN_AMP = \"40900\"\n", "#SET_AUTOBIAS = \"1\"\n", "#SET_OPERATING_MODE = \"1\"\n",
                            "#SET_AUTO_SWITCHDOWN = \"2 1111\"\n", "#SET_AUTO_SWITCHDOWN = \"12 4444\"\n",
                            "#SET_SOA_ON_WVL = \"1545.500000\"\n"})
      EXPECT_NE(saved.find(tag), std::string::npos) << tag << " missing from\n" << saved;
    EXPECT_EQ(client.Command("#SAVE_SETTINGS"), "Settings Saved.\n");
    EXPECT_EQ(client.Command("#SAVE_WVL_OFFSETS"), "Wvl Offsets Saved.\n");
    EXPECT_EQ(server.Stop(SIGTERM), 0);
  }
  CServerProcess server(root.Path(), FreePort());
  // The data files are loaded after the command port opens: wait for the last of them.
  ASSERT_TRUE(server.WaitForOutput("Db2Counts data loaded.\n", 60s));
  CTestClient client;
  ASSERT_TRUE(client.Connect(server.Port()));
  ExpectGetters(client, "restarted");
  EXPECT_EQ(server.Stop(SIGTERM), 0);
}

}  // namespace
