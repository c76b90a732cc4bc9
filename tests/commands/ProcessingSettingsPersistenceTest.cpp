// The processing settings survive a restart: a client sets every saved setting of the scale,
// sensor-selection, reference, averaging, offset and binning commands to a value other than
// its default, plus one entry of each data file (references, averages, gain offsets, dB
// table), saves, and the server started again on the same root answers every getter alike.
#include <gtest/gtest.h>
#include <signal.h>

#include <chrono>
#include <string>
#include <vector>

#include "protocol/DataWire.h"
#include "support/ServerProcess.h"
#include "support/TempDir.h"
#include "support/TestClient.h"

namespace {

struct SSetting {
  const char* Set;
  const char* Get;
  const char* Value;
};

// In the order a client gives them. The granularity comes first: integer wavelengths given
// afterwards are scaled with the granularity of the records the client reads. The grating
// source comes last: it takes the comb's anchor away from the records that follow.
const std::vector<SSetting> kSettings = {
    {"#SET_GRANULARITY 100000", "#GET_GRANULARITY", "100000"},
    {"#SET_FFPI_FSR_GHZ 100.0001", "#GET_FFPI_FSR_GHZ", " 100.00010"},
    {"#SET_FFPI_REF_PEAK_THZ 194.1", "#GET_FFPI_REF_PEAK_THZ", " 194.10000"},
    {"#SET_STEINHART_B0 0.001111626146877", "#GET_STEINHART_B0", "1.11162614687700e-03"},
    {"#SET_STEINHART_B1 0.0002370659380534", "#GET_STEINHART_B1", "2.37065938053400e-04"},
    {"#SET_STEINHART_B3 7.54233759058e-08", "#GET_STEINHART_B3", "7.54233759058000e-08"},
    {"#SET_FBG_REF_VTH -2", "#GET_FBG_REF_VTH", "-2"},
    {"#SET_FBG_REF_WVL_NM 1550.5", "#GET_FBG_REF_WVL_NM", "1550.5000"},
    {"#SET_FBG_NM_PER_DEGC 0.0101", "#GET_FBG_NM_PER_DEGC", "0.0101"},
    {"#SET_PEAK2USE 2", "#GET_PEAK2USE", "2"},
    {"#SET_MONITORED_FBG 0", "#GET_MONITORED_FBG", "0"},
    {"#SET_MAX_WVL_CORR_COEF_ERROR 0.2", "#GET_MAX_WVL_CORR_COEF_ERROR", "0.200000"},
    {"#SET_LOWER_WVL_LIMIT 1521", "#GET_LOWER_WVL_LIMIT", "1521.000000"},
    {"#SET_UPPER_WVL_LIMIT 1569", "#GET_UPPER_WVL_LIMIT", "1569.000000"},
    {"#SET_CH_ENABLE 3 0", "#GET_CH_ENABLE 3", "0"},
    {"#SET_ZOR_NUM_DUT_CHANNELS 3", "#GET_ZOR_NUM_DUT_CHANNELS", "3"},
    {"#SET_USE_REFERENCES 1", "#GET_USE_REFERENCES", "1"},
    {"#SET_MIN_NUM_AVERAGES 2", "#GET_MIN_NUM_AVERAGES", "2"},
    {"#SET_ENABLE_WVL_OFFSETS 0", "#GET_ENABLE_WVL_OFFSETS", "0"},
    {"#SET_SENSOR_BIN_WIDTH 150", "#GET_SENSOR_BIN_WIDTH", "150"},
    // Kept in the data files, not as tags.
    {"#SET_REFERENCE 2 3 1545.25", "#GET_REFERENCE 2 3", "1545.250000"},
    {"#SET_NUM_AVERAGES 1 2 7", "#GET_NUM_AVERAGES 1 2", "7"},
    {"#SET_GAIN_WVL_OFFSET 3 12 0.005", "#GET_GAIN_WVL_OFFSET 3 12", "0.005000"},
    {"#SET_DB2COUNTS 2 100 1234", "#GET_DB2COUNTS 2 100", "1234"},
    {"#SET_FBG_CHANNEL 1", "#GET_FBG_CHANNEL", "1"},
};

TEST(ProcessingSettingsPersistence, SavedSettingsAndDataFilesComeBackAfterARestart) {
  CTempDir root;
  WriteFile(root / "vr480/vr480.tag",
            "#SET_SOA_DRIVE = \"30000\"\n#SET_SCAN_AMP = \"40000\"\n#SET_INITIAL_BIAS = \"28000\"\n"
            "#SET_AUTOBIAS = \"1\"\n#SET_AUTO_SCAN_AMP = \"1\"\n");
  {
    CServerProcess server(root.Path(), FreePort());
    CTestClient client;
    ASSERT_TRUE(client.Connect(server.Port()));
    for (const SSetting& s : kSettings) {
      const std::string reply = client.Command(s.Set);
      EXPECT_TRUE(!reply.empty() && reply[0] != '!') << s.Set << " -> " << reply;
      if (std::string(s.Set) == "#SET_GRANULARITY 100000") {
        // Read on until the records carry the new granularity.
        bool seen = false;
        for (int i = 0; i < 30000 && !seen; ++i) {
          const data_wire::SRecord rec{client.Command("#GET_DATA")};
          seen = rec.Size() > 88 && rec.Granularity() == 100000;  // a record, not the empty header or a late reply
        }
        ASSERT_TRUE(seen);
      }
    }
    for (const SSetting& s : kSettings) EXPECT_EQ(client.Command(s.Get), s.Value) << s.Get;
    EXPECT_EQ(client.Command("#SAVE_SETTINGS"), "Settings Saved.\n");
    EXPECT_EQ(client.Command("#SAVE_WVL_OFFSETS"), "Wvl Offsets Saved.\n");
    EXPECT_EQ(server.Stop(SIGTERM), 0);
  }
  CServerProcess server(root.Path(), FreePort());
  // The data files are loaded after the command port opens: wait for the last of them.
  ASSERT_TRUE(server.WaitForOutput("Db2Counts data loaded.\n", std::chrono::seconds(60)));
  CTestClient client;
  ASSERT_TRUE(client.Connect(server.Port()));
  for (const SSetting& s : kSettings) EXPECT_EQ(client.Command(s.Get), s.Value) << s.Get;
  EXPECT_EQ(server.Stop(SIGTERM), 0);
}

}  // namespace
