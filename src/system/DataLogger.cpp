#include "system/DataLogger.h"

#include <sys/stat.h>

#include <cstdio>
#include <cstring>
#include <ctime>

#include "host/Host.h"

namespace {

// The local time as asctime writes it ("Wed Nov 18 14:35:48 2026"), without its line feed.
std::string AscTimeNow() {
  const std::time_t now = std::time(nullptr);
  std::tm local {};
  char text[64] = "";
  if (!::localtime_r(&now, &local) || !::asctime_r(&local, text)) return "";
  std::string s = text;
  while (!s.empty() && s.back() == '\n') s.pop_back();
  return s;
}

bool CanRead(const std::string& path) {
  std::FILE* f = std::fopen(path.c_str(), "r");
  if (!f) return false;
  std::fclose(f);
  return true;
}

}  // namespace

int CDataLogger::OpenLog(const std::string& name) {
  std::lock_guard<std::mutex> g(Lock);
  return OpenLocked(name);
}

int CDataLogger::OpenLocked(const std::string& name) {
  LogFileName = name;
  const std::string path = Host().Path(name);
  int result = 0;
  if (!CanRead(path)) {
    std::printf("Creating new log %s.\n", name.c_str());
    result = 1;
  }
  if (LogStream.is_open()) LogStream.close();
  LogStream.clear();
  LogStream.open(path, bTruncateOnOpen ? std::ios::out | std::ios::trunc : std::ios::out | std::ios::app);
  if (!LogStream.is_open()) {
    std::printf("Error opening the log file %s\n", name.c_str());
    bLogIsOpen = false;
    return -1;
  }
  bLogIsOpen = true;
  return result;
}

int CDataLogger::CloseLog() {
  std::lock_guard<std::mutex> g(Lock);
  if (LogFileName.empty()) return -2;
  if (LogStream.is_open()) LogStream.close();
  return 0;
}

int CDataLogger::LogEntry(const std::string& text) {
  std::lock_guard<std::mutex> g(Lock);
  if (!LogStream.is_open()) return -2;
  // One write per line: the stream's buffer holds it whole until the flush.
  std::string line = bUseDateStamp ? AscTimeNow() + ":\t" : std::string();
  line += text;
  line += '\n';
  LogStream << line << std::flush;
  return 0;
}

int CDataLogger::UseDateStamp(bool flag) {
  std::lock_guard<std::mutex> g(Lock);
  bUseDateStamp = flag;
  return 0;
}

int CDataLogger::GetLog(char* buffer, int size) {
  std::string name;
  {
    std::lock_guard<std::mutex> g(Lock);
    name = LogFileName;
  }
  return GetLog(name, buffer, size);
}

// Reading byte by byte until `size` reads or the end of the file, the count includes the read
// that met the end; one bulk read of at most `size` bytes gives the same count and content.
int CDataLogger::GetLog(const std::string& name, char* buffer, int size) {
  std::FILE* f = std::fopen(Host().Path(name).c_str(), "rb");
  if (!f) {
    std::printf("Error opening log file %s.\n", name.c_str());
    return 1;
  }
  if (size <= 0) {
    std::fclose(f);
    return 0;
  }
  const size_t got = std::fread(buffer, 1, static_cast<size_t>(size), f);
  std::fclose(f);
  const int n = got < static_cast<size_t>(size) ? static_cast<int>(got) + 1 : size;
  buffer[n - 1] = '\0';
  return n;
}

int CDataLogger::ResetLog() {
  std::lock_guard<std::mutex> g(Lock);
  if (LogFileName.empty()) return -2;
  if (LogStream.is_open()) LogStream.close();
  bTruncateOnOpen = true;
  OpenLocked(std::string(LogFileName));
  bTruncateOnOpen = false;
  return 0;
}

long CDataLogger::GetLogSize() {
  std::lock_guard<std::mutex> g(Lock);
  if (LogFileName.empty()) return -2;
  struct stat st {};
  if (::stat(Host().Path(LogFileName).c_str(), &st) != 0) {
    std::printf("Failed to stat %s.\n", LogFileName.c_str());
    return -1;
  }
  return static_cast<long>(st.st_size);
}
