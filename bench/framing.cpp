// Cost of a record reply: what a client's service thread spends per "#GET_DATA" between the
// ring and the socket. At 2 kHz a streaming client gets a record every 500 us, and ten of them
// share the processor with the acquisition thread, so a reply should cost a few microseconds.
//
// BM_RecordReplyHandler: the command through the dispatcher and the release of the slot, no
//   socket. Path 0 sends straight from the ring slot; path 1 finds the slot in use by another
//   client and sends from its private copy; path 2 is the levels reply with references in use
//   (a copy with the references added back).
// BM_RecordReplyLoopback: the whole reply as the session layer sends it, frame digits written
//   in place and one write to a loopback TCP connection drained by a reader thread. Argument
//   1 streams with tokens: the declared length counts the token, which follows in its own write,
//   and the long write-retry budget of a streaming client makes every reply go from a copy.
//   The benchmark sends far faster than 2 kHz, so the reader falls behind now and then and a
//   write waits for room (100 ms per retry while streaming): wall time says little here, the
//   CPU time of the sending thread is the reply's cost.
// Both take the sensor count (12 or 1000) as their first argument.
#include <arpa/inet.h>
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <memory>
#include <thread>

#include "processing/ProcessedRecord.h"
#include "protocol/CommandTable.h"
#include "server/Vr480Server.h"

#include "QuietStdout.h"

namespace {

constexpr int kRing = kProcessedRingSlots;
constexpr int kFirstSlot = kRing / 2;  // readers stay half a ring behind the producer


// A server whose ring is full of published records of `sensors` sensors (a quarter on each
// DUT channel) with levels of DUT channel 0; the producer's index stays at slot 0.
std::unique_ptr<CVr480Server> MakeServer(uint32_t sensors) {
  CQuietStdout quiet;
  auto s = std::make_unique<CVr480Server>();
  s->AllocateRings();
  const uint32_t perChannel = sensors / 4;
  const uint32_t levels = perChannel;
  for (int slot = 0; slot < kRing; ++slot) {
    uint8_t* rec = s->ProcessedData + static_cast<size_t>(slot) * kProcessedRecordBytes;
    std::memset(rec, 0, kProcessedRecordBytes);
    rec[kRecHeaderOffset + 2] = 101;
    rec[kRecStatus3Offset] = 0x20 | 2;
    PutRecU32(rec, kRecHeaderOffset + 28, static_cast<uint32_t>(slot));
    for (int ch = 0; ch < 4; ++ch) PutRecU16(rec, kRecKeptCountsOffset + 2 * ch, static_cast<uint16_t>(perChannel));
    PutRecU32(rec, kRecGranularityOffset, 1000000);
    for (uint32_t i = 0; i < sensors; ++i) PutRecI32(rec, kRecSensorsOffset + 4 * i, 1520000000 + 50000 * static_cast<int32_t>(i));
    for (uint32_t i = 0; i < levels; ++i) PutRecU16(rec, kRecSensorsOffset + 4 * sensors + 2 * i, 9000);
    PutRecU32(rec, kRecSensorBytesOffset, 88 + 4 * sensors);
    PutRecU32(rec, kRecTotalBytesOffset, 88 + 4 * sensors + 2 * levels);
  }
  for (int l = 0; l < kLogicalChannels; ++l)
    for (int i = 0; i < kSensorsPerChannel; ++i) s->SensorReferences[l][i] = 1545000000;
  s->ProcessedWriteIndex = 0;
  for (int c = 0; c < kClientEntries; ++c) {
    s->ProcessedReadIndex[c] = kFirstSlot;
    s->bBufferEnable[c] = true;
    s->DataInterleave[c] = 1;
    s->ClientRecordInUse[c] = -1;
  }
  return s;
}

double ThreadCpuUs() {
  timespec t{};
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &t);
  return static_cast<double>(t.tv_sec) * 1e6 + static_cast<double>(t.tv_nsec) * 1e-3;
}

// Keeps the reader half a ring behind the producer, so every read finds a record at once.
void Rewind(CVr480Server& s, int client) {
  if (s.ProcessedReadIndex[client] == 0) s.ProcessedReadIndex[client] = kFirstSlot;
}

void BM_RecordReplyHandler(benchmark::State& state) {
  const uint32_t sensors = static_cast<uint32_t>(state.range(0));
  const int path = static_cast<int>(state.range(1));
  auto s = MakeServer(sensors);
  const char* command = path == 2 ? "#GET_DATA_AND_LEVELS" : "#GET_DATA";
  if (path == 1)  // another client is sending every slot
    for (int slot = 0; slot < kRing; ++slot) s->ProcessedData[static_cast<size_t>(slot) * kProcessedRecordBytes + kRecInUseOffset] = 1;
  if (path == 2) s->bUseReferences = true;
  char* body = nullptr;
  unsigned length = 0;
  size_t bytes = 0;
  for (auto _ : state) {
    Rewind(*s, 0);
    s->ProcessCmd(0, command, &body, &length);
    benchmark::DoNotOptimize(body);
    s->ReleaseClientRecord(0);
    bytes += length;
  }
  state.SetItemsProcessed(state.iterations());
  state.SetBytesProcessed(static_cast<int64_t>(bytes));
  state.SetLabel(path == 0 ? "from slot" : path == 1 ? "slot in use: copy" : "levels + references: copy");
  CQuietStdout quiet;
  s.reset();
}
BENCHMARK(BM_RecordReplyHandler)
    ->ArgsProduct({{12, 1000}, {0, 1, 2}})
    ->ArgNames({"sensors", "path"})
    ->Unit(benchmark::kNanosecond);

// A loopback connection in slot 0 of the server's own TCP server, and a thread that reads and
// discards whatever arrives.
class CLoopbackClient {
 public:
  explicit CLoopbackClient(CVr480Server& s) : S(s) {
    CQuietStdout quiet;
    S.Socket.SetListenAddress("127.0.0.1");
    for (int port = 7300; port < 9999 && Port == 0; ++port)
      if (S.Socket.init(port) == 0) Port = port;
    Fd = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_port = htons(static_cast<uint16_t>(Port));
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    ::connect(Fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr);
    for (int i = 0; i < 500 && S.Socket.GetNumClients() == 0; ++i) std::this_thread::sleep_for(std::chrono::milliseconds(2));
    Reader = std::thread([this] {
      static char sink[1 << 16];
      while (::recv(Fd, sink, sizeof sink, 0) > 0) Received += 1;
    });
  }
  ~CLoopbackClient() {
    ::shutdown(Fd, SHUT_RDWR);
    Reader.join();
    ::close(Fd);
    S.Socket.close_client(0);
    S.Socket.Stop();
  }
  bool Ok() const { return Port != 0 && S.Socket.GetNumClients() == 1; }

 private:
  CVr480Server& S;
  int Port = 0;
  int Fd = -1;
  std::thread Reader;
  std::atomic<long> Received{0};
};

void BM_RecordReplyLoopback(benchmark::State& state) {
  const uint32_t sensors = static_cast<uint32_t>(state.range(0));
  const bool streaming = state.range(1) != 0;
  auto s = MakeServer(sensors);
  auto client = std::make_unique<CLoopbackClient>(*s);
  if (!client->Ok()) {
    state.SkipWithError("no loopback connection");
    return;
  }
  if (streaming) s->ServiceSocket(0, "#SET_STREAMING_DATA 1");  // framed reply; the slot's stream budget
  size_t bytes = 0;
  const double cpu0 = ThreadCpuUs();
  for (auto _ : state) {
    Rewind(*s, 0);
    s->ServiceSocket(0, "#GET_DATA");
    if (streaming) s->Socket.WriteData(0, "XXXXXXXX", 8);
    bytes += 10 + 88 + 4 * sensors + (streaming ? 8 : 0);
  }
  const double us = ThreadCpuUs() - cpu0;
  if (streaming) s->ServiceSocket(0, "#SET_STREAMING_DATA 0");
  state.SetItemsProcessed(state.iterations());
  state.SetBytesProcessed(static_cast<int64_t>(bytes));
  // Share of one 2 kHz sweep period (500 us) of processor time that one client's reply takes.
  state.counters["pct_of_2kHz_period"] = us / static_cast<double>(state.iterations()) / 500.0 * 100.0;
  state.SetLabel(streaming ? "streaming with tokens" : "request and reply");
  CQuietStdout quiet;
  client.reset();
  s.reset();
}
BENCHMARK(BM_RecordReplyLoopback)
    ->ArgsProduct({{12, 1000}, {0, 1}})
    ->ArgNames({"sensors", "stream"})
    ->Unit(benchmark::kMicrosecond);

}  // namespace
