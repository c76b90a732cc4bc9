// The peak pipeline, seen as a client sees it: hand-built sweeps go in, processed records
// come out of the ring.
#include <array>
#include <atomic>
#include <chrono>
#include <cmath>
#include <condition_variable>
#include <thread>

#include "ProcessingFixture.h"
#include "sim/SimCardProvider.h"

using namespace proc_test;

namespace {

// A value in the record is the wavelength in femtometres, truncated: allow one unit for the
// rounding of the wavelength itself.
void ExpectFm(int32_t value, double nm) { EXPECT_NEAR(value, std::trunc(Fm(nm)), 1.0) << "expected " << nm << " nm"; }

// Sensors evenly spread inside the default window (teeth 18-80 lie within 1520-1570 nm).
void FillChannel(struct_dma_peaks_data& r, int ch, int count) {
  for (int i = 0; i < count; ++i) AddSensor(r, ch, 13500 + 120 * static_cast<uint32_t>(i));
}

}  // namespace

TEST(PeakPipeline, FailedSweepsArePublishedWithTheirStatus) {
  auto s = MakeServer();
  s->SetNumAverages(0, 0, 5);
  auto good = MakeSweep();
  AddSensor(good, 0, ToothCount(30));
  Feed(*s, good);
  ASSERT_EQ(s->WvlAvg.GetNumAvg(0, 0), 1);
  const double toothBefore = s->FfpiPeakThz[30];

  struct Case {
    const char* Name;
    void (*Break)(struct_dma_peaks_data&);
    uint8_t Status;
    const char* Console;
  };
  const Case cases[] = {
      {"no grating", [](struct_dma_peaks_data& r) { r.status.NumPeaks[0] = 0; }, 2, "Error: 0 grating peaks\r"},
      {"two gratings",
       [](struct_dma_peaks_data& r) {
         r.status.NumPeaks[0] = 2;
         r.FbgPeaks[1] = r.FbgPeaks[0] + 3000;
       },
       3, "Error: 2 grating peaks\r"},
      {"ten teeth", [](struct_dma_peaks_data& r) { r.status.NumPeaks[1] = 10; }, 4, "Error: only 10 FFPI peaks found\r"},
      {"grating left", [](struct_dma_peaks_data& r) { r.FbgPeaks[0] = ToothCount(5) - 1; }, 5,
       "Error: FBG too far to the left\r"},
      {"grating right", [](struct_dma_peaks_data& r) { r.FbgPeaks[0] = ToothCount(kTeeth - 5) + 1; }, 6,
       "Error: FBG too far to the right\r"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.Name);
    auto r = MakeSweep();
    r.status.Status3 |= 2;  // amplitudes of DUT channel 0 asked for
    AddSensor(r, 0, ToothCount(30));
    AddSensor(r, 1, ToothCount(40));
    c.Break(r);
    const uint16_t write = s->ProcessedWriteIndex;
    EXPECT_EQ(Console([&] { Feed(*s, r); }), c.Console);
    EXPECT_EQ(s->ProcessedWriteIndex, write + 1);
    const Published p = LastRecord(*s);
    EXPECT_EQ(p.Status(), c.Status);
    EXPECT_EQ(p.StatusLow24(), r.status.FbgPosition & 0x00FFFFFF);
    for (int ch = 0; ch < 4; ++ch) EXPECT_EQ(p.Kept(ch), 0);
    EXPECT_EQ(p.Sensors(), 0u);
    EXPECT_EQ(p.Amplitudes(), 0u);
    EXPECT_EQ(p.Header().SweepCounter, r.status.SweepCounter);
    EXPECT_FALSE(s->bScaleValid);
    EXPECT_EQ(s->FfpiPeakThz[30], toothBefore);   // the previous scale stays in force
    EXPECT_EQ(s->WvlAvg.GetNumAvg(0, 0), 1);      // averages untouched
  }

  // A failed sweep still reports the comb's amplitudes when the comb is the amplitude channel.
  auto r = MakeSweep();
  r.status.NumPeaks[0] = 0;
  r.status.Status3 |= 1;
  Console([&] { Feed(*s, r); });
  EXPECT_EQ(LastRecord(*s).Amplitudes(), static_cast<uint32_t>(kTeeth));

  // The grating exactly on the sixth tooth from either end is still usable (placed by
  // position alone: its temperature would put it elsewhere).
  s->bMonitoredFbg = false;
  for (int j : {5, kTeeth - 5}) {
    auto edge = MakeSweep();
    edge.FbgPeaks[0] = ToothCount(j);
    EXPECT_EQ(Console([&] { Feed(*s, edge); }), "");
    EXPECT_EQ(LastRecord(*s).Status(), kPeaksOk);
    EXPECT_TRUE(s->bScaleValid);
  }
}

TEST(PeakPipeline, OnlyPublishedSweepsMoveTheRing) {
  auto s = MakeServer();
  auto r = MakeSweep();
  AddSensor(r, 0, ToothCount(30));
  const uint16_t write = s->ProcessedWriteIndex;

  r.status.Status3 = 0;  // the card does not let this sweep out
  Feed(*s, r);
  EXPECT_EQ(s->ProcessedWriteIndex, write);
  EXPECT_EQ(s->WvlAvg.GetNumAvg(0, 0), 0);

  r.status.Status3 = kPublish;
  r.status.flags1_lo = 0x10;  // triggered acquisition, outside a trigger window
  Feed(*s, r);
  EXPECT_EQ(s->ProcessedWriteIndex, write);

  r.status.Status3 = kPublish | 0x80;  // inside the window
  Feed(*s, r);
  EXPECT_EQ(s->ProcessedWriteIndex, write + 1);
  EXPECT_EQ(s->WvlAvg.GetNumAvg(0, 0), 1);

  // A distance measurement reads the processed values from the slot the pipeline would fill
  // next: the ring stays still.
  s->bDistMeasActive = true;
  Feed(*s, r);
  EXPECT_EQ(s->ProcessedWriteIndex, write + 1);
  const Published p{Slot(*s, write + 1)};
  EXPECT_EQ(p.Status(), kPeaksOk);
  EXPECT_EQ(p.Kept(0), 1);
  ExpectFm(p.Value(0u), Nm(ToothThz(30)));
}

TEST(PeakPipeline, SensorsBecomeCorrectedWavelengths) {
  auto s = MakeServer();
  auto r = MakeSweep();
  AddSensor(r, 0, ToothCount(20));
  AddSensor(r, 0, CountBetween(30, 0.25));
  AddSensor(r, 1, ToothCount(40));
  AddSensor(r, 3, CountBetween(70, 0.5));
  s->ProcessedData[kRecInUseOffset] = 1;  // a client was sending this slot last time round
  Feed(*s, r);

  Published p = LastRecord(*s);
  EXPECT_EQ(p.Status(), kPeaksOk);
  EXPECT_EQ(p.StatusLow24(), r.status.FbgPosition & 0x00FFFFFF);
  EXPECT_EQ(p.Granularity(), 1000000u);
  EXPECT_EQ(p.Header().SweepCounter, 123456u);  // the card's header
  EXPECT_EQ(p.Header().Vth, kGratingVth);
  const int kept[4] = {2, 1, 0, 1};
  for (int ch = 0; ch < 4; ++ch) EXPECT_EQ(p.Kept(ch), kept[ch]) << ch;
  EXPECT_EQ(p.Sensors(), 4u);
  EXPECT_EQ(p.Amplitudes(), 0u);
  EXPECT_EQ(p.Bytes[kRecInUseOffset], 0);
  ExpectFm(p.Value(0, 0), Nm(ToothThz(20)));
  ExpectFm(p.Value(0, 1), NmBetween(30, 0.25));
  ExpectFm(p.Value(1, 0), Nm(ToothThz(40)));
  ExpectFm(p.Value(3, 0), NmBetween(70, 0.5));

  // The detector's gain shifts its peaks: each channel loses the offset of its gain code.
  r.status.Gain[1] = 1234;
  s->GainWvlOffset[1][1234] = 5000;
  s->GainWvlOffset[3][0] = static_cast<uint32_t>(-3000);
  Feed(*s, r);
  p = LastRecord(*s);
  ExpectFm(p.Value(0, 0), Nm(ToothThz(20)));
  ExpectFm(p.Value(1, 0) + 5000, Nm(ToothThz(40)));
  ExpectFm(p.Value(3, 0) - 3000, NmBetween(70, 0.5));
  s->bEnableWvlOffsets = false;
  Feed(*s, r);
  ExpectFm(LastRecord(*s).Value(1, 0), Nm(ToothThz(40)));

  // References make each sensor read its change from the reference.
  s->SensorReferences[0][1] = static_cast<int32_t>(std::trunc(Fm(NmBetween(30, 0.25))));
  s->SensorReferences[3][0] = 1500000000;
  s->SensorReferences[7][0] = 1560000000;  // layer 1 of channel 3
  s->bUseReferences = true;
  Feed(*s, r);
  p = LastRecord(*s);
  ExpectFm(p.Value(0, 0), Nm(ToothThz(20)));
  EXPECT_NEAR(p.Value(0, 1), 0, 1);
  ExpectFm(p.Value(3, 0) + 1500000000, NmBetween(70, 0.5));
  r.status.flags1_lo = 1;  // the same sweep on multiplexer layer 1
  Feed(*s, r);
  ExpectFm(LastRecord(*s).Value(3, 0) + 1560000000, NmBetween(70, 0.5));

  // A coarser granularity: picometres.
  s->bUseReferences = false;
  s->Granularity = 1000;
  r.status.flags1_lo = 0;
  Feed(*s, r);
  p = LastRecord(*s);
  EXPECT_EQ(p.Granularity(), 1000u);
  EXPECT_NEAR(p.Value(1, 0), std::trunc(Nm(ToothThz(40)) * 1000), 1);
}

TEST(PeakPipeline, WindowKeepsItsEdgesAndDropsTheRest) {
  auto s = MakeServer();
  auto r = MakeSweep();
  const uint32_t low = CountBetween(19, 0.5), mid = ToothCount(40), high = CountBetween(79, 0.5);
  AddSensor(r, 0, low);
  AddSensor(r, 0, mid);
  AddSensor(r, 0, high);
  Feed(*s, r);
  const double lowNm = s->Counts2Wvl(low), highNm = s->Counts2Wvl(high);

  s->LowerWvlLimit = lowNm;
  s->UpperWvlLimit = highNm;
  Feed(*s, r);
  EXPECT_EQ(LastRecord(*s).Kept(0), 3);

  // One step past either edge drops the peak; the others close up their numbers, so the
  // middle sensor becomes sensor 0 and its reference is sensor 0's.
  s->LowerWvlLimit = std::nextafter(lowNm, 2000.0);
  s->UpperWvlLimit = std::nextafter(highNm, 0.0);
  s->SensorReferences[0][0] = 1000;
  s->SensorReferences[0][1] = 2000;
  s->bUseReferences = true;
  Feed(*s, r);
  Published p = LastRecord(*s);
  EXPECT_EQ(p.Kept(0), 1);
  ExpectFm(p.Value(0, 0) + 1000, Nm(ToothThz(40)));

  // With binning in force, sensors keep their numbers wherever they move.
  s->bEnableSensorBins = true;
  s->LowerWvlLimit = 1540.0;
  s->UpperWvlLimit = 1541.0;
  Feed(*s, r);
  p = LastRecord(*s);
  EXPECT_EQ(p.Kept(0), 3);
  ExpectFm(p.Value(0, 0) + 1000, lowNm);
  ExpectFm(p.Value(0, 1) + 2000, Nm(ToothThz(40)));
  ExpectFm(p.Value(0, 2), highNm);
}

TEST(PeakPipeline, DistanceCompensationTakesTheRoundTripOff) {
  auto s = MakeServer();
  auto r = MakeSweep();
  AddSensor(r, 0, ToothCount(30));
  AddSensor(r, 0, ToothCount(41));
  AddSensor(r, 2, ToothCount(50) + 300);
  // Sensor 1 of channel 0 lies far enough down the fibre that its light comes back one tooth
  // late; sensor 0 of channel 2 on layer 2 part of a tooth late.
  s->TimeOfFlightInCounts[0][1] = kToothSpacing;
  s->TimeOfFlightInCounts[10][0] = 300;
  Feed(*s, r);
  Published p = LastRecord(*s);
  ExpectFm(p.Value(0, 0), Nm(ToothThz(30)));
  ExpectFm(p.Value(0, 1), Nm(ToothThz(40)));
  ExpectFm(p.Value(2, 0), NmBetween(50, 300.0 / kToothSpacing));  // layer 0: not compensated

  r.status.flags1_lo = 2;  // layer 2
  Feed(*s, r);
  ExpectFm(LastRecord(*s).Value(2, 0), Nm(ToothThz(50)));
}

TEST(PeakPipeline, AveragesFollowEachSensorsDepth) {
  auto s = MakeServer();
  const uint32_t positions[] = {ToothCount(30), ToothCount(30) + 37, ToothCount(30) + 90, ToothCount(30) + 11};
  auto r = MakeSweep();
  AddSensor(r, 0, 0);
  int32_t single[4];
  for (int i = 0; i < 4; ++i) {
    r.DutPeaks[0][0] = positions[i];
    Feed(*s, r);
    single[i] = LastRecord(*s).Value(0, 0);
  }
  ASSERT_NE(single[0], single[1]);

  ASSERT_EQ(s->SetNumAverages(0, 0, 3), 0);
  const int64_t expected[] = {single[0], (int64_t{single[0]} + single[1]) / 2,
                              (int64_t{single[0]} + single[1] + single[2]) / 3,
                              (int64_t{single[1]} + single[2] + single[3]) / 3};
  for (int i = 0; i < 4; ++i) {
    r.DutPeaks[0][0] = positions[i];
    Feed(*s, r);
    EXPECT_EQ(LastRecord(*s).Value(0, 0), expected[i]) << i;
  }

  // A missing binned sensor reads 0 and leaves its average alone.
  r.DutPeaks[0][0] = 0;
  Feed(*s, r);
  EXPECT_EQ(LastRecord(*s).Kept(0), 1);
  EXPECT_EQ(LastRecord(*s).Value(0, 0), 0);
  EXPECT_EQ(s->WvlAvg.GetNumAvg(0, 0), 3);
  r.DutPeaks[0][0] = positions[0];
  Feed(*s, r);
  EXPECT_EQ(LastRecord(*s).Value(0, 0), (int64_t{single[2]} + single[3] + single[0]) / 3);

  // A new depth starts over.
  ASSERT_EQ(s->SetNumAverages(0, 0, 2), 0);
  Feed(*s, r);
  EXPECT_EQ(LastRecord(*s).Value(0, 0), single[0]);
}

TEST(PeakPipeline, SensorLimitSwitchesTheRateDown) {
  auto s = MakeServer();
  auto full = MakeSweep();
  for (int ch = 0; ch < 4; ++ch) FillChannel(full, ch, 250);

  // 2 kHz, divider 1: one sweep period holds 500 sensors.
  EXPECT_EQ(Console([&] { Feed(*s, full); }), "");
  Published p = LastRecord(*s);
  EXPECT_EQ(p.Status(), kPeaksSensorLimit);
  EXPECT_EQ(p.Sensors(), 500u);
  for (int ch = 0; ch < 4; ++ch) EXPECT_EQ(p.Kept(ch), ch < 2 ? 250 : 0) << ch;
  EXPECT_EQ(s->DataRateDivider, 1);

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

  // At divider 2 all 1000 fit, which is again that divider's limit.
  EXPECT_EQ(Console([&] { Feed(*s, full); }), "Switching down to 666Hz operation.\n");
  p = LastRecord(*s);
  EXPECT_EQ(p.Status(), kPeaksSensorLimit);
  EXPECT_EQ(p.Sensors(), 1000u);
  for (int ch = 0; ch < 4; ++ch) EXPECT_EQ(p.Kept(ch), 250);
  EXPECT_EQ(s->DataRateDivider, 3);
  EXPECT_EQ(GetRecU32(p.Bytes, kRecSensorBytesOffset), 88u + 4000u);
}

TEST(PeakPipeline, RingWrapsAfterItsLastSlotAndAnnouncesEachRecord) {
  auto s = MakeServer();
  auto r = MakeSweep();
  AddSensor(r, 0, ToothCount(30));
  s->ProcessedWriteIndex = kProcessedRingSlots - 1;

  std::atomic<bool> woke{false};
  std::atomic<bool> waiting{false};
  std::thread client([&] {
    std::unique_lock<std::mutex> lock(s->DataMutex);
    waiting = true;
    woke = s->DataCond.wait_for(lock, std::chrono::seconds(5), [&] { return s->ProcessedWriteIndex != kProcessedRingSlots - 1; });
  });
  while (!waiting) std::this_thread::yield();
  { std::lock_guard<std::mutex> g(s->DataMutex); }  // the client is inside its wait now
  r.status.SweepCounter = 29999;
  Feed(*s, r);
  client.join();
  EXPECT_TRUE(woke);
  EXPECT_EQ(s->ProcessedWriteIndex, 0);
  EXPECT_EQ(Published{Slot(*s, kProcessedRingSlots - 1)}.Header().SweepCounter, 29999u);

  r.status.SweepCounter = 30000;
  Feed(*s, r);
  EXPECT_EQ(s->ProcessedWriteIndex, 1);
  EXPECT_EQ(Published{Slot(*s, 0)}.Header().SweepCounter, 30000u);
  EXPECT_EQ(Published{Slot(*s, 0)}.Kept(0), 1);
}

TEST(PeakPipeline, AmplitudesFollowTheKeptPeaks) {
  auto s = MakeServer();
  // A steady spectrum: sample k of every sweep (and of the recent sweeps of layer 0) reads 1000 + k.
  auto r = MakeSweep();
  for (int k = 0; k < kFsSamplesPerRecord; ++k) r.FsSamples[k] = 0x00AB0000u | (1000u + k);
  for (int d = 0; d < kFsHistoryDepth; ++d)
    for (int k = 0; k < kFsSamples; ++k) s->FS_RawHistoryBuffer[0][d][k] = static_cast<uint16_t>(1000 + k);
  for (auto& layer : s->PeakAmpDirty)
    for (bool& dirty : layer) dirty = true;
  const uint32_t below = ToothCount(10), a = ToothCount(30) + 10, b = ToothCount(45) + 200;
  AddSensor(r, 0, below);  // shorter than the window: dropped
  AddSensor(r, 0, a);
  AddSensor(r, 0, b);
  AddSensor(r, 1, ToothCount(40));
  r.status.Status3 = kPublish | 2;  // amplitudes of DUT channel 0
  Feed(*s, r);

  Published p = LastRecord(*s);
  EXPECT_EQ(p.Kept(0), 2);
  ASSERT_EQ(p.Amplitudes(), 2u);
  EXPECT_EQ(p.Amplitude(0), 1000 + (a - 75) / 256);  // the level at each kept sensor, not at the dropped one
  EXPECT_EQ(p.Amplitude(1), 1000 + (b - 75) / 256);
  EXPECT_EQ(GetRecU32(p.Bytes, kRecTotalBytesOffset), 88u + 4 * 3 + 2 * 2);

  r.status.Status3 = kPublish | 1;  // the comb's teeth
  Feed(*s, r);
  p = LastRecord(*s);
  ASSERT_EQ(p.Amplitudes(), static_cast<uint32_t>(kTeeth));
  EXPECT_EQ(p.Amplitude(0), 1000 + (ToothCount(0) - 75) / 256);
  EXPECT_EQ(p.Amplitude(100), 1000 + (ToothCount(100) - 75) / 256);

  r.status.Status3 = kPublish;  // the grating's own list is not reported
  Feed(*s, r);
  EXPECT_EQ(LastRecord(*s).Amplitudes(), 0u);
}

TEST(PeakPipeline, AnalogOutputsFollowAveragedSensors) {
  sim::CSimOptions options;
  options.Mode = sim::EProducerMode::Step;
  sim::CSimCardProvider card(options);
  auto s = MakeServer();
  s->Driver.SetCardProvider(&card);
  s->Driver.SetSleepHook([](unsigned long) {});
  ASSERT_EQ(s->Driver.init_vr480(), 0);

  auto r = MakeSweep();
  AddSensor(r, 0, ToothCount(30));
  AddSensor(r, 0, ToothCount(40));
  AddSensor(r, 0, ToothCount(50));
  Feed(*s, r);
  const Published p = LastRecord(*s);
  const int32_t v0 = p.Value(0), v1 = p.Value(1), v2 = p.Value(2);

  const uint16_t sensor[6] = {0, 1, 2, 0, 200, 1};
  const double reference[6] = {double(v0), v1 - 1000.0, v2 + 40000.0, v0 - 40000.0, 0.0, double(v1)};
  for (int k = 0; k < 6; ++k) {
    s->AvoChannel[k] = 0;
    s->AvoSensor[k] = sensor[k];
    s->AvoReference[k] = reference[k];
    s->AvoScalingFactor[k] = 1e6;  // one output step per femtometre
    s->AvoReferenceVout[k] = 0.5;
  }
  s->AvoReferenceVout[5] = 0.25;
  Feed(*s, r);

  // At the reference: mid scale. 1000 fm above it: 1000 steps up. Far below or above: the
  // ends. A sensor with no value yet: 0.
  EXPECT_EQ(card.Card().AnalogOutputs(),
            (std::array<uint32_t, 3>{32767u | 33767u << 16, 0u | 65535u << 16, 0u | 16383u << 16}));
  s->Driver.close_vr480();
}
