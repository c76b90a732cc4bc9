// Scene files: sensors, modulation, knobs, errors, and the built-in scene a bad file leaves.
#include <gtest/gtest.h>

#include "SimTestDriver.h"
#include "support/TempDir.h"

using namespace simtest;

TEST(SimScene, ParsesSensorsAndKnobsAndNamesTheBadLine) {
  const std::string text =
      "# a test scene\n"
      "\n"
      "1      1530.0   12.5  9000\n"
      "2.1    1545.2   800   12000  fwhm 0.2  sine 0.05 2   # dot notation: channel 2, layer 1\n"
      "16     1560     0     5000   dropout 1.5 0.25\n"
      "1.4    1550     3     7000   step -0.1 4\n"
      "internal_temp 30\ngrating_temp 27.5\nscan_gain 3.6e-4\ncalibration_error -0.2\nmaster_divider 5\n"
      "channel_length 2 15.5\nlayer_length 4 100\ngrating_list 3\ncard_absent 1\ndevice_id 0x1234\ndriver_release 49\n";
  CSceneParseResult r = ParseScene(text);
  ASSERT_TRUE(r.bOk) << r.Error;
  const CSimScene& s = r.Scene;
  ASSERT_EQ(s.Sensors[0].size(), 1u);
  EXPECT_DOUBLE_EQ(s.Sensors[0][0].DistanceM, 12.5);
  ASSERT_EQ(s.Sensors[1].size(), 1u);
  EXPECT_DOUBLE_EQ(s.Sensors[1][0].FwhmNm, 0.2);
  EXPECT_NEAR(s.Sensors[1][0].WavelengthAt(0.5), 1545.25, 1e-9);  // sine modulation
  ASSERT_EQ(s.Sensors[15].size(), 1u);
  EXPECT_TRUE(s.Sensors[15][0].PresentAt(1.0));
  EXPECT_FALSE(s.Sensors[15][0].PresentAt(1.2));
  ASSERT_EQ(s.Sensors[12].size(), 1u) << "1.4: channel 1 of layer 4";
  EXPECT_DOUBLE_EQ(s.Sensors[12][0].WavelengthAt(3.0), 1549.9);
  const auto& e = s.Environment;
  EXPECT_EQ(std::vector<double>({e.InternalDegC + e.GratingOffsetDegC, s.Optics.ScanGainThzPerLsb,
                                 s.Optics.CalibrationErrorFsr, static_cast<double>(e.MasterDivider), e.ChannelLengthM[1],
                                 e.LayerLengthM[3], static_cast<double>(s.Optics.GratingList),
                                 static_cast<double>(s.Hardware.bAbsent), static_cast<double>(s.Hardware.DeviceIdOverride),
                                 static_cast<double>(s.Hardware.DriverRelease)}),
            std::vector<double>({27.5, 3.6e-4, -0.2, 5, 15.5, 100, 3, 1, 0x1234, 49}));
  // Errors name the line.
  const std::pair<std::string, std::string> cases[] = {
      {"1 1530 0 9000\n17 1530 0 9000\n", "line 2: bad channel '17'"},
      {"5.1 1530 0 9000\n", "line 1: bad channel '5.1'"},
      {"1 abc 0 9000\n", "line 1: expected wavelength in nm, got 'abc'"},
      {"# only\n1 1530 0\n", "line 2: missing amplitude"},
      {"1 1530 -4 9000\n", "line 1: distance in m -4 is outside"},
      {"1 1530 0 9000 wobble 3\n", "line 1: unknown sensor option 'wobble'"},
      {"1 1530 0 9000 sine 0.1\n", "line 1: missing modulation period in s"},
      {"\n\nwarp_drive 9\n", "line 3: unknown setting 'warp_drive'"},
      {"internal_temp\n", "line 1: 'internal_temp' takes 1 value(s), got 0"},
      {"grating_list 1\n", "line 1: grating_list must be 0 or 2-5"},
      {"channel_length 2.5 3\n", "line 1: index must be a whole number 1-4"},
      {"\ndevice_id 0xZZ\n", "line 2:"},
  };
  for (const auto& [bad, expect] : cases) {
    const CSceneParseResult refused = ParseScene(bad);
    EXPECT_TRUE(!refused.bOk && refused.Error.rfind(expect, 0) == 0) << bad << " -> " << refused.Error;
  }
  std::string many;
  for (int i = 0; i < 251; ++i) many += "3 1550 0 100\n";
  EXPECT_EQ(ParseScene(many).Error, "line 251: more than 250 sensors on channel 3");
  EXPECT_TRUE(ParseScene("").bOk);
}

// A scene file with an error leaves the built-in scene (three sensors on each channel of layer 0)
// and names the line; a missing file is named too. (Scene files that load are the distance and
// binning suites' cases.)
TEST(SimScene, BadSceneFileFallsBackToTheBuiltInScene) {
  CTempDir dir;
  WriteFile(dir / "scene.txt", "2 1550 0 9000\n2 1551 zero 9000\n");
  CSimOptions o = StepOptions();
  o.SceneFile = dir / "scene.txt";
  CTestDriver bad(o);
  EXPECT_NE(bad.Card().SceneError().find("line 2: expected distance in m, got 'zero'"), std::string::npos)
      << bad.Card().SceneError();
  for (int ch = 0; ch < 4; ++ch) EXPECT_EQ(bad.Card().Sensors(ch).size(), 3u) << ch;
  EXPECT_TRUE(bad.Card().Sensors(4).empty()) << "layer 1 is empty";
  std::string error;
  EXPECT_FALSE(bad.Card().LoadSceneFile(dir / "missing.txt", &error));
  EXPECT_NE(error.find("cannot read scene file"), std::string::npos);
  std::vector<std::optional<int>> channels;
  for (const char* text : {"1", "16", "3.2", "0", "1."}) channels.push_back(ParseLogicalChannel(text));
  EXPECT_EQ(channels, (std::vector<std::optional<int>>{0, 15, 6, std::nullopt, std::nullopt}));
}
