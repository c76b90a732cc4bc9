#include "sim/SimRing.h"

#include <cstring>

namespace sim {

CSimRing::CSimRing() : Memory(new uint8_t[kBufferStride * kDmaBuffers]) {
  std::memset(Memory.get(), 0, kBufferStride * kDmaBuffers);
}

void CSimRing::Arm() {
  std::lock_guard<std::mutex> g(Lock);
  bArmed = true;
}

bool CSimRing::Armed() const {
  std::lock_guard<std::mutex> g(Lock);
  return bArmed;
}

void CSimRing::RequireProgrammedAddresses(bool required) {
  std::lock_guard<std::mutex> g(Lock);
  bRequireProgrammed = required;
}

void CSimRing::SetProgrammed(int index) {
  std::lock_guard<std::mutex> g(Lock);
  if (index >= 0 && index < kDmaBuffers) ProgrammedSlots[index] = true;
}

bool CSimRing::Programmed(int index) const {
  std::lock_guard<std::mutex> g(Lock);
  return index >= 0 && index < kDmaBuffers && ProgrammedSlots[index];
}

int CSimRing::Reserve() {
  std::lock_guard<std::mutex> g(Lock);
  if (!bArmed) return -1;
  // The next usable buffer in ring order: not the one the server is reading, and programmed
  // when the driver release requires it.
  int slot = -1;
  for (int k = 0; k < kDmaBuffers; ++k) {
    const int s = (NextSlot + k) % kDmaBuffers;
    if (s == Held) continue;
    if (bRequireProgrammed && !ProgrammedSlots[s]) continue;
    slot = s;
    break;
  }
  if (slot < 0) return -1;
  if (PendingSlots[slot]) {
    // Lapped: the buffer still holds an undelivered record. Keep only the newest record so
    // that the server resumes at the present, and count the overrun.
    const int newest = Queue[(QueueHead + QueueSize - 1) % kDmaBuffers];
    for (size_t i = 0; i + 1 < QueueSize; ++i) PendingSlots[Queue[(QueueHead + i) % kDmaBuffers]] = false;
    QueueHead = (QueueHead + QueueSize - 1) % kDmaBuffers;
    QueueSize = 1;
    ++OverrunCount;
    if (slot == newest) return -1;  // only possible with a single usable buffer
  }
  Reserved = slot;
  NextSlot = (slot + 1) % kDmaBuffers;
  return slot;
}

void CSimRing::Publish(int index) {
  {
    std::lock_guard<std::mutex> g(Lock);
    if (index != Reserved) return;
    Reserved = -1;
    PendingSlots[index] = true;
    Queue[(QueueHead + QueueSize) % kDmaBuffers] = index;
    ++QueueSize;
    ++WrittenCount;
  }
  DataCond.notify_all();
}

int CSimRing::HandOutLocked() {
  const int slot = Queue[QueueHead];
  QueueHead = (QueueHead + 1) % kDmaBuffers;
  --QueueSize;
  PendingSlots[slot] = false;
  Held = slot;
  ++DeliveredCount;
  return slot;
}

// Like a driver whose wait a signal can interrupt, the wait gives up after a second without a
// record, so that a server whose card stopped delivering can still notice a stop request.
int CSimRing::WaitForData(const std::atomic<bool>& stop) {
  int slot;
  {
    std::unique_lock<std::mutex> g(Lock);
    DataCond.wait_for(g, std::chrono::seconds(1), [&] { return QueueSize > 0 || stop.load(); });
    if (QueueSize == 0) return -1;
    slot = HandOutLocked();
  }
  RoomCond.notify_all();
  return slot;
}

int CSimRing::WaitForDataFor(std::chrono::nanoseconds timeout) {
  int slot;
  {
    std::unique_lock<std::mutex> g(Lock);
    if (!DataCond.wait_for(g, timeout, [&] { return QueueSize > 0; })) return -1;
    slot = HandOutLocked();
  }
  RoomCond.notify_all();
  return slot;
}

bool CSimRing::DataReady() const {
  std::lock_guard<std::mutex> g(Lock);
  return QueueSize > 0;
}

void CSimRing::WakeAll() {
  { std::lock_guard<std::mutex> g(Lock); }  // orders the caller's stop flag before the wake
  DataCond.notify_all();
  RoomCond.notify_all();
}

void CSimRing::WaitForRoom(size_t limit, const std::atomic<bool>& stop) {
  std::unique_lock<std::mutex> g(Lock);
  RoomCond.wait(g, [&] { return QueueSize < limit || stop.load(); });
}

size_t CSimRing::Undelivered() const {
  std::lock_guard<std::mutex> g(Lock);
  return QueueSize;
}

int CSimRing::LastHandedOut() const {
  std::lock_guard<std::mutex> g(Lock);
  return Held;
}

uint64_t CSimRing::Overruns() const {
  std::lock_guard<std::mutex> g(Lock);
  return OverrunCount;
}

uint64_t CSimRing::Written() const {
  std::lock_guard<std::mutex> g(Lock);
  return WrittenCount;
}

uint64_t CSimRing::Delivered() const {
  std::lock_guard<std::mutex> g(Lock);
  return DeliveredCount;
}

}  // namespace sim
