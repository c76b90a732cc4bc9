#include "processing/WvlAvg.h"

#include <gtest/gtest.h>

#include <cstddef>
#include <deque>
#include <new>
#include <numeric>
#include <string>

namespace {
// Non-throwing array allocations let through before one fails (-1: none fails); only the averaging buffers use this new.
int AllocationsBeforeFailure = -1;
}  // namespace

// Replaces the library's non-throwing array new so that Init's failures can be driven one by one.
void* operator new[](std::size_t size, const std::nothrow_t&) noexcept {
  if (AllocationsBeforeFailure == 0) {
    AllocationsBeforeFailure = -1;
    return nullptr;
  }
  if (AllocationsBeforeFailure > 0) --AllocationsBeforeFailure;
  try { return ::operator new[](size); } catch (...) { return nullptr; }
}

namespace {
int QuietInit(CVr480WvlAvg& avg, uint8_t channels, uint16_t sensors, uint16_t capacity) {
  testing::internal::CaptureStdout();
  const int r = avg.Init(channels, sensors, capacity);
  testing::internal::GetCapturedStdout();
  return r;
}
}  // namespace

// Guards the sliding mean: wrap-around, 64-bit sums, truncation toward zero, ignored strays.
TEST(WvlAvg, RingFillsThenSlidesAndTruncatesTowardZero) {
  CVr480WvlAvg avg;
  EXPECT_EQ(avg.AddValue(0, 0, 5), kWvlAvgOk);  // ignored before Init
  ASSERT_EQ(QuietInit(avg, 4, 250, 100), kWvlAvgOk);
  EXPECT_EQ(avg.GetTargetNumAvg(3, 249), 1);
  EXPECT_EQ(avg.GetAverage(3, 249), kWvlAvgNoValue);

  avg.SetTargetNumAvg(3, 100, 7);
  std::deque<int64_t> window;
  for (int i = 0; i < 1000; ++i) {
    const int32_t v = (i * 7919) % 2001 - 1000 + (i % 3 == 0 ? 2000000000 : -2000000000);
    avg.AddValue(3, 100, v);
    window.push_back(v);
    if (window.size() > 7) window.pop_front();
    const int64_t sum = std::accumulate(window.begin(), window.end(), int64_t{0});
    ASSERT_EQ(avg.GetAverage(3, 100), sum / static_cast<int64_t>(window.size())) << i;
    ASSERT_EQ(avg.GetNumAvg(3, 100), static_cast<uint16_t>(window.size())) << i;
  }
  avg.SetTargetNumAvg(2, 0, 2);
  avg.AddValue(2, 0, -1);
  avg.AddValue(2, 0, -2);
  EXPECT_EQ(avg.GetAverage(2, 0), -1);

  avg.AddValue(0, 0, 1234);
  avg.AddValue(0, 0, -99);
  EXPECT_EQ(avg.AddValue(4, 0, 1), kWvlAvgOk);
  EXPECT_EQ(avg.AddValue(0, 250, 1), kWvlAvgOk);
  EXPECT_EQ(avg.GetAverage(0, 0), -99);
  EXPECT_EQ(avg.GetNumAvg(0, 0), 1);
}

// Guards the console texts of Init, the refused second Init, Close/Init with a new shape, and the
// target checks (0 raised to 1, beyond capacity refused with the ring kept).
TEST(WvlAvg, InitCloseAndTheirConsoleTexts) {
  CVr480WvlAvg avg;
  ASSERT_EQ(QuietInit(avg, 4, 250, 10000), kWvlAvgOk);  // its text: with the failures below
  avg.SetTargetNumAvg(3, 249, 10000);
  avg.AddValue(3, 249, 42);

  testing::internal::CaptureStdout();
  EXPECT_EQ(avg.Init(16, 250, 2500), kWvlAvgAlreadyInitialised);
  EXPECT_EQ(testing::internal::GetCapturedStdout(),
            "Illegal attempt to re-initialize the running average arrays.\n(Hint: You must call Close() first.)\n");
  EXPECT_EQ(avg.GetAverage(3, 249), 42);
  EXPECT_EQ(avg.SetTargetNumAvg(3, 249, 10001), kWvlAvgOutOfRange);
  EXPECT_EQ(avg.GetAverage(3, 249), 42);
  EXPECT_EQ(avg.SetTargetNumAvg(3, 249, 0), kWvlAvgTargetRaised);
  EXPECT_EQ(avg.GetTargetNumAvg(3, 249), 1);

  EXPECT_EQ(avg.Close(), kWvlAvgOk);
  EXPECT_EQ(avg.SetTargetNumAvg(1), kWvlAvgNotInitialised);
  ASSERT_EQ(QuietInit(avg, 16, 250, 2500), kWvlAvgOk);  // a new shape, as on a multiplexer change
  EXPECT_EQ(avg.GetTargetNumAvg(15, 249), 1);
  EXPECT_EQ(avg.SetTargetNumAvg(3, 249, 10000), kWvlAvgOutOfRange);
  EXPECT_EQ(avg.Close(), kWvlAvgOk);
  EXPECT_EQ(avg.Close(), kWvlAvgOk);
}

// Guards every allocation failure of Init: its text, and the object left closed and reusable.
TEST(WvlAvg, FailedAllocationIsReportedAndLeavesTheObjectClosed) {
  // Init(2, 3, 5) makes 24 allocations in a fixed order; each row fails one of them.
  const std::pair<int, const char*> cases[] = {
      {0, "2 double pointers for variable Sum"},           {2, "3 doubles for variable Sum[i]"},
      {3, "2 int32_t pointer pointers for variable Values"}, {8, "3 int32_t pointers for variable Values[i]"},
      {10, "5 int32_t's for variable Values[i][j]"},       {12, "2 uint16_t pointers for variable NewestIndex"},
      {14, "3 uint16_t for variable NewestIndex[i]"},      {15, "2 uint16_t for variable OldestIndex"},
      {16, "3 uint16_t for variable OldestIndex[i]"},      {18, "2 uint16_t pointers for variable TargetNumAvg"},
      {20, "3 uint16_t for variable TargetNumAvg[i]"},     {21, "2 uint16_t for variable CurrentNumAvg"},
      {23, "3 uint16_t for variable CurrentNumAvg[i]"},
  };
  for (const auto& [allocation, text] : cases) {
    CVr480WvlAvg avg;
    testing::internal::CaptureStdout();
    AllocationsBeforeFailure = allocation;
    const int r = avg.Init(2, 3, 5);
    AllocationsBeforeFailure = -1;
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              std::string("Attempting to allocate 276 bytes for averaging buffers...\nfailed to allocate ") + text +
                  " in CVr480WvlAvg:Init().\n");
    EXPECT_EQ(r, kWvlAvgAllocFailed) << allocation;
    EXPECT_EQ(avg.Reset(), kWvlAvgNotInitialised);
    EXPECT_EQ(avg.AddValue(0, 0, 1), kWvlAvgOk);
    ASSERT_EQ(QuietInit(avg, 2, 3, 5), kWvlAvgOk) << allocation;
    EXPECT_EQ(avg.GetTargetNumAvg(1, 2), 1);
  }
  CVr480WvlAvg avg;  // one allocation more than the list: Init completes
  AllocationsBeforeFailure = 24;
  EXPECT_EQ(QuietInit(avg, 2, 3, 5), kWvlAvgOk);
  EXPECT_EQ(AllocationsBeforeFailure, 0);
  AllocationsBeforeFailure = -1;
}
