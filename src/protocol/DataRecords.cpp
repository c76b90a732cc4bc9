// The reading side of the processed-data ring: per-client read positions, the wait for a new
// record, the interleave, the in-use marking of ring slots and the private copies, and the
// patches a reply makes to the record's header (reply type, buffer-free percentage).
//
// The ring is written by the peak pipeline on the acquisition thread, one slot after another
// (ProcessedWriteIndex W is the slot it fills next), without regard to readers. A client reads
// behind it at its own index R; it has unread records while R != W. A client that falls a whole
// ring behind (30000 records, 15 s at 2 kHz) loses records; the falling buffer-free percentage
// is its only warning.
//
// Sending without a copy. A record reply normally leaves straight from its ring slot, frame
// digits written into the slot's 12 spare bytes, in one write. Two things can touch a slot
// while it is being sent:
//  - another client that wants the same record at the same moment. The first to take the
//    slot's lock marks it in use and patches its header in place; any other client copies the
//    slot, under the same lock, into its private copy and patches that. The owner's framing
//    briefly overwrites the body's first byte (the formatter's terminating zero), so the owner
//    keeps that byte in a spare byte of the headroom, from where a copier takes it.
//  - the producer, when it comes round the ring to the slot again. A send may take as long as
//    the client's write-retry budget (a streaming client may stall for a minute before records
//    are dropped); if the producer could reach the slot within that time, the reply is sent
//    from the private copy instead. A copy is checked against the producer's index after it is
//    taken: if the producer passed the slot meanwhile, the copy may mix two records and is
//    thrown away.
// So no client ever receives a record mixed from two sweeps or patched by someone else.
#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <mutex>

#include "processing/ProcessedRecord.h"
#include "protocol/CommandTable.h"
#include "protocol/DataCommands.h"
#include "server/Globals.h"
#include "server/Vr480Server.h"

namespace data_commands {
namespace {

using namespace std::chrono_literals;

constexpr int kSlots = kProcessedRingSlots;
// The largest body (88 + 4500 bytes) ends before the record's size words.
constexpr uint32_t kMaxBody = kRecSensorBytesOffset - kRecHeaderOffset;
// The fastest the producer comes round: records per second in 2 kHz mode.
constexpr double kMaxRecordRate = 2000.0;
// Time between choosing a slot and the start of its write, generously.
constexpr double kSendSlackUs = 100000.0;
// Spare byte of the headroom (the frame uses bytes 2-11) where the owner of a slot in use keeps
// the body's first byte while its framing overwrites it.
constexpr size_t kSavedFirstByte = 1;

uint16_t Next(uint16_t r) { return r >= kSlots - 1 ? 0 : static_cast<uint16_t>(r + 1); }
// Steps forward around the ring from `from` to `to` (0 when equal).
int Distance(int from, int to) { return (to - from + kSlots) % kSlots; }

uint8_t* SlotBytes(CVr480Server& s, uint16_t r) { return s.ProcessedData + static_cast<size_t>(r) * kProcessedRecordBytes; }

uint32_t SweepOf(const uint8_t* rec) { return GetRecU32(rec, kRecHeaderOffset + kBodySweep); }

// A slot the pipeline has written holds its two body lengths; a slot never written (the ring's
// first lap) or garbled does not.
bool SizesValid(const uint8_t* rec) {
  const uint32_t data = GetRecU32(rec, kRecSensorBytesOffset);
  const uint32_t all = GetRecU32(rec, kRecTotalBytesOffset);
  return data >= kHeaderBytes && data <= all && all <= kMaxBody && (data - kHeaderBytes) % 4 == 0;
}

// Waits for the producer to publish past slot r. A record ends the wait (kPublished); so does
// a trigger mode change (kModeChange: the header-only "no new data" reply tells the client its
// stream changed), and the client leaving or the server stopping. The wait wakes every second
// to notice those, and goes back to waiting when nothing happened: an idle card's clients get
// nothing until it records again. A streaming client also stops waiting when it sends a line
// or has a command waiting (kInput), so that its service thread can take the command; it wakes
// ten times a second for that. Holds only DataMutex, and the wait releases it.
enum class EWait { kPublished, kModeChange, kInput };

EWait WaitForRecord(CVr480Server& s, int row, uint16_t r) {
  const bool client = row < kClientSlots;
  const auto slice = client && s.bStreaming[row] ? 100ms : 1000ms;
  const uint32_t changes = s.DataModeChanges;
  std::unique_lock<std::mutex> lock(s.DataMutex);
  for (bool waited = false;; waited = true) {
    if (r != s.ProcessedWriteIndex) return EWait::kPublished;
    if (s.DataModeChanges != changes) return EWait::kModeChange;
    if (s.bClientDisconnect[row] || s.bClosingSessions || bStopSignalled) return EWait::kModeChange;
    if (client && s.bStreaming[row]) {
      // A command read with the stream waits one slice for its record (a recording card
      // delivers one within milliseconds), then goes first.
      if (s.bStreamCommandPending[row]) {
        if (waited) return EWait::kInput;
        s.DataCond.wait_for(lock, slice);
        continue;
      }
      // The line read before this wait was taken; one arriving since (or the client leaving)
      // is looked for when a slice passes without a record, and at least once a slice while
      // records the client skips (interleave) keep ending the waits. Otherwise a recording
      // card's next record comes first, and the session reads the line then.
      static thread_local std::chrono::steady_clock::time_point lastLook{};
      const auto now = std::chrono::steady_clock::now();
      if (waited || now - lastLook >= slice) {
        lastLook = now;
        lock.unlock();
        const bool input = s.Socket.WaitReadable(static_cast<uint16_t>(row), 0) != 0;
        lock.lock();
        if (input && r == s.ProcessedWriteIndex) return EWait::kInput;
        if (r != s.ProcessedWriteIndex) continue;
      }
    }
    s.DataCond.wait_for(lock, slice);
  }
}

// The header-only reply: an all-zero header whose status byte says "no new data", length 88.
// Each caller has its own, since the frame digits are written into it.
int ReplyNoData(CCommandContext& c) {
  uint8_t* rec = c.Server.ClientErrorRecord[c.Row];
  std::memcpy(rec, c.Server.ErrorDataRecord, kErrorRecordBytes);
  rec[kRecHeaderOffset + kBodyStatusCode] = kStatusNoData;
  c.SetBody(reinterpret_cast<const char*>(rec + kRecHeaderOffset), kHeaderBytes);
  return kReplyRecord;
}

// True when a send straight from the slot surely ends before the producer can rewrite it: the
// producer needs 30000 - unread records to get there, the send at most the client's retry
// budget. The internal caller sends nothing.
bool SlotOutlivesSend(CVr480Server& s, int row, int unread) {
  if (row >= kClientSlots) return true;
  uint32_t attempts = 0, delayUs = 0;
  s.Socket.GetWriteRecoveryOptions(static_cast<uint16_t>(row), &attempts, &delayUs);
  const double budgetUs = static_cast<double>(attempts) * delayUs + kSendSlackUs;
  const double reachUs = (kSlots - unread) / kMaxRecordRate * 1e6;
  return budgetUs < reachUs;
}

// How close the client is to losing records: 99 while it keeps up, falling towards 0 as its
// backlog nears a whole ring; 100 when it had to wait for this record.
uint8_t FreePercent(bool waited, int unread) {
  if (waited) return 100;
  return static_cast<uint8_t>(std::floor((kSlots - unread) * 99.99 / kSlots));
}

void PatchHeader(uint8_t* rec, uint8_t type, uint8_t freePercent) {
  uint8_t& typeByte = rec[kRecHeaderOffset + kBodyTypeByte];
  typeByte = static_cast<uint8_t>((typeByte & 0x0F) | (type << 4));
  rec[kRecHeaderOffset + kBodyFreePercent] = freePercent;
}

// With references in use the pipeline reports each sensor relative to its reference; the
// levels reply reports absolute wavelengths, so the reference goes back on.
void AddReferencesBack(const CVr480Server& s, uint8_t* rec) {
  const int layer = rec[kRecHeaderOffset + kBodyLayerByte] & 0x03;
  const uint32_t total = (GetRecU32(rec, kRecSensorBytesOffset) - kHeaderBytes) / 4;
  uint32_t i = 0;
  for (int ch = 0; ch < kOpticalChannels; ++ch) {
    const int count = std::min<int>(GetRecU16(rec, kRecKeptCountsOffset + 2 * ch), kSensorsPerChannel);
    const Relaxed<int32_t>* references = s.SensorReferences[layer * kOpticalChannels + ch];
    for (int j = 0; j < count && i < total; ++j, ++i) {
      const size_t at = kRecSensorsOffset + 4 * i;
      PutRecU32(rec, at, GetRecU32(rec, at) + static_cast<uint32_t>(references[j]));
    }
  }
}

struct SChoice {
  const uint8_t* Record = nullptr;  // nullptr: the slot held no complete record
};

// Chooses the bytes to send for slot r (W was `w` when the caller looked) and patches them.
SChoice Choose(CVr480Server& s, int row, uint16_t r, uint16_t w, bool levels, bool waited) {
  uint8_t* slot = SlotBytes(s, r);
  uint8_t* copy = s.ClientDataCopy[row];
  const int unread = Distance(r, w);
  const uint8_t type = levels ? kTypeDataAndLevels : kTypeData;
  const uint8_t freePercent = FreePercent(waited, unread);
  const bool addReferences = levels && s.bUseReferences;
  {
    std::lock_guard<std::mutex> g(s.RecordSlotLock[r % CVr480Server::kRecordSlotLocks]);
    const bool inUse = slot[kRecInUseOffset] != 0;
    if (!inUse && !addReferences && SlotOutlivesSend(s, row, unread)) {
      if (!SizesValid(slot)) return {};
      slot[kRecInUseOffset] = 1;
      slot[kSavedFirstByte] = slot[kRecHeaderOffset];
      s.ClientRecordInUse[row] = r;
      PatchHeader(slot, type, freePercent);
      return {slot};
    }
    std::memcpy(copy + kRecHeaderOffset + 1, slot + kRecHeaderOffset + 1,
                kProcessedRecordBytes - kRecHeaderOffset - 1);
    copy[kRecHeaderOffset] = inUse ? slot[kSavedFirstByte] : slot[kRecHeaderOffset];
  }
  // The producer writes only the slot at its index: the copy is whole unless that index passed
  // over slot r while the copy was taken.
  std::atomic_thread_fence(std::memory_order_acquire);
  const uint16_t after = s.ProcessedWriteIndex;
  if (Distance(w, r) <= Distance(w, after) || !SizesValid(copy)) return {};
  copy[kRecInUseOffset] = 0;
  if (addReferences) AddReferencesBack(s, copy);
  PatchHeader(copy, type, freePercent);
  return {copy};
}

}  // namespace

int ServeRecord(CCommandContext& c, bool levels) {
  CVr480Server& s = c.Server;
  const int row = c.Row;
  if (!s.ProcessedData) return ReplyNoData(c);
  // A record chosen for an earlier reply that was never sent (the internal caller's) lets go.
  s.ReleaseClientRecord(static_cast<uint16_t>(row));

  bool waited = false;
  uint16_t r = s.ProcessedReadIndex[row];
  // Anything but a record: the header-only reply, or nothing at all for a streaming client
  // whose command waits.
  auto notServed = [&](EWait why) { return why == EWait::kInput ? kReplyNone : ReplyNoData(c); };
  if (r == s.ProcessedWriteIndex) {
    waited = true;
    if (const EWait why = WaitForRecord(s, row, r); why != EWait::kPublished) return notServed(why);
  }
  for (;;) {
    // Interleave: serve only sweeps whose number (per multiplexer cycle) is a multiple of n.
    const uint32_t interleave = std::max<uint32_t>(1, s.DataInterleave[row]);
    const uint32_t level = static_cast<uint32_t>(std::max(1, s.MuxLevel.load()));
    while ((SweepOf(SlotBytes(s, r)) / level) % interleave != 0) {
      r = Next(r);
      s.ProcessedReadIndex[row] = r;
      if (r == s.ProcessedWriteIndex)
        if (const EWait why = WaitForRecord(s, row, r); why != EWait::kPublished) return notServed(why);
    }
    const uint16_t w = s.ProcessedWriteIndex;
    if (r != w) {
      const SChoice choice = Choose(s, row, r, w, levels, waited);
      if (choice.Record) {
        const size_t lengthAt = levels ? kRecTotalBytesOffset : kRecSensorBytesOffset;
        c.SetBody(reinterpret_cast<const char*>(choice.Record + kRecHeaderOffset), GetRecU32(choice.Record, lengthAt));
        s.ProcessedReadIndex[row] = s.bBufferEnable[row] ? Next(r) : s.ProcessedWriteIndex.load();
        return kReplyRecord;
      }
      // No whole record in the slot (never written, or rewritten during the copy): skip it.
      r = Next(r);
      s.ProcessedReadIndex[row] = r;
    }
    if (r == s.ProcessedWriteIndex)
      if (const EWait why = WaitForRecord(s, row, r); why != EWait::kPublished) return notServed(why);
  }
}

int ServeNewestRecord(CCommandContext& c, const char* bufferedCommand) {
  CVr480Server& s = c.Server;
  const int row = c.Row;
  const uint16_t saved = s.ProcessedReadIndex[row];
  const uint16_t w = s.ProcessedWriteIndex;
  s.ProcessedReadIndex[row] = w == 0 ? kSlots - 1 : w - 1;
  // Through the dispatcher, so that the inner command also reaches the command history.
  char* body = nullptr;
  unsigned length = 0;
  const int code = s.ProcessCmd(static_cast<short>(c.Client), bufferedCommand, &body, &length);
  s.ProcessedReadIndex[row] = saved;
  c.SetBody(body, length);
  return code;
}

int ResumeAfterSweep(CCommandContext& c) {
  CVr480Server& s = c.Server;
  const std::string text = c.Col(1);
  char* end = nullptr;
  const unsigned long long after = std::strtoull(text.c_str(), &end, 10);
  if (text.empty() || *end != '\0' || text[0] == '-' || after > 0xFFFFFFFFull)
    return c.Reply("!Illegal sweep counter: %s\n", text.c_str());
  if (!s.ProcessedData) return c.Reply("!No records held.\n");
  // Walk back from the newest record while the records are newer than the one asked for. The
  // walk stops at a slot never written and at a sweep counter that rises going back (the
  // previous lap of the ring), and it keeps clear of the slots the producer is about to
  // refill: a second of records at the fastest rate.
  constexpr int kProducerMargin = static_cast<int>(kMaxRecordRate);
  const uint16_t w = s.ProcessedWriteIndex;
  uint16_t r = w;
  int held = 0;
  uint32_t newer = 0;
  for (; held < kSlots - kProducerMargin; ++held) {
    const uint16_t back = r == 0 ? kSlots - 1 : static_cast<uint16_t>(r - 1);
    const uint8_t* rec = SlotBytes(s, back);
    const uint32_t sweep = SweepOf(rec);
    if (!SizesValid(rec) || sweep <= after || (held > 0 && sweep >= newer)) break;
    newer = sweep;
    r = back;
  }
  s.ProcessedReadIndex[c.Row] = r;
  if (held == 0) return c.Reply("Resuming after sweep %llu: no record held after it.\n", after);
  return c.Reply("Resuming after sweep %llu: %d records held, from sweep %u.\n", after, held, newer);
}

int UnreadRecords(const CVr480Server& s, int row) {
  const int r = s.ProcessedReadIndex[row];
  const int w = s.ProcessedWriteIndex;
  return r <= w ? w - r : kSlots - (r - w);
}

}  // namespace data_commands

// Called by the session layer once a record reply has been written.
void CVr480Server::ReleaseClientRecord(uint16_t client) {
  const int row = ClientRow(client);
  const int32_t slot = ClientRecordInUse[row].exchange(-1);
  if (slot < 0 || slot >= kProcessedRingSlots || !ProcessedData) return;
  std::lock_guard<std::mutex> g(RecordSlotLock[slot % kRecordSlotLocks]);
  ProcessedData[static_cast<size_t>(slot) * kProcessedRecordBytes + kRecInUseOffset] = 0;
}
