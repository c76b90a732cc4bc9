// CSocket against real TCP clients on the loopback interface, the test playing the session layer.
// Console texts are matched as contiguous blocks, not whole, in case a slow thread prints late.
#include "protocol/Socket.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <condition_variable>
#include <cstring>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "support/ServerProcess.h"
#include "support/TestClient.h"

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;
using Events = std::vector<std::string>;

// What the callbacks saw, in order: "C3" connect, "P3" pre-disconnect, "D3" disconnect of slot 3.
class CCallbackLog {
 public:
  void Attach(CSocket& s) {
    s.SetClientConnectCallbackFunction([this](uint16_t c) { Add("C" + std::to_string(c)); });
    s.SetClientPreDisconnectCallbackFunction([this](uint16_t c) { Add("P" + std::to_string(c)); });
    // The disconnect callback may call back in.
    s.SetClientDisconnectCallbackFunction([this, &s](uint16_t c) { Add("D" + std::to_string(c), s.GetNumClients()); });
  }
  void Add(const std::string& e, int clients = -1) {
    std::lock_guard<std::mutex> g(Lock);
    Log.push_back(e);
    if (clients >= 0) ClientsAtDisconnect.push_back(clients);
    Changed.notify_all();
  }
  // Waits for `e` to have happened `times` times; after a connect, lets the accept thread
  // finish the report it prints after the callback, so that it lands in the right capture.
  bool WaitFor(const std::string& e, size_t times = 1) {
    std::unique_lock<std::mutex> g(Lock);
    const bool seen = Changed.wait_for(g, 3s, [&] { return size_t(std::count(Log.begin(), Log.end(), e)) >= times; });
    g.unlock();
    if (seen && e[0] == 'C') std::this_thread::sleep_for(100ms);
    return seen;
  }
  Events Snapshot() {
    std::lock_guard<std::mutex> g(Lock);
    return Log;
  }
  std::vector<int> ClientsAtDisconnect;  // read once the disconnects are over

 private:
  std::mutex Lock;
  std::condition_variable Changed;
  Events Log;
};

template <class F>
std::string Captured(F f) {
  testing::internal::CaptureStdout();
  f();
  return testing::internal::GetCapturedStdout();
}
bool Contains(const std::string& text, const std::string& part) { return text.find(part) != std::string::npos; }

// Whether the server ended the connection (after what it had sent).
bool AtEndOfFile(CTestClient& c) {
  std::string rest;
  bool closed = false;
  while (c.ReadExact(1, &rest, 5s, &closed)) {}
  return closed;
}

// A server on a free port of the loopback address with its callbacks logged. The log outlives
// the server, whose destructor still calls back.
class SocketTest : public testing::Test {
 protected:
  void SetUp() override {
    Log.Attach(*S);
    ASSERT_EQ(S->SetListenAddress("127.0.0.1"), 0);
    for (int attempt = 0; attempt < 20 && Port == 0; ++attempt) {
      const int port = FreePort();
      Captured([&] { Port = S->init(port) == 0 ? port : 0; });
    }
    ASSERT_NE(Port, 0);
  }
  CCallbackLog Log;
  std::unique_ptr<CSocket> S = std::make_unique<CSocket>();
  int Port = 0;
};

}  // namespace

// Guards the port range and its console text, and that a write budget never goes below one try.
TEST(SocketInit, RefusesPortsOutsideOneTo9999AndKeepsAtLeastOneWriteAttempt) {
  CSocket s;
  EXPECT_EQ(Captured([&] {
              EXPECT_EQ(s.init(0), -1);
              EXPECT_EQ(s.init(10000), -1);
            }),
            "socket #0 out of range.\nsocket #10000 out of range.\n");
  EXPECT_EQ(s.SetListenAddress("not-an-address"), -1);
  uint32_t attempts = 0, delay = 0;
  EXPECT_EQ(s.SetWriteRecoveryOptions(4, 0, 1234), 0);
  EXPECT_EQ(s.GetWriteRecoveryOptions(4, &attempts, &delay), 0);
  EXPECT_EQ(std::make_pair(attempts, delay), std::make_pair(1u, 1234u));
  EXPECT_EQ(s.SetWriteRecoveryOptions(10, 5, 5), -1);
  char buf[16] = "stale";
  EXPECT_EQ(s.ReadCmd(3, buf, sizeof buf), -1);
  EXPECT_STREQ(buf, "");
  EXPECT_EQ(s.WriteData(3, "x", 1), -1);
  EXPECT_EQ(s.TransferFile(3, "/nonexistent"), -1);
}

// Guards the callbacks' order, the client count and the console lines on connect, on a client's
// close, on closing a free slot, on slot reuse and in the destructor (which ends every session).
TEST_F(SocketTest, ConnectAndDisconnectRunCallbacksAndCountClients) {
  std::unique_ptr<CTestClient> a, b, c, d;
  std::string out = Captured([&] {
    a = std::make_unique<CTestClient>(Port);
    ASSERT_TRUE(Log.WaitFor("C0"));
    b = std::make_unique<CTestClient>(Port);
    ASSERT_TRUE(Log.WaitFor("C1"));
  });
  EXPECT_TRUE(Contains(out, "Connected client #0 (127.0.0.1)\n1 client connected\n")) << out;
  EXPECT_EQ(S->GetNumClients(), 2);
  EXPECT_STREQ(S->GetClientAddress(0), "127.0.0.1");
  EXPECT_STREQ(S->GetClientAddress(5), "0.0.0.0");
  out = Captured([&] {  // the client closes; the reader notices and the slot is freed
    a->Close();
    char buf[512];
    int w = 0;
    for (const auto end = Clock::now() + 3s; Clock::now() < end && (w = S->WaitReadable(0, 100)) >= 0;)
      if (w > 0) S->ReadCmd(0, buf, sizeof buf);
    EXPECT_LT(w, 0);
  });
  EXPECT_TRUE(Contains(out, "Closing connection on client 0\n1 client connected\n")) << out;
  EXPECT_EQ(Log.Snapshot(), (Events{"C0", "C1", "P0", "D0"}));
  EXPECT_EQ(Log.ClientsAtDisconnect, std::vector<int>{1});
  EXPECT_EQ(S->GetNumClients(), 1);
  // Closing a free slot still tells the session to stop, and reports it.
  EXPECT_TRUE(Contains(Captured([&] { EXPECT_EQ(S->close_client(0), -1); }), "Client 0 not connected.\n"));
  EXPECT_EQ(Log.Snapshot().back(), "P0");
  // Slot 0 is used again (by the next client or the one after: the accept thread picks its slot
  // before it waits).
  c = std::make_unique<CTestClient>(Port);
  d = std::make_unique<CTestClient>(Port);
  ASSERT_TRUE(Log.WaitFor("C0", 2) && Log.WaitFor("C2"));
  EXPECT_EQ(S->GetNumClients(), 3);
  const auto t0 = Clock::now();
  out = Captured([&] { S.reset(); });
  EXPECT_LT(Clock::now() - t0, 1500ms);  // the accept thread ends at once
  EXPECT_TRUE(Contains(out,
                       "Closing connection on client 0\n2 clients connected\n"
                       "Closing connection on client 1\n1 client connected\n"
                       "Closing connection on client 2\n0 clients connected\n"
                       "CSocket: Freeing the file Xfer buffers...\n"
                       "Canceling cs_thread...thread canceled.\n"))
      << out;
  EXPECT_TRUE(Log.WaitFor("D0", 2) && Log.WaitFor("D1") && Log.WaitFor("D2"));
  for (auto* client : {b.get(), c.get(), d.get()}) EXPECT_TRUE(AtEndOfFile(*client));
}

// Crash safety: a write to a vanished peer closes the slot and raises no SIGPIPE.
TEST_F(SocketTest, VanishedPeerClosesTheSlotWithoutSigpipe) {
  // init ignores SIGPIPE for the process; undo that so that only the write's own flag stands
  // between a vanished peer and the signal. Blocked here, a raised SIGPIPE would stay pending.
  auto previous = ::signal(SIGPIPE, SIG_DFL);
  sigset_t pipeSet, oldMask, pending;
  sigemptyset(&pipeSet);
  sigaddset(&pipeSet, SIGPIPE);
  ASSERT_EQ(pthread_sigmask(SIG_BLOCK, &pipeSet, &oldMask), 0);
  {
    CTestClient client(Port);
    ASSERT_TRUE(Log.WaitFor("C0"));
  }
  ASSERT_EQ(S->WaitReadable(0, 2000), 1);  // its close has arrived
  int result = 0;
  const std::string out = Captured([&] {
    for (int i = 0; i < 100 && result == 0; ++i)  // the first write may still be taken
      if ((result = S->WriteData(0, "0000000006reply\n", 16)) == 0) std::this_thread::sleep_for(10ms);
  });
  sigemptyset(&pending);
  sigpending(&pending);
  const bool sigpipeRaised = sigismember(&pending, SIGPIPE) == 1;
  timespec zero{0, 0};
  if (sigpipeRaised) sigtimedwait(&pipeSet, nullptr, &zero);
  pthread_sigmask(SIG_SETMASK, &oldMask, nullptr);
  ::signal(SIGPIPE, previous);
  EXPECT_FALSE(sigpipeRaised);
  EXPECT_GT(result, 0);  // the errno of the failed write
  EXPECT_TRUE(Contains(out, "closing client on error #" + std::to_string(result) +
                                "\nCSocket::WriteData() Broken Pipe\nClosing connection on client 0\n0 clients connected\n"))
      << out;
  EXPECT_EQ(Log.Snapshot(), (Events{"C0", "P0", "D0"}));
  EXPECT_EQ(S->WriteData(0, "x", 1), -1);
}

// A reply that cannot be sent whole within the budget would leave the client reading its next
// frame from the middle of this one: the connection is closed instead.
TEST_F(SocketTest, StalledPeerExhaustsTheRetryBudgetAndIsClosed) {
  CTestClient client(Port, 20s, 4096);  // a small window, and it never reads
  ASSERT_TRUE(Log.WaitFor("C0"));
  const int len = 16 * 1024 * 1024;  // far more than both socket buffers hold
  const std::string big(size_t(len), 'r');
  ASSERT_EQ(S->SetWriteRecoveryOptions(0, 3, 20000), 0);  // the slot's own budget: 3 sleeps of 20 ms
  int written = 0;
  const std::string out = Captured([&] { written = S->WriteData(0, big.data(), len); });
  EXPECT_TRUE(written > 0 && written < len) << written;
  EXPECT_TRUE(Contains(out, "Write failed. (" + std::to_string(written) + " of " + std::to_string(len) +
                                " bytes written after 3 attempts (20000 us/attempt).\n"
                                "Closing connection on client 0\n0 clients connected\n"))
      << out;
  EXPECT_EQ(Log.Snapshot(), (Events{"C0", "P0", "D0"}));
  EXPECT_EQ(S->GetNumClients(), 0);
}

// Without the retry a failed bind ends init; with it, a stop while retrying ends at once (the
// retry's console text and the bind once the port frees are checked with the whole server).
TEST(SocketInit, BindRetryIsOptionalAndAStopEndsItAtOnce) {
  int port = 0;
  const int blocker = HoldPort(&port);
  ASSERT_GE(blocker, 0);
  {
    CSocket idle;
    EXPECT_FALSE(Contains(Captured([&] { EXPECT_NE(idle.init(port), 0); }), "Retrying"));
  }
  CSocket stopped;
  stopped.SetBindRetry(true);
  Captured([&] { EXPECT_NE(stopped.init(port), 0); });
  const auto t0 = Clock::now();
  EXPECT_TRUE(stopped.Stop());
  EXPECT_LT(Clock::now() - t0, 1500ms);
  ::close(blocker);
}
