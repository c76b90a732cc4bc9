// Download rate of "#DOWNLOAD" over loopback: a 10 MB file, sent by the server's own TCP
// server, session layer and command handler to a client on the same machine that reads the
// frame and the whole body. The figure is bytes per second of file content. The server runs
// whole, as vr480d does on a workstation, on the simulated card.
#include <arpa/inet.h>
#include <benchmark/benchmark.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <random>
#include <string>
#include <thread>

#include "device/CardSeam.h"
#include "host/Host.h"
#include "server/Globals.h"
#include "server/Options.h"
#include "sim/SimCardProvider.h"
#include "server/Vr480Server.h"

#include "QuietStdout.h"

namespace {

constexpr size_t kFileBytes = 10u << 20;

int BindablePort() {
  std::mt19937 rng(static_cast<unsigned>(::getpid()));
  for (int attempt = 0; attempt < 200; ++attempt) {
    const int port = 2000 + static_cast<int>(rng() % 8000);
    const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    addr.sin_port = htons(static_cast<uint16_t>(port));
    const bool ok = ::bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0;
    ::close(fd);
    if (ok) return port;
  }
  return 0;
}

int Connect(int port) {
  for (int attempt = 0; attempt < 200; ++attempt) {
    const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    addr.sin_port = htons(static_cast<uint16_t>(port));
    if (::connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0) return fd;
    ::close(fd);
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  return -1;
}

bool ReadExact(int fd, char* buf, size_t n) {
  size_t got = 0;
  while (got < n) {
    const ssize_t r = ::recv(fd, buf + got, n - got, 0);
    if (r <= 0) return false;
    got += static_cast<size_t>(r);
  }
  return true;
}

void BM_Download10MB(benchmark::State& state) {
  char dirTemplate[] = "/tmp/vr480bench-XXXXXX";
  const std::string root = ::mkdtemp(dirTemplate);
  std::unique_ptr<CVr480Server> server;
  std::thread acquisition;
  int fd = -1;
  {
    CQuietStdout quiet;
    std::string error;
    if (!PrepareWorkstationRoot(root, error)) {
      state.SkipWithError(error.c_str());
      return;
    }
    std::mt19937 gen(1);
    std::string content(kFileBytes, '\0');
    for (char& ch : content) ch = static_cast<char>(gen());
    std::ofstream(root + "/vr480/big.bin", std::ios::binary) << content;

    InstallHost(root);
    sim::CSimOptions card;
    card.Root = root;
    InstallCard(std::make_shared<sim::CSimCardProvider>(card));
    ServerOptions.Port = BindablePort();
    ServerOptions.ListenAddress = "127.0.0.1";
    bStopSignalled = false;
    server = std::make_unique<CVr480Server>();
    if (server->Init() == kInitOk) {
      acquisition = std::thread([&] { server->Run(); });
      fd = Connect(ServerOptions.Port);
    }
  }
  if (fd < 0) state.SkipWithError("no connection to the server");  // the loop below then runs no iteration
  std::unique_ptr<char[]> body(new char[kFileBytes]);
  const std::string line = "#DOWNLOAD big.bin\n";
  {
    CQuietStdout quiet;  // "big.bin opened for Xfer..." per download
    for (auto _ : state) {
      char digits[11] = {};
      if (::send(fd, line.data(), line.size(), MSG_NOSIGNAL) != static_cast<ssize_t>(line.size()) ||
          !ReadExact(fd, digits, 10) || std::strtoull(digits, nullptr, 10) != kFileBytes ||
          !ReadExact(fd, body.get(), kFileBytes)) {
        state.SkipWithError("short download");
        break;
      }
    }
    ::close(fd);
    bStopSignalled = true;
    bRun = false;
    if (acquisition.joinable()) acquisition.join();
    server->Shutdown();
    server.reset();
    bStopSignalled = false;
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * static_cast<int64_t>(kFileBytes));
  InstallCard(std::make_shared<CRealCardProvider>());
  InstallHost("/");
  ServerOptions = CServerOptions();
  std::filesystem::remove_all(root);
}
// A fixed count: every run of the function starts and stops a whole server.
BENCHMARK(BM_Download10MB)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(30);

}  // namespace
