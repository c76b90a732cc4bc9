#include "processing/WvlAvg.h"

#include <gtest/gtest.h>

#include <cstddef>
#include <deque>
#include <new>
#include <numeric>
#include <string>

namespace {
// Number of non-throwing array allocations to let through before one fails; -1 never fails.
// Only the averaging buffers use this form of new, and only while a test has armed it.
int AllocationsBeforeFailure = -1;
}  // namespace

// Stands in for the library's non-throwing array new in this test program so that Init's
// failure paths can be driven one allocation at a time.
void* operator new[](std::size_t size, const std::nothrow_t&) noexcept {
  if (AllocationsBeforeFailure == 0) {
    AllocationsBeforeFailure = -1;
    return nullptr;
  }
  if (AllocationsBeforeFailure > 0) --AllocationsBeforeFailure;
  try {
    return ::operator new[](size);
  } catch (...) {
    return nullptr;
  }
}

namespace {

int QuietInit(CVr480WvlAvg& avg, uint8_t channels, uint16_t sensors, uint16_t capacity) {
  testing::internal::CaptureStdout();
  int r = avg.Init(channels, sensors, capacity);
  testing::internal::GetCapturedStdout();
  return r;
}

}  // namespace

TEST(WvlAvg, RingFillsThenSlidesAndTruncatesTowardZero) {
  CVr480WvlAvg avg;
  EXPECT_EQ(avg.AddValue(0, 0, 5), kWvlAvgOk);  // ignored before Init
  ASSERT_EQ(QuietInit(avg, 4, 250, 100), kWvlAvgOk);
  EXPECT_EQ(avg.GetTargetNumAvg(3, 249), 1);
  EXPECT_EQ(avg.GetAverage(3, 249), kWvlAvgNoValue);
  EXPECT_EQ(kWvlAvgNoValue, -2147483647 - 1);

  // Against the plain mean of the last N values (truncated toward zero, as -3 / 2 is -1),
  // while the ring fills and across many wraps, with sums far beyond 32 bits.
  avg.SetTargetNumAvg(3, 100, 7);
  std::deque<int64_t> window;
  for (int i = 0; i < 1000; ++i) {
    int32_t v = (i * 7919) % 2001 - 1000 + (i % 3 == 0 ? 2000000000 : -2000000000);
    avg.AddValue(3, 100, v);
    window.push_back(v);
    if (window.size() > 7) window.pop_front();
    int64_t sum = std::accumulate(window.begin(), window.end(), int64_t{0});
    ASSERT_EQ(avg.GetAverage(3, 100), sum / static_cast<int64_t>(window.size())) << i;
    ASSERT_EQ(avg.GetNumAvg(3, 100), static_cast<uint16_t>(window.size())) << i;
  }
  avg.SetTargetNumAvg(2, 0, 2);
  avg.AddValue(2, 0, -1);
  avg.AddValue(2, 0, -2);
  EXPECT_EQ(avg.GetAverage(2, 0), -1);

  // With target 1 the average is simply the latest value; out of range values disturb nothing.
  avg.AddValue(0, 0, 1234);
  avg.AddValue(0, 0, -99);
  EXPECT_EQ(avg.AddValue(4, 0, 1), kWvlAvgOk);
  EXPECT_EQ(avg.AddValue(0, 250, 1), kWvlAvgOk);
  EXPECT_EQ(avg.GetAverage(0, 0), -99);
  EXPECT_EQ(avg.GetNumAvg(0, 0), 1);
}

TEST(WvlAvg, TargetsAreCheckedAndANewTargetEmptiesTheRing) {
  CVr480WvlAvg avg;
  EXPECT_EQ(avg.SetTargetNumAvg(0, 0, 5), kWvlAvgNotInitialised);
  ASSERT_EQ(QuietInit(avg, 8, 250, 1250), kWvlAvgOk);

  // A target of 0 is stored as 1 and says so.
  EXPECT_EQ(avg.SetTargetNumAvg(0, 0, 40), kWvlAvgOk);
  EXPECT_EQ(avg.SetTargetNumAvg(0, 0, 0), kWvlAvgTargetRaised);
  EXPECT_EQ(avg.GetTargetNumAvg(0, 0), 1);

  // Above capacity or out of range: refused, nothing changes, the ring keeps its values.
  EXPECT_EQ(avg.SetTargetNumAvg(0, 1, 1250), kWvlAvgOk);
  avg.AddValue(0, 1, 8);
  avg.AddValue(0, 1, 4);
  EXPECT_EQ(avg.SetTargetNumAvg(0, 1, 1251), kWvlAvgOutOfRange);
  EXPECT_EQ(avg.SetTargetNumAvg(8, 1, 5), kWvlAvgOutOfRange);
  EXPECT_EQ(avg.SetTargetNumAvg(0, 250, 5), kWvlAvgOutOfRange);
  EXPECT_EQ(avg.GetTargetNumAvg(0, 1), 1250);
  EXPECT_EQ(avg.GetAverage(0, 1), 6);
  EXPECT_EQ(avg.GetTargetNumAvg(8, 0), 0);

  // Any accepted target, even the same one, starts the ring again.
  EXPECT_EQ(avg.SetTargetNumAvg(0, 1, 1250), kWvlAvgOk);
  avg.AddValue(0, 1, 100);
  EXPECT_EQ(avg.GetAverage(0, 1), 100);

  // One channel: every sensor of it, no other channel.
  avg.AddValue(2, 0, 50);
  EXPECT_EQ(avg.SetTargetNumAvg(3, 20), kWvlAvgOk);
  EXPECT_EQ(avg.GetTargetNumAvg(3, 249), 20);
  EXPECT_EQ(avg.GetTargetNumAvg(2, 0), 1);
  EXPECT_EQ(avg.GetAverage(2, 0), 50);
  EXPECT_EQ(avg.SetTargetNumAvg(8, 20), kWvlAvgOutOfRange);
  EXPECT_EQ(avg.SetTargetNumAvg(3, 5000), kWvlAvgOk);  // per-sensor refusals are not reported
  EXPECT_EQ(avg.GetTargetNumAvg(3, 10), 20);

  // Everything: per-sensor refusals are not reported either.
  EXPECT_EQ(avg.SetTargetNumAvg(9), kWvlAvgOk);
  EXPECT_EQ(avg.GetTargetNumAvg(7, 249), 9);
  EXPECT_EQ(avg.GetNumAvg(2, 0), 0);
  EXPECT_EQ(avg.SetTargetNumAvg(1251), kWvlAvgOk);
  EXPECT_EQ(avg.GetTargetNumAvg(5, 5), 9);
  EXPECT_EQ(avg.SetTargetNumAvg(0), kWvlAvgOk);
  EXPECT_EQ(avg.GetTargetNumAvg(5, 5), 1);
}

TEST(WvlAvg, InitCloseAndTheirConsoleTexts) {
  EXPECT_EQ(CVr480WvlAvg::GetMemoryRequired(4, 250, 10000), 40017096u);
  EXPECT_EQ(CVr480WvlAvg::GetMemoryRequired(255, 65535, 65535),
            4ull * 255 * 65535 * 65535 + 16ull * 255 * 65535 + 4ull * 65535 + 24ull * 255);

  CVr480WvlAvg avg;
  testing::internal::CaptureStdout();
  ASSERT_EQ(avg.Init(4, 250, 10000), kWvlAvgOk);
  EXPECT_EQ(testing::internal::GetCapturedStdout(),
            "Attempting to allocate 40017096 bytes for averaging buffers...\n");
  avg.SetTargetNumAvg(3, 249, 10000);
  avg.AddValue(3, 249, 42);

  // A second Init changes nothing.
  testing::internal::CaptureStdout();
  EXPECT_EQ(avg.Init(16, 250, 2500), kWvlAvgAlreadyInitialised);
  EXPECT_EQ(testing::internal::GetCapturedStdout(),
            "Illegal attempt to re-initialize the running average arrays.\n"
            "(Hint: You must call Close() first.)\n");
  EXPECT_EQ(avg.GetTargetNumAvg(3, 249), 10000);
  EXPECT_EQ(avg.GetAverage(3, 249), 42);
  EXPECT_EQ(avg.GetTargetNumAvg(4, 0), 0);

  // Close then Init with a new shape, as on a multiplexer change.
  EXPECT_EQ(avg.Close(), kWvlAvgOk);
  EXPECT_EQ(avg.GetTargetNumAvg(3, 249), 0);
  EXPECT_EQ(avg.SetTargetNumAvg(1), kWvlAvgNotInitialised);
  ASSERT_EQ(QuietInit(avg, 16, 250, 2500), kWvlAvgOk);
  EXPECT_EQ(avg.GetTargetNumAvg(15, 249), 1);
  EXPECT_EQ(avg.GetNumAvg(3, 249), 0);
  EXPECT_EQ(avg.SetTargetNumAvg(3, 249, 10000), kWvlAvgOutOfRange);
  EXPECT_EQ(avg.Close(), kWvlAvgOk);
  EXPECT_EQ(avg.Close(), kWvlAvgOk);
}

TEST(WvlAvg, FailedAllocationIsReportedAndLeavesTheObjectClosed) {
  // Init(2, 3, 5) makes 24 allocations in a fixed order; each row fails one of them.
  struct Case {
    int allocation;
    const char* text;
  };
  const Case cases[] = {
      {0, "2 double pointers for variable Sum in CVr480WvlAvg:Init().\n"},
      {2, "3 doubles for variable Sum[i] in CVr480WvlAvg:Init().\n"},
      {3, "2 int32_t pointer pointers for variable Values in CVr480WvlAvg:Init().\n"},
      {8, "3 int32_t pointers for variable Values[i] in CVr480WvlAvg:Init().\n"},
      {10, "5 int32_t's for variable Values[i][j] in CVr480WvlAvg:Init().\n"},
      {12, "2 uint16_t pointers for variable NewestIndex in CVr480WvlAvg:Init().\n"},
      {14, "3 uint16_t for variable NewestIndex[i] in CVr480WvlAvg:Init().\n"},
      {15, "2 uint16_t for variable OldestIndex in CVr480WvlAvg:Init().\n"},
      {16, "3 uint16_t for variable OldestIndex[i] in CVr480WvlAvg:Init().\n"},
      {18, "2 uint16_t pointers for variable TargetNumAvg in CVr480WvlAvg:Init().\n"},
      {20, "3 uint16_t for variable TargetNumAvg[i] in CVr480WvlAvg:Init().\n"},
      {21, "2 uint16_t for variable CurrentNumAvg in CVr480WvlAvg:Init().\n"},
      {23, "3 uint16_t for variable CurrentNumAvg[i] in CVr480WvlAvg:Init().\n"},
  };
  for (const Case& c : cases) {
    CVr480WvlAvg avg;
    testing::internal::CaptureStdout();
    AllocationsBeforeFailure = c.allocation;
    int r = avg.Init(2, 3, 5);
    AllocationsBeforeFailure = -1;
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              std::string("Attempting to allocate 276 bytes for averaging buffers...\n"
                          "failed to allocate ") + c.text);
    EXPECT_EQ(r, kWvlAvgAllocFailed) << c.allocation;
    EXPECT_EQ(avg.GetTargetNumAvg(0, 0), 0);
    EXPECT_EQ(avg.Reset(), kWvlAvgNotInitialised);
    EXPECT_EQ(avg.AddValue(0, 0, 1), kWvlAvgOk);
    ASSERT_EQ(QuietInit(avg, 2, 3, 5), kWvlAvgOk) << c.allocation;
    EXPECT_EQ(avg.GetTargetNumAvg(1, 2), 1);
  }

  // One allocation more than the list above: Init completes.
  CVr480WvlAvg avg;
  AllocationsBeforeFailure = 24;
  EXPECT_EQ(QuietInit(avg, 2, 3, 5), kWvlAvgOk);
  EXPECT_EQ(AllocationsBeforeFailure, 0);
  AllocationsBeforeFailure = -1;
}
