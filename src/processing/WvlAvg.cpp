#include "processing/WvlAvg.h"

#include <cassert>
#include <cinttypes>
#include <cstdio>
#include <new>

namespace {

// Allocates `count` elements without throwing: the server reports a failed allocation on the
// console and keeps running without averages rather than dying at start-up or on a multiplexer
// change. `what` is the text printed after the count.
template <typename T>
bool Allocate(std::unique_ptr<T[]>& array, uint32_t count, const char* what) {
  array.reset(new (std::nothrow) T[count]);
  if (array) return true;
  std::printf("failed to allocate %" PRIu32 "%s", count, what);
  return false;
}

// One table of indices per channel: NewestIndex, OldestIndex, TargetNumAvg and CurrentNumAvg
// share this shape and differ only in their failure texts.
bool AllocateTable(std::unique_ptr<std::unique_ptr<uint16_t[]>[]>& table, uint8_t channels,
                   uint16_t sensors, const char* whatOuter, const char* whatInner) {
  if (!Allocate(table, channels, whatOuter)) return false;
  for (uint32_t i = 0; i < channels; ++i)
    if (!Allocate(table[i], sensors, whatInner)) return false;
  return true;
}

}  // namespace

CVr480WvlAvg::~CVr480WvlAvg() { Close(); }

int CVr480WvlAvg::Init(uint8_t channels, uint16_t sensors, uint16_t capacity) {
  if (bInitialised) {
    std::printf("Illegal attempt to re-initialize the running average arrays.\n");
    std::printf("(Hint: You must call Close() first.)\n");
    return kWvlAvgAlreadyInitialised;
  }
  NumChannels = channels;
  NumSensors = sensors;
  MaxNumAvg = capacity;
  std::printf("Attempting to allocate %" PRIu64 " bytes for averaging buffers...\n",
              GetMemoryRequired(channels, sensors, capacity));
  if (!AllocateBuffers()) {
    Close();
    return kWvlAvgAllocFailed;
  }
  for (uint32_t ch = 0; ch < NumChannels; ++ch)
    for (uint32_t s = 0; s < NumSensors; ++s) {
      TargetNumAvg[ch][s] = 1;
      ResetRing(ch, s);
    }
  bInitialised = 1;
  return kWvlAvgOk;
}

bool CVr480WvlAvg::AllocateBuffers() {
  const uint8_t c = NumChannels;
  const uint16_t s = NumSensors;
  // A ring always holds at least the one value a target of 1 needs, even at capacity 0.
  const uint32_t ringLength = MaxNumAvg > 0 ? MaxNumAvg : 1;

  if (!Allocate(Sum, c, " double pointers for variable Sum in CVr480WvlAvg:Init().\n"))
    return false;
  for (uint32_t i = 0; i < c; ++i)
    if (!Allocate(Sum[i], s, " doubles for variable Sum[i] in CVr480WvlAvg:Init().\n"))
      return false;

  // The rings are left uninitialised: a slot is read only after AddValue has written it, and
  // not touching 40 MB keeps a re-initialisation on a multiplexer change quick.
  if (!Allocate(Values, c,
                " int32_t pointer pointers for variable Values in CVr480WvlAvg:Init().\n"))
    return false;
  for (uint32_t i = 0; i < c; ++i) {
    if (!Allocate(Values[i], s,
                  " int32_t pointers for variable Values[i] in CVr480WvlAvg:Init().\n"))
      return false;
    for (uint32_t j = 0; j < s; ++j)
      if (!Allocate(Values[i][j], ringLength,
                    " int32_t's for variable Values[i][j] in CVr480WvlAvg:Init().\n"))
        return false;
  }

  return AllocateTable(NewestIndex, c, s,
                       " uint16_t pointers for variable NewestIndex in CVr480WvlAvg:Init().\n",
                       " uint16_t for variable NewestIndex[i] in CVr480WvlAvg:Init().\n") &&
         AllocateTable(OldestIndex, c, s,
                       " uint16_t for variable OldestIndex in CVr480WvlAvg:Init().\n",
                       " uint16_t for variable OldestIndex[i] in CVr480WvlAvg:Init().\n") &&
         AllocateTable(TargetNumAvg, c, s,
                       " uint16_t pointers for variable TargetNumAvg in CVr480WvlAvg:Init().\n",
                       " uint16_t for variable TargetNumAvg[i] in CVr480WvlAvg:Init().\n") &&
         AllocateTable(CurrentNumAvg, c, s,
                       " uint16_t for variable CurrentNumAvg in CVr480WvlAvg:Init().\n",
                       " uint16_t for variable CurrentNumAvg[i] in CVr480WvlAvg:Init().\n");
}

int CVr480WvlAvg::Close() {
  bInitialised = 0;
  Sum.reset();
  Values.reset();
  CurrentNumAvg.reset();
  TargetNumAvg.reset();
  NewestIndex.reset();
  OldestIndex.reset();
  NumChannels = 0;
  NumSensors = 0;
  MaxNumAvg = 0;
  return kWvlAvgOk;
}

int CVr480WvlAvg::AddValue(uint8_t ch, uint16_t sensor, int32_t value) {
  if (!bInitialised || !InRange(ch, sensor)) return kWvlAvgOk;
  AddAndAverage(ch, sensor, value);
  return kWvlAvgOk;
}

int32_t CVr480WvlAvg::GetAverage(uint8_t ch, uint16_t sensor) const {
  assert(bInitialised && InRange(ch, sensor));
  const uint16_t count = CurrentNumAvg[ch][sensor];
  if (count == 0) return kWvlAvgNoValue;
  // The sum holds integers well below 2^53, so it is exact; the cast truncates toward zero.
  return static_cast<int32_t>(Sum[ch][sensor] / count);
}

uint16_t CVr480WvlAvg::GetNumAvg(uint8_t ch, uint16_t sensor) const {
  assert(bInitialised && InRange(ch, sensor));
  return CurrentNumAvg[ch][sensor];
}

int CVr480WvlAvg::SetTargetNumAvg(uint16_t target) {
  if (!bInitialised) return kWvlAvgNotInitialised;
  for (uint32_t ch = 0; ch < NumChannels; ++ch)
    for (uint32_t s = 0; s < NumSensors; ++s) SetTargetNumAvg(ch, s, target);
  return kWvlAvgOk;
}

int CVr480WvlAvg::SetTargetNumAvg(uint8_t ch, uint16_t target) {
  if (!bInitialised) return kWvlAvgNotInitialised;
  if (ch >= NumChannels) return kWvlAvgOutOfRange;
  for (uint32_t s = 0; s < NumSensors; ++s) SetTargetNumAvg(ch, s, target);
  return kWvlAvgOk;
}

int CVr480WvlAvg::SetTargetNumAvg(uint8_t ch, uint16_t sensor, uint16_t target) {
  if (!bInitialised) return kWvlAvgNotInitialised;
  int result = kWvlAvgOk;
  if (target == 0) {
    // Averaging over no values has no meaning; the nearest valid length is used instead.
    target = 1;
    result = kWvlAvgTargetRaised;
  }
  if (!InRange(ch, sensor) || target > MaxNumAvg) return kWvlAvgOutOfRange;
  // The ring's old values belong to a different window; keeping them would mix lengths.
  TargetNumAvg[ch][sensor] = target;
  ResetRing(ch, sensor);
  return result;
}

uint16_t CVr480WvlAvg::GetTargetNumAvg(uint8_t ch, uint16_t sensor) const {
  if (!bInitialised || !InRange(ch, sensor)) return 0;
  return TargetNumAvg[ch][sensor];
}

int CVr480WvlAvg::Reset() {
  if (!bInitialised) return kWvlAvgNotInitialised;
  for (uint32_t ch = 0; ch < NumChannels; ++ch)
    for (uint32_t s = 0; s < NumSensors; ++s) ResetRing(ch, s);
  return kWvlAvgOk;
}

int CVr480WvlAvg::Reset(uint8_t ch) {
  if (!bInitialised) return kWvlAvgNotInitialised;
  if (ch >= NumChannels) return kWvlAvgOutOfRange;
  for (uint32_t s = 0; s < NumSensors; ++s) ResetRing(ch, s);
  return kWvlAvgOk;
}

int CVr480WvlAvg::Reset(uint8_t ch, uint16_t sensor) {
  if (!bInitialised) return kWvlAvgNotInitialised;
  if (!InRange(ch, sensor)) return kWvlAvgOutOfRange;
  ResetRing(ch, sensor);
  return kWvlAvgOk;
}

uint64_t CVr480WvlAvg::GetMemoryRequired(uint8_t channels, uint16_t sensors, uint16_t capacity) {
  const uint64_t c = channels, s = sensors, m = capacity;
  return 4 * c * s * m + 16 * c * s + 4 * s + 24 * c;
}

void CVr480WvlAvg::ResetRing(uint8_t ch, uint16_t sensor) {
  Sum[ch][sensor] = 0.0;
  NewestIndex[ch][sensor] = 0;
  OldestIndex[ch][sensor] = 0;
  CurrentNumAvg[ch][sensor] = 0;
  Values[ch][sensor][0] = 0;
}
