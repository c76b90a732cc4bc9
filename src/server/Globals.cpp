#include "server/Globals.h"

#include <cstring>

std::atomic<bool> bRun{false};
std::atomic<bool> bGuiRun{false};
std::atomic<bool> bGuiRunning{false};
std::atomic<bool> bUpdateGui{false};
std::atomic<bool> bFpgaWatchDogEnabled{false};
std::atomic<uint32_t> FpgaWatchDog{0};
std::atomic<bool> bStopSignalled{false};
CStatusLine msg;

void CStatusLine::Set(const std::string& text) {
  std::lock_guard<std::mutex> g(Lock);
  std::strncpy(Text, text.c_str(), sizeof Text - 1);
  Text[sizeof Text - 1] = '\0';
}

std::string CStatusLine::Get() const {
  std::lock_guard<std::mutex> g(Lock);
  return Text;
}
