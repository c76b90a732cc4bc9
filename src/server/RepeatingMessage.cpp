#include "server/RepeatingMessage.h"

#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <string>

namespace {

// The count goes before the line's own end, so a line that rewrites itself still does.
void PrintWithCount(const std::string& text, uint64_t heldBack) {
  if (heldBack == 0) {
    std::fputs(text.c_str(), stdout);
    return;
  }
  size_t body = text.size();
  while (body > 0 && (text[body - 1] == '\n' || text[body - 1] == '\r')) --body;
  std::printf("%.*s (%llu more since)%s", static_cast<int>(body), text.c_str(),
              static_cast<unsigned long long>(heldBack), text.c_str() + body);
}

}  // namespace

void CRepeatingMessage::Print(const char* format, ...) {
  char buffer[512];
  va_list args;
  va_start(args, format);
  std::vsnprintf(buffer, sizeof buffer, format, args);
  va_end(args);
  const std::string text = buffer;

  const auto now = std::chrono::steady_clock::now();
  std::string previous;  // another text whose repeats were held back: they are told first
  uint64_t previousHeld = 0, heldBack = 0;
  {
    std::lock_guard<std::mutex> g(Lock);
    if (bPrinted && now - LastPrinted < Interval && LastText == text) {
      ++Suppressed;
      return;
    }
    if (LastText == text) {
      heldBack = Suppressed;
    } else {
      previous = LastText;
      previousHeld = Suppressed;
    }
    bPrinted = true;
    LastPrinted = now;
    LastText = text;
    Suppressed = 0;
  }
  if (previousHeld > 0) PrintWithCount(previous, previousHeld);
  PrintWithCount(text, heldBack);
}

uint64_t CRepeatingMessage::HeldBack() const {
  std::lock_guard<std::mutex> g(Lock);
  return Suppressed;
}
