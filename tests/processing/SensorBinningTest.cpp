// Sensor binning: learning where the sensors are, then keeping their numbers while one fades
// out, an extra peak appears, or the sensors drift.
#include <array>
#include <atomic>
#include <chrono>
#include <thread>
#include <vector>

#include "ProcessingFixture.h"
#include "server/Globals.h"

using namespace proc_test;

namespace {

const uint32_t kA = ToothCount(30), kB = ToothCount(35), kC = ToothCount(40), kD = ToothCount(45);
constexpr uint16_t kFault0 = 0x0100;  // bin fault on DUT channel 0

struct LearnedServer {
  std::unique_ptr<CVr480Server> S = MakeServer();
  int32_t ValA = 0, ValB = 0, ValC = 0;

  // Learns three sensors on channel 0 and one on channel 1; a peak outside the window gets no bin.
  LearnedServer() {
    EXPECT_EQ(S->StartSensorTracking(true), 0);
    EXPECT_TRUE(S->bSensorBinLearning);
    EXPECT_FALSE(S->bEnableSensorBins);
    auto r = MakeSweep();
    for (uint32_t c : {ToothCount(5), kA, kB, kC}) AddSensor(r, 0, c);  // the first: about 1510 nm
    AddSensor(r, 1, kD);
    const Published p = Feed(*S, r);
    ValA = p.Value(0, 0);
    ValB = p.Value(0, 1);
    ValC = p.Value(0, 2);
  }

  // Bins a sweep that shows `peaks` on channel 0 (and sensor D on channel 1) and publishes it.
  struct_dma_peaks_data BinAndFeed(std::initializer_list<uint32_t> peaks) {
    auto raw = MakeSweep();
    for (uint32_t p : peaks) AddSensor(raw, 0, p);
    AddSensor(raw, 1, kD);
    struct_dma_peaks_data out;
    EXPECT_EQ(S->BinAcquiredData(raw, out), 0);
    Feed(*S, out);
    return out;
  }
};

}  // namespace

// Guards learning from one published sweep per layer, a restart during learning, none after it.
TEST(SensorBinning, LearningTakesOnePublishedSweepPerLayer) {
  LearnedServer l;
  CVr480Server& s = *l.S;
  EXPECT_TRUE(!s.bSensorBinLearning && s.bEnableSensorBins);
  EXPECT_EQ((std::array<int, 3>{s.SensorBinCount[0], s.SensorBinCount[1], s.SensorBinCount[2]}), (std::array<int, 3>{3, 1, 0}));
  EXPECT_EQ((std::array<uint32_t, 3>{s.SensorBinPositions[0][0], s.SensorBinPositions[0][2], s.SensorBinPositions[1][0]}),
            (std::array<uint32_t, 3>{kA, kC, kD}));
  EXPECT_EQ(s.StartSensorTracking(true), 0);  // while binning is in force: nothing changes
  EXPECT_TRUE(s.bEnableSensorBins && s.SensorBinCount[0] == 3);

  // Two multiplexer layers: each layer's sweep teaches its own bins.
  auto s2 = MakeServer();
  s2->MuxLevel = 2;
  auto layer0 = MakeSweep(), layer1 = MakeSweep();
  AddSensor(layer0, 0, kA);
  layer1.status.flags1_lo = 1;
  for (uint32_t c : {kB, kC}) AddSensor(layer1, 0, c);
  s2->StartSensorTracking(true);
  Feed(*s2, layer0);
  EXPECT_TRUE(s2->bSensorBinLearning);
  s2->StartSensorTracking(true);
  EXPECT_EQ(s2->SensorBinCount[0], 0);
  Feed(*s2, layer1);
  EXPECT_TRUE(s2->bSensorBinLearning);
  Feed(*s2, layer0);
  EXPECT_FALSE(s2->bSensorBinLearning);
  EXPECT_TRUE(s2->bEnableSensorBins);
  EXPECT_EQ((std::array<int, 2>{s2->SensorBinCount[0], s2->SensorBinCount[4]}), (std::array<int, 2>{1, 2}));
  EXPECT_EQ(s2->SensorBinPositions[4][1], kC);
}

// Guards numbering across a missing and an extra peak, the fault marks, and the acquisition's path.
TEST(SensorBinning, MissingAndExtraPeaksKeepTheNumbering) {
  LearnedServer l;
  CVr480Server& s = *l.S;

  // B fades out (on the acquisition loop's path): C keeps number 2, B reads 0, a fault is marked.
  auto raw = MakeSweep();
  for (uint32_t c : {kA, kC}) AddSensor(raw, 0, c);
  AddSensor(raw, 1, kD);
  s.pRawPeaks = &raw;
  ProcessingAccess::BinCurrentRecord(s);
  EXPECT_EQ((std::vector<int>{s.BinnedPeaks.status.NumPeaks[2], s.BinnedPeaks.status.BinningMarks, s.LastBinFaultCnt[0]}),
            (std::vector<int>{3, kFault0, 2}));
  Published p = Feed(s, s.BinnedPeaks);
  EXPECT_EQ((std::array<int32_t, 3>{p.Value(0, 0), p.Value(0, 1), p.Value(0, 2)}), (std::array<int32_t, 3>{l.ValA, 0, l.ValC}));
  EXPECT_EQ(p.Kept(1), 1);
  EXPECT_EQ(p.Header().BinningMarks, kFault0);  // clients see the fault in the header

  // A spurious peak beside A: it finds no free bin and is dropped, but counts as a fault.
  auto out = l.BinAndFeed({kA, kA + 50, kB, kC});
  EXPECT_EQ(out.status.BinningMarks, kFault0);
  EXPECT_EQ(s.LastBinFaultCnt[0], 4);
  p = LastRecord(s);
  EXPECT_EQ(p.Kept(0), 3);
  EXPECT_EQ(p.Value(0, 1), l.ValB);

  // A peak on a channel that learned nothing: that channel reports no sensors, and a fault.
  raw = MakeSweep();
  for (uint32_t c : {kA, kB, kC}) AddSensor(raw, 0, c);
  AddSensor(raw, 1, kD);
  AddSensor(raw, 3, ToothCount(60));
  s.BinAcquiredData(raw, out);
  EXPECT_EQ((std::vector<int>{out.status.NumPeaks[5], out.status.BinningMarks, s.LastBinFaultCnt[3]}), (std::vector<int>{0, 0x0800, 1}));
  p = Feed(s, out);
  EXPECT_EQ(p.Kept(3), 0);
  EXPECT_EQ(p.Sensors(), 4u);
}

// Guards bins following drift, the strict width, and the first-come order of close peaks.
TEST(SensorBinning, BinsFollowSensorsThatMoveLessThanTheWidth) {
  LearnedServer l;
  CVr480Server& s = *l.S;
  l.BinAndFeed({kA + 150, kB + 150, kC + 150});
  EXPECT_EQ(s.SensorBinPositions[0][0], kA + 150);
  auto out = l.BinAndFeed({kA + 300, kB + 300, kC + 300});  // 300 from where it was learned
  EXPECT_EQ(out.status.BinningMarks, 0);
  EXPECT_EQ(out.DutPeaks[0][1], kB + 300);

  // A jump of exactly the width is too far.
  out = l.BinAndFeed({kA + 300, kB + 500, kC + 300});
  EXPECT_EQ(out.DutPeaks[0][1], 0u);
  EXPECT_EQ(out.status.BinningMarks, kFault0);
  EXPECT_EQ(s.SensorBinPositions[0][1], kB + 300);  // the empty bin stays where it was

  // Two peaks close to one bin: the first takes it, the second can only go to a later bin.
  s.SensorBinWidth = 3000;
  out = l.BinAndFeed({kA + 100, kA + 200, kC});
  EXPECT_EQ((std::array<uint32_t, 3>{out.DutPeaks[0][0], out.DutPeaks[0][1], out.DutPeaks[0][2]}),
            (std::array<uint32_t, 3>{kA + 100, kA + 200, kC}));  // the second within 3000 of B's bin
}

// Guards the hand-over of switching off to the acquisition thread (no torn binning).
TEST(SensorBinning, SwitchingOffWaitsForTheAcquisitionThread) {
  LearnedServer l;
  CVr480Server& s = *l.S;
  std::atomic<bool> done{false};
  std::thread command([&] {
    s.StartSensorTracking(false);
    done = true;
  });
  // The acquisition loop keeps publishing while the command waits.
  auto r = MakeSweep();
  AddSensor(r, 0, kA);
  int records = 0;
  while (!done) {
    Feed(s, r);
    ++records;
    std::this_thread::sleep_for(std::chrono::microseconds(200));
  }
  command.join();
  EXPECT_FALSE(s.bEnableSensorBins);
  EXPECT_GE(records, 2);
  // Switching off while off is a no-op that returns at once.
  EXPECT_EQ(s.StartSensorTracking(false), 0);
}

// Guards the sensor commands' range checks (averages, gain offsets, dB table) and clearing references.
TEST(SensorCommands, RangesOfAveragesGainOffsetsDbTableAndReferences) {
  auto s = MakeServer();
  auto cmd = [&](const std::string& line) {
    char* reply = nullptr;
    unsigned length = 0;
    s->ProcessCmd(kInternalClient, line.c_str(), &reply, &length);
    return std::string(reply, length);
  };
  auto r = MakeSweep();
  for (int j : {30, 40}) AddSensor(r, 0, ToothCount(j));
  Feed(*s, r);
  const std::string averages = "!Illegal parameters.  Acceptable ranges are: Ch# 1 to ";
  const std::pair<const char*, std::string> rows[] = {  // a refusal's reply by its fixed start
      {"#SET_NUM_AVERAGES 0", averages},
      {"#SET_NUM_AVERAGES 1 1 0", averages},
      {"#SET_NUM_AVERAGES 2", "Setting averaging for all sensors on all channels to 2.\n"},
      {"#SET_GAIN_WVL_OFFSET 4 7 0.5", "Setting Ch 4, Gain 7 wvl offset to 0.500000.\n"},
      {"#SET_GAIN_WVL_OFFSET 5 7 0.5", averages + "4 and Gain  0 to "},
      {"#SET_DB2COUNTS 1 400 77", "Setting Db2Counts[1][400] to 77"},
      {"#GET_DB2COUNTS 1 400", "77"},
      {"#SET_DB2COUNTS 1 401 77", "!Invalid command or argument: #SET_DB2COUNTS 1 401 77."},
  };
  for (const auto& [line, reply] : rows) {
    const std::string got = cmd(line);
    EXPECT_EQ(reply[0] == '!' ? got.substr(0, reply.size()) : got, reply) << line;
  }

  // Clearing a channel's references clears every sensor's, the first included.
  cmd("#SET_REFERENCE 1 1 1550");
  cmd("#SET_REFERENCE 1 2 1551");
  ASSERT_TRUE(s->SensorReferences[0][0] != 0 && s->SensorReferences[0][1] != 0);
  EXPECT_EQ(cmd("#CLEAR_REFERENCE 1"), "Zeroing channel 1 references.\n");
  EXPECT_EQ((std::vector<int32_t>{s->SensorReferences[0][0], s->SensorReferences[0][1]}), (std::vector<int32_t>{0, 0}));
}
