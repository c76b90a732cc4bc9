// The full spectrum in process against the simulated card: offset calibration, peak levels, and
// the calibration thread's spectra, hand-over and ring under concurrent readers.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cmath>
#include <thread>
#include <vector>

#include "SpectrumBench.h"
#include "protocol/DataWire.h"

using namespace std::chrono_literals;
using bench::CBench;

namespace {

// The lines of a calibrated spectrum (a #GET_SPECTRUM body): the top point of each run of points
// above 3000 (the grid is 1.5 pm fine, far finer than the tolerances). Wavelengths in nm.
std::vector<double> SpectrumLinesNm(const std::string& body) {
  std::vector<double> lines;
  if (body.size() != 88 + 2 * 32768) return lines;
  auto at = [&](size_t byte, auto v) {
    std::memcpy(&v, body.data() + byte, sizeof v);
    return static_cast<double>(v);
  };
  auto point = [&](int i) { return at(88 + 2 * i, int16_t{}); };
  const double lo = at(80, int32_t{}) / at(72, int32_t{}), hi = at(84, int32_t{}) / at(72, int32_t{});
  for (int i = 0, top = -1; i <= 32768; ++i) {
    if (i < 32768 && point(i) > 3000) {
      if (top < 0 || point(i) > point(top)) top = i;
    } else if (top >= 0) {
      lines.push_back(lo + top * (hi - lo) / 32768);
      top = -1;
    }
  }
  return lines;
}

// The default scene, with DUT channel 1's first two sensors at the instrument and its third
// 400 m down the fibre (its light comes back late: it shows at a longer wavelength).
sim::CSimScene Scene() {
  sim::CSimScene scene = sim::DefaultScene();
  for (auto& channel : scene.Sensors)
    for (auto& sensor : channel) sensor.DistanceM = 0.0;
  scene.Sensors[0][2].DistanceM = 400.0;
  return scene;
}

constexpr int kSpectrumClient = 3;

}  // namespace

// Guards the offset calibration (result, settings restored, two failure texts), each channel's peak
// levels, calibrated spectra with the scene's lines, the ring under concurrent readers, the three
// spectra dropped on a channel change and the wake-up of waiters (close wakes may merge: not counted).
TEST(FullSpectrumCard, OffsetCalibrationPeakLevelsSpectraAndChannelChange) {
  const sim::CSimScene scene = Scene();
  CBench bench(scene, sim::EProducerMode::FreeRunning);
  CVr480Server& s = bench.S();
  ASSERT_TRUE(bench.Settle());
  const int channel = s.pLastPeaks.load()->AmplitudeChannel();
  ASSERT_EQ(channel, 2);
  s.Driver.SetOperatingMode(1);

  // The peak detector is 160 counts late; spectrum points are two counts apart.
  int sum = 0;
  for (int i = 0; i < 10; ++i) {
    ASSERT_EQ(FullSpectrumAccess::CalibrateFsOffset(s), 0);
    EXPECT_NEAR(s.FsCountOffset, 80, 2);  // the line's top point can lose to a neighbour in the noise
    sum += s.FsCountOffset;
  }
  EXPECT_NEAR(sum / 10.0, 80, 1);
  EXPECT_EQ((std::vector<int>{s.Driver.GetAmpCh(), s.Driver.GetOperatingMode(), s.Driver.GetTrigEnable()}),
            (std::vector<int>{channel, 1, 0})) << "settings restored";
  for (int i = 0; i < 20; ++i) bench.Pass();
  EXPECT_EQ(s.pLastPeaks.load()->AmplitudeChannel(), channel) << "the card took the channel back";

  // Two grating peaks: the calibration gives up and the offset stays.
  s.FsCountOffset = 75;
  bench.Card().SetFaults(sim::CSimFaults{.ExtraGratingPeaks = 1});
  testing::internal::CaptureStdout();
  EXPECT_EQ(FullSpectrumAccess::CalibrateFsOffset(s), -2);
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "CalibrateFsOffset() failed: 2 grating peaks were found.\n");
  EXPECT_EQ(s.FsCountOffset, 75);
  EXPECT_EQ(s.Driver.GetAmpCh(), channel);
  bench.Card().SetFaults(sim::CSimFaults{});
  for (int i = 0; i < 20; ++i) bench.Pass();
  ASSERT_EQ(s.pLastPeaks.load()->AmplitudeChannel(), channel);

  // The card never takes the grating channel (its mailbox is stuck): -1 after 562 records.
  bench.Card().SetMailboxStall(true);
  testing::internal::CaptureStdout();
  EXPECT_EQ(FullSpectrumAccess::CalibrateFsOffset(s), -1);
  const std::string out = testing::internal::GetCapturedStdout();
  bench.Card().SetMailboxStall(false);
  EXPECT_NE(out.find("CalibrateFsOffset() failed: Failed to set selected amp channel to grating channel\n"), std::string::npos) << out;
  EXPECT_EQ(s.FsCountOffset, 75);

  testing::internal::CaptureStdout();
  ASSERT_EQ(FullSpectrumAccess::CalibrateFsOffset(s), 0);
  testing::internal::GetCapturedStdout();
  bench.Connect(0);
  // The faults above can cost the laser its grating: the levels are read on a settled laser.
  ASSERT_TRUE(bench.Settle());

  for (int channel = 2; channel <= 5; ++channel) {
    s.Driver.SetAmpCh(static_cast<uint8_t>(channel));
    s.bFsRestart = true;
    // The card switches a few records later; then the history refills.
    for (int i = 0; i < 3 * 128; ++i) bench.Pass();
    const data_wire::SRecord rec{bench.Command("#GET_UNBUFFERED_DATA_AND_LEVELS", 0)};
    ASSERT_EQ(rec.AmplitudeChannel(), static_cast<uint32_t>(channel));
    const int dut = channel - 2;
    ASSERT_EQ(rec.Count(dut), 3u);
    ASSERT_EQ(rec.Levels(), 3u) << "one level per peak of the amplitude channel";
    for (uint32_t j = 0; j < 3; ++j) {
      const double amplitude = scene.Sensors[dut][j].Amplitude;
      EXPECT_NEAR(rec.Level(j), amplitude, 0.05 * amplitude) << "channel " << channel << " sensor " << j;
      EXPECT_GT(rec.Level(j), amplitude) << "the dark level adds to the line";
    }
  }

  // Calibrated spectra of DUT channel 1 under concurrent readers, then a channel change.
  s.Driver.SetAmpCh(2);
  s.bFsRestart = true;
  for (int i = 0; i < 3 * 128; ++i) bench.Pass();
  s.bFsEnable = true;
  ASSERT_TRUE(bench.StartThread());

  // Two clients read spectra while the acquisition loop runs; a third reads the sweep window.
  for (int c = kSpectrumClient; c <= kSpectrumClient + 5; ++c) bench.Connect(c);
  std::atomic<bool> stop{false};
  std::atomic<int> received{0};
  auto reader = [&](int client) {
    while (!stop) {
      const std::string body = bench.Command("#GET_SPECTRUM", client);
      if (body.empty()) continue;
      EXPECT_TRUE(body.size() == 65624u && static_cast<uint8_t>(body[0]) == 15 && static_cast<uint8_t>(body[7]) >> 4 == 2) << body.size();
      ++received;
    }
  };
  std::thread a(reader, kSpectrumClient), b(reader, kSpectrumClient + 1);
  std::thread window([&] {
    while (!stop) {
      bench.Command("#GET_HIGH_SPEED_FS_START_WVL", kSpectrumClient + 2);
      std::this_thread::sleep_for(1ms);
    }
  });
  // The loop runs until the readers have had their spectra (a loaded machine gives them little time).
  const auto ceiling = std::chrono::steady_clock::now() + 60s;
  for (int i = 0; (i < 128 * 40 || received < 20) && std::chrono::steady_clock::now() < ceiling; ++i) bench.Pass();
  // The readers leave as clients do: a wait for a spectrum notices that within a second.
  stop = true;
  s.bClientDisconnect[kSpectrumClient] = true;
  s.bClientDisconnect[kSpectrumClient + 1] = true;
  a.join();
  b.join();
  window.join();
  EXPECT_GE(received, 20);

  // The newest spectrum: DUT channel 1's lines at their uncompensated wavelengths (the scene's at
  // the instrument, where the server reports the far one).
  bench.Connect(kSpectrumClient + 4);
  const std::string newest = bench.Command("#GET_SPECTRUM", kSpectrumClient + 4);
  const std::vector<double> lines = SpectrumLinesNm(newest);
  ASSERT_EQ(lines.size(), 3u);
  const data_wire::SRecord rec{bench.Command("#GET_UNBUFFERED_DATA", kSpectrumClient + 5)};
  ASSERT_EQ(rec.Count(0), 3u);
  const double granularity = rec.Granularity();
  for (int j = 0; j < 3; ++j) {
    const double reported = rec.Value(0, j) / granularity;
    EXPECT_NEAR((lines[j] - reported) * 1000.0, 0.0, 10.0) << "sensor " << j;
    if (j < 2) {
      EXPECT_NEAR((lines[j] - scene.Sensors[0][j].WavelengthNm) * 1000.0, 0.0, 10.0) << "sensor " << j;
    }
  }
  EXPECT_GT(lines[2] - scene.Sensors[0][2].WavelengthNm, 0.5) << "the far sensor shows late in the sweep";

  // The sweep's ends bracket the grid; the grid's window lies inside the sweep.
  EXPECT_TRUE(s.HighSpeedFsStartWvl < 1520.0 && s.HighSpeedFsEndWvl > 1570.0) << s.HighSpeedFsStartWvl << " " << s.HighSpeedFsEndWvl;
  EXPECT_TRUE(0 < s.HighSpeedFsStartCount && s.HighSpeedFsStartCount < s.HighSpeedFsEndCount && s.HighSpeedFsEndCount <= 32767)
      << s.HighSpeedFsStartCount << " " << s.HighSpeedFsEndCount;

  // The hand-over of a channel change: restart the cycle and drop three spectra.
  s.Driver.SetAmpCh(1);
  s.bFsRestart = true;
  s.FsSkipCount = 3;
  std::atomic<int> wakes{0};
  stop = false;
  std::thread waiter([&] {
    std::unique_lock<std::mutex> lock(s.SpectrumMutex);
    while (!stop)
      if (s.SpectrumCond.wait_for(lock, 200ms) == std::cv_status::no_timeout) ++wakes;
  });
  // The thread drops at its own pace; a spectrum under way at the change may be published before
  // the first drop, but from that drop until the last the ring must not move.
  int slot = -1;
  bool publishedWhileDropping = false;  // checked after the waiter has been joined
  const auto until = std::chrono::steady_clock::now() + 30s;
  while (s.FsSkipCount > 0 && std::chrono::steady_clock::now() < until) {
    bench.Pass();
    const bool dropped = s.FsSkipCount < 3;
    const uint16_t index = s.SpectrumWriteIndex;
    if (dropped && slot < 0) slot = index;
    if (slot >= 0 && s.FsSkipCount > 0 && index != slot) publishedWhileDropping = true;
  }
  EXPECT_EQ(s.FsSkipCount, 0);
  if (slot < 0) slot = s.SpectrumWriteIndex;
  // Then the next spectrum is published, however long the thread takes to come to it.
  for (int i = 0; (i < 128 * 3 || s.SpectrumWriteIndex == slot) && std::chrono::steady_clock::now() < until + 30s; ++i)
    bench.Pass();
  stop = true;
  waiter.join();
  EXPECT_FALSE(publishedWhileDropping) << "nothing is published while spectra are dropped";
  EXPECT_NE(s.SpectrumWriteIndex, slot);
  EXPECT_GE(wakes, 1);

  // The published spectrum is the comb's: its Airy teeth fill the grid.
  const uint8_t* last = s.SpectrumBuffer + static_cast<size_t>(s.SpectrumWriteIndex == 0 ? 15 : s.SpectrumWriteIndex - 1) * 65640;
  struct_dma_peaks_status h;
  std::memcpy(&h, last + 12, sizeof h);
  EXPECT_EQ(h.Status3 & 0x07, 1);
  EXPECT_TRUE(bench.StopThread());  // the thread ends on the cancel request, within the stop's bounded wait
}
