// A console line that can repeat every sweep. When the laser has lost the reference grating,
// say, the same failure would print 2000 times a second and bury everything else on the
// console and in any log behind it. Each such call site keeps one CRepeatingMessage: the
// first occurrence prints at once, later ones at most once a second, each with the number of
// occurrences that were held back since the last one printed:
//
//   static CRepeatingMessage noGrating;
//   noGrating.Print("CalibrateFsOffset() failed: %d grating peaks were found.\n", n);
//
// prints "CalibrateFsOffset() failed: 0 grating peaks were found.\n", then a second later
// "CalibrateFsOffset() failed: 0 grating peaks were found. (1999 more since)\n". A text other
// than the last one printed (another count, another failure) is news and prints at once.
// Any thread; the text keeps its own line end ("\n", or "\r" for a line that rewrites itself).
#pragma once

#include <chrono>
#include <cstdint>
#include <mutex>
#include <string>

class CRepeatingMessage {
 public:
  explicit CRepeatingMessage(std::chrono::milliseconds interval = std::chrono::seconds(1)) : Interval(interval) {}
  void Print(const char* format, ...) __attribute__((format(printf, 2, 3)));
  uint64_t HeldBack() const;  // occurrences not printed since the last one that was

 private:
  const std::chrono::milliseconds Interval;
  mutable std::mutex Lock;
  std::chrono::steady_clock::time_point LastPrinted{};
  bool bPrinted = false;
  uint64_t Suppressed = 0;
  std::string LastText;  // as last printed
};
