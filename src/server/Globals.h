// Process-wide flags beside the server object. Each is written by one thread and polled by
// another, so each is atomic.
#pragma once

#include <atomic>
#include <cstdint>
#include <mutex>
#include <string>

extern std::atomic<bool> bRun;                  // acquisition loop keeps running; Run sets, #QUIT!/#SHUTDOWN/signals clear
extern std::atomic<bool> bGuiRun;               // front panel should keep running; GUI thread sets, Run's stop path and main clear
extern std::atomic<bool> bGuiRunning;           // front panel thread is inside its main loop; GUI thread
extern std::atomic<bool> bUpdateGui;            // front panel should redraw; anyone who changes displayed state
extern std::atomic<bool> bFpgaWatchDogEnabled;  // acquisition watchdog armed; main sets, Run's stop path clears
extern std::atomic<uint32_t> FpgaWatchDog;      // 250 ms front-panel periods since the last record; GUI increments, GetData clears
extern std::atomic<bool> bStopSignalled;        // a stop was asked for (SIGINT/SIGTERM, #QUIT!); Run honours it even before it starts

// The one-line status the front panel shows ("Ready.", "[AB] Initializing ....").
// Written by the start-up phases and the loops, read by the front panel.
class CStatusLine {
 public:
  void Set(const std::string& text);
  std::string Get() const;

 private:
  mutable std::mutex Lock;
  char Text[100] = "";
};
extern CStatusLine msg;
