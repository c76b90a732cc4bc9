// Running averages of sensor wavelengths.
//
// Every sensor's wavelength is published as the mean of its last N values, N chosen per sensor
// (1 … capacity). CVr480WvlAvg keeps, for every logical channel (multiplexer layer × 4 + DUT
// channel) and sensor, a ring of the last N values and their running sum.
//
// Cost model: adding a value and reading the average are constant work whatever N is (one
// subtraction and one addition on the sum, no loop, no allocation after Init). Memory pays for
// it: every ring is allocated at full capacity when Init runs, so changing N never allocates;
// 4 channels × 250 sensors × 10000 values take 40,000,000 bytes of rings.
//
// Threads: AddValue and GetAverage run on the acquisition thread; the setters and resets come
// from client threads without a lock. The ring indices wrap with ">=" and the fill test is "<",
// so a setter racing AddValue can at worst leave that one ring's average off until its next
// reset; it never makes AddValue write outside its ring.
#pragma once

#include <cstdint>
#include <limits>
#include <memory>

constexpr int kWvlAvgOk = 0;
constexpr int kWvlAvgAllocFailed = -12;
constexpr int kWvlAvgNotInitialised = -13;
constexpr int kWvlAvgAlreadyInitialised = -14;
constexpr int kWvlAvgTargetRaised = -15;  // a target of 0 was stored as 1
constexpr int kWvlAvgOutOfRange = -16;    // channel, sensor or target; nothing changed

// GetAverage of a sensor whose ring is empty (just initialised, reset or given a new target).
constexpr int32_t kWvlAvgNoValue = std::numeric_limits<int32_t>::min();

class CVr480WvlAvg {
 public:
  CVr480WvlAvg() = default;
  ~CVr480WvlAvg();
  CVr480WvlAvg(const CVr480WvlAvg&) = delete;
  CVr480WvlAvg& operator=(const CVr480WvlAvg&) = delete;

  // Allocates the buffers for `channels` × `sensors` rings of `capacity` values; every target
  // starts at 1 and every ring empty. Reports on standard output what it allocates and, on
  // failure, which allocation failed (the object is then closed again).
  // kWvlAvgOk, kWvlAvgAllocFailed or kWvlAvgAlreadyInitialised (nothing changes).
  int Init(uint8_t channels, uint16_t sensors, uint16_t capacity);
  // Frees everything; the object may be initialised again. Always kWvlAvgOk.
  int Close();

  // Adds one value to a ring. Ignored when not initialised or out of range. Always kWvlAvgOk.
  int AddValue(uint8_t ch, uint16_t sensor, int32_t value);
  // Mean of the values in the ring, truncated toward zero; kWvlAvgNoValue when empty.
  // The caller keeps ch and sensor in range of an initialised object: there is no check.
  int32_t GetAverage(uint8_t ch, uint16_t sensor) const;
  // AddValue, then GetAverage of the same ring, with the same arithmetic: the pipeline's call
  // for every averaged sensor of every record, kept inline so that a record's thousand sensors
  // do not pay two calls each. Same precondition as GetAverage.
  int32_t AddAndAverage(uint8_t ch, uint16_t sensor, int32_t value);
  // Number of values now in the ring (no check, as GetAverage).
  uint16_t GetNumAvg(uint8_t ch, uint16_t sensor) const;

  // A new target empties the ring it applies to. A target of 0 is stored as 1.
  // Every sensor of every channel; per-sensor refusals are not reported. 0 or -13.
  int SetTargetNumAvg(uint16_t target);
  // Every sensor of one channel; per-sensor refusals are not reported. 0, -13 or -16.
  int SetTargetNumAvg(uint8_t ch, uint16_t target);
  // 0, -13, -15 (stored as 1) or -16 (channel, sensor or target above capacity; unchanged).
  int SetTargetNumAvg(uint8_t ch, uint16_t sensor, uint16_t target);
  // The target in force; 0 when not initialised or out of range.
  uint16_t GetTargetNumAvg(uint8_t ch, uint16_t sensor) const;

  // Empty the rings of everything / one channel / one sensor. 0, -13 or -16.
  int Reset();
  int Reset(uint8_t ch);
  int Reset(uint8_t ch, uint16_t sensor);

  // Bytes that Init(channels, sensors, capacity) allocates, estimated as
  // 4·C·S·M + 16·C·S + 4·S + 24·C.
  static uint64_t GetMemoryRequired(uint8_t channels, uint16_t sensors, uint16_t capacity);
  // Logical channels the store is built for (0 while closed).
  uint8_t GetNumChannels() const { return NumChannels; }
  // Values every ring can hold (0 while closed).
  uint16_t GetCapacity() const { return MaxNumAvg; }

 private:
  template <typename T>
  using Owned = std::unique_ptr<T[]>;

  bool AllocateBuffers();  // prints which allocation failed; Init closes on false
  void ResetRing(uint8_t ch, uint16_t sensor);
  bool InRange(uint8_t ch, uint16_t sensor) const { return ch < NumChannels && sensor < NumSensors; }

  Owned<Owned<double>> Sum;                // [ch][sensor]: sum of the values now in the ring
  Owned<Owned<Owned<int32_t>>> Values;     // [ch][sensor][MaxNumAvg]: ring of the last values
  Owned<Owned<uint16_t>> CurrentNumAvg;    // [ch][sensor]: values now in the ring, ≤ target
  Owned<Owned<uint16_t>> TargetNumAvg;     // [ch][sensor]: ring length N, 1 … MaxNumAvg
  Owned<Owned<uint16_t>> NewestIndex;      // [ch][sensor]: slot the next value goes into
  Owned<Owned<uint16_t>> OldestIndex;      // [ch][sensor]: slot of the oldest value
  uint8_t bInitialised = 0;                // buffers allocated; Init sets, Close clears
  uint8_t NumChannels = 0;                 // logical channels (multiplexer layers × 4)
  uint16_t NumSensors = 0;                 // sensors per channel
  uint16_t MaxNumAvg = 0;                  // capacity of every ring, in values
};

inline int32_t CVr480WvlAvg::AddAndAverage(uint8_t ch, uint16_t sensor, int32_t value) {
  // The target is read once: a client thread may change it (and reset the ring) meanwhile.
  const uint16_t target = TargetNumAvg[ch][sensor];
  int32_t* ring = Values[ch][sensor].get();
  double& sum = Sum[ch][sensor];
  uint16_t& count = CurrentNumAvg[ch][sensor];
  if (count < target) {
    ++count;  // still filling: nothing drops out
  } else {
    uint16_t& oldest = OldestIndex[ch][sensor];
    sum -= ring[oldest];
    if (++oldest >= target) oldest = 0;
  }
  uint16_t& newest = NewestIndex[ch][sensor];
  ring[newest] = value;
  sum += value;
  if (++newest >= target) newest = 0;
  if (count == 0) return kWvlAvgNoValue;  // as GetAverage
  return static_cast<int32_t>(sum / count);
}
