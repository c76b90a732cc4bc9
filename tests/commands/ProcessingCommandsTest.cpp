// The processing configuration commands through a real client against the whole server in
// process on the simulated card (three sensors on each DUT channel of layer 0, multiplexer
// level 1): one table per family, then the behaviour that spans records: a channel switched
// off, a reference taken from the current value, averaging rings in units of the minimum, and
// the conversions against the live scale. Each test leaves the settings as it found them.
#include <cmath>
#include <cstdlib>
#include <string>

#include "commands/InProcessServer.h"
#include "protocol/DataWire.h"

namespace {

using namespace laser_test;
using data_wire::SRecord;

struct SRow {
  const char* Line;
  const char* Reply;
};

class ProcessingCommands : public CSharedServerSuite<ProcessingCommands> {
 protected:

  void Run(const std::vector<SRow>& rows) {
    for (const SRow& r : rows) EXPECT_EQ(Client.Command(r.Line), r.Reply) << r.Line;
  }
  bool HasTag(const std::string& tag) { return S().TagManager.GetTagsText().find(tag + "\n") != std::string::npos; }
  // The next record the client is sent.
  SRecord Next() { return SRecord{Client.Command("#GET_DATA")}; }
  // A record taken after everything sent so far has reached the pipeline.
  SRecord Fresh() {
    Client.Command("#FLUSH_BUFFER");
    Next();
    return Next();
  }
  double Number(const std::string& line) { return std::strtod(Client.Command(line).c_str(), nullptr); }

};

TEST_F(ProcessingCommands, ScaleGratingAndSensorSelection) {
  Run({
      {"#SET_FFPI_FSR_GHZ 100", "Setting FFPI FSR to peak to 100.000000 Ghz.\n"},
      {"#GET_FFPI_FSR_GHZ", " 100.00000"},
      {"#SET_FFPI_FSR_GHZ nan", "!Illegal parameters.  Not a finite number: nan.\n"},
      {"#SET_FFPI_REF_PEAK_THZ 194", "Setting FFPI ref peak to 194.000000 Thz.\n"},
      {"#GET_FFPI_REF_PEAK_THZ", " 194.00000"},
      {"#SET_STEINHART_B0 0.001111626146876", "Steinhart-Hart B0 set to 1.11162614687600e-03.\n"},
      {"#GET_STEINHART_B1", "2.37065938053300e-04"},
      {"#GET_STEINHART_B3", "7.54233759059000e-08"},
      {"#SET_FBG_REF_VTH 65535", "fbg reference thermistor voltage (Vth) set to -1.\n"},
      {"#GET_FBG_REF_VTH", "-1"},
      {"#SET_FBG_REF_VTH 32767", "fbg reference thermistor voltage (Vth) set to 32767.\n"},
      {"#SET_FBG_REF_WVL_NM 1550", "fbg reference Wvl set to  1550.0000 nm.\n"},
      {"#GET_FBG_REF_WVL_NM", "1550.0000"},
      {"#SET_FBG_NM_PER_DEGC 0.01", "fbg nm/degC set to     0.0100 nm.\n"},
      {"#GET_FBG_NM_PER_DEGC", "0.0100"},
      {"#REBUILD_FBG_VTH_LUT", "Rebuilding FBG Vth LUT\n"},
      {"#SET_PEAK2USE 3", "Setting Peak2Use to 3.\n"},
      {"#GET_PEAK2USE", "3"},
      {"#SET_PEAK2USE 0", "Setting Peak2Use to 0.\n"},
      {"#SET_MONITORED_FBG 256", "Monitored FBG turned off (Applying Peak2Use).\n"},  // low 8 bits
      {"#GET_MONITORED_FBG", "0"},
      {"#SET_MONITORED_FBG 1", "Monitored FBG turned on.\n"},
      {"#SET_MAX_WVL_CORR_COEF_ERROR 0.2", "Corr Coef errof window set to +/- 0.200000.\n"},
      {"#GET_MAX_WVL_CORR_COEF_ERROR", "0.200000"},
      {"#SET_MAX_WVL_CORR_COEF_ERROR 0.15", "Corr Coef errof window set to +/- 0.150000.\n"},
      {"#SET_GRANULARITY 0", "!Illegal parameters.  Granularity must be at least 1.\n"},
      {"#SET_GRANULARITY 4294967296", "!Illegal parameters.  Granularity must be at least 1.\n"},
      {"#GET_GRANULARITY", "1000000"},
      {"#SET_GRANULARITY 1000000", "Granularity set to 1000000.\n"},
      {"#SET_FBG_CHANNEL 9", "Setting FBG channels to 5.\n"},
      {"#GET_FBG_CHANNEL", "5"},
      {"#SET_FBG_CHANNEL 0", "Setting FBG channels to 0.\n"},
      {"#SET_LOWER_WVL_LIMIT 100", "LowerWvlLimit set to 500.000000.\n"},
      {"#GET_LOWER_WVL_LIMIT", "500.000000"},
      {"#SET_LOWER_WVL_LIMIT 1520", "LowerWvlLimit set to 1520.000000.\n"},
      {"#SET_UPPER_WVL_LIMIT -inf", "!Illegal parameters.  Not a finite number: -inf.\n"},
      {"#GET_UPPER_WVL_LIMIT", "1570.000000"},
      {"#SET_CH_ENABLE 1.2 0", "Ch 1.2 disbled.\n"},
      {"#GET_CH_ENABLE 5", "0"},
      {"#SET_CH_ENABLE 5 3", "Ch 5 enabled.\n"},  // flag & 1
      {"#GET_CH_ENABLE 1.2", "1"},
      {"#SET_CH_ENABLE 17 1", "!Illegal parameters.  Acceptable ranges are: Ch# 1 to 4.\n"},
      {"#SET_CH_ENABLE 5.1 1", "!Illegal parameters.  Acceptable ranges are: Ch# 1.1 to 4.1.\n"},
      {"#GET_CH_ENABLE 0", "!Illegal parameters.  Acceptable ranges are: Ch# 1 to 4.\n"},
      {"#SET_ZOR_NUM_DUT_CHANNELS 0", "Setting # DUT channels to 1.\n"},
      {"#SET_ZOR_NUM_DUT_CHANNELS 9", "Setting # DUT channels to 4.\n"},
      {"#GET_NUM_DUT_CHANNELS", "4"},
      {"#GET_ZOR_NUM_DUT_CHANNELS", "4"},
  });
  EXPECT_TRUE(HasTag("#SET_CH_ENABLE = \"1.2 0\""));
  EXPECT_TRUE(HasTag("#SET_FBG_CHANNEL = \"0\""));
  EXPECT_TRUE(HasTag("#SET_GRANULARITY = \"1000000\""));
  EXPECT_TRUE(HasTag("#SET_FFPI_FSR_GHZ = \"100\""));

  // A disabled channel's sensors vanish from the records; the others keep theirs.
  EXPECT_EQ(Client.Command("#SET_CH_ENABLE 2 0"), "Ch 2 disbled.\n");
  SRecord off = Fresh();
  EXPECT_EQ(off.Count(1), 0u);
  EXPECT_EQ(off.Count(0), 3u);
  EXPECT_EQ(Client.Command("#SET_CH_ENABLE 2 1"), "Ch 2 enabled.\n");
  EXPECT_EQ(Fresh().Count(1), 3u);
}

TEST_F(ProcessingCommands, ReferencesAveragesGainsAndBinning) {
  const std::string db = Client.Command("#GET_DB2COUNTS 1 400");
  Run({
      // References
      {"#SET_REFERENCE 1 2 1545.123456789", "Setting Ch 1, Sensor 2 Reference to 1545.123456.\n"},
      {"#GET_REFERENCE 1 2", "1545.123456"},
      {"#SET_REFERENCE 16 250 -0.5", "Setting Ch 16, Sensor 250 Reference to -0.500000.\n"},
      {"#SET_REFERENCE 1 2 nan", "!Illegal parameters.  Not a finite number: nan.\n"},
      {"#GET_REFERENCE 17 1", "!Illegal parameters.  Acceptable ranges are: Ch# 1 to 4 and sensor# 1 to 250.\n"},
      {"#GET_REFERENCE 1.1 251", "!Illegal parameters.  Acceptable ranges are: Ch# 1.1 to 4.1 and sensor# 1 to 250.\n"},
      {"#SET_REFERENCE 5 1", "!Illegal parameters.  Acceptable ranges are: Ch# 1 to 4 and sensor# 1 to 250.\n"},
      {"#SET_REFERENCE 1 2 3 4", "!Invalid command or argument: #SET_REFERENCE 1 2 3 4."},
      {"#CLEAR_REFERENCE 1 2", "Zeroing reference (1, 2).\n"},
      {"#GET_REFERENCE 1 2", "0.000000"},
      {"#SET_REFERENCE 4 7 1.5", "Setting Ch 4, Sensor 7 Reference to 1.500000.\n"},
      {"#CLEAR_REFERENCE 4.1", "Zeroing channel 4 references.\n"},  // read as a plain number
      {"#GET_REFERENCE 4 7", "0.000000"},
      {"#CLEAR_REFERENCE", "Zeroing all DUT refrences.\n"},
      {"#GET_REFERENCE 16 250", "-0.500000"},  // a layer not in use keeps its references
      {"#SET_REFERENCE 16 250 0", "Setting Ch 16, Sensor 250 Reference to 0.000000.\n"},
      {"#SET_USE_REFERENCES 0", "References disabled.\n"},
      {"#GET_USE_REFERENCES", "0"},
      // Averaging, in units of the minimum
      {"#SET_NUM_AVERAGES 10001",
       "!Illegal parameters.  Acceptable ranges are: Ch# 1 to 4, sensor# 1 to 250 and NumAvg from 1 to 10000.\n"},
      {"#SET_NUM_AVERAGES 1.1 0",
       "!Illegal parameters.  Acceptable ranges are: Ch# 1.1 to 4.1, sensor# 1 to 250 and NumAvg from 1 to 10000.\n"},
      {"#SET_NUM_AVERAGES 1 3 10", "Setting Ch 1, Sensor 3 # Averages to 10.\n"},
      {"#SET_NUM_AVERAGES 2 5", "Setting Ch 2, # Avgs to 5.\n"},
      {"#GET_NUM_AVERAGES 2 250", "5"},
      {"#SET_MIN_NUM_AVERAGES 4", "Setting Min averages to 4.\n"},
      {"#GET_MIN_NUM_AVERAGES", "4"},
      {"#GET_NUM_AVERAGES 1 3", "10"},  // the client's count stays; its ring grew to 40
      {"#SET_NUM_AVERAGES 1 1 2", "Setting Ch 1, Sensor 1 # Averages to 2.\n"},
      {"#GET_NUM_AVERAGES 1 1", "2"},
      {"#SET_NUM_AVERAGES 2501",
       "!Illegal parameters.  Acceptable ranges are: Ch# 1 to 4, sensor# 1 to 250 and NumAvg from 1 to 2500.\n"},
      {"#GET_NUM_AVERAGES 0 1", "!Illegal parameters.  Acceptable ranges are: Ch# 1 to 4 and sensor# 1 to 250.\n"},
      {"#SET_MIN_NUM_AVERAGES 0", "Setting Min averages to 1.\n"},
      {"#GET_NUM_AVERAGES 1 1", "2"},
      {"#SET_MIN_NUM_AVERAGES 20000", "Setting Min averages to 10000.\n"},
      {"#SET_MIN_NUM_AVERAGES 1", "Setting Min averages to 1.\n"},
      {"#SET_NUM_AVERAGES 1", "Setting averaging for all sensors on all channels to 1.\n"},
      {"#GET_NUM_AVERAGES 1 3", "1"},
      // Gain offsets and the dB table
      {"#SET_GAIN_WVL_OFFSET 2 65537 0.0125", "Setting Ch 2, Gain 1 wvl offset to 0.012500.\n"},  // low 16 bits
      {"#GET_GAIN_WVL_OFFSET 2 1", "0.012500"},
      {"#SET_GAIN_WVL_OFFSET 1 7 -0.5", "Setting Ch 1, Gain 7 wvl offset to -0.500000.\n"},
      {"#GET_GAIN_WVL_OFFSET 1 7", "-0.500000"},
      {"#SET_GAIN_WVL_OFFSET 5 1 0.1",
       "!Illegal parameters.  Acceptable ranges are: Ch# 1 to 4 and Gain  0 to 65535.\n"},
      {"#GET_GAIN_WVL_OFFSET 0 1", "!Illegal parameters.  Acceptable ranges are: Ch# 1 to 4 and Gain  0 to 65535.\n"},
      {"#SET_GAIN_WVL_OFFSET 2 1 0", "Setting Ch 2, Gain 1 wvl offset to 0.000000.\n"},
      {"#SET_GAIN_WVL_OFFSET 1 7 0", "Setting Ch 1, Gain 7 wvl offset to 0.000000.\n"},
      {"#SET_ENABLE_WVL_OFFSETS 0", "Wvl Offsets disabled.\n"},
      {"#GET_ENABLE_WVL_OFFSETS", "0"},
      {"#SET_ENABLE_WVL_OFFSETS 1", "Wvl Offsets enabled.\n"},
      {"#SET_DB2COUNTS 1 400 70000", "Setting Db2Counts[1][400] to 4464"},
      {"#GET_DB2COUNTS 1 400", "4464"},
      {"#SET_DB2COUNTS 1 401 5", "!Invalid command or argument: #SET_DB2COUNTS 1 401 5."},
      {"#GET_DB2COUNTS 5 0", "0"},
      // Sensor binning (switched on and off end to end elsewhere)
      {"#GET_ENABLE_SENSOR_BINS", "0"},
      {"#SET_ENABLE_SENSOR_BINS 2", "Sensor binning disabled.\n"},
      {"#RESET_SENSOR_BINS", "Sensor binning Reset.\n"},
      {"#GET_ENABLE_SENSOR_BINS", "0"},
      {"#SET_SENSOR_BIN_WIDTH 0", "Roving Bin Width set to 200.\n"},
      {"#SET_SENSOR_BIN_WIDTH 150", "Roving Bin Width set to 150.\n"},
      {"#GET_SENSOR_BIN_WIDTH", "150"},
      {"#SET_SENSOR_BIN_WIDTH 200", "Roving Bin Width set to 200.\n"},
      {"#GET_LAST_BIN_FAULT_CNT 17", "!Illegal parameters.  Acceptable ranges are: Ch# 1 to 4.\n"},
      {"#GET_LAST_BIN_FAULT_CNT 1", "0"},
  });
  Client.Command("#SET_DB2COUNTS 1 400 " + db);
  EXPECT_TRUE(HasTag("#SET_MIN_NUM_AVERAGES = \"1\""));
  EXPECT_TRUE(HasTag("#SET_SENSOR_BIN_WIDTH = \"200\""));
  EXPECT_EQ(S().TagManager.GetTagsText().find("#SET_REFERENCE"), std::string::npos);
}

TEST_F(ProcessingCommands, AveragingRingsAreCountsTimesTheMinimum) {
  // The store takes a new depth with the next record; its lock keeps the look race-free.
  auto ringOf = [&](uint8_t ch, uint16_t sensor, uint16_t want) {
    return WaitFor([&] {
      std::lock_guard<std::mutex> g(S().AveragingLock);
      return S().WvlAvg.GetTargetNumAvg(ch, sensor) == want;
    }, std::chrono::seconds(10));
  };
  EXPECT_EQ(Client.Command("#SET_MIN_NUM_AVERAGES 4"), "Setting Min averages to 4.\n");
  EXPECT_EQ(Client.Command("#SET_NUM_AVERAGES 1 1 2"), "Setting Ch 1, Sensor 1 # Averages to 2.\n");
  EXPECT_TRUE(ringOf(0, 0, 8));
  EXPECT_EQ(Client.Command("#GET_NUM_AVERAGES 1 1"), "2");
  // Doubling the unit doubles every ring and keeps the client's counts.
  EXPECT_EQ(Client.Command("#SET_MIN_NUM_AVERAGES 8"), "Setting Min averages to 8.\n");
  EXPECT_TRUE(ringOf(0, 0, 16));
  EXPECT_TRUE(ringOf(3, 249, 8));
  EXPECT_EQ(Client.Command("#GET_NUM_AVERAGES 1 1"), "2");
  EXPECT_EQ(Client.Command("#SET_MIN_NUM_AVERAGES 1"), "Setting Min averages to 1.\n");
  EXPECT_EQ(Client.Command("#SET_NUM_AVERAGES 1"), "Setting averaging for all sensors on all channels to 1.\n");
  EXPECT_TRUE(ringOf(0, 0, 1));
}

// A reference taken from the current value makes the sensor read 0 in the following records;
// taken again, it adds to the old one (the value it sees is already relative).
TEST_F(ProcessingCommands, ReferenceToTheCurrentValueZeroesTheSensor) {
  constexpr double kPm = 1000.0;  // integer units (1 fm) per pm
  EXPECT_EQ(Client.Command("#SET_USE_REFERENCES 1"), "References enabled.\n");
  const SRecord before = Fresh();
  ASSERT_EQ(before.Count(0), 3u);
  const double wvl = before.Value(0, 1) / 1e6;

  const std::string reply = Client.Command("#SET_REFERENCE 1 2");
  const std::string head = "Setting Ch 1, Sensor 2 reference to current wvl value (";
  ASSERT_EQ(reply.substr(0, head.size()), head) << reply;
  EXPECT_NEAR(std::strtod(reply.c_str() + head.size(), nullptr), wvl, 1e-6);
  EXPECT_NEAR(Number("#GET_REFERENCE 1 2"), wvl, 1e-6);
  for (int i = 0; i < 20; ++i) {
    const SRecord r = i == 0 ? Fresh() : Next();
    ASSERT_EQ(r.Count(0), 3u);
    EXPECT_NEAR(r.Value(0, 1), 0, 5 * kPm) << "record " << i;
    EXPECT_NEAR(r.Value(0, 0), before.Value(0, 0), 5 * kPm);  // its neighbours keep their wavelengths
  }
  // Again: the value now near 0 goes on top of the old reference.
  Client.Command("#SET_REFERENCE 1 2");
  EXPECT_NEAR(Number("#GET_REFERENCE 1 2"), wvl, 0.005);  // within the noise of one reading

  // A whole channel, then every channel in use.
  EXPECT_EQ(Client.Command("#SET_REFERENCE 3"), "Setting Ch 3 references to current wvl values.\n");
  SRecord r = Fresh();
  for (uint32_t j = 0; j < 3; ++j) EXPECT_NEAR(r.Value(2, j), 0, 5 * kPm) << j;
  EXPECT_NEAR(r.Value(3, 0), before.Value(3, 0), 5 * kPm);
  EXPECT_EQ(Client.Command("#SET_REFERENCE"), "Setting all DUT references to current wvl values.\n");
  r = Fresh();
  for (int ch = 0; ch < 4; ++ch)
    for (uint32_t j = 0; j < 3; ++j) EXPECT_NEAR(r.Value(ch, j), 0, 5 * kPm) << ch << "." << j;

  EXPECT_EQ(Client.Command("#CLEAR_REFERENCE"), "Zeroing all DUT refrences.\n");
  EXPECT_EQ(Client.Command("#SET_USE_REFERENCES 0"), "References disabled.\n");
  EXPECT_NEAR(Fresh().Value(0, 1) / 1e6, wvl, 0.005);
}

// The conversions answer on the comb the pipeline used: the grating's position in the record
// and its wavelength on that comb convert into each other, and the thermistor table agrees
// with the grating frequency in use.
TEST_F(ProcessingCommands, ConversionsAgreeWithTheLiveScale) {
  EXPECT_TRUE(WaitFor(
      [&] {
        const std::string vth = Client.Command("#GET_FBG_VTH");
        const int entry = (std::atoi(vth.c_str()) + 32768) & 0xFFFF;
        return Client.Command("#VTH2THZ " + std::to_string(entry)) == Client.Command("#GET_FBG_THZ") &&
               Client.Command("#VTH2DEGC " + vth) == Client.Command("#GET_FBG_DEGC") &&
               Client.Command("#GET_FBG_VTH") == vth;
      },
      std::chrono::seconds(30)));
  EXPECT_NEAR(Number("#GET_FBG_THZ"), 193.4, 0.5);  // a grating near 1550 nm

  bool agreed = false;
  for (int attempt = 0; attempt < 20 && !agreed; ++attempt) {
    const SRecord r = Fresh();
    const double fbgNm = Number("#GET_CALCULATED_FBG");
    const double counts = Number("#WVL2COUNTS " + std::to_string(fbgNm));
    const double nm = Number("#COUNTS2WVL " + std::to_string(r.FbgPosition()));
    agreed = std::abs(counts - r.FbgPosition()) <= 3 && std::abs(nm - fbgNm) < 0.005;
  }
  EXPECT_TRUE(agreed);
  const double nm = Number("#COUNTS2WVL 30000");
  EXPECT_GT(nm, 1500.0);
  EXPECT_LT(nm, 1600.0);
  EXPECT_NEAR(Number("#WVL2COUNTS " + std::to_string(nm)), 30000, 3);
}

}  // namespace
