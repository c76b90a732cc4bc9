// The simulated driver's DMA ring: 512 record buffers the card fills in turn and the server
// maps into its address space.
//
// The card writes one record per reported sweep into the next buffer; "wait for data" hands
// out the oldest record not yet handed out, so the server sees consecutive sweeps (its
// spectrum build, client interleave and distance measurement depend on that). The server reads
// the buffer it was handed out last in place, so the card never writes into that one. When
// the card comes round to a buffer still holding an undelivered record it has lapped the
// server: it drops every undelivered record except the newest, counts an overrun, and carries
// on. With a driver release of 50 or above the card only fills buffers whose bus address the
// server has programmed.
//
// Buffers are 8192 bytes apart (the bus-address stride); a record uses the first 6176 bytes.
// Thread-safe: the producer reserves a buffer, fills it without holding the lock (no other
// party touches a reserved buffer) and publishes it; any number of threads may wait.
#pragma once

#include <array>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>

#include "device/PeaksData.h"

namespace sim {

constexpr size_t kBufferStride = 8192;
constexpr uint32_t kBusAddressBase = 0x1F400000;  // bus address of buffer 0

class CSimRing {
 public:
  CSimRing();

  // Arms the ring (the driver's start request); records are written only when armed.
  void Arm();
  bool Armed() const;
  // With `required` set, only buffers with a programmed address are filled.
  void RequireProgrammedAddresses(bool required);
  void SetProgrammed(int index);
  bool Programmed(int index) const;

  // Producer: reserves the next buffer to fill, or -1 when no buffer can take a record
  // (not armed, or none programmed). May lap the consumer (see above).
  int Reserve();
  struct_dma_peaks_data& Record(int index) { return *reinterpret_cast<struct_dma_peaks_data*>(Buffer(index)); }
  void Publish(int index);

  // Consumer: blocks until a record is undelivered, then hands it out. Returns -1 when `stop`
  // becomes true (checked whenever the ring is woken: WakeAll) before a record arrives.
  int WaitForData(const std::atomic<bool>& stop);
  // Waits at most `timeout`; -1 when nothing arrived.
  int WaitForDataFor(std::chrono::nanoseconds timeout);
  bool DataReady() const;
  // Wakes every waiter so that it re-checks its stop flag.
  void WakeAll();

  // Free-running producer: waits until fewer than `limit` records are undelivered, or `stop`.
  void WaitForRoom(size_t limit, const std::atomic<bool>& stop);

  uint8_t* Buffer(int index) { return Memory.get() + kBufferStride * static_cast<size_t>(index); }
  static uint32_t BusAddress(int index) { return kBusAddressBase + kBufferStride * index; }

  size_t Undelivered() const;
  int LastHandedOut() const;    // -1 before the first hand-out
  uint64_t Overruns() const;     // laps counted
  uint64_t Written() const;      // records published
  uint64_t Delivered() const;    // records handed out

 private:
  int HandOutLocked();

  std::unique_ptr<uint8_t[]> Memory;  // kDmaBuffers x kBufferStride bytes

  mutable std::mutex Lock;            // guards everything below
  std::condition_variable DataCond;   // a record was published, or WakeAll
  std::condition_variable RoomCond;   // a record was handed out, or WakeAll
  bool bArmed = false;
  bool bRequireProgrammed = false;
  std::array<bool, kDmaBuffers> ProgrammedSlots{};
  std::array<bool, kDmaBuffers> PendingSlots{};  // holds an undelivered record
  std::array<int, kDmaBuffers> Queue{};          // undelivered buffers, oldest first (circular)
  size_t QueueHead = 0;
  size_t QueueSize = 0;
  int NextSlot = 0;        // where the producer looks first
  int Held = -1;           // buffer handed out last; never written
  int Reserved = -1;       // buffer being filled
  uint64_t OverrunCount = 0;
  uint64_t WrittenCount = 0;
  uint64_t DeliveredCount = 0;
};

}  // namespace sim
