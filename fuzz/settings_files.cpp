// Fuzz target: the settings data files beside the tag file. The first byte of an input chooses
// the file, the rest is its content; the file is written under a fresh root and the start-up
// loader reads it (LoadDataFiles: "/cfc_build.dat", then the per-sensor tables, the gain
// offsets and the dB table; the files not chosen are absent, which the loader reports and
// passes over). The server object is built but not started: the loaders need only its tables.
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>

#include "FuzzServer.h"

struct ServerAccess {
  static void LoadDataFiles(CVr480Server& s) { s.LoadDataFiles(); }
};

namespace {

// Instrument paths of the files, in the order of the selector byte.
const char* const kFiles[] = {
    "/vr480/references.dat", "/vr480/locations.dat", "/vr480/averages.dat",
    "/vr480/db2counts.dat",  "/vr480/gain_wvl_offsets.dat", "/cfc_build.dat",
};
constexpr size_t kFileCount = sizeof kFiles / sizeof kFiles[0];

struct SLoader {
  std::string Root;
  std::unique_ptr<CVr480Server> Server;
  SLoader() {
    fuzz::QuietConsole();
    Root = fuzz::MakeRoot();
    std::string error;
    if (!PrepareWorkstationRoot(Root, error)) fuzz::CFuzzServer::Fail(error);
    InstallHost(Root);
    Server = std::make_unique<CVr480Server>();
  }
  ~SLoader() {
    Server.reset();
    InstallHost("/");
    std::error_code ec;
    std::filesystem::remove_all(Root, ec);
  }
};

SLoader& Loader() {
  static SLoader* loader = [] {
    auto* l = new SLoader();
    std::atexit([] { delete &Loader(); });
    return l;
  }();
  return *loader;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  Loader();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) return 0;
  SLoader& l = Loader();
  const size_t chosen = data[0] % kFileCount;
  for (size_t i = 0; i < kFileCount; ++i) {
    const std::string path = Host().Path(kFiles[i]);
    if (i != chosen) {
      ::unlink(path.c_str());
      continue;
    }
    std::ofstream(path, std::ios::binary | std::ios::trunc)
        .write(reinterpret_cast<const char*>(data + 1), static_cast<std::streamsize>(size - 1));
  }
  ServerAccess::LoadDataFiles(*l.Server);
  return 0;
}
