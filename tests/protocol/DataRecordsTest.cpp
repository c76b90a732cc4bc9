// The data replies against a server object without a card: the real peak pipeline fills the
// record ring from hand-built sweeps, spectra are filled by hand in the engine's layout, and the
// commands run through the dispatcher as a client's service thread runs them.
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
#include "system/NetworkGlobals.h"

using namespace std::chrono_literals;
using data_wire::SRecord;
using data_wire::U16;
using data_wire::U32;
using data_wire::U8;
using Clock = std::chrono::steady_clock;

namespace {

constexpr int kRing = 30000;
constexpr size_t kSlotBytes = 4612;
constexpr size_t kSpectrumBytes = 65640;
constexpr uint32_t kSpectrumBody = 65624;  // 88 + 32768 x 2
// Channel ch, sensor i (up to 7) sits a quarter of the way past comb tooth Tooth(ch, i).
int Tooth(int ch, int i) { return 20 + 15 * ch + 2 * i; }
uint32_t SensorCount(int ch, int i) { return proc_test::CountBetween(Tooth(ch, i), 0.25); }
double SensorFm(int ch, int i) { return proc_test::Fm(proc_test::NmBetween(Tooth(ch, i), 0.25)); }

struct SReply {
  int Code = 0;
  std::string Body;
  const char* Pointer = nullptr;
  SRecord Record() const { return SRecord{Body}; }
};

// A server as start-up leaves it, without a card, and a producer of sweeps and spectra.
class CHarness {
 public:
  CHarness() { S->SetNumAverages(0, 0, 1); }

  // One sweep through the pipeline: `perChannel` sensors per DUT channel, the next sweep counter.
  uint32_t Publish(int perChannel = 3, uint8_t amplitudeChannel = 0) {
    auto r = proc_test::MakeSweep();
    const uint32_t sweep = r.status.SweepCounter = NextSweep++;
    r.status.RecordCounter = static_cast<uint16_t>(sweep);
    r.status.Status3 = static_cast<uint8_t>(r.status.Status3 | amplitudeChannel);
    for (int ch = 0; ch < 4; ++ch)
      for (int i = 0; i < perChannel; ++i) proc_test::AddSensor(r, ch, SensorCount(ch, i));
    Sweeps.push_back(r);
    proc_test::Feed(*S, Sweeps.back());
    return sweep;
  }
  void PublishMany(int n) { while (n-- > 0) Publish(); }

  // What the session layer does when a client connects.
  void Connect(int c) {
    S->ProcessedReadIndex[c] = static_cast<uint16_t>(Newest());
    S->bStreaming[c] = false, S->bBufferEnable[c] = true, S->DataInterleave[c] = 1, S->ClientRecordInUse[c] = -1;
  }

  // A record reply's slot is released afterwards, as the session layer does once it is written.
  SReply Command(int client, const char* line, bool release = true) {
    char* body = nullptr;
    unsigned length = 0;
    const int code = S->ProcessCmd(static_cast<short>(client), line, &body, &length);
    const SReply reply{code, std::string(body, length), body};
    if (release && reply.Code == kReplyRecord) S->ReleaseClientRecord(static_cast<uint16_t>(client));
    return reply;
  }
  std::string Body(int client, const char* line) { return Command(client, line).Body; }

  const uint8_t* Slot(int index) const { return proc_test::Slot(*S, index); }
  bool InRing(const char* p) const {
    const auto* u = reinterpret_cast<const uint8_t*>(p);
    return u >= S->ProcessedData && u < S->ProcessedData + kRing * kSlotBytes;
  }
  int Newest() const { return (S->ProcessedWriteIndex + kRing - 1) % kRing; }

  // Spectra: full-spectrum acquisition on, every client at the newest slot (as connect leaves it).
  void SpectraOn() {
    S->bFsEnable = true;
    S->SpectrumWriteIndex = 0;
    for (int c = 0; c < 11; ++c) S->SpectrumReadIndex[c] = 15;
  }
  // A recognisable spectrum in a ring slot: header bytes and points from `seed`.
  void FillSpectrum(int slot, uint8_t seed) {
    uint8_t* rec = S->SpectrumBuffer + static_cast<size_t>(slot) * kSpectrumBytes;
    for (size_t i = 12; i < kSpectrumBytes - 4; ++i) rec[i] = static_cast<uint8_t>(seed + i * 13);
    rec[12] = 15;
    rec[12 + 7] = 0x03;  // low nibble kept by the reply, high nibble replaced
    std::memcpy(rec + kSpectrumBytes - 4, &kSpectrumBody, 4);
  }
  // The slot's body with the two bytes a spectrum reply patches (type, fill level) taken from `reply`.
  std::string SpectrumAs(int slot, const std::string& reply) const {
    std::string ring(reinterpret_cast<const char*>(S->SpectrumBuffer) + slot * kSpectrumBytes + 12, kSpectrumBody);
    ring[7] = reply.at(7);
    ring[48] = reply.at(48);
    return ring;
  }
  // Publishes the slot at the write index, as the calibration thread does.
  void PublishSpectrum(uint8_t seed) {
    FillSpectrum(S->SpectrumWriteIndex, seed);
    std::lock_guard<std::mutex> g(S->SpectrumMutex);
    S->SpectrumWriteIndex = static_cast<uint16_t>((S->SpectrumWriteIndex + 1) % 16);
    S->SpectrumCond.notify_all();
  }
  // Runs `f` on another thread after `delay`; joined by the returned guard.
  struct SLater {
    std::thread T;
    ~SLater() { T.join(); }
  };
  template <class F>
  static SLater After(std::chrono::milliseconds delay, F f) { return SLater{std::thread([=] { std::this_thread::sleep_for(delay), f(); })}; }

  std::unique_ptr<CVr480Server> S = proc_test::MakeServer();
  std::vector<struct_dma_peaks_data> Sweeps;
  uint32_t NextSweep = 5000;
};

// floor((30000 - n) x 99.99 / 30000): 98 for 300 unread, 49 for half a ring.
uint32_t FreePercentFor(int unread) { return static_cast<uint32_t>(std::floor((kRing - unread) * 99.99 / kRing)); }

}  // namespace

// Guards the slot a record is sent from, its in-use mark, the header the reply patches, the
// backlog count and the order of buffered reads.
TEST(DataRecords, ReadsServeEveryRecordInOrderFromItsSlotAndReportTheBacklog) {
  CHarness h;
  h.PublishMany(5);
  h.Connect(0);
  EXPECT_EQ(h.Body(0, "#GET_BUFFER_COUNT"), "1");
  // The first read after connecting is the newest record, sent from the slot itself and marked
  // in use until the session layer has written it.
  const int slot = h.Newest();
  const SReply reply = h.Command(0, "#GET_DATA", false);
  ASSERT_EQ(reply.Code, kReplyRecord);
  EXPECT_EQ(reinterpret_cast<const uint8_t*>(reply.Pointer), h.Slot(slot) + 12);
  EXPECT_EQ(std::make_pair(int(h.Slot(slot)[4608]), int(h.S->ClientRecordInUse[0])), std::make_pair(1, slot));
  const SRecord rec = reply.Record();
  ASSERT_EQ(rec.Size(), 88u + 4 * 12);
  EXPECT_EQ(std::vector<uint32_t>({rec.Type(), rec.FreePercent(), rec.Sweep(), rec.Status(), rec.Granularity()}),
            std::vector<uint32_t>({1, 99, h.NextSweep - 1, 0, 1000000}));
  for (int ch = 0; ch < 4; ++ch) {
    EXPECT_EQ(rec.Count(ch), 3u);
    for (int i = 0; i < 3; ++i) EXPECT_NEAR(rec.Value(ch, i), SensorFm(ch, i), 1.0);
  }
  std::string ring(reinterpret_cast<const char*>(h.Slot(slot) + 12), rec.Size());
  ring[7] = rec.Bytes[7];  // every byte but the two the reply patches is the pipeline's
  ring[48] = rec.Bytes[48];
  EXPECT_TRUE(ring == rec.Bytes);
  h.S->ReleaseClientRecord(0);
  EXPECT_EQ(std::make_pair(int(h.Slot(slot)[4608]), int(h.S->ClientRecordInUse[0])), std::make_pair(0, -1));
  EXPECT_EQ(h.Body(0, "#GET_BUFFER_COUNT"), "0");

  const uint32_t first = h.Publish();
  h.PublishMany(299);
  EXPECT_EQ(h.Body(0, "#GET_BUFFER_COUNT"), "300");
  for (int n = 300; n >= 1; --n) {
    const SRecord r = h.Command(0, "#GET_DATA").Record();
    ASSERT_EQ(r.Sweep(), first + static_cast<uint32_t>(300 - n)) << "unread " << n;
    ASSERT_EQ(r.FreePercent(), FreePercentFor(n)) << "unread " << n;
  }
  EXPECT_EQ(h.Body(0, "#GET_BUFFER_COUNT"), "0");
}

// Guards the flush (drops the backlog, exact reply), unbuffered reads leaving the buffered
// position alone, and reads with buffers off (the next record, the rest dropped).
TEST(DataRecords, FlushUnbufferedReadsAndBuffersOff) {
  CHarness h;
  h.PublishMany(4);
  h.Connect(3);
  h.PublishMany(6);
  EXPECT_EQ(h.Body(3, "#GET_BUFFER_COUNT"), "7");
  EXPECT_EQ(h.Body(3, "#FLUSH_BUFFER"), "Client 3 buffers flushed.\n");
  EXPECT_EQ(h.Body(3, "#GET_BUFFER_COUNT"), "0");
  SRecord rec;
  {
    auto later = CHarness::After(50ms, [&] { h.Publish(); });
    rec = h.Command(3, "#GET_DATA").Record();
  }
  EXPECT_EQ(std::make_pair(rec.Sweep(), rec.FreePercent()), std::make_pair(h.NextSweep - 1, 100u));

  const uint32_t first = h.Publish();
  h.PublishMany(10);
  EXPECT_EQ(h.Command(3, "#GET_DATA").Record().Sweep(), first);
  const SRecord newest = h.Command(3, "#GET_UNBUFFERED_DATA").Record();
  EXPECT_EQ(std::vector<uint32_t>({newest.Sweep(), newest.Type(), newest.FreePercent()}),
            std::vector<uint32_t>({h.NextSweep - 1, 1, 99}));
  EXPECT_TRUE(newest.LengthMatchesCounts());
  const SRecord levels = h.Command(3, "#GET_UNBUFFERED_DATA_AND_LEVELS").Record();
  EXPECT_EQ(std::make_pair(levels.Sweep(), levels.Type()), std::make_pair(h.NextSweep - 1, 5u));
  ASSERT_EQ(h.Body(3, "#GET_BUFFER_COUNT"), "10") << "the unbuffered reads moved the position";
  EXPECT_EQ(h.Command(3, "#GET_DATA").Record().Sweep(), first + 1);
  EXPECT_EQ(h.Body(3, "#GET_UNBUFFERED_DATA 1"), "!Invalid command or argument: #GET_UNBUFFERED_DATA 1.");
  EXPECT_EQ(h.Body(3, "#GET_BUFFER_COUNT"), "9");

  h.S->bBufferEnable[3] = false;
  const uint32_t a = h.Command(3, "#GET_DATA").Record().Sweep();
  EXPECT_EQ(h.Body(3, "#GET_BUFFER_COUNT"), "0");
  h.PublishMany(3);
  const uint32_t b = h.Command(3, "#GET_DATA").Record().Sweep();
  EXPECT_TRUE(b == h.NextSweep - 3 && b > a) << b;
  EXPECT_EQ(h.Body(3, "#GET_BUFFER_COUNT"), "0");
}

// Guards the waiting read: only a trigger-mode change or a stop ends it empty (a header per client).
TEST(DataRecords, AReadWaitsForTheNextRecordAndOnlyAModeChangeOrAStopEndsItEmpty) {
  CHarness h;
  h.PublishMany(3);
  h.Connect(0);
  h.Command(0, "#GET_DATA");
  const uint16_t position = h.S->ProcessedReadIndex[0];
  h.Connect(1);
  SReply reply;
  std::thread reader([&] { reply = h.Command(0, "#GET_DATA"); });
  std::this_thread::sleep_for(2500ms);
  EXPECT_EQ(h.Body(1, "#GET_BUFFER_COUNT"), "1");  // another client is served meanwhile
  EXPECT_EQ(h.Command(1, "#GET_DATA").Record().Sweep(), h.NextSweep - 1);
  const uint32_t sweep = h.Publish();
  reader.join();
  ASSERT_EQ(reply.Code, kReplyRecord);
  EXPECT_EQ(reply.Record().Sweep(), sweep);
  EXPECT_EQ(reply.Record().FreePercent(), 100u);

  const uint16_t caughtUp = h.S->ProcessedReadIndex[0];
  {
    auto mode = CHarness::After(100ms, [&] {
      std::lock_guard<std::mutex> g(h.S->DataMutex);
      ++h.S->DataModeChanges;
      h.S->DataCond.notify_all();
    });
    reply = h.Command(0, "#GET_DATA_AND_LEVELS");
  }
  ASSERT_EQ(reply.Code, kReplyRecord);
  EXPECT_TRUE(reply.Record().IsNoDataHeader());
  EXPECT_FALSE(h.InRing(reply.Pointer));
  EXPECT_EQ(h.S->ProcessedReadIndex[0], caughtUp);
  EXPECT_NE(caughtUp, position);
  {
    auto stop = CHarness::After(100ms, [&] { h.S->bClosingSessions = true; });
    reply = h.Command(0, "#GET_DATA");
  }
  EXPECT_TRUE(reply.Record().IsNoDataHeader());
  h.S->ProcessedReadIndex[1] = h.S->ProcessedWriteIndex.load();
  const SReply other = h.Command(1, "#GET_DATA");
  h.S->bClosingSessions = false;
  EXPECT_TRUE(other.Record().IsNoDataHeader());
  EXPECT_NE(other.Pointer, reply.Pointer);
}

// Guards the interleave: every Nth sweep, and with a multiplexer every Nth whole cycle.
TEST(DataRecords, InterleaveServesEveryNthSweepPerMultiplexerCycle) {
  CHarness h;
  h.NextSweep = 101;
  h.Publish();
  h.Connect(0);
  h.PublishMany(120);  // sweeps 101-221
  EXPECT_EQ(h.Body(0, "#SET_DATA_INTERLEAVE 10"), "Client data interleave set to 10.\n");
  std::vector<uint32_t> got;
  for (int i = 0; i < 12; ++i) got.push_back(h.Command(0, "#GET_DATA").Record().Sweep());
  EXPECT_EQ(got, (std::vector<uint32_t>{110, 120, 130, 140, 150, 160, 170, 180, 190, 200, 210, 220}));
  // The skipped records are gone (as the server stops, the read answers at once).
  h.S->bClosingSessions = true;
  EXPECT_TRUE(h.Command(0, "#GET_DATA").Record().IsNoDataHeader());
  h.S->bClosingSessions = false;
  EXPECT_EQ(h.Body(0, "#GET_BUFFER_COUNT"), "0");
  h.S->MuxLevel = 4;
  h.PublishMany(160);  // sweeps 222-381
  got.clear();
  for (int i = 0; i < 8; ++i) got.push_back(h.Command(0, "#GET_DATA").Record().Sweep());
  EXPECT_EQ(got, (std::vector<uint32_t>{240, 241, 242, 243, 280, 281, 282, 283}));
}

// Guards the levels reply: levels after the wavelengths, absolute wavelengths made in the
// client's copy (the ring keeps the pipeline's), and a failed sweep as a bare header.
TEST(DataRecords, LevelsCarryAbsoluteWavelengthsAndAFailedSweepIsABareHeader) {
  CHarness h;
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
  EXPECT_EQ(std::vector<size_t>({levels.AmplitudeChannel(), levels.Levels(), levels.Size(), levels.Type()}),
            std::vector<size_t>({2, 3, 88 + 4 * 12 + 2 * 3, 5}));
  for (int ch = 0; ch < 4; ++ch)
    for (int i = 0; i < 3; ++i) {
      EXPECT_EQ(levels.Value(ch, i) - data.Value(ch, i), h.S->SensorReferences[ch][i]);
      EXPECT_NEAR(levels.Value(ch, i), SensorFm(ch, i), 1.0);
    }
  EXPECT_FALSE(h.InRing(levelsReply.Pointer));
  EXPECT_EQ(std::string(reinterpret_cast<const char*>(h.Slot(slot) + 12), data.Size()).substr(88), data.Bytes.substr(88));

  auto r = proc_test::MakeSweep();
  r.status.NumPeaks[0] = 0;  // no grating peak
  r.status.SweepCounter = 77777;
  proc_test::AddSensor(r, 0, proc_test::CountBetween(30, 0.25));
  proc_test::Console([&] { proc_test::Feed(*h.S, r); });
  const SRecord failed = h.Command(0, "#GET_DATA").Record();
  EXPECT_EQ(std::vector<size_t>({failed.Size(), failed.Sweep(), failed.Status(), failed.Sensors()}),
            std::vector<size_t>({88, 77777, 2, 0}));
  EXPECT_FALSE(failed.IsNoDataHeader());
}

// Guards the slot's owner: while one client frames a slot in place (its formatter's zero on the
// body's first byte), a second client gets a whole copy; once released, the slot is used again.
TEST(DataRecords, ASecondClientOnTheSameSlotGetsAWholeCopyOfIt) {
  CHarness h;
  h.PublishMany(2);
  h.Connect(0);
  h.Connect(1);
  const int slot = h.Newest();
  uint8_t* first = h.S->ProcessedData + static_cast<size_t>(slot) * kSlotBytes + 12;
  const uint8_t saved = *first;
  *first = 0x5A;
  const SReply owner = h.Command(0, "#GET_DATA", false);
  ASSERT_EQ(reinterpret_cast<const uint8_t*>(owner.Pointer), first);
  std::memcpy(first - 10, "0000000136", 10);
  *first = 0;
  const SReply second = h.Command(1, "#GET_DATA", false);
  ASSERT_EQ(second.Code, kReplyRecord);
  EXPECT_TRUE(!h.InRing(second.Pointer) && h.S->ClientRecordInUse[1] == -1 && second.Body[0] == 0x5A);
  EXPECT_EQ(second.Body.substr(1), owner.Body.substr(1));
  *first = 0x5A;
  h.S->ReleaseClientRecord(0);
  h.S->ReleaseClientRecord(1);
  EXPECT_EQ(h.Slot(slot)[4608], 0);
  h.S->ProcessedReadIndex[1] = static_cast<uint16_t>(slot);
  EXPECT_TRUE(h.InRing(h.Command(1, "#GET_DATA").Pointer));
  *first = saved;
}

// Guards the counts: each wavelength turned back into the card's sweep position, time of flight
// put back, less twice the full-spectrum offset; the slot is not left in use.
TEST(DataRecords, CountsTurnEachWavelengthBackIntoTheCardsSweepPosition) {
  CHarness h;
  h.S->FsCountOffset = 75;
  // Sensor 2 of DUT channel 0 lies behind 1000 m of fibre: the card sees it later by the round trip.
  h.S->SensorDistances[0][1] = 1000.0;
  double rate = h.S->Driver.Get2khzMode() ? 2000.0 : 1000.0;
  if (h.S->Driver.GetHwClkDivider_()) rate /= 2;
  const double flight = rate * 131072 * 2 * 1000.0 / (299792458.0 / 1.46);
  h.S->TimeOfFlightInCounts[0][1] = flight;
  auto r = proc_test::MakeSweep();
  r.status.Status3 |= 2;
  r.status.SweepCounter = 999;
  for (int ch = 0; ch < 4; ++ch)
    for (int i = 0; i < 3; ++i) proc_test::AddSensor(r, ch, SensorCount(ch, i));
  r.DutPeaks[0][1] += static_cast<uint32_t>(std::lround(flight));
  proc_test::Feed(*h.S, r);
  h.Connect(0);
  const SReply reply = h.Command(0, "#GET_WVL_LVL_CNTS");
  EXPECT_EQ(reply.Code, kReplyText);
  const size_t counts = 88 + 4 * 12 + 2 * 3;
  const SRecord levels{reply.Body.substr(0, counts)};
  EXPECT_EQ(std::make_pair(levels.Sweep(), levels.Type()), std::make_pair(999u, 5u));
  ASSERT_EQ(reply.Body.size(), counts + 4 * 12);
  for (int ch = 0, i = 0; ch < 4; ++ch)
    for (int j = 0; j < 3; ++j, ++i)
      EXPECT_NEAR(static_cast<int32_t>(U32(reply.Body, counts + 4 * i)), static_cast<double>(r.DutPeaks[ch][j]) - 150.0, 2.0)
          << "channel " << ch << " sensor " << j;
  EXPECT_EQ(h.S->ClientRecordInUse[0], -1);
  EXPECT_EQ(h.Slot(h.Newest())[4608], 0);
}

// Concurrency: clients read the ring while it fills and frame their replies in place; two always
// want the same records, and one the record the producer is about to overwrite (a race provoked
// on purpose, hence not under ThreadSanitizer). Every reply must be one whole sweep with nobody
// else's patches, or be dropped. 30000 is no multiple of 7: a record a lap later has other counts.
TEST(DataRecords, ContendingAndRacingClientsEachReceiveWholeRecords) {
  CHarness h;
  h.PublishMany(2);
  for (int c = 0; c < 5; ++c) h.Connect(c);
  std::atomic<bool> stop{false};
  std::thread producer([&] {
    std::vector<struct_dma_peaks_data> sweeps(64);
    for (uint32_t k = 0; !stop; ++k) {
      auto& r = sweeps[k % sweeps.size()];
      r = proc_test::MakeSweep();
      const uint32_t sweep = r.status.SweepCounter = 100000 + k;
      r.status.Reserved0 = static_cast<uint8_t>(sweep * 7 + 1);
      for (int j = 0; j < 12; ++j) r.status.Reserved32[j] = static_cast<uint8_t>(sweep + j);
      for (int ch = 0; ch < 4; ++ch)
        for (uint32_t i = 0; i < 1 + (sweep + ch) % 7; ++i) proc_test::AddSensor(r, ch, SensorCount(ch, i));
      h.S->pPeaks = h.S->pLastPeaks = &r;
      ProcessingAccess::Process(*h.S);
      std::this_thread::sleep_for(50us);
    }
  });
  std::atomic<int> records{0}, raced{0}, faults{0};
  auto client = [&](int c, const std::string command) {
    uint32_t last = 0;
    const bool race = command == "race";
    // The racer goes on until it has 100 records (copies are dropped more often the faster the
    // producer runs).
    for (const auto end = Clock::now() + (race ? 20s : 1500ms); Clock::now() < end && !(race && raced >= 100);) {
      if (race) h.S->ProcessedReadIndex[c] = static_cast<uint16_t>((h.S->ProcessedWriteIndex + 1) % kRing);
      char* body = nullptr;
      unsigned length = 0;
      const int code = h.S->ProcessCmd(static_cast<short>(c), race ? "#GET_DATA" : command.c_str(), &body, &length);
      const char first = body[0];  // framing in place: digits before the body, a zero on its first byte
      std::memcpy(body - 10, "0000000000", 10);
      body[0] = 0;
      body[0] = first;
      const SRecord rec{std::string(body, length)};
      h.S->ReleaseClientRecord(static_cast<uint16_t>(c));
      if (code != kReplyRecord || rec.IsNoDataHeader() || rec.Sweep() < 100000) continue;  // not yet the producer's
      const uint32_t sweep = rec.Sweep();
      bool whole = rec.Size() >= 88 && rec.Status() == 0 && U8(rec.Bytes, 0) == static_cast<uint8_t>(sweep * 7 + 1);
      for (int j = 0; whole && j < 12; ++j) whole = U8(rec.Bytes, 32 + j) == static_cast<uint8_t>(sweep + j);
      for (int ch = 0; whole && ch < 4; ++ch) whole = rec.Count(ch) == 1 + (sweep + ch) % 7;
      if (command != "#GET_DATA_AND_LEVELS") whole = whole && rec.LengthMatchesCounts() && rec.Type() == 1;
      if (command == "#GET_DATA") whole = whole && (last == 0 || sweep == last + 1);
      if (command == "#GET_DATA_AND_LEVELS") whole = whole && rec.Type() == 5;
      for (int ch = 0; whole && ch < 4; ++ch)
        for (uint32_t i = 0; whole && i < rec.Count(ch); ++i) whole = std::abs(rec.Value(ch, i) - SensorFm(ch, i)) <= 1.0;
      last = sweep;
      ++(race ? raced : records);
      faults += !whole;
    }
  };
  std::vector<std::string> commands{"#GET_DATA", "#GET_DATA", "#GET_DATA_AND_LEVELS", "#GET_UNBUFFERED_DATA"};
#if !defined(__SANITIZE_THREAD__)
  commands.push_back("race");
#endif
  std::vector<std::thread> clients;
  for (const auto& command : commands) clients.emplace_back(client, static_cast<int>(clients.size()), command);
  for (auto& t : clients) t.join();
  stop = true;
  producer.join();
  EXPECT_GT(records, 1000);
  EXPECT_GE(raced, commands.size() == 5 ? 100 : 0);
  EXPECT_EQ(faults, 0);
}

// Guards the spectrum reply: ring order, type, fill level (also across the wrap), the wait, and
// the empty reply without full-spectrum acquisition or outside master/stand-alone mode.
TEST(DataSpectra, SpectraComeFromTheRingInOrderWithTypeAndFillLevel) {
  CHarness h;
  h.SpectraOn();
  h.PublishSpectrum(1);  // slot 0
  h.PublishSpectrum(2);  // slot 1
  h.S->SpectrumReadIndex[0] = 0;
  h.S->bNewSpectrum[0] = true;
  SReply reply = h.Command(0, "#GET_SPECTRUM");
  EXPECT_EQ(reply.Code, kReplyText);
  ASSERT_EQ(reply.Body.size(), kSpectrumBody);
  EXPECT_EQ(std::vector<uint32_t>({U8(reply.Body, 0), U8(reply.Body, 7), U8(reply.Body, 48)}),
            std::vector<uint32_t>({15, 0x23, 87}));  // read 0, write 2: (0 - 2 + 16) x 100 / 16 = 87.5
  EXPECT_TRUE(reply.Body == h.SpectrumAs(0, reply.Body));
  EXPECT_TRUE(!h.S->bNewSpectrum[0] && h.S->SpectrumReadIndex[0] == 1);
  reply = h.Command(0, "#GET_SPECTRUM");
  EXPECT_TRUE(U8(reply.Body, 48) == 93u && reply.Body == h.SpectrumAs(1, reply.Body));  // read 1, write 2: 93.75
  {
    auto later = CHarness::After(100ms, [&] { h.PublishSpectrum(3); });
    reply = h.Command(0, "#GET_SPECTRUM");  // caught up: waits for the next, and reports 100
  }
  EXPECT_TRUE(U8(reply.Body, 48) == 100u && reply.Body == h.SpectrumAs(2, reply.Body));
  {
    auto off = CHarness::After(1500ms, [&] { h.S->bFsEnable = false; });
    reply = h.Command(0, "#GET_SPECTRUM");
  }
  h.S->bFsEnable = true;
  EXPECT_TRUE(reply.Body.empty() && h.S->SpectrumReadIndex[0] == 3);

  h.S->SpectrumReadIndex[0] = 15;  // the write index ahead after a wrap: (15 - 3) x 100 / 16 = 75
  h.FillSpectrum(15, 9);
  EXPECT_EQ(U8(h.Body(0, "#GET_SPECTRUM"), 48), 75u);
  EXPECT_EQ(h.S->SpectrumReadIndex[0], 0);
  h.S->bFsEnable = false;
  EXPECT_EQ(h.Body(0, "#GET_SPECTRUM"), "");
  h.S->bFsEnable = true;
  h.S->Driver.SetOperatingMode(2);
  const std::string console = proc_test::Console([&] { reply = h.Command(0, "#GET_SPECTRUM"); });
  EXPECT_EQ(reply.Body, "");
  EXPECT_NE(console.find("********** Not Master or Stand-Alone\n"), std::string::npos);
  h.S->Driver.SetOperatingMode(1);
  EXPECT_EQ(h.Body(0, "#GET_SPECTRUM").size(), kSpectrumBody);
}

// Guards the raw spectrum (always one newer than the request, type 6 and its point scale), the
// raw record (the card's own bytes) and the high-speed window (samples strictly inside it).
TEST(DataSpectra, RawSpectrumRawDataAndHighSpeedSamples) {
  CHarness h;
  h.SpectraOn();
  uint8_t* raw = h.S->RawSpectrumBuffer;
  for (size_t i = 12; i < kSpectrumBytes - 4; ++i) raw[i] = static_cast<uint8_t>(i * 7);
  std::memcpy(raw + kSpectrumBytes - 4, &kSpectrumBody, 4);
  std::string expected(reinterpret_cast<const char*>(raw) + 12, kSpectrumBody);
  SReply reply;
  const auto t0 = Clock::now();
  {
    auto later = CHarness::After(150ms, [&] { h.PublishSpectrum(4); });
    reply = h.Command(2, "#GET_RAW_SPECTRUM");
  }
  EXPECT_GE(Clock::now() - t0, 100ms);
  EXPECT_EQ(reply.Code, kReplyText);
  ASSERT_EQ(reply.Body.size(), kSpectrumBody);
  EXPECT_EQ(std::vector<uint32_t>({U8(reply.Body, 7) >> 4, U32(reply.Body, 72), U32(reply.Body, 80), U32(reply.Body, 84)}),
            std::vector<uint32_t>({6, 1, 0, 32767}));
  expected[7] = static_cast<char>((expected[7] & 0x0F) | 0x60);  // the rest as it was
  expected.replace(72, 4, reply.Body.substr(72, 4));
  expected.replace(80, 8, reply.Body.substr(80, 8));
  EXPECT_TRUE(reply.Body == expected);

  auto r = proc_test::MakeSweep();
  for (int i = 0; i < 256; ++i) r.FsSamples[i] = 0xA5000000u | static_cast<uint32_t>(1000 + i);
  h.S->pPeaks = h.S->pLastPeaks = &r;
  h.S->bNewRecord[1] = true;
  reply = h.Command(1, "#GET_RAW_DATA");
  EXPECT_EQ(reply.Code, kReplyConstant);
  ASSERT_EQ(reply.Body.size(), 6176u);
  EXPECT_EQ(0, std::memcmp(reply.Body.data(), &r, 6176));
  EXPECT_FALSE(h.S->bNewRecord[1]);
  h.S->HighSpeedFsStartCount = 10 * 128 + 5;  // sample 10: not inside
  h.S->HighSpeedFsEndCount = 20 * 128;        // sample 20: not inside
  h.S->bNewRecord[1] = true;
  reply = h.Command(1, "#GET_HIGH_SPEED_FS");
  ASSERT_EQ(reply.Body.size(), 512u);
  for (uint32_t i = 0; i < 256; ++i) EXPECT_EQ(U16(reply.Body, 2 * i), (i > 10 && i < 20) ? 1000 + i : 0u) << i;
  EXPECT_FALSE(h.S->bNewRecord[1]);
}

// Guards the web status line's exact text: 21 fields in their order.
TEST(DataSpectra, WebStatusIsOneLineOfTwentyOneFields) {
  CHarness h;
  auto r = proc_test::MakeSweep();
  r.status.InternalTemp = 35 * 128 + 64;  // 35.5 degC
  h.S->LatestStatus.Set(r.status);
  const int config = CurrentNetworkConfig;
  const bool dhcp = bUseDhcp[config];
  {
    std::lock_guard<std::mutex> g(h.S->PanelTextsLock);
    auto& p = h.S->PanelTexts;
    p.SweepRate = "1000.0 Hz";
    p.DriverVersion = 52;
    p.FirmwareVersion = 101;
    p.IpAddress = "10.0.0.122";
    p.Netmask = "255.255.255.0";
    p.TimeSource = "NTP";
    p.DateTime = "Wed Nov 18 14:35:48 2026";
    p.OperatingMode = "Stand-Alone";
    p.TriggerMode = "Untriggered";
    p.TriggerState = "N/A";
    p.SensorCounts[0] = "3\t3\t3\t3\t";
  }
  std::strcpy(h.S->SerialNumber, "VR-0042");
  h.S->CfcVersion = 14;
  h.S->MuxLevel = 2;
  bUseDhcp[config] = true;
  EXPECT_EQ(h.Body(0, "#WEB_STATUS"),
            "VR-0042$1000.0 Hz$14$52$2.0h$101$10.0.0.122$255.255.255.0$Enabled$0$35.50$Wed Nov 18 14:35:48 2026$NTP$"
            "Stand-Alone$Untriggered$N/A$2$3\t3\t3\t3\t$$$");
  bUseDhcp[config] = dhcp;
}
