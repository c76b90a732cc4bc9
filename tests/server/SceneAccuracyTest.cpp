// The measurement end to end in process: the simulated card's scene, the server's control
// loops, wavelength scale and pipeline, and the processed records that clients are sent.
#include <gtest/gtest.h>

#include <cmath>

#include "ServerAccess.h"
#include "processing/ProcessedRecord.h"

namespace {

// A processed record's sensor values, per DUT channel, in nm.
std::vector<std::vector<double>> SensorsOf(const uint8_t* slot) {
  const uint32_t granularity = GetRecU32(slot, kRecGranularityOffset);
  std::vector<std::vector<double>> out(4);
  size_t at = kRecSensorsOffset;
  for (int ch = 0; ch < 4; ++ch) {
    const uint16_t n = GetRecU16(slot, kRecKeptCountsOffset + 2 * ch);
    for (int i = 0; i < n; ++i, at += 4) out[ch].push_back(GetRecI32(slot, at) / static_cast<double>(granularity));
  }
  return out;
}

}  // namespace

TEST(SceneAccuracy, EveryRecordCarriesTheScenesWavelengths) {
  sim::CSimScene scene = sim::DefaultScene();
  for (auto& channel : scene.Sensors)
    for (auto& sensor : channel) sensor.DistanceM = 0.0;  // no time of flight to compensate here
  CCardServer cs(sim::EProducerMode::FreeRunning, &scene);
  ASSERT_TRUE(cs.bOpen);
  cs.PrepareAcquisition();
  cs.LaserAtWorkingPoint();
  CVr480Server& s = *cs.Server;
  s.bAutoBias = true;
  s.bAutoScanAmp = true;

  bRun = true;
  for (int i = 0; i < 6000 && !s.bReady; ++i) ServerAccess::Pass(s);
  ASSERT_TRUE(s.bReady) << "the loops settle on the card";

  std::vector<std::vector<double>> sum(4, std::vector<double>(3, 0.0));
  double worst = 0.0;
  int records = 0;
  for (int i = 0; i < 200; ++i) {
    ServerAccess::Pass(s);
    const uint16_t newest = s.ProcessedWriteIndex == 0 ? kProcessedRingSlots - 1 : s.ProcessedWriteIndex - 1;
    const uint8_t* slot = s.ProcessedData + static_cast<size_t>(newest) * kProcessedRecordBytes;
    ASSERT_EQ(slot[kRecStatusCodeOffset], kPeaksOk);
    auto sensors = SensorsOf(slot);
    for (int ch = 0; ch < 4; ++ch) {
      ASSERT_EQ(sensors[ch].size(), 3u) << "channel " << ch;
      for (int j = 0; j < 3; ++j) {
        const double errorPm = (sensors[ch][j] - scene.Sensors[ch][j].WavelengthNm) * 1000.0;
        worst = std::max(worst, std::abs(errorPm));
        sum[ch][j] += errorPm;
        EXPECT_NEAR(errorPm, 0.0, 3.0) << "record " << i << " channel " << ch << " sensor " << j;
      }
    }
    ++records;
  }
  bRun = false;
  // The grating temperature the server reads from the thermistor is the scene's.
  const double degC = s.thermistor_Vth2degC(s.pLastPeaks.load()->status.Vth);
  EXPECT_NEAR(degC, cs.Card->Card().GratingTemperature(), 0.01);
  for (int ch = 0; ch < 4; ++ch)
    for (int j = 0; j < 3; ++j) EXPECT_NEAR(sum[ch][j] / records, 0.0, 1.0) << "mean, channel " << ch << " sensor " << j;
  RecordProperty("worst_error_pm", std::to_string(worst));
}
