// CSocket against real TCP clients on the loopback interface. The test itself plays the
// session layer: it registers the callbacks and reads and writes the slots the way a client's
// service thread does.
#include "protocol/Socket.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "support/ServerProcess.h"
#include "support/TestClient.h"

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

// What the callbacks saw, in order: "C3" connect, "P3" pre-disconnect, "D3" disconnect of slot 3.
class CCallbackLog {
 public:
  void Attach(CSocket& s) {
    s.SetClientConnectCallbackFunction([this](uint16_t c) { Add("C" + std::to_string(c)); });
    s.SetClientPreDisconnectCallbackFunction([this](uint16_t c) { Add("P" + std::to_string(c)); });
    s.SetClientDisconnectCallbackFunction([this, &s](uint16_t c) {
      std::lock_guard<std::mutex> g(Lock);
      ClientsAtDisconnect.push_back(s.GetNumClients());  // the callback may call back in
      Events.push_back("D" + std::to_string(c));
      Changed.notify_all();
    });
  }
  void Add(const std::string& e) {
    std::lock_guard<std::mutex> g(Lock);
    Events.push_back(e);
    Changed.notify_all();
  }
  bool WaitFor(const std::string& e, size_t times = 1, std::chrono::milliseconds timeout = 3s) {
    std::unique_lock<std::mutex> g(Lock);
    return Changed.wait_for(g, timeout, [&] { return size_t(std::count(Events.begin(), Events.end(), e)) >= times; });
  }
  std::vector<std::string> Snapshot() {
    std::lock_guard<std::mutex> g(Lock);
    return Events;
  }
  std::vector<int> NumClientsSeenAtDisconnect() {
    std::lock_guard<std::mutex> g(Lock);
    return ClientsAtDisconnect;
  }

 private:
  std::mutex Lock;
  std::condition_variable Changed;
  std::vector<std::string> Events;
  std::vector<int> ClientsAtDisconnect;
};

// Whether the server ended the connection (after what it had sent).
bool AtEndOfFile(CTestClient& c) {
  std::string rest;
  bool closed = false;
  while (c.ReadExact(1, &rest, 5s, &closed)) {}
  return closed;
}

// Starts `s` on a random free port of 2000-9999 on the loopback address; the port, or 0.
int Start(CSocket& s) {
  if (s.SetListenAddress("127.0.0.1") != 0) return 0;
  for (int attempt = 0; attempt < 20; ++attempt) {
    int port = FreePort();
    testing::internal::CaptureStdout();
    int r = s.init(port);
    testing::internal::GetCapturedStdout();
    if (r == 0) return port;
  }
  return 0;
}

// What a service thread does: wait for input and read until one command line is complete.
// nullopt when the slot closed or nothing complete arrived in time.
std::optional<std::string> ReadLine(CSocket& s, uint16_t slot, std::chrono::milliseconds timeout = 3s) {
  auto deadline = Clock::now() + timeout;
  char buf[512];
  while (Clock::now() < deadline) {
    int w = s.WaitReadable(slot, 100);
    if (w < 0) return std::nullopt;
    if (w == 0) continue;
    if (s.ReadCmd(slot, buf, sizeof buf) == 0) return std::string(buf);
  }
  return std::nullopt;
}

// Reads until the slot closes; true when it did within the time.
bool ReadUntilClosed(CSocket& s, uint16_t slot, std::chrono::milliseconds timeout = 3s) {
  auto deadline = Clock::now() + timeout;
  char buf[512];
  while (Clock::now() < deadline) {
    int w = s.WaitReadable(slot, 100);
    if (w < 0) return true;
    if (w > 0) s.ReadCmd(slot, buf, sizeof buf);
  }
  return false;
}

bool Contains(const std::string& text, const std::string& part) { return text.find(part) != std::string::npos; }

// Waits for a connect callback and lets the accept thread finish the report it prints after
// the callback, so that the report does not land in the next captured output. Captured texts
// are still matched as contiguous blocks, not whole, in case a slow thread prints late.
bool WaitConnected(CCallbackLog& log, const std::string& event, size_t times = 1,
                   std::chrono::milliseconds timeout = 3s) {
  if (!log.WaitFor(event, times, timeout)) return false;
  std::this_thread::sleep_for(100ms);
  return true;
}

// A server on the loopback address with its callbacks logged. The log outlives the server,
// whose destructor still calls back.
class SocketTest : public testing::Test {
 protected:
  void SetUp() override {
    Log.Attach(*S);
    Port = Start(*S);
    ASSERT_NE(Port, 0);
  }
  CCallbackLog Log;
  std::unique_ptr<CSocket> S = std::make_unique<CSocket>();
  int Port = 0;
};

}  // namespace

TEST(SocketInit, RefusesPortsOutsideOneTo9999AndKeepsDefaults) {
  CSocket s;
  testing::internal::CaptureStdout();
  EXPECT_EQ(s.init(0), -1);
  EXPECT_EQ(s.init(10000), -1);
  std::string out = testing::internal::GetCapturedStdout();
  EXPECT_EQ(out, "socket #0 out of range.\nsocket #10000 out of range.\n");

  EXPECT_EQ(s.SetListenAddress("not-an-address"), -1);
  EXPECT_EQ(s.GetNumClients(), 0);
  EXPECT_STREQ(s.GetClientAddress(0), "0.0.0.0");
  EXPECT_EQ(s.find_free_client_connection_point(), 0);

  uint32_t attempts = 0, delay = 0;
  EXPECT_EQ(s.GetWriteRecoveryOptions(9, &attempts, &delay), 0);
  EXPECT_EQ(attempts, 40u);
  EXPECT_EQ(delay, 250u);
  EXPECT_EQ(s.SetWriteRecoveryOptions(4, 0, 1234), 0);  // no write may go without a single try
  EXPECT_EQ(s.GetWriteRecoveryOptions(4, &attempts, &delay), 0);
  EXPECT_EQ(attempts, 1u);
  EXPECT_EQ(delay, 1234u);
  EXPECT_EQ(s.SetWriteRecoveryOptions(10, 5, 5), -1);

  char buf[16] = "stale";
  EXPECT_EQ(s.ReadCmd(3, buf, sizeof buf), -1);
  EXPECT_STREQ(buf, "");
  EXPECT_EQ(s.WriteData(3, "x", 1), -1);
  EXPECT_EQ(s.TransferFile(3, "/nonexistent"), -1);
}

TEST_F(SocketTest, ConnectAndDisconnectRunCallbacksAndCountClients) {
  auto& s = S;
  auto& log = Log;
  const int port = Port;

  testing::internal::CaptureStdout();
  CTestClient a(port);
  ASSERT_TRUE(a.Connected());
  ASSERT_TRUE(log.WaitFor("C0"));
  CTestClient b(port);
  ASSERT_TRUE(WaitConnected(log, "C1"));
  std::string out = testing::internal::GetCapturedStdout();
  EXPECT_TRUE(Contains(out, "Connected client #0 (127.0.0.1)\n1 client connected\n")) << out;
  EXPECT_EQ(s->GetNumClients(), 2);
  EXPECT_STREQ(s->GetClientAddress(0), "127.0.0.1");
  EXPECT_STREQ(s->GetClientAddress(5), "0.0.0.0");

  // The client ends its session by closing; the reader notices and the slot is freed.
  testing::internal::CaptureStdout();
  a.Close();
  EXPECT_TRUE(ReadUntilClosed(*s, 0));
  out = testing::internal::GetCapturedStdout();
  EXPECT_TRUE(Contains(out, "Closing connection on client 0\n1 client connected\n")) << out;
  EXPECT_EQ(log.Snapshot(), (std::vector<std::string>{"C0", "C1", "P0", "D0"}));
  EXPECT_EQ(log.NumClientsSeenAtDisconnect(), std::vector<int>{1});
  EXPECT_EQ(s->GetNumClients(), 1);

  // Closing a free slot still tells the session to stop, and reports it.
  testing::internal::CaptureStdout();
  EXPECT_EQ(s->close_client(0), -1);
  EXPECT_TRUE(Contains(testing::internal::GetCapturedStdout(), "Client 0 not connected.\n"));
  EXPECT_EQ(log.Snapshot().back(), "P0");

  // Slot 0 is used again. The accept thread picks its slot before it waits, so whether the
  // next client or the one after gets it depends on whether it picked before slot 0 was freed.
  CTestClient c(port);
  CTestClient d(port);
  ASSERT_TRUE(log.WaitFor("C0", 2));
  ASSERT_TRUE(WaitConnected(log, "C2"));
  EXPECT_EQ(s->GetNumClients(), 3);

  // The destructor closes both slots with their callbacks and ends the accept thread at once.
  testing::internal::CaptureStdout();
  auto t0 = Clock::now();
  s.reset();
  auto took = Clock::now() - t0;
  out = testing::internal::GetCapturedStdout();
  EXPECT_LT(took, 1500ms);
  EXPECT_TRUE(Contains(out,
            "Closing connection on client 0\n2 clients connected\n"
            "Closing connection on client 1\n1 client connected\n"
            "Closing connection on client 2\n0 clients connected\n"
            "CSocket: Freeing the file Xfer buffers...\n"
            "Canceling cs_thread...thread canceled.\n")) << out;
  EXPECT_TRUE(log.WaitFor("D0", 2));
  EXPECT_TRUE(log.WaitFor("D1"));
  EXPECT_TRUE(log.WaitFor("D2"));
  EXPECT_TRUE(AtEndOfFile(b));
  EXPECT_TRUE(AtEndOfFile(c));
  EXPECT_TRUE(AtEndOfFile(d));
}

TEST_F(SocketTest, VanishedPeerClosesTheSlotWithoutSigpipe) {
  CSocket& s = *S;
  auto& log = Log;
  const int port = Port;

  // init ignores SIGPIPE for the process; undo that so that only the write's own flag stands
  // between a vanished peer and the signal. Blocked here, a raised SIGPIPE would stay pending.
  auto previous = ::signal(SIGPIPE, SIG_DFL);
  sigset_t pipeSet, oldMask;
  sigemptyset(&pipeSet);
  sigaddset(&pipeSet, SIGPIPE);
  ASSERT_EQ(pthread_sigmask(SIG_BLOCK, &pipeSet, &oldMask), 0);

  auto client = std::make_unique<CTestClient>(port);
  ASSERT_TRUE(WaitConnected(log, "C0"));
  client.reset();
  ASSERT_EQ(s.WaitReadable(0, 2000), 1);  // its close has arrived

  testing::internal::CaptureStdout();
  int result = 0;
  for (int i = 0; i < 100 && result == 0; ++i) {
    result = s.WriteData(0, "0000000006reply\n", 16);  // the first may still be taken
    if (result == 0) std::this_thread::sleep_for(10ms);
  }
  std::string out = testing::internal::GetCapturedStdout();

  sigset_t pending;
  sigemptyset(&pending);
  sigpending(&pending);
  bool sigpipeRaised = sigismember(&pending, SIGPIPE) == 1;
  if (sigpipeRaised) {
    timespec zero{0, 0};
    sigtimedwait(&pipeSet, nullptr, &zero);
  }
  pthread_sigmask(SIG_SETMASK, &oldMask, nullptr);
  ::signal(SIGPIPE, previous);

  EXPECT_FALSE(sigpipeRaised);
  EXPECT_GT(result, 0);  // the errno of the failed write
  EXPECT_TRUE(Contains(out, "closing client on error #" + std::to_string(result) +
                                "\nCSocket::WriteData() Broken Pipe\n"
                                "Closing connection on client 0\n0 clients connected\n")) << out;
  EXPECT_EQ(log.Snapshot(), (std::vector<std::string>{"C0", "P0", "D0"}));
  EXPECT_EQ(s.GetNumClients(), 0);
  EXPECT_EQ(s.WriteData(0, "x", 1), -1);
}

// A reply that cannot be sent whole within the budget would leave the client reading its next
// frame from the middle of this one: the connection is closed instead.
TEST_F(SocketTest, StalledPeerExhaustsTheRetryBudgetAndIsClosed) {
  CSocket& s = *S;
  auto& log = Log;
  const int port = Port;
  CTestClient client(port, 20s, 4096);  // a small window, and it never reads
  ASSERT_TRUE(WaitConnected(log, "C0"));

  const int len = 16 * 1024 * 1024;  // far more than both socket buffers hold
  std::string big(size_t(len), 'r');
  ASSERT_EQ(s.SetWriteRecoveryOptions(0, 3, 20000), 0);  // the slot's own budget: 3 sleeps of 20 ms
  testing::internal::CaptureStdout();
  auto t0 = Clock::now();
  int written = s.WriteData(0, big.data(), len);
  auto took = Clock::now() - t0;
  std::string out = testing::internal::GetCapturedStdout();
  EXPECT_GT(written, 0);
  EXPECT_LT(written, len);
  EXPECT_GE(took, 60ms);
  EXPECT_LT(took, 5s);
  EXPECT_TRUE(Contains(out, "Write failed. (" + std::to_string(written) + " of " + std::to_string(len) +
                                " bytes written after 3 attempts (20000 us/attempt).\n"
                                "Closing connection on client 0\n0 clients connected\n")) << out;
  EXPECT_EQ(log.Snapshot(), (std::vector<std::string>{"C0", "P0", "D0"}));
  EXPECT_EQ(s.GetNumClients(), 0);
}

// A port still held (here by a plain listener standing for the lingering connections of an
// earlier run) is bound once it frees; a stop while retrying ends at once.
TEST(SocketInit, BindIsRetriedEverySecondUntilThePortFrees) {
  int port = 0, blocker = -1;
  for (int attempt = 0; attempt < 20 && blocker < 0; ++attempt) {
    port = FreePort();
    blocker = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    addr.sin_port = htons(static_cast<uint16_t>(port));
    if (::bind(blocker, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0 || ::listen(blocker, 1) != 0) {
      ::close(blocker);
      blocker = -1;
    }
  }
  ASSERT_GE(blocker, 0);

  CCallbackLog log;  // outlives the servers, whose destructors still call back
  {
    CSocket idle;  // without the retry a failed bind ends init
    idle.SetListenAddress("127.0.0.1");
    testing::internal::CaptureStdout();
    EXPECT_NE(idle.init(port), 0);
    EXPECT_FALSE(Contains(testing::internal::GetCapturedStdout(), "Retrying"));
  }
  {
    CSocket stopped;
    stopped.SetListenAddress("127.0.0.1");
    stopped.SetBindRetry(true);
    testing::internal::CaptureStdout();
    EXPECT_NE(stopped.init(port), 0);
    auto t0 = Clock::now();
    EXPECT_TRUE(stopped.Stop());
    EXPECT_LT(Clock::now() - t0, 1500ms);
    testing::internal::GetCapturedStdout();
  }

  CSocket s;
  log.Attach(s);
  s.SetListenAddress("127.0.0.1");
  s.SetBindRetry(true);
  testing::internal::CaptureStdout();
  EXPECT_NE(s.init(port), 0);
  std::this_thread::sleep_for(1500ms);  // a retry or two fails meanwhile
  ::close(blocker);
  auto client = std::make_unique<CTestClient>(port, 10s);
  ASSERT_TRUE(client->Connected());
  ASSERT_TRUE(WaitConnected(log, "C0"));
  std::string out = testing::internal::GetCapturedStdout();
  EXPECT_TRUE(Contains(out, "failed to bind server socket to file descriptor.  Error #" + std::to_string(EADDRINUSE) +
                                "\nCSocket::init() error: " + std::strerror(EADDRINUSE) + "\n"
                                "Retrying bind on port " + std::to_string(port) + " every second.\n")) << out;
  EXPECT_EQ(out.find("Retrying"), out.rfind("Retrying")) << "said once";
  EXPECT_TRUE(Contains(out, "Server socket bound to port " + std::to_string(port) + "; accepting clients.\n")) << out;
  client->SendRaw("ping\n");
  EXPECT_EQ(ReadLine(s, 0), "ping");
}
