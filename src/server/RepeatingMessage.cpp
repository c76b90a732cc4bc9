#include "server/RepeatingMessage.h"

#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <string>

void CRepeatingMessage::Print(const char* format, ...) {
  const auto now = std::chrono::steady_clock::now();
  uint64_t heldBack;
  {
    std::lock_guard<std::mutex> g(Lock);
    if (bPrinted && now - LastPrinted < Interval) {
      ++Suppressed;
      return;
    }
    bPrinted = true;
    LastPrinted = now;
    heldBack = Suppressed;
    Suppressed = 0;
  }
  char text[512];
  va_list args;
  va_start(args, format);
  std::vsnprintf(text, sizeof text, format, args);
  va_end(args);
  if (heldBack == 0) {
    std::fputs(text, stdout);
    return;
  }
  // The count goes before the line's own end, so a line that rewrites itself still does.
  size_t body = std::strlen(text);
  while (body > 0 && (text[body - 1] == '\n' || text[body - 1] == '\r')) --body;
  std::printf("%.*s (%llu more since)%s", static_cast<int>(body), text, static_cast<unsigned long long>(heldBack),
              text + body);
}

uint64_t CRepeatingMessage::HeldBack() const {
  std::lock_guard<std::mutex> g(Lock);
  return Suppressed;
}
