// A failure that repeats every sweep prints once, then at most once per interval with the
// number of occurrences held back.
#include <gtest/gtest.h>

#include <chrono>
#include <cstdio>
#include <string>
#include <thread>

#include "server/RepeatingMessage.h"

TEST(RepeatingMessage, PrintsOnceThenOncePerIntervalWithTheCountHeldBack) {
  // An interval far longer than the calls between two looks take, even on a loaded machine.
  CRepeatingMessage message(std::chrono::seconds(2));
  testing::internal::CaptureStdout();
  for (int i = 0; i < 1000; ++i) message.Print("Error: %d grating peaks\r", 0);
  std::fflush(stdout);
  EXPECT_EQ(message.HeldBack(), 999u);
  std::this_thread::sleep_for(std::chrono::milliseconds(2100));
  message.Print("Error: %d grating peaks\r", 0);
  message.Print("Error: %d grating peaks\r", 0);
  message.Print("Error: %d grating peaks\r", 2);  // another text is news
  std::fflush(stdout);
  EXPECT_EQ(testing::internal::GetCapturedStdout(),
            "Error: 0 grating peaks\rError: 0 grating peaks (999 more since)\r"
            "Error: 0 grating peaks (1 more since)\rError: 2 grating peaks\r");
  EXPECT_EQ(message.HeldBack(), 0u);
}
