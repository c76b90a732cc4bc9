// The simulated card's full-spectrum samples: where along the sweep each sample looks, the
// lines of the amplitude channel's detector (grating, Airy comb, sensors with their time of
// flight and gain), the dark level and noise, the clamp, the multiplexer layer, and the
// alignment pattern. Sweeps are interleaved the way the server assembles its spectrum: sample i
// of phase p looks at count 256 i + 2 p.
#include <gtest/gtest.h>

#include <cmath>
#include <vector>

#include "SimTestDriver.h"

using namespace simtest;

namespace {

int SampleOf(const struct_dma_peaks_data& r, int i) { return static_cast<int>(r.FsSamples[i] & 0xFFFF); }

// A started card with the laser at the working point and the given detector on the samples.
struct CSampleCard : CTestDriver {
  explicit CSampleCard(int ampChannel, const CSimScene* scene = nullptr) {
    if (scene) Card().LoadScene(*scene);
    Start();
    LaserOn();
    Command(cmd::kConverter, 0x8000 | (ampChannel << 10));
    Advance(8);
  }

  // One cycle of 128 sweeps laid out on the sweep's counts (every second count; -1 where no
  // sample looked). Also keeps the cycle's last record.
  std::vector<int> Cycle() {
    std::vector<int> counts(65536, -1);
    for (int n = 0; n < 128; ++n) {
      const auto& r = StepNext();
      for (int i = 0; i < 256; ++i) counts[256 * i + 2 * r.status.CurrentLayer] = SampleOf(r, i);
      Last = r;
    }
    return counts;
  }
  struct_dma_peaks_data Last{};
};

// The count of the highest sample within `halfWidth` counts of `around`.
int PeakCount(const std::vector<int>& counts, int around, int halfWidth = 300) {
  int best = around;
  for (int x = std::max(0, around - halfWidth); x < std::min(65536, around + halfWidth); ++x)
    if (counts[x] > counts[best]) best = x;
  return best;
}

CSimScene OneSensorScene(double nm, double distanceM, double amplitude) {
  CSimScene scene;
  CSimSensor s;
  s.WavelengthNm = nm;
  s.DistanceM = distanceM;
  s.Amplitude = amplitude;
  scene.Sensors[0].push_back(s);
  return scene;
}

}  // namespace

TEST(SimSamples, DarkLevelNoiseAndMarker) {
  // DUT channel 2 has no sensors: its detector sees only its dark level and noise.
  CSimScene scene = OneSensorScene(1545.0, 0.0, 10000.0);
  CSampleCard d(3, &scene);
  double sum = 0, sum2 = 0;
  int n = 0;
  for (int k = 0; k < 20; ++k) {
    const auto& r = d.StepNext();
    for (int i = 0; i < 256; ++i) {
      ASSERT_EQ(r.FsSamples[i] >> 16, 0xA5A5u) << "marker in the high half of every word";
      const double v = SampleOf(r, i);
      sum += v;
      sum2 += v * v;
      ++n;
    }
  }
  const double mean = sum / n, sd = std::sqrt(sum2 / n - mean * mean);
  EXPECT_NEAR(mean, 300.0, 2.0);
  EXPECT_NEAR(sd, 20.0, 1.5);
}

TEST(SimSamples, SensorLinesLieWhereThePeakDetectorSeesThemLessItsLatency) {
  // One sensor at the instrument and one 400 m out: light from the far one comes back late, in
  // the samples as in the peak list.
  CSimScene scene = OneSensorScene(1530.0, 0.0, 12000.0);
  CSimSensor far;
  far.WavelengthNm = 1560.0;
  far.DistanceM = 400.0;
  far.Amplitude = 10000.0;
  scene.Sensors[0].push_back(far);
  CSampleCard d(2, &scene);
  const std::vector<int> counts = d.Cycle();
  ASSERT_EQ(d.Last.status.NumPeaks[2], 2);
  const double amplitude[2] = {12000.0, 10000.0};
  for (int j = 0; j < 2; ++j) {
    const int peak = static_cast<int>(d.Last.DutPeaks[0][j]);
    const int line = PeakCount(counts, peak - 160);
    EXPECT_NEAR(line, peak - 160, 4) << "sensor " << j;
    EXPECT_NEAR(counts[line], amplitude[j] + 300.0, 100.0) << "sensor " << j;
  }
  // Far from any line: the dark level.
  EXPECT_NEAR(counts[2 * (d.Last.DutPeaks[0][0] / 2) + 5000], 300, 100);
}

TEST(SimSamples, GainScalesTheLinesAndTheClampHoldsThem) {
  CSimScene scene = OneSensorScene(1545.0, 0.0, 5000.0);
  CSampleCard d(2, &scene);
  d.ChannelCommand(cmd::kGain, 2, 16384, true);  // 10.0 dB: x 3.17
  d.Advance(4);
  std::vector<int> counts = d.Cycle();
  int peak = static_cast<int>(d.Last.DutPeaks[0][0]);
  EXPECT_NEAR(counts[PeakCount(counts, peak - 160)], 5000.0 * std::pow(10.0, 40.1 * 16384 / 65535 / 20) + 300.0, 150.0);

  d.ChannelCommand(cmd::kGain, 2, 65535, true);  // 40.1 dB: far beyond the converter's range
  d.Advance(4);
  counts = d.Cycle();
  peak = static_cast<int>(d.Last.DutPeaks[0][0]);
  const int line = PeakCount(counts, peak - 160);
  EXPECT_EQ(counts[line], 32767);
  int saturated = 0;
  for (int x = line - 100; x < line + 100; ++x) saturated += counts[x] == 32767;
  EXPECT_GT(saturated, 20) << "the line's top is flat at full scale";

  // A noise far larger than the dark level is cut at zero.
  scene.Optics.SampleNoise = 2000.0;
  d.Card().LoadScene(scene);
  const auto& r = d.StepNext();
  int zeros = 0;
  for (int i = 0; i < 256; ++i) {
    EXPECT_GE(SampleOf(r, i), 0);
    EXPECT_LE(SampleOf(r, i), 32767);
    zeros += SampleOf(r, i) == 0;
  }
  EXPECT_GT(zeros, 50);
}

TEST(SimSamples, GratingAndAiryCombOnTheirOwnDetectors) {
  CSampleCard grating(0);
  std::vector<int> counts = grating.Cycle();
  ASSERT_EQ(grating.Last.status.NumPeaks[0], 1);
  const int fbg = static_cast<int>(grating.Last.FbgPeaks[0]);
  const int top = PeakCount(counts, fbg - 160);
  EXPECT_NEAR(top, fbg - 160, 4);
  EXPECT_NEAR(counts[top], 20000.0 + 300.0, 100.0);

  // The comb's detector: a bright tooth at every comb peak, dark between teeth (the Airy
  // function of finesse 8 falls to 1/27 of its top halfway between teeth).
  CSampleCard comb(1);
  counts = comb.Cycle();
  const int teeth = comb.Last.status.NumPeaks[1];
  ASSERT_GT(teeth, 100);
  for (int j = 10; j < teeth - 10; j += 17) {
    const int tooth = static_cast<int>(comb.Last.FfpiPeaks[j]);
    const int at = PeakCount(counts, tooth - 160, 60);
    EXPECT_NEAR(at, tooth - 160, 4) << "tooth " << j;
    EXPECT_NEAR(counts[at], 15000.0 + 300.0, 150.0) << "tooth " << j;
    const int between = 2 * ((tooth - 160 + static_cast<int>(comb.Last.FfpiPeaks[j + 1]) - 160) / 4);
    EXPECT_NEAR(counts[between], 15000.0 / 26.94 + 300.0, 100.0) << "between teeth " << j << " and " << j + 1;
  }
  // No grating line on the comb's detector, no comb on the grating's.
  EXPECT_LT(counts[PeakCount(counts, fbg - 160, 10)], 16000);
}

TEST(SimSamples, MultiplexedDetectorShowsTheSensorsOfTheSweepsLayer) {
  CSimScene scene;
  CSimSensor s;
  s.WavelengthNm = 1540.0;
  s.Amplitude = 9000.0;
  scene.Sensors[4].push_back(s);  // layer 1, DUT channel 0 only
  CSampleCard d(2, &scene);
  d.Command(cmd::kOptoA, 0);
  d.Command(cmd::kOptoB, 1);
  d.Advance(8);
  int seen[2] = {0, 0};
  for (int n = 0; n < 64; ++n) {
    const auto& r = d.StepNext();
    const int layer = ConvertLayerBits(r.status.flags1_lo) & 3;
    ASSERT_LT(layer, 2);
    int top = 0;
    for (int i = 0; i < 256; ++i) top = std::max(top, SampleOf(r, i));
    if (top > 2000) ++seen[layer];
  }
  EXPECT_EQ(seen[0], 0) << "layer 0 has no sensor";
  EXPECT_GT(seen[1], 0) << "layer 1's sensor shows in some of its sweeps' samples";
}

TEST(SimSamples, NoLightNoLines) {
  CSimScene scene = OneSensorScene(1545.0, 0.0, 12000.0);
  CSampleCard d(2, &scene);
  d.Command(cmd::kSoaEnable, 0);
  d.Advance(4);
  int top = 0;
  for (int n = 0; n < 128; ++n) {
    const auto& r = d.StepNext();
    for (int i = 0; i < 256; ++i) top = std::max(top, SampleOf(r, i));
  }
  EXPECT_LT(top, 450) << "only the dark level with the source off";
}

TEST(SimSamples, AlignmentPatternCountsThePoints) {
  CSampleCard d(2);
  d.Command(cmd::kAlign, 1);
  d.Advance(2);
  // Interleaved, the pattern numbers the 32768 points of a spectrum in order.
  std::vector<int> points(32768, -1);
  for (int n = 0; n < 128; ++n) {
    const auto& r = d.StepNext();
    for (int i = 0; i < 256; ++i) {
      ASSERT_EQ(r.FsSamples[i] >> 16, 0xA5A5u);
      points[128 * i + r.status.CurrentLayer] = SampleOf(r, i);
    }
  }
  for (int k = 0; k < 32768; ++k) ASSERT_EQ(points[k], k);
  d.Command(cmd::kAlign, 0);
  d.Advance(2);
  const auto& light = d.StepNext();
  EXPECT_NE(SampleOf(light, 5), 128 * 5 + light.status.CurrentLayer);
}
