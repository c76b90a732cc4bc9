// The peak pipeline as a client sees it: hand-built sweeps go in, processed records come out.
#include <array>
#include <atomic>
#include <chrono>
#include <cmath>
#include <condition_variable>
#include <thread>
#include <vector>

#include "ProcessingFixture.h"
#include "sim/SimCardProvider.h"

using namespace proc_test;

namespace {

// Record values are truncated femtometres: one unit of slack for the wavelength's own rounding.
void ExpectFm(int32_t value, double nm) { EXPECT_NEAR(value, std::trunc(Fm(nm)), 1.0) << "expected " << nm << " nm"; }

std::array<int, 4> Kept(const Published& p) { return {p.Kept(0), p.Kept(1), p.Kept(2), p.Kept(3)}; }

// Sensors evenly spread inside the default window (teeth 18-80 lie within 1520-1570 nm).
void FillChannel(struct_dma_peaks_data& r, int ch, int count) {
  for (int i = 0; i < count; ++i) AddSensor(r, ch, 13500 + 120 * static_cast<uint32_t>(i));
}

}  // namespace

// Guards each failure status and console text, and that a failed sweep keeps scale and averages.
TEST(PeakPipeline, FailedSweepsArePublishedWithTheirStatus) {
  auto s = MakeServer();
  s->SetNumAverages(0, 0, 5);
  auto good = MakeSweep();
  AddSensor(good, 0, ToothCount(30));
  Feed(*s, good);
  ASSERT_EQ(s->WvlAvg.GetNumAvg(0, 0), 1);
  const double toothBefore = s->FfpiPeakThz[30];

  struct Case {
    uint16_t Gratings, Teeth;
    uint32_t GratingAt;  // 0: where MakeSweep put it
    uint8_t Status;
    const char* Console;
  };
  const Case cases[] = {
      {0, kTeeth, 0, 2, "Error: 0 grating peaks\r"},
      {2, kTeeth, 0, 3, "Error: 2 grating peaks\r"},
      {1, 10, 0, 4, "Error: only 10 FFPI peaks found\r"},
      {1, kTeeth, ToothCount(5) - 1, 5, "Error: FBG too far to the left\r"},
      {1, kTeeth, ToothCount(kTeeth - 5) + 1, 6, "Error: FBG too far to the right\r"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.Console);
    auto r = MakeSweep();
    r.status.Status3 |= 2;  // amplitudes of DUT channel 0 asked for
    AddSensor(r, 0, ToothCount(30));
    AddSensor(r, 1, ToothCount(40));
    r.status.NumPeaks[0] = c.Gratings;
    r.FbgPeaks[1] = r.FbgPeaks[0] + 3000;
    r.status.NumPeaks[1] = c.Teeth;
    if (c.GratingAt) r.FbgPeaks[0] = c.GratingAt;
    const uint16_t write = s->ProcessedWriteIndex;
    EXPECT_EQ(Console([&] { Feed(*s, r); }), c.Console);
    EXPECT_EQ(s->ProcessedWriteIndex, write + 1);
    const Published p = LastRecord(*s);
    EXPECT_EQ((std::vector<int64_t>{p.Status(), p.StatusLow24(), p.Sensors() + p.Amplitudes(), p.Header().SweepCounter}),
              (std::vector<int64_t>{c.Status, r.status.FbgPosition & 0x00FFFFFF, 0, r.status.SweepCounter}));
    EXPECT_EQ(Kept(p), (std::array<int, 4>{}));
    EXPECT_FALSE(s->bScaleValid);
    EXPECT_EQ(s->FfpiPeakThz[30], toothBefore);  // the previous scale stays in force
    EXPECT_EQ(s->WvlAvg.GetNumAvg(0, 0), 1);     // averages untouched
  }

  // A failed sweep still reports the comb's amplitudes when the comb is the amplitude channel.
  auto r = MakeSweep();
  r.status.NumPeaks[0] = 0;
  r.status.Status3 |= 1;
  Console([&] { Feed(*s, r); });
  EXPECT_EQ(LastRecord(*s).Amplitudes(), static_cast<uint32_t>(kTeeth));

  // The grating exactly on the sixth tooth from either end is still usable (placed by position).
  s->bMonitoredFbg = false;
  for (int j : {5, kTeeth - 5}) {
    auto edge = MakeSweep();
    edge.FbgPeaks[0] = ToothCount(j);
    EXPECT_EQ(Console([&] { Feed(*s, edge); }), "");
    EXPECT_EQ(LastRecord(*s).Status(), kPeaksOk);
    EXPECT_TRUE(s->bScaleValid);
  }
}

// Guards the publish bit, the trigger window and the distance measurement's still ring.
TEST(PeakPipeline, OnlyPublishedSweepsMoveTheRing) {
  auto s = MakeServer();
  auto r = MakeSweep();
  AddSensor(r, 0, ToothCount(30));
  const uint16_t write = s->ProcessedWriteIndex;
  r.status.Status3 = 0;  // the card does not let this sweep out
  Feed(*s, r);
  EXPECT_EQ((std::vector<int>{s->ProcessedWriteIndex, s->WvlAvg.GetNumAvg(0, 0)}), (std::vector<int>{write, 0}));
  r.status.Status3 = kPublish;
  r.status.flags1_lo = 0x10;  // triggered acquisition, outside a trigger window
  Feed(*s, r);
  EXPECT_EQ(s->ProcessedWriteIndex, write);
  r.status.Status3 = kPublish | 0x80;  // inside the window
  Feed(*s, r);
  EXPECT_EQ((std::vector<int>{s->ProcessedWriteIndex, s->WvlAvg.GetNumAvg(0, 0)}), (std::vector<int>{write + 1, 1}));

  // A distance measurement reads the slot the pipeline would fill next: the ring stays still.
  s->bDistMeasActive = true;
  Feed(*s, r);
  EXPECT_EQ(s->ProcessedWriteIndex, write + 1);
  const Published p{Slot(*s, write + 1)};
  EXPECT_EQ((std::vector<int>{p.Status(), p.Kept(0)}), (std::vector<int>{kPeaksOk, 1}));
  ExpectFm(p.Value(0u), Nm(ToothThz(30)));
}

// Guards the conversion of sensors to wavelengths, gain offsets, references per layer, granularity.
TEST(PeakPipeline, SensorsBecomeCorrectedWavelengths) {
  auto s = MakeServer();
  auto r = MakeSweep();
  AddSensor(r, 0, ToothCount(20));
  AddSensor(r, 0, CountBetween(30, 0.25));
  AddSensor(r, 1, ToothCount(40));
  AddSensor(r, 3, CountBetween(70, 0.5));
  s->ProcessedData[kRecInUseOffset] = 1;  // a client was sending this slot last time round
  Published p = Feed(*s, r);
  EXPECT_EQ((std::vector<int64_t>{p.Status(), p.StatusLow24(), p.Granularity(), p.Header().SweepCounter, p.Header().Vth,
                                  p.Sensors(), p.Amplitudes(), p.Bytes[kRecInUseOffset]}),
            (std::vector<int64_t>{kPeaksOk, r.status.FbgPosition & 0x00FFFFFF, 1000000, 123456, kGratingVth, 4, 0, 0}));
  EXPECT_EQ(Kept(p), (std::array<int, 4>{2, 1, 0, 1}));
  ExpectFm(p.Value(0, 0), Nm(ToothThz(20)));
  ExpectFm(p.Value(0, 1), NmBetween(30, 0.25));
  ExpectFm(p.Value(1, 0), Nm(ToothThz(40)));
  ExpectFm(p.Value(3, 0), NmBetween(70, 0.5));

  // The detector's gain shifts its peaks: each channel loses the offset of its gain code.
  r.status.Gain[1] = 1234;
  s->GainWvlOffset[1][1234] = 5000;
  s->GainWvlOffset[3][0] = static_cast<uint32_t>(-3000);
  p = Feed(*s, r);
  ExpectFm(p.Value(0, 0), Nm(ToothThz(20)));
  ExpectFm(p.Value(1, 0) + 5000, Nm(ToothThz(40)));
  ExpectFm(p.Value(3, 0) - 3000, NmBetween(70, 0.5));
  s->bEnableWvlOffsets = false;
  ExpectFm(Feed(*s, r).Value(1, 0), Nm(ToothThz(40)));

  // References make each sensor read its change from the reference, per multiplexer layer.
  s->SensorReferences[0][1] = static_cast<int32_t>(std::trunc(Fm(NmBetween(30, 0.25))));
  s->SensorReferences[3][0] = 1500000000;
  s->SensorReferences[7][0] = 1560000000;  // layer 1 of channel 3
  s->bUseReferences = true;
  p = Feed(*s, r);
  ExpectFm(p.Value(0, 0), Nm(ToothThz(20)));
  EXPECT_NEAR(p.Value(0, 1), 0, 1);
  ExpectFm(p.Value(3, 0) + 1500000000, NmBetween(70, 0.5));
  r.status.flags1_lo = 1;
  ExpectFm(Feed(*s, r).Value(3, 0) + 1560000000, NmBetween(70, 0.5));
}

// Guards the inclusive window edges, renumbering after a drop, and binned sensors keeping numbers.
TEST(PeakPipeline, WindowKeepsItsEdgesAndDropsTheRest) {
  auto s = MakeServer();
  auto r = MakeSweep();
  const uint32_t low = CountBetween(19, 0.5), high = CountBetween(79, 0.5);
  for (uint32_t c : {low, ToothCount(40), high}) AddSensor(r, 0, c);
  Feed(*s, r);
  const double lowNm = s->Counts2Wvl(low), highNm = s->Counts2Wvl(high);
  s->LowerWvlLimit = lowNm;
  s->UpperWvlLimit = highNm;
  EXPECT_EQ(Feed(*s, r).Kept(0), 3);

  // One step past either edge drops the peak; the middle sensor becomes sensor 0 (and its reference).
  s->LowerWvlLimit = std::nextafter(lowNm, 2000.0);
  s->UpperWvlLimit = std::nextafter(highNm, 0.0);
  s->SensorReferences[0][0] = 1000;
  s->SensorReferences[0][1] = 2000;
  s->bUseReferences = true;
  Published p = Feed(*s, r);
  EXPECT_EQ(p.Kept(0), 1);
  ExpectFm(p.Value(0, 0) + 1000, Nm(ToothThz(40)));

  s->bEnableSensorBins = true;
  s->LowerWvlLimit = 1540.0;
  s->UpperWvlLimit = 1541.0;
  p = Feed(*s, r);
  EXPECT_EQ(p.Kept(0), 3);
  ExpectFm(p.Value(0, 0) + 1000, lowNm);
  ExpectFm(p.Value(0, 1) + 2000, Nm(ToothThz(40)));
  ExpectFm(p.Value(0, 2), highNm);
}

// Guards the running average per sensor, a missing binned sensor, and a new depth starting over.
TEST(PeakPipeline, AveragesFollowEachSensorsDepth) {
  auto s = MakeServer();
  const uint32_t positions[] = {ToothCount(30), ToothCount(30) + 37, ToothCount(30) + 90, ToothCount(30) + 11};
  auto r = MakeSweep();
  AddSensor(r, 0, 0);
  auto feedAt = [&](uint32_t count) {
    r.DutPeaks[0][0] = count;
    return Feed(*s, r).Value(0, 0);
  };
  int64_t v[4];
  for (int i = 0; i < 4; ++i) v[i] = feedAt(positions[i]);
  ASSERT_NE(v[0], v[1]);
  ASSERT_EQ(s->SetNumAverages(0, 0, 3), 0);
  const int64_t expected[] = {v[0], (v[0] + v[1]) / 2, (v[0] + v[1] + v[2]) / 3, (v[1] + v[2] + v[3]) / 3};
  for (int i = 0; i < 4; ++i) EXPECT_EQ(feedAt(positions[i]), expected[i]) << i;

  EXPECT_EQ(feedAt(0), 0);  // a missing binned sensor reads 0 and leaves its average alone
  EXPECT_EQ(LastRecord(*s).Kept(0), 1);
  EXPECT_EQ(s->WvlAvg.GetNumAvg(0, 0), 3);
  EXPECT_EQ(feedAt(positions[0]), (v[2] + v[3] + v[0]) / 3);
  ASSERT_EQ(s->SetNumAverages(0, 0, 2), 0);
  EXPECT_EQ(feedAt(positions[0]), v[0]);
}

// Guards the sensor limit per sweep period and the switch-down of the rate with its texts.
TEST(PeakPipeline, SensorLimitSwitchesTheRateDown) {
  auto s = MakeServer();
  auto full = MakeSweep();
  for (int ch = 0; ch < 4; ++ch) FillChannel(full, ch, 250);
  EXPECT_EQ(Console([&] { Feed(*s, full); }), "");  // 2 kHz, divider 1: 500 sensors
  Published p = LastRecord(*s);
  EXPECT_EQ((std::vector<int>{p.Status(), int(p.Sensors()), s->DataRateDivider}), (std::vector<int>{kPeaksSensorLimit, 500, 1}));
  EXPECT_EQ(Kept(p), (std::array<int, 4>{250, 250, 0, 0}));

  auto under = MakeSweep();
  FillChannel(under, 0, 250);
  FillChannel(under, 1, 249);
  Feed(*s, under);
  EXPECT_EQ(LastRecord(*s).Status(), kPeaksOk);
  EXPECT_EQ(LastRecord(*s).Sensors(), 499u);

  s->bSwitchdownEnable = true;
  EXPECT_EQ(Console([&] { Feed(*s, full); }), "Switching down to 1000Hz operation.\n");
  EXPECT_EQ(LastRecord(*s).Status(), kPeaksSensorLimit);
  EXPECT_EQ(s->DataRateDivider, 2);
  EXPECT_EQ(Console([&] { Feed(*s, full); }), "Switching down to 666Hz operation.\n");  // 1000: that limit again
  p = LastRecord(*s);
  EXPECT_EQ((std::vector<int>{p.Status(), int(GetRecU32(p.Bytes, kRecSensorBytesOffset)), s->DataRateDivider}),
            (std::vector<int>{kPeaksSensorLimit, 88 + 4000, 3}));
  EXPECT_EQ(Kept(p), (std::array<int, 4>{250, 250, 250, 250}));
  // Limits out of order and a minimum above the divider in force (commands between records)
  // start the search at the minimum: the rate is never divided by zero.
  s->SwitchdownLimit[1] = 2000;
  s->SwitchdownLimit[3] = 1000;  // the record fills divider 3's limit
  s->MinDataRateDivider = 4;
  EXPECT_EQ(Console([&] { Feed(*s, full); }), "Switching down to 500Hz operation.\n");
}

// Guards the ring's wrap and the wake-up of a client waiting for the next record.
TEST(PeakPipeline, RingWrapsAfterItsLastSlotAndAnnouncesEachRecord) {
  auto s = MakeServer();
  auto r = MakeSweep();
  AddSensor(r, 0, ToothCount(30));
  s->ProcessedWriteIndex = kProcessedRingSlots - 1;
  std::atomic<bool> woke{false}, waiting{false};
  std::thread client([&] {
    std::unique_lock<std::mutex> lock(s->DataMutex);
    waiting = true;
    woke = s->DataCond.wait_for(lock, std::chrono::seconds(30), [&] { return s->ProcessedWriteIndex != kProcessedRingSlots - 1; });
  });
  while (!waiting) std::this_thread::yield();
  { std::lock_guard<std::mutex> g(s->DataMutex); }  // the client is inside its wait now
  r.status.SweepCounter = 29999;
  Feed(*s, r);
  client.join();
  EXPECT_TRUE(woke);
  const int64_t wrapped = s->ProcessedWriteIndex;
  r.status.SweepCounter = 30000;
  const Published last{Slot(*s, kProcessedRingSlots - 1)}, first = Feed(*s, r);
  EXPECT_EQ((std::vector<int64_t>{wrapped, s->ProcessedWriteIndex, last.Header().SweepCounter, first.Header().SweepCounter, first.Kept(0)}),
            (std::vector<int64_t>{0, 1, 29999, 30000, 1}));
}

// Guards the analog outputs: mid scale at the reference, one step per unit, clamped ends, no value.
TEST(PeakPipeline, AnalogOutputsFollowAveragedSensors) {
  sim::CSimOptions options;
  options.Mode = sim::EProducerMode::Step;
  sim::CSimCardProvider card(options);
  auto s = MakeServer();
  s->Driver.SetCardProvider(&card);
  s->Driver.SetSleepHook([](unsigned long) {});
  ASSERT_EQ(s->Driver.init_vr480(), 0);
  auto r = MakeSweep();
  for (int j : {30, 40, 50}) AddSensor(r, 0, ToothCount(j));
  const Published p = Feed(*s, r);
  const int32_t v0 = p.Value(0), v1 = p.Value(1), v2 = p.Value(2);
  const uint16_t sensor[6] = {0, 1, 2, 0, 200, 1};
  const double reference[6] = {double(v0), v1 - 1000.0, v2 + 40000.0, v0 - 40000.0, 0.0, double(v1)};
  for (int k = 0; k < 6; ++k) {
    s->AvoChannel[k] = 0;
    s->AvoSensor[k] = sensor[k];
    s->AvoReference[k] = reference[k];
    s->AvoScalingFactor[k] = 1e6;  // one output step per femtometre
    s->AvoReferenceVout[k] = k == 5 ? 0.25 : 0.5;
  }
  Feed(*s, r);
  EXPECT_EQ(card.Card().AnalogOutputs(),
            (std::array<uint32_t, 3>{32767u | 33767u << 16, 0u | 65535u << 16, 0u | 16383u << 16}));
  s->Driver.close_vr480();
}
