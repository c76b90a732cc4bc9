// The processed-record replies against a server object without a card: the real peak pipeline
// fills the ring from hand-built sweeps, and the tests run the data commands through the
// dispatcher as a client's service thread does, decoding the bodies with the client-side
// reader of DataWire.h. The end-to-end tests (ProtocolTest.cpp) do the same over TCP.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cmath>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "DataWire.h"
#include "processing/ProcessingFixture.h"
#include "protocol/CommandTable.h"

using namespace std::chrono_literals;
using data_wire::SRecord;
using Clock = std::chrono::steady_clock;

namespace {

constexpr int kRing = 30000;
constexpr size_t kSlotBytes = 4612;

// Sensor positions: channel ch, sensor i sits a quarter of the way past comb tooth
// kTeethOf[ch][i] (all inside 1520-1570 nm).
constexpr int kTeethOf[4][3] = {{20, 25, 30}, {35, 40, 45}, {50, 55, 65}, {70, 72, 75}};

struct SReply {
  int Code = 0;
  std::string Body;
  const char* Pointer = nullptr;
  SRecord Record() const { return SRecord{Body}; }
};

// A server as start-up leaves it, without a card, and a producer of sweeps.
class CRingHarness {
 public:
  CRingHarness() { S->SetNumAverages(0, 0, 1); }

  // Publishes one sweep through the pipeline: `perChannel` sensors on each DUT channel, the
  // amplitude channel `amplitudeChannel`, the next sweep counter.
  uint32_t Publish(int perChannel = 3, uint8_t amplitudeChannel = 0) {
    auto r = proc_test::MakeSweep();
    const uint32_t sweep = NextSweep++;
    r.status.SweepCounter = sweep;
    r.status.RecordCounter = static_cast<uint16_t>(sweep);
    r.status.Status3 = static_cast<uint8_t>(r.status.Status3 | amplitudeChannel);
    for (int ch = 0; ch < 4; ++ch)
      for (int i = 0; i < perChannel; ++i) proc_test::AddSensor(r, ch, proc_test::CountBetween(kTeethOf[ch][i], 0.25));
    Sweeps.push_back(r);
    proc_test::Feed(*S, Sweeps.back());
    return sweep;
  }
  void PublishMany(int n) { while (n-- > 0) Publish(); }

  // What the session layer does when a client connects.
  void Connect(int client) {
    S->ProcessedReadIndex[client] = static_cast<uint16_t>(Newest());
    S->bStreaming[client] = false;
    S->bBufferEnable[client] = true;
    S->DataInterleave[client] = 1;
    S->ClientRecordInUse[client] = -1;
  }

  // Runs a command for a client; a record reply's slot is released afterwards, as the session
  // layer does once it has written the reply.
  SReply Command(int client, const char* line, bool release = true) {
    char* body = nullptr;
    unsigned length = 0;
    SReply reply;
    reply.Code = S->ProcessCmd(static_cast<short>(client), line, &body, &length);
    reply.Body.assign(body, length);
    reply.Pointer = body;
    if (release && reply.Code == kReplyRecord) S->ReleaseClientRecord(static_cast<uint16_t>(client));
    return reply;
  }

  const uint8_t* Slot(int index) const { return S->ProcessedData + static_cast<size_t>(index) * kSlotBytes; }
  bool InRing(const char* p) const {
    const auto* u = reinterpret_cast<const uint8_t*>(p);
    return u >= S->ProcessedData && u < S->ProcessedData + kRing * kSlotBytes;
  }
  int Newest() const { return (S->ProcessedWriteIndex + kRing - 1) % kRing; }

  std::unique_ptr<CVr480Server> S = proc_test::MakeServer();
  std::vector<struct_dma_peaks_data> Sweeps;
  uint32_t NextSweep = 5000;
};

// floor((30000 - n) x 99.99 / 30000), worked out by hand for the cases used.
uint32_t FreePercentFor(int unread) { return static_cast<uint32_t>(std::floor((kRing - unread) * 99.99 / kRing)); }

}  // namespace

TEST(DataRecords, ReadsServeEveryRecordInOrderFromItsSlotAndReportTheBacklog) {
  CRingHarness h;
  h.PublishMany(5);
  h.Connect(0);
  EXPECT_EQ(h.Command(0, "#GET_BUFFER_COUNT").Body, "1");
  // The first read after connecting is the newest record, sent from the slot itself and marked
  // in use until the session layer has written it.
  const int slot = h.Newest();
  const SReply reply = h.Command(0, "#GET_DATA", false);
  ASSERT_EQ(reply.Code, kReplyRecord);
  EXPECT_EQ(reinterpret_cast<const uint8_t*>(reply.Pointer), h.Slot(slot) + 12);
  EXPECT_EQ(h.Slot(slot)[4608], 1);
  EXPECT_EQ(h.S->ClientRecordInUse[0], slot);
  const SRecord rec = reply.Record();
  ASSERT_EQ(rec.Size(), 88u + 4 * 12);
  EXPECT_EQ(rec.Type(), 1u);
  EXPECT_EQ(rec.FreePercent(), 99u);
  EXPECT_EQ(rec.Sweep(), h.NextSweep - 1);
  EXPECT_EQ(rec.Status(), 0u);
  EXPECT_EQ(rec.Granularity(), 1000000u);
  EXPECT_TRUE(rec.LengthMatchesCounts());
  for (int ch = 0; ch < 4; ++ch) {
    EXPECT_EQ(rec.Count(ch), 3u);
    for (int i = 0; i < 3; ++i) EXPECT_NEAR(rec.Value(ch, i), proc_test::Fm(proc_test::NmBetween(kTeethOf[ch][i], 0.25)), 1.0);
  }
  // Every byte but the two the reply patches is the pipeline's.
  std::string ring(reinterpret_cast<const char*>(h.Slot(slot) + 12), rec.Size());
  ring[7] = rec.Bytes[7];
  ring[48] = rec.Bytes[48];
  EXPECT_TRUE(ring == rec.Bytes);
  h.S->ReleaseClientRecord(0);
  EXPECT_EQ(h.Slot(slot)[4608], 0);
  EXPECT_EQ(h.S->ClientRecordInUse[0], -1);
  EXPECT_EQ(h.Command(0, "#GET_BUFFER_COUNT").Body, "0");

  // Buffered reads serve every record in order, with the free space of the ring.
  const uint32_t first = h.Publish();
  h.PublishMany(299);
  EXPECT_EQ(h.Command(0, "#GET_BUFFER_COUNT").Body, "300");
  for (int n = 300; n >= 1; --n) {
    const SRecord r = h.Command(0, "#GET_DATA").Record();
    ASSERT_EQ(r.Sweep(), first + static_cast<uint32_t>(300 - n)) << "unread " << n;
    ASSERT_EQ(r.FreePercent(), FreePercentFor(n)) << "unread " << n;
  }
  EXPECT_EQ(FreePercentFor(300), 98u);
  EXPECT_EQ(h.Command(0, "#GET_BUFFER_COUNT").Body, "0");
}

// A flush drops the backlog (the next read waits); an unbuffered read takes the newest and
// leaves the buffered position alone; with buffers off each read is the next unread record
// and drops the rest (newest-first is not asked for).
TEST(DataRecords, FlushUnbufferedReadsAndBuffersOff) {
  CRingHarness h;
  h.PublishMany(4);
  h.Connect(3);
  h.PublishMany(6);
  EXPECT_EQ(h.Command(3, "#GET_BUFFER_COUNT").Body, "7");
  EXPECT_EQ(h.Command(3, "#FLUSH_BUFFER").Body, "Client 3 buffers flushed.\n");
  EXPECT_EQ(h.Command(3, "#GET_BUFFER_COUNT").Body, "0");
  std::thread later([&] {
    std::this_thread::sleep_for(50ms);
    h.Publish();
  });
  const SRecord rec = h.Command(3, "#GET_DATA").Record();
  later.join();
  EXPECT_EQ(rec.Sweep(), h.NextSweep - 1);
  EXPECT_EQ(rec.FreePercent(), 100u);

  const uint32_t first = h.Publish();
  h.PublishMany(10);
  EXPECT_EQ(h.Command(3, "#GET_DATA").Record().Sweep(), first);
  SRecord newest = h.Command(3, "#GET_UNBUFFERED_DATA").Record();
  EXPECT_EQ(newest.Sweep(), h.NextSweep - 1);
  EXPECT_EQ(newest.Type(), 1u);
  EXPECT_EQ(newest.FreePercent(), 99u);
  EXPECT_TRUE(newest.LengthMatchesCounts());
  newest = h.Command(3, "#GET_UNBUFFERED_DATA_AND_LEVELS").Record();
  EXPECT_EQ(newest.Sweep(), h.NextSweep - 1);
  EXPECT_EQ(newest.Type(), 5u);
  ASSERT_EQ(h.Command(3, "#GET_BUFFER_COUNT").Body, "10") << "the unbuffered reads moved the position";
  EXPECT_EQ(h.Command(3, "#GET_DATA").Record().Sweep(), first + 1);
  EXPECT_EQ(h.Command(3, "#GET_BUFFER_COUNT").Body, "9");
  // A stray argument is no unbuffered read; the next command is still answered.
  EXPECT_EQ(h.Command(3, "#GET_UNBUFFERED_DATA 1").Body, "!Invalid command or argument: #GET_UNBUFFERED_DATA 1.");
  EXPECT_EQ(h.Command(3, "#GET_BUFFER_COUNT").Body, "9");

  h.S->bBufferEnable[3] = false;
  const uint32_t a = h.Command(3, "#GET_DATA").Record().Sweep();
  EXPECT_EQ(h.Command(3, "#GET_BUFFER_COUNT").Body, "0");
  h.PublishMany(3);
  const uint32_t b = h.Command(3, "#GET_DATA").Record().Sweep();
  EXPECT_EQ(b, h.NextSweep - 3);
  EXPECT_GT(b, a);
  EXPECT_EQ(h.Command(3, "#GET_BUFFER_COUNT").Body, "0");
}

TEST(DataRecords, AReadWaitsForTheNextRecordAndOnlyAModeChangeOrAStopEndsItEmpty) {
  CRingHarness h;
  h.PublishMany(3);
  h.Connect(0);
  h.Command(0, "#GET_DATA");
  const uint16_t position = h.S->ProcessedReadIndex[0];

  // An idle card: the wait outlasts its one-second wakes and ends with the next record, while
  // another client's commands go on.
  h.Connect(1);
  SReply reply;
  std::thread reader([&] { reply = h.Command(0, "#GET_DATA"); });
  std::this_thread::sleep_for(2500ms);
  EXPECT_EQ(h.Command(1, "#GET_BUFFER_COUNT").Body, "1");
  EXPECT_EQ(h.Command(1, "#GET_DATA").Record().Sweep(), h.NextSweep - 1);
  const uint32_t sweep = h.Publish();
  reader.join();
  ASSERT_EQ(reply.Code, kReplyRecord);
  EXPECT_EQ(reply.Record().Sweep(), sweep);
  EXPECT_EQ(reply.Record().FreePercent(), 100u);

  // A broadcast for a trigger mode change ends the wait with the "no new data" header.
  const uint16_t caughtUp = h.S->ProcessedReadIndex[0];
  std::thread mode([&] {
    std::this_thread::sleep_for(100ms);
    std::lock_guard<std::mutex> g(h.S->DataMutex);
    ++h.S->DataModeChanges;
    h.S->DataCond.notify_all();
  });
  reply = h.Command(0, "#GET_DATA_AND_LEVELS");
  mode.join();
  ASSERT_EQ(reply.Code, kReplyRecord);
  EXPECT_TRUE(reply.Record().IsNoDataHeader());
  EXPECT_FALSE(h.InRing(reply.Pointer));
  EXPECT_EQ(h.S->ProcessedReadIndex[0], caughtUp);
  EXPECT_NE(caughtUp, position);

  // So does the server's stop.
  std::thread stop([&] {
    std::this_thread::sleep_for(100ms);
    h.S->bClosingSessions = true;
  });
  reply = h.Command(0, "#GET_DATA");
  stop.join();
  EXPECT_TRUE(reply.Record().IsNoDataHeader());

  // Each client has its own header: one client's frame digits never reach another's reply.
  h.S->ProcessedReadIndex[1] = h.S->ProcessedWriteIndex.load();
  const SReply other = h.Command(1, "#GET_DATA");
  h.S->bClosingSessions = false;
  EXPECT_TRUE(other.Record().IsNoDataHeader());
  EXPECT_NE(other.Pointer, reply.Pointer);
}

TEST(DataRecords, InterleaveServesEveryNthSweepPerMultiplexerCycle) {
  CRingHarness h;
  h.NextSweep = 101;
  h.Publish();
  h.Connect(0);
  h.PublishMany(120);  // sweeps 101-221
  EXPECT_EQ(h.Command(0, "#SET_DATA_INTERLEAVE 10").Body, "Client data interleave set to 10.\n");
  std::vector<uint32_t> got;
  for (int i = 0; i < 12; ++i) got.push_back(h.Command(0, "#GET_DATA").Record().Sweep());
  EXPECT_EQ(got, (std::vector<uint32_t>{110, 120, 130, 140, 150, 160, 170, 180, 190, 200, 210, 220}));
  // Nothing acceptable left: the skipped records are gone, and the read would wait (as the
  // server stops, it answers at once with the "no new data" header instead).
  h.S->bClosingSessions = true;
  EXPECT_TRUE(h.Command(0, "#GET_DATA").Record().IsNoDataHeader());
  h.S->bClosingSessions = false;
  EXPECT_EQ(h.Command(0, "#GET_BUFFER_COUNT").Body, "0");

  // Four multiplexer layers: one cycle is four sweeps, and whole cycles are kept.
  h.S->MuxLevel = 4;
  h.PublishMany(160);  // sweeps 222-381
  got.clear();
  for (int i = 0; i < 8; ++i) got.push_back(h.Command(0, "#GET_DATA").Record().Sweep());
  EXPECT_EQ(got, (std::vector<uint32_t>{240, 241, 242, 243, 280, 281, 282, 283}));
}

TEST(DataRecords, LevelsFollowTheWavelengthsAndCarryAbsoluteWavelengths) {
  CRingHarness h;
  h.S->bUseReferences = true;
  for (int ch = 0; ch < 4; ++ch)
    for (int i = 0; i < 3; ++i) h.S->SensorReferences[ch][i] = 1500000000 + 1000 * (10 * ch + i);
  h.Publish(3, 2);  // levels of DUT channel 0
  h.Connect(0);
  const int slot = h.Newest();

  const SRecord data = h.Command(0, "#GET_DATA").Record();
  h.S->ProcessedReadIndex[0] = static_cast<uint16_t>(slot);
  const SReply levelsReply = h.Command(0, "#GET_DATA_AND_LEVELS");
  const SRecord levels = levelsReply.Record();
  ASSERT_EQ(data.Sweep(), levels.Sweep());
  EXPECT_EQ(data.Size(), 88u + 4 * 12);
  EXPECT_EQ(levels.AmplitudeChannel(), 2u);
  EXPECT_EQ(levels.Levels(), 3u);
  EXPECT_EQ(levels.Size(), 88u + 4 * 12 + 2 * 3);
  EXPECT_EQ(levels.Type(), 5u);
  for (int ch = 0; ch < 4; ++ch)
    for (int i = 0; i < 3; ++i) {
      const int32_t reference = h.S->SensorReferences[ch][i];
      EXPECT_EQ(levels.Value(ch, i) - data.Value(ch, i), reference);
      EXPECT_NEAR(levels.Value(ch, i), proc_test::Fm(proc_test::NmBetween(kTeethOf[ch][i], 0.25)), 1.0);
    }
  // The absolute values were made in the client's copy; the ring keeps the pipeline's.
  EXPECT_FALSE(h.InRing(levelsReply.Pointer));
  std::string ring(reinterpret_cast<const char*>(h.Slot(slot) + 12), data.Size());
  EXPECT_EQ(ring.substr(88), data.Bytes.substr(88));
}

TEST(DataRecords, AFailedSweepIsAHeaderWithItsStatusAndNoSensors) {
  CRingHarness h;
  h.Publish();
  auto r = proc_test::MakeSweep();
  r.status.NumPeaks[0] = 0;  // no grating peak
  r.status.SweepCounter = 77777;
  proc_test::AddSensor(r, 0, proc_test::CountBetween(30, 0.25));
  proc_test::Console([&] { proc_test::Feed(*h.S, r); });
  h.Connect(0);
  SRecord rec = h.Command(0, "#GET_DATA").Record();
  EXPECT_EQ(rec.Size(), 88u);
  EXPECT_EQ(rec.Sweep(), 77777u);
  EXPECT_EQ(rec.Status(), 2u);
  EXPECT_EQ(rec.Sensors(), 0u);
  EXPECT_FALSE(rec.IsNoDataHeader());
}

TEST(DataRecords, ASecondClientOnTheSameSlotGetsAWholeCopyOfIt) {
  CRingHarness h;
  h.PublishMany(2);
  h.Connect(0);
  h.Connect(1);
  const int slot = h.Newest();
  const uint8_t firstByte = h.Slot(slot)[12];
  h.S->ProcessedData[static_cast<size_t>(slot) * kSlotBytes + 12] = 0x5A;  // a marker in the header's first byte

  const SReply owner = h.Command(0, "#GET_DATA", false);
  ASSERT_EQ(reinterpret_cast<const uint8_t*>(owner.Pointer), h.Slot(slot) + 12);
  // The owner is being framed: its formatter's terminating zero sits on the body's first byte.
  char* ownerBody = const_cast<char*>(owner.Pointer);
  std::memcpy(ownerBody - 10, "0000000136", 10);
  ownerBody[0] = 0;

  const SReply second = h.Command(1, "#GET_DATA", false);
  ASSERT_EQ(second.Code, kReplyRecord);
  EXPECT_FALSE(h.InRing(second.Pointer));
  EXPECT_EQ(h.S->ClientRecordInUse[1], -1);
  EXPECT_EQ(second.Body[0], 0x5A);
  EXPECT_EQ(second.Body.substr(1), owner.Body.substr(1));
  ownerBody[0] = 0x5A;
  h.S->ReleaseClientRecord(0);
  h.S->ReleaseClientRecord(1);
  EXPECT_EQ(h.Slot(slot)[4608], 0);

  // Released: the next reader sends from the slot again.
  h.S->ProcessedReadIndex[1] = static_cast<uint16_t>(slot);
  EXPECT_TRUE(h.InRing(h.Command(1, "#GET_DATA").Pointer));
  h.S->ProcessedData[static_cast<size_t>(slot) * kSlotBytes + 12] = firstByte;
}

TEST(DataRecords, ARecordTheProducerIsAboutToReachIsSentFromACopy) {
  CRingHarness h;
  h.Publish();
  // A full ring of the same record.
  for (int i = 0; i < kRing; ++i)
    if (i != h.Newest()) std::memcpy(h.S->ProcessedData + i * kSlotBytes, h.Slot(h.Newest()), kSlotBytes);
  h.Connect(0);
  const int w = h.S->ProcessedWriteIndex;
  h.S->ProcessedReadIndex[0] = static_cast<uint16_t>((w + 1) % kRing);  // 29999 unread: the oldest
  SReply reply = h.Command(0, "#GET_DATA");
  EXPECT_FALSE(h.InRing(reply.Pointer));
  EXPECT_EQ(reply.Record().FreePercent(), 0u);
  EXPECT_TRUE(reply.Record().LengthMatchesCounts());
  // Half a ring behind is far from the producer: straight from the slot, 49 % free.
  h.S->ProcessedReadIndex[0] = static_cast<uint16_t>((w + kRing / 2) % kRing);
  reply = h.Command(0, "#GET_DATA");
  EXPECT_TRUE(h.InRing(reply.Pointer));
  EXPECT_EQ(reply.Record().FreePercent(), FreePercentFor(kRing / 2));
  EXPECT_EQ(FreePercentFor(kRing / 2), 49u);
}

TEST(DataRecords, CountsTurnEachWavelengthBackIntoTheCardsSweepPosition) {
  CRingHarness h;
  h.S->FsCountOffset = 75;
  // Sensor 2 of DUT channel 0 lies behind 1000 m of fibre: the card sees it later in the sweep
  // by the round trip, which the pipeline takes off and the counts put back.
  h.S->SensorDistances[0][1] = 1000.0;
  double rate = h.S->Driver.Get2khzMode() ? 2000.0 : 1000.0;
  if (h.S->Driver.GetHwClkDivider_()) rate /= 2;
  const double flight = rate * 131072 * 2 * 1000.0 / (299792458.0 / 1.46);
  h.S->TimeOfFlightInCounts[0][1] = flight;
  auto r = proc_test::MakeSweep();
  r.status.Status3 |= 2;
  r.status.SweepCounter = 999;
  for (int ch = 0; ch < 4; ++ch)
    for (int i = 0; i < 3; ++i) proc_test::AddSensor(r, ch, proc_test::CountBetween(kTeethOf[ch][i], 0.25));
  r.DutPeaks[0][1] += static_cast<uint32_t>(std::lround(flight));
  proc_test::Feed(*h.S, r);
  h.Connect(0);

  const SReply reply = h.Command(0, "#GET_WVL_LVL_CNTS");
  EXPECT_EQ(reply.Code, kReplyText);
  const SRecord levels{reply.Body.substr(0, 88 + 4 * 12 + 2 * 3)};
  EXPECT_EQ(levels.Sweep(), 999u);
  EXPECT_EQ(levels.Type(), 5u);
  ASSERT_EQ(reply.Body.size(), 88u + 4 * 12 + 2 * 3 + 4 * 12);
  uint32_t i = 0;
  for (int ch = 0; ch < 4; ++ch)
    for (int j = 0; j < 3; ++j, ++i) {
      const int32_t count = static_cast<int32_t>(data_wire::U32(reply.Body, 88 + 4 * 12 + 2 * 3 + 4 * i));
      // The card's own position, less twice the full-spectrum offset (within a count).
      EXPECT_NEAR(count, static_cast<double>(r.DutPeaks[ch][j]) - 150.0, 2.0) << "channel " << ch << " sensor " << j;
    }
  // The slot the reply was read from is free again: this reply is not a record reply.
  EXPECT_EQ(h.S->ClientRecordInUse[0], -1);
  EXPECT_EQ(h.Slot(h.Newest())[4608], 0);
}

// A producer of sweeps numbered from `base` on its own thread, until `stop`: `fill` puts the
// sensors and marks of sweep k into the record.
template <class Fill>
std::thread Producer(CRingHarness& h, std::atomic<bool>& stop, Fill fill) {
  return std::thread([&h, &stop, fill] {
    std::vector<struct_dma_peaks_data> sweeps(64);
    for (uint32_t k = 0; !stop; ++k) {
      auto& r = sweeps[k % sweeps.size()];
      r = proc_test::MakeSweep();
      fill(r, k);
      h.S->pPeaks = &r;
      h.S->pLastPeaks = &r;
      ProcessingAccess::Process(*h.S);
    }
  });
}

// Several clients read the ring while it is being filled and frame their replies in place, as
// the session layer does; two of them always want the same records. Every reply must be one
// whole sweep with nobody else's patches.
TEST(DataRecords, ContendingClientsEachReceiveWholeRecords) {
  CRingHarness h;
  h.PublishMany(2);
  for (int c = 0; c < 4; ++c) h.Connect(c);
  std::atomic<bool> stop{false};
  std::thread producer = Producer(h, stop, [](struct_dma_peaks_data& r, uint32_t k) {
    const uint32_t sweep = r.status.SweepCounter = 100000 + k;
    r.status.Reserved0 = static_cast<uint8_t>(sweep * 7 + 1);
    for (int j = 0; j < 12; ++j) r.status.Reserved32[j] = static_cast<uint8_t>(sweep + j);
    for (int ch = 0; ch < 4; ++ch)
      for (uint32_t i = 0; i < 1 + (sweep + ch) % 3; ++i) proc_test::AddSensor(r, ch, proc_test::CountBetween(kTeethOf[ch][i], 0.25));
    std::this_thread::sleep_for(50us);
  });
  std::atomic<int> records{0}, faults{0};
  auto client = [&](int c, const std::string command) {
    uint32_t last = 0;
    for (const auto end = Clock::now() + 1500ms; Clock::now() < end;) {
      char* body = nullptr;
      unsigned length = 0;
      const int code = h.S->ProcessCmd(static_cast<short>(c), command.c_str(), &body, &length);
      // Framing in place: digits before the body, a zero on the first byte, then restored.
      const char first = body[0];
      std::memcpy(body - 10, "0000000000", 10);
      body[0] = 0;
      body[0] = first;
      const SRecord rec{std::string(body, length)};
      h.S->ReleaseClientRecord(static_cast<uint16_t>(c));
      if (code != kReplyRecord || rec.IsNoDataHeader() || rec.Sweep() < 100000) continue;  // not yet the producer's
      const uint32_t sweep = rec.Sweep();
      bool whole = rec.Size() >= 88 && rec.Status() == 0 && data_wire::U8(rec.Bytes, 0) == static_cast<uint8_t>(sweep * 7 + 1);
      for (int j = 0; whole && j < 12; ++j) whole = data_wire::U8(rec.Bytes, 32 + j) == static_cast<uint8_t>(sweep + j);
      for (int ch = 0; whole && ch < 4; ++ch) whole = rec.Count(ch) == 1 + (sweep + ch) % 3;
      if (command == "#GET_DATA") whole = whole && rec.LengthMatchesCounts() && rec.Type() == 1 && (last == 0 || sweep == last + 1);
      if (command == "#GET_DATA_AND_LEVELS") whole = whole && rec.Type() == 5;
      for (int ch = 0; whole && ch < 4; ++ch)
        for (uint32_t i = 0; whole && i < rec.Count(ch); ++i)
          whole = std::abs(rec.Value(ch, i) - proc_test::Fm(proc_test::NmBetween(kTeethOf[ch][i], 0.25))) <= 1.0;
      last = sweep;
      ++records;
      faults += !whole;
    }
  };
  std::vector<std::thread> clients;
  for (const char* command : {"#GET_DATA", "#GET_DATA", "#GET_DATA_AND_LEVELS", "#GET_UNBUFFERED_DATA"})
    clients.emplace_back(client, static_cast<int>(clients.size()), command);
  for (auto& t : clients) t.join();
  stop = true;
  producer.join();
  EXPECT_GT(records, 1000);
  EXPECT_EQ(faults, 0);
}

#if !defined(__SANITIZE_THREAD__)
// A client a whole ring behind reads the slot the producer is about to overwrite. The copy is
// taken while the producer may be writing it (a race this test provokes on purpose, hence not
// under ThreadSanitizer); whatever is served must still be one whole sweep.
TEST(DataRecords, CopiesRacingTheProducerAreWholeOrDropped) {
  CRingHarness h;
  h.PublishMany(2);
  h.Connect(0);
  std::atomic<bool> stop{false};
  std::thread producer = Producer(h, stop, [](struct_dma_peaks_data& r, uint32_t k) {
    r.status.SweepCounter = 200000 + k;
    for (int j = 0; j < 12; ++j) r.status.Reserved32[j] = static_cast<uint8_t>(r.status.SweepCounter + j);
    // 30000 is no multiple of 7: the record a lap later has another sensor count.
    for (uint32_t i = 0; i < 1 + k % 7; ++i) proc_test::AddSensor(r, 0, proc_test::CountBetween(20 + 2 * i, 0.25));
  });
  // The copy of the slot the producer is about to overwrite is dropped more often the faster
  // the producer runs; read until enough copies got through, however loaded the machine.
  int served = 0, faults = 0;
  for (const auto end = Clock::now() + 20s; served < 100 && Clock::now() < end;) {
    h.S->ProcessedReadIndex[0] = static_cast<uint16_t>((h.S->ProcessedWriteIndex + 1) % kRing);
    const SRecord rec = h.Command(0, "#GET_DATA").Record();
    if (rec.IsNoDataHeader() || rec.Sweep() < 200000) continue;
    ++served;
    bool whole = rec.LengthMatchesCounts() && rec.Count(0) == 1 + (rec.Sweep() - 200000) % 7;
    for (int j = 0; whole && j < 12; ++j) whole = data_wire::U8(rec.Bytes, 32 + j) == static_cast<uint8_t>(rec.Sweep() + j);
    faults += !whole;
  }
  stop = true;
  producer.join();
  EXPECT_GE(served, 100);
  EXPECT_EQ(faults, 0);
}
#endif
