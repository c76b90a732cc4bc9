// Small file queries shared by the command families.
#include "system/FileUtils.h"

#include <sys/stat.h>

#include <cstdio>
#include <ctime>

#include "host/Host.h"

namespace {

bool StatFile(const std::string& name, struct stat& st) {
  if (::stat(Host().Path(name).c_str(), &st) == 0) return true;
  std::printf("Failed to stat %s.\n", name.c_str());
  return false;
}

}  // namespace

int CheckFile(const std::string& name) {
  FILE* f = std::fopen(Host().Path(name).c_str(), "r");
  if (!f) return -1;
  std::fclose(f);
  return 0;
}

int64_t GetFileSize(const std::string& name) {
  struct stat st {};
  return StatFile(name, st) ? static_cast<int64_t>(st.st_size) : -1;
}

int64_t GetFileSize_(const std::string& name) { return GetFileSize(name); }

int64_t CharCount(const std::string& name, char ch) {
  FILE* f = std::fopen(Host().Path(name).c_str(), "rb");
  if (!f) {
    std::printf("Error opening file %s.\n", name.c_str());
    return -1;
  }
  int64_t count = 0;
  for (int c = std::getc(f); c != EOF; c = std::getc(f))
    if (static_cast<char>(c) == ch) ++count;
  std::fclose(f);
  return count;
}

int GetFileInfo(const std::string& name, std::string& timeText, int64_t& size) {
  struct stat st {};
  if (!StatFile(name, st)) return -1;
  size = st.st_size;
  char text[64] = {};
  const time_t modified = st.st_mtime;
  if (::ctime_r(&modified, text) == nullptr) text[0] = '\0';
  timeText.assign(text);
  if (!timeText.empty() && timeText.back() == '\n') timeText.pop_back();
  if (timeText.size() > 50) timeText.resize(50);
  return 0;
}
