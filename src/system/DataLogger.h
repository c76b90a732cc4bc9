// A small appending log file: the event log "vr480.log" on the settings file system.
//
// Each entry is one line, "<local time in asctime form without its line feed>:\t<text>\n",
// flushed at once. The file only grows: nothing in the server trims or rotates it (ResetLog
// exists for maintenance code, not for any command).
//
// Names are instrument paths: relative ones lie in the working directory "/vr480", and every
// name goes through the host seam (Host().Path), so a workstation keeps its log under its root.
//
// The logger is not a writer of the settings file system by itself: the caller brackets the
// write (remount read-write, then sync and read-only remount), as CVr480Server::LogEntry does.
// Each operation is atomic with respect to the others (one lock), so entries of different
// threads never interleave within a line.
#pragma once

#include <fstream>
#include <mutex>
#include <string>

class CDataLogger {
 public:
  CDataLogger() = default;

  // Opens `name` for appending (truncating while bTruncateOnOpen) and remembers the name.
  // 1 when the file did not exist ("Creating new log <name>."), 0 when it did, -1 when it
  // cannot be opened ("Error opening the log file <name>").
  int OpenLog(const std::string& name);
  // 0, or -2 when no log was ever opened. bLogIsOpen keeps its value.
  int CloseLog();
  bool LogIsOpen() const { return bLogIsOpen; }
  // Writes one line (time-stamped while bUseDateStamp) and flushes. 0, or -2 when the stream
  // is not open.
  int LogEntry(const std::string& text);
  int UseDateStamp(bool flag);

  // Reads the first bytes of the log into `buffer`: at most size - 1 bytes of the file and a
  // NUL after them. Returns the count of reads made byte by byte, the final one that met the
  // end of the file included: file length + 1 for a short file, else `size`. A file that
  // cannot be opened prints "Error opening log file <name>.", leaves the buffer as it is and
  // returns 1. Only the bytes returned are read, so a large log answers at once.
  int GetLog(char* buffer, int size);  // the remembered file
  static int GetLog(const std::string& name, char* buffer, int size);

  // Closes, reopens the remembered file truncated. 0, or -2 when no log was ever opened.
  int ResetLog();
  // Size of the remembered file in bytes; -1 ("Failed to stat <name>.") or -2 (never opened).
  long GetLogSize();

 private:
  int OpenLocked(const std::string& name);

  mutable std::mutex Lock;       // guards every member below
  bool bLogIsOpen = false;       // OpenLog succeeded
  std::ofstream LogStream;       // the open log file
  bool bUseDateStamp = true;     // prefix every entry with the local time
  std::string LogFileName;       // instrument name given to the last OpenLog ("" never opened)
  bool bTruncateOnOpen = false;  // set only during ResetLog: open truncating instead of appending
};
