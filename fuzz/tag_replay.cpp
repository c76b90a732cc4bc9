// Fuzz target: the tag file. Each input is written as "/vr480/vr480.tag" under the server's
// root and replayed the way Init replays it at start-up: LoadTagFile into the tag store, then
// every tag through the command interpreter as the internal client. The store is emptied
// before each input (at start-up it is empty too); the settings the tags make stay, as on an
// instrument that restarts.
//
// Lines naming a command the fuzzer must not run (FuzzServer.h) are dropped from the file.
#include <cstddef>
#include <cstdint>
#include <fstream>

#include "FuzzServer.h"

// Reaches the server's start-up stage; the server names this struct as its friend.
struct ServerAccess {
  static void ReplayTags(CVr480Server& s) { s.ReplayTags(); }
};

namespace {
constexpr size_t kMaxLines = 64;
}

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  fuzz::Server();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  fuzz::CFuzzServer& f = fuzz::Server();
  CVr480Server& s = f.S();
  {
    // Lines as the file holds them (CRs, NULs and over-long lines included), only the denied
    // commands left out.
    std::ofstream file(f.Root() + "/vr480/vr480.tag", std::ios::binary | std::ios::trunc);
    std::string_view text(reinterpret_cast<const char*>(data), size);
    size_t start = 0;
    for (size_t n = 0; start < text.size() && n < kMaxLines; ++n) {
      size_t end = text.find('\n', start);
      if (end == std::string_view::npos) end = text.size();
      const std::string line(text.substr(start, end - start));
      if (!fuzz::Denied(line)) file << line << (end < text.size() ? "\n" : "");
      start = end + 1;
    }
  }
  s.TagManager.ClearTags();
  f.Watched(kInternalClient, "the replay", [&] { ServerAccess::ReplayTags(s); });
  volatile size_t sink = s.TagManager.GetTagsText().size();
  (void)sink;
  f.CheckStillRunning();
  f.TrimHostLog();
  return 0;
}
