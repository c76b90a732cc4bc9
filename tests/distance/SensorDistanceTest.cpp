// Sensor locations through a real client: locations loaded at start-up, the commands' replies,
// the two-rate measurement of a scene with sensors at known distances (at 1 and 2 kHz) applied
// to the wavelengths, and its failure paths.
#include <gtest/gtest.h>

#include <chrono>
#include <cmath>
#include <string>
#include <vector>

#include "commands/InProcessServer.h"
#include "protocol/DataWire.h"

namespace {

using namespace laser_test;
using namespace std::chrono_literals;

struct SSceneSensor {
  int Channel;  // legacy 1-16
  int Sensor;   // 1-based, in wavelength order
  double Nm, Metres;
};
const std::vector<SSceneSensor> kScene = {{1, 1, 1530.0, 0}, {1, 2, 1540.0, 300}, {1, 3, 1550.0, 1000}, {1, 4, 1560.0, 2000},
                                          {2, 1, 1535.0, 0}, {2, 2, 1545.0, 300}, {2, 3, 1555.0, 1000}, {2, 4, 1565.0, 2000}};

// Channels 3 and 4 carry 25 sensors each (the last 300 m out): 58 in all, more than a 2 kHz sweep
// at a tenth of its sensor limit keeps; the measurement lifts the limit to what one sweep holds.
std::string SceneText() {
  std::string text = "# channel wavelength distance amplitude\n";
  for (const auto& s : kScene)
    text += std::to_string(s.Channel) + " " + std::to_string(s.Nm) + " " + std::to_string(s.Metres) + " 10000\n";
  for (int ch = 3; ch <= 4; ++ch)
    for (int i = 0; i < 25; ++i)
      text += std::to_string(ch) + " " + std::to_string(1524.0 + 1.6 * i + 0.8 * (ch - 3)) + (ch == 4 && i == 24 ? " 300" : " 0") + " 10000\n";
  return text;
}

double Number(const std::string& reply) { return std::strtod(reply.c_str(), nullptr); }

class SensorDistance : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    Scene = new CTempDir;
    WriteFile(*Scene / "scene.txt", SceneText());
    sim::CSimOptions card;
    card.SceneFile = *Scene / "scene.txt";
    // Locations saved before the start: channel 1's fourth sensor at its true 2000 m.
    Server = new CInProcessServer(ReadyLaserTags(), card, [](const std::string& root) {
      WriteFile(root + "/vr480/locations.dat", "0\n0\n0\n2000\n");
    });
  }
  static void TearDownTestSuite() {
    delete Server;
    delete Scene;
  }
  void SetUp() override {
    ASSERT_TRUE(Server->Started());
    ASSERT_TRUE(Client.Connect(Server->Port()));
    ASSERT_TRUE(WaitReady(Client, 30s));
  }

  // Every scene sensor's wavelength, averaged by the server over 32 records, within `pm`.
  void ExpectSceneWavelengths(double pm) {
    ASSERT_EQ(Client.Command("#SET_NUM_AVERAGES 32"), "Setting averaging for all sensors on all channels to 32.\n");
    Client.Command("#FLUSH_BUFFER");
    data_wire::SRecord rec;
    for (int i = 0; i < 200; ++i) rec = data_wire::SRecord{Client.Command("#GET_DATA")};
    for (const auto& s : kScene) {
      ASSERT_EQ(rec.Count(s.Channel - 1), 4u);
      const double nm = rec.Value(s.Channel - 1, s.Sensor - 1) / static_cast<double>(rec.Granularity());
      EXPECT_NEAR(nm, s.Nm, pm * 1e-3) << "channel " << s.Channel << " sensor " << s.Sensor;
    }
    Client.Command("#SET_NUM_AVERAGES 1");
  }

  static inline CTempDir* Scene = nullptr;
  static inline CInProcessServer* Server = nullptr;
  CTestClient Client;
};

// Guards locations loaded at start-up being in force from the first record.
TEST_F(SensorDistance, LoadedLocationsCompensateFromTheStart) {
  EXPECT_NEAR(Server->S().TimeOfFlightInCounts[0][3], 2 * 1276.65, 0.02);
  EXPECT_EQ(Client.Command("#GET_SENSOR_LOCATION 1 4"), "2000.000000");
  const data_wire::SRecord rec{Client.Command("#GET_DATA")};
  ASSERT_EQ(rec.Count(0), 4u);
  EXPECT_NEAR(rec.Value(0, 3) / static_cast<double>(rec.Granularity()), 1560.0, 0.005);
}

// Guards the location commands' replies and ranges, and the divisors they refuse.
TEST_F(SensorDistance, CommandsReplyAndGuardTheirDivisors) {
  const std::string illegal1 = "!Illegal parameters.  Acceptable ranges are: Ch# 1 to 4, sensor# 1 to 250.\n";
  const std::string usage = "!Usage: LOC_MEAS_GENERATE_PLOT new_data(0 or 1) start_dist stop_dist dist_inc port sensor.\n";
  const std::pair<const char*, std::string> rows[] = {
      {"#SET_SENSOR_LOCATION 1 1 1000", "Setting Ch 1, Sensor 1 location to 1000.000000 meters.\n"},
      {"#SET_SENSOR_LOCATION 1.4 250 12.5", "Setting Ch 1.4, Sensor 250 location to 12.500000 meters.\n"},
      {"#SET_SENSOR_LOCATION 5 7", illegal1},
      {"#SET_SENSOR_LOCATION 1.2 7", "!Illegal parameters.  Acceptable ranges are: Ch# 1.1 to 4.1, sensor# 1 to 250.\n"},
      {"#GET_SENSOR_LOCATION 1 251", illegal1},
      {"#SET_SENSOR_LOCATION 1 2 3 4", "!Invalid command or argument: #SET_SENSOR_LOCATION 1 2 3 4."},
      {"#SET_INDEX_OF_REFRACTION 17 1.5", "!Illegal Channel: 17\n"},
      {"#SET_INDEX_OF_REFRACTION 2 0", "!Illegal parameters.  Index of refraction must be greater than 0: 0.\n"},
      {"#SET_INDEX_OF_REFRACTION 2 1.47", "Setting Ch 2 Index of Refraction to 1.470000.\n"},
      {"#SET_INDEX_OF_REFRACTION 2 1.46", "Setting Ch 2 Index of Refraction to 1.460000.\n"},
      {"#SET_SPEED_OF_LIGHT 0", "!Illegal parameters.  Speed of light must be greater than 0: 0.\n"},
      {"#GET_SPEED_OF_LIGHT", "299792458.000000"},
      {"#SET_LOC_MEAS_AVERAGES 0", "# locations averages set to 1.\n"},
      {"#SET_LOC_MEAS_MAX_ITERATIONS -5", "location measurement max # iterations set to 1.\n"},
      {"#SET_LOC_MEAS_MAX_ITERATIONS 100", "location measurement max # iterations set to 100.\n"},
      {"#SET_LOC_MEAS_CH_OFFSET_METERS 1.2 -3", "Setting channel 1.2 location offset to -3.000000.\n"},
      {"#GET_LOC_MEAS_CH_OFFSET_METERS 5", "-3.000000"},
      {"#SET_LOC_MEAS_CH_OFFSET_METERS 5 0", "Setting channel 5 location offset to 0.000000.\n"},
      {"#SET_ZOR_LOC_MEAS_CH_OFFSET_METERS 17 1", "!Illegal parameters.  Acceptable ranges are: Ch# 1 to 4.\n"},
      {"#J 0", "Received #J cmd (0).\n"},
      {"#GET_MEASURED_LOCATION 0 1", illegal1},
      {"#LOC_MEAS_GENERATE_PLOT 1 0 10 0 1 1", usage},  // no step
      {"#LOC_MEAS_GENERATE_PLOT 1 900 1100 50 17 1", usage},
      {"#LOC_MEAS_GENERATE_PLOT 1 900 1100 50 1 300", "Distance Measurement Plot Generation...OK.\n"},
  };
  for (const auto& [line, reply] : rows) EXPECT_EQ(Client.Command(line, 30s), reply) << line;

  // The worked figure: at the defaults a sensor at 1000 m is seen 1276.65 counts late.
  EXPECT_NEAR(Server->S().TimeOfFlightInCounts[0][0], 1276.65, 0.01);
  // Compensating and uncompensating are inverse, and an index of 0 means no fibre (each
  // conversion uses the scale of the newest record, which moves by a few picometres).
  const double comp = Number(Client.Command("#GET_DIST_COMP_WVL 1550 1000 1.46"));
  EXPECT_NEAR(comp, 1550.0 - 1276.65 * 1.75e-3, 0.5);
  EXPECT_NEAR(Number(Client.Command("#GET_DIST_UCOMP_WVL " + std::to_string(comp) + " 1000 1.46")), 1550.0, 0.01);
  EXPECT_NEAR(Number(Client.Command("#GET_DIST_COMP_WVL 1550 1000 0")), 1550.0, 0.01);

  EXPECT_EQ(Client.Command("#SET_SENSOR_LOCATION 0"),
            "Setting sensor location for all sensors on all channels to 0.000000 meters.\n");
}

// Guards the measurement at 1 and 2 kHz (the rate and the lifted sensor limit), its application
// to the wavelengths, and its log.
TEST_F(SensorDistance, MeasuresAtBothRatesAndTheAppliedLocationsCorrectTheWavelengths) {
  ASSERT_EQ(Client.Command("#SET_LOC_MEAS_AVERAGES 4"), "# locations averages set to 4.\n");
  for (const bool twoKhz : {false, true}) {
    SCOPED_TRACE(twoKhz ? "2 kHz" : "1 kHz");
    if (twoKhz) {
      Client.Command("#SET_2KHZ_MODE 1");
      ASSERT_TRUE(WaitReady(Client, 30s));
      // A server behind the card (a loaded machine) still has sweeps from before the switch in
      // the card's ring; measured against sweeps at 2 kHz they would read as no delay at all.
      const uint64_t from = Server->S().RecordsProcessed;
      ASSERT_TRUE(laser_test::WaitFor([&] { return Server->S().RecordsProcessed > from + 600; }, 60s));
    }
    ASSERT_EQ(Client.Command("#SET_SENSOR_LOCATION 0").substr(0, 7), "Setting");
    ASSERT_EQ(Client.Command("#MEASURE_LOCATIONS", 120s), "Measuring Sensor Locations...OK.\n");
    for (const auto& s : kScene) {
      const std::string args = std::to_string(s.Channel) + " " + std::to_string(s.Sensor);
      EXPECT_NEAR(Number(Client.Command("#GET_MEASURED_LOCATION " + args)), s.Metres, twoKhz ? 2.0 : 3.0) << args;
    }
    EXPECT_NEAR(Number(Client.Command("#GET_MEASURED_LOCATION 4 25")), 300.0, twoKhz ? 2.0 : 3.0);
    EXPECT_EQ(Client.Command("#APPLY_MEASURED_LOCATIONS"), "Applying measured locations to all sensors on all channels.\n");
    ExpectSceneWavelengths(5.0);
  }
  // The log of the last measurement ends with the averaged distances.
  const std::string log = Client.Command("#GET_LOC_MEAS_LOG_FILE");
  EXPECT_NE(log.find(" --- Iteration #1 ---"), std::string::npos);
  EXPECT_NE(log.find("---------- averaged distances (+offsets) ----------\n0: "), std::string::npos);
  Client.Command("#SET_2KHZ_MODE 0");
  Client.Command("#SET_LOC_MEAS_AVERAGES 1");
  Client.Command("#SET_SENSOR_LOCATION 0");
}

// Guards the failure paths: results zeroed, locations and operating parameters kept.
TEST_F(SensorDistance, AFailedMeasurementZeroesTheResultsAndKeepsTheLocations) {
  ASSERT_EQ(Client.Command("#SET_SENSOR_LOCATION 1 4 1234").substr(0, 7), "Setting");
  // A sensor so far away that the fast sweep loses it past its end: it shows at one rate only.
  const std::vector<sim::CSimSensor> channel3 = Server->Card().Sensors(2);
  Server->Card().SetSensors(2, {sim::CSimSensor{1545.0, 40000.0, 10000.0}});
  // Records already in the card's ring still carry the old sensors: measure once more records
  // than the ring holds went through.
  const uint64_t from = Server->S().RecordsProcessed;
  ASSERT_TRUE(laser_test::WaitFor([&] { return Server->S().RecordsProcessed > from + 600; }, 60s));
  EXPECT_EQ(Client.Command("#MEASURE_LOCATIONS", 120s), "!Measuring Sensor Locations...failed.\n");
  Server->Card().SetSensors(2, channel3);
  EXPECT_EQ(Client.Command("#GET_MEASURED_LOCATION 1 2"), "0.000000");
  EXPECT_NE(Client.Command("#GET_LOC_MEAS_LOG_FILE").find("Sensor Count is inconsistent.\nDUT ch 3 @ 1khz SensorCount = 0\n"
                                                          "DUT ch 3 @ 500hz SensorCount = 1\n"),
            std::string::npos);

  // One iteration allowed: the limit is reached before any step (on the scene's sensors again).
  const uint64_t restored = Server->S().RecordsProcessed;
  ASSERT_TRUE(laser_test::WaitFor([&] { return Server->S().RecordsProcessed > restored + 600; }, 60s));
  Client.Command("#SET_LOC_MEAS_MAX_ITERATIONS 1");
  EXPECT_EQ(Client.Command("#MEASURE_LOCATIONS", 120s), "!Measuring Sensor Locations...failed.\n");
  Client.Command("#SET_LOC_MEAS_MAX_ITERATIONS 100");
  EXPECT_NE(Client.Command("#GET_LOC_MEAS_LOG_FILE").find("Reached max# of iterations.\n"), std::string::npos);
  EXPECT_EQ(Client.Command("#GET_MEASURED_LOCATION 1 4"), "0.000000");
  EXPECT_EQ(Client.Command("#GET_SENSOR_LOCATION 1 4"), "1234.000000");

  // The operating parameters are back: records flow at the previous rate and window.
  EXPECT_EQ(Client.Command("#GET_LOWER_WVL_LIMIT"), "1520.000000");
  EXPECT_EQ(data_wire::SRecord{Client.Command("#GET_DATA")}.Count(0), 4u);
  Client.Command("#SET_SENSOR_LOCATION 0");
}

}  // namespace
