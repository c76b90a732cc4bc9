// Multiplexer levels and layers, triggered acquisition, faults on the record's lists.
#include <gtest/gtest.h>

#include "SimTestDriver.h"

using namespace simtest;

namespace {

struct CReadyCard : CTestDriver {
  CReadyCard() {
    Start();
    LaserOn();
    Advance(8);
  }
};

// Waits (in records) until the card reports multiplexer level `level`; returns the records taken.
int AwaitLevel(CTestDriver& d, int level) {
  for (int i = 1; i <= 16; ++i) {
    if (d.StepNext().AppliedLevelBits() == level - 1) return i;
  }
  return -1;
}

}  // namespace

TEST(SimModes, MultiplexerLevelsAndLayers) {
  CReadyCard d;
  // A distinct sensor on DUT channel 0 of every layer tells which layer a sweep shows.
  for (int layer = 0; layer < 4; ++layer) d.Card().SetSensors(layer * 4, {CSimSensor{1530.0 + 5 * layer, 0.0}});

  d.Command(cmd::kOptoA, 0);
  d.Command(cmd::kOptoB, 1);
  const int taken = AwaitLevel(d, 2);
  EXPECT_GE(taken, 1);
  EXPECT_LE(taken, 4) << "applied at the next cycle boundary";
  for (int i = 0; i < 40; ++i) {
    auto& r = d.StepNext();
    const int layer = ConvertLayerBits(r.status.flags1_lo) & 3;  // the server's numbering
    EXPECT_EQ(r.AppliedLevelBits(), 1);
    EXPECT_EQ(layer, static_cast<int>(r.status.SweepCounter % 2));
    EXPECT_EQ(r.status.CurrentLayer % 2, layer) << "phase aligned with the layer";
    ASSERT_EQ(r.status.NumPeaks[2], 1);
  }

  d.Command(cmd::kOptoA, 1);
  ASSERT_GT(AwaitLevel(d, 4), 0);
  std::array<uint32_t, 4> positions{};
  for (int i = 0; i < 8; ++i) {
    auto& r = d.StepNext();
    const uint8_t raw = r.status.flags1_lo & 3;
    const int layer = ConvertLayerBits(r.status.flags1_lo) & 3;
    EXPECT_EQ(layer, static_cast<int>(r.status.SweepCounter % 4));
    EXPECT_EQ(raw, layer == 1 ? 2 : layer == 2 ? 1 : layer) << "card numbers layers 1 and 2 swapped";
    EXPECT_EQ(r.status.CurrentLayer % 4, layer);
    positions[layer] = r.DutPeaks[0][0];
  }
  // Each layer shows its own sensor: longer wavelength, higher count.
  EXPECT_LT(positions[0], positions[1]);
  EXPECT_LT(positions[1], positions[2]);
  EXPECT_LT(positions[2], positions[3]);

  d.Command(cmd::kOptoA, 0);
  d.Command(cmd::kOptoB, 0);
  ASSERT_GT(AwaitLevel(d, 1), 0);
  EXPECT_EQ(d.StepNext().Layer(), 0);
}

TEST(SimModes, SoftwareTriggerWindows) {
  CReadyCard d;
  d.Command(cmd::kTrigSource, 0);
  d.Command(cmd::kTrigStopType, 0);
  d.Command(cmd::kTrigAcq, 5);
  d.Command(cmd::kTrigEnable, 1);
  d.Advance(3);
  EXPECT_EQ(d.Card().TriggerState(), ETriggerState::Armed);
  auto& armed = d.StepNext();
  EXPECT_TRUE(armed.TriggeredAcquisition());
  EXPECT_FALSE(armed.InTriggerWindow());

  d.Command(cmd::kSwStart, 0);
  uint32_t sweep = 0;
  for (int i = 0; i < 5; ++i) {
    auto& r = d.StepNext();
    EXPECT_TRUE(r.InTriggerWindow()) << i;
    if (i > 0) {
      EXPECT_EQ(r.status.SweepCounter, sweep + 1) << "consecutive sweeps in a window";
    }
    sweep = r.status.SweepCounter;
  }
  auto& after = d.StepNext();
  EXPECT_FALSE(after.InTriggerWindow());
  EXPECT_TRUE(after.TriggeredAcquisition());
  EXPECT_EQ(d.Card().TriggerState(), ETriggerState::Done);
  d.Command(cmd::kSwStart, 0);
  EXPECT_FALSE(d.StepNext().InTriggerWindow()) << "done: a start needs a new enable";

  // Auto re-trigger, a window until stopped, and the software stop.
  d.Command(cmd::kAutoReTrig, 1);
  d.Command(cmd::kTrigAcq, 0);
  d.Command(cmd::kTrigEnable, 1);
  d.Advance(3);
  d.Command(cmd::kSwStart, 0);
  for (int i = 0; i < 20; ++i) EXPECT_TRUE(d.StepNext().InTriggerWindow());
  d.Command(cmd::kSwStop, 0);
  EXPECT_FALSE(d.StepNext().InTriggerWindow());
  EXPECT_EQ(d.Card().TriggerState(), ETriggerState::Armed);

  d.Command(cmd::kTrigEnable, 0);
  d.Advance(3);
  auto& off = d.StepNext();
  EXPECT_FALSE(off.TriggeredAcquisition());
  EXPECT_FALSE(off.InTriggerWindow());
}

TEST(SimModes, ExternalEdgeTrigger) {
  CReadyCard d;
  d.Command(cmd::kTrigSource, 1);
  d.Command(cmd::kTrigStopType, 1);
  d.Command(cmd::kTrigStartEdge, 0);  // rising starts
  d.Command(cmd::kTrigStopEdge, 1);   // falling stops
  d.Command(cmd::kTrigEnable, 1);
  d.Advance(3);
  d.Command(cmd::kSwStart, 0);
  EXPECT_FALSE(d.StepNext().InTriggerWindow()) << "source 1 ignores the software start";
  d.Card().TriggerEdge(false);
  EXPECT_FALSE(d.StepNext().InTriggerWindow()) << "a falling edge does not start";
  d.Card().TriggerEdge(true);
  for (int i = 0; i < 10; ++i) EXPECT_TRUE(d.StepNext().InTriggerWindow());
  d.Write(4, 0x10, 0x01000000);  // falling edge through incoming mailbox 1
  EXPECT_FALSE(d.StepNext().InTriggerWindow());
  EXPECT_EQ(d.Card().TriggerState(), ETriggerState::Done);
}

TEST(SimModes, FaultsOnThePeakLists) {
  CReadyCard d;
  CSimFaults f;
  f.bNoGrating = true;
  d.Card().SetFaults(f);
  EXPECT_EQ(d.StepNext().status.NumPeaks[0], 0);
  f.bNoGrating = false;
  f.ExtraGratingPeaks = 1;
  f.CombPeakLimit = 10;
  f.SpuriousDutChannel = 3;
  d.Card().SetFaults(f);
  auto& r = d.StepNext();
  EXPECT_EQ(r.status.NumPeaks[0], 2);
  EXPECT_EQ(r.status.NumPeaks[1], 10);
  EXPECT_EQ(r.status.NumPeaks[5], 4);
  d.Card().SetFaults({});

  // The grating moved onto a DUT list leaves list 0 empty.
  d.Card().SetGratingList(3);
  auto& moved = d.StepNext();
  EXPECT_EQ(moved.status.NumPeaks[0], 0);
  EXPECT_EQ(moved.status.NumPeaks[3], 4);
  EXPECT_EQ(moved.status.FbgPosition & 0xFFFFFF, 0u);
}

TEST(SimModes, TemperaturesAreScripted) {
  CReadyCard d;
  d.Card().SetGratingLag(1.0);
  d.Card().SetInternalTemperature(45.0, 10.0);  // ramps at 10 degC per second
  d.Advance(500);
  EXPECT_NEAR(d.Card().InternalTemperature(), 40.0, 0.1);
  d.Advance(7000);  // the ramp ends after 1 s; the grating settles with its 1 s lag
  EXPECT_DOUBLE_EQ(d.Card().InternalTemperature(), 45.0);
  auto& r = d.StepNext();
  EXPECT_EQ(r.status.InternalTemp, 45 * 128);
  EXPECT_NEAR(ServerThermistorDegC(r.status.Vth), 45.0, 0.05) << "the grating has followed";
}
