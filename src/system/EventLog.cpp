// The event log: warnings worth keeping across restarts (watchdog resets, temperature extremes,
// operators' notes) appended to "vr480.log" on the settings file system.
#include "server/Vr480Server.h"
#include "settings/SettingsWrite.h"

namespace {
constexpr const char* kEventLogName = "vr480.log";  // in the working directory "/vr480"
}

// The settings file system is read-only between writes, so every entry is its own write
// bracket. The bracket's lock also keeps entries of different threads, and saves of the
// settings, from running into each other.
int CVr480Server::LogEntry(const std::string& text) {
  CSettingsWriteBracket bracket;  // a failed remount is reported; the entry is tried anyway
  DataLogger.OpenLog(kEventLogName);
  DataLogger.LogEntry(text);
  DataLogger.CloseLog();
  bracket.Close();
  return 0;
}
