// Two vr480d on the simulated card, stopped with a full house (one with #QUIT!, one with SIGTERM);
// the first binds its port only once an earlier holder lets it go.
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>
#include <atomic>
#include <cerrno>
#include <memory>
#include <thread>
#include <vector>

#include "DataWire.h"
#include "sim/SimCard.h"
#include "support/ServerProcess.h"
#include "support/TempDir.h"
#include "support/TestClient.h"

using namespace std::chrono_literals;
using data_wire::SRecord;
using Clock = std::chrono::steady_clock;

namespace {

// The length of a frame from its ten digits; -1 when they are not ten digits.
long Length(const std::string& digits) {
  if (digits.size() != 10 || digits.find_first_not_of("0123456789") != std::string::npos) return -1;
  return std::stol(digits);
}

// Torn: the length field is not ten digits, or the session went silent inside a frame. A
// session closed inside a frame is ended, not torn: nothing can be misread after it.
enum class EFrame { Whole, Closed, Torn, Silent };
EFrame ReadFrame(CTestClient& c, std::string* body, std::chrono::milliseconds timeout) {
  std::string digits;
  bool closed = false;
  if (!c.ReadExact(10, &digits, timeout, &closed)) return closed ? EFrame::Closed : digits.empty() ? EFrame::Silent : EFrame::Torn;
  const long length = Length(digits);
  if (length < 0) return EFrame::Torn;
  if (c.ReadExact(static_cast<size_t>(length), body, timeout, &closed)) return EFrame::Whole;
  return closed ? EFrame::Closed : EFrame::Torn;
}

// A streaming client read on its own thread: it checks that every frame is whole (with its token).
class CStreamer {
 public:
  explicit CStreamer(std::unique_ptr<CTestClient> client) : Client(std::move(client)) {
    if (!Client->Connected() || !Client->Send("#SET_STREAMING_DATA 1")) Faults.push_back("could not start streaming");
    Reader = std::thread([this] { Run(); });
  }
  ~CStreamer() { Leave(); }
  void Leave() {  // stops reading and closes the connection
    bLeave = true;
    if (Reader.joinable()) Reader.join();
    Client->Close();
  }
  uint64_t Records() const { return RecordCount; }
  bool ClosedByServer() const { return bClosedByServer; }
  std::vector<std::string> Faults;  // read them after Leave()

 private:
  void Run() {
    std::string pending;
    char chunk[65536];
    const int fd = Client->Descriptor();
    while (!bLeave && fd >= 0) {
      pollfd p{fd, POLLIN, 0};
      if (::poll(&p, 1, 100) <= 0) continue;
      const ssize_t n = ::recv(fd, chunk, sizeof chunk, 0);
      if (n < 0 && (errno == EINTR || errno == EAGAIN)) continue;
      if (n <= 0) return void(bClosedByServer = true);
      pending.append(chunk, static_cast<size_t>(n));
      size_t at = 0;
      for (long length; pending.size() - at >= 10; at += 10 + static_cast<size_t>(length)) {
        if ((length = Length(pending.substr(at, 10))) < 0) return Faults.push_back("torn frame after " + std::to_string(RecordCount) + " records");
        if (pending.size() - at - 10 < static_cast<size_t>(length)) break;
        Frame(pending.substr(at + 10, static_cast<size_t>(length)));
      }
      pending.erase(0, at);
    }
  }
  void Frame(const std::string& body) {
    if (!bStarted) {
      bStarted = true;
      if (body != "Streaming data enabled.\n") Faults.push_back("streaming was answered with \"" + body + "\"");
      return;
    }
    const std::string token = body.size() >= 8 ? body.substr(body.size() - 8) : body;
    if (body.size() < 96 || (token != "XXXXXXXX" && token != "ZZZZZZZZ"))
      return Faults.push_back("a record frame of " + std::to_string(body.size()) + " bytes without its token");
    if (!SRecord{body.substr(0, body.size() - 8)}.IsNoDataHeader()) ++RecordCount;
  }

  std::unique_ptr<CTestClient> Client;
  std::thread Reader;
  std::atomic<bool> bLeave{false}, bClosedByServer{false};
  std::atomic<uint64_t> RecordCount{0};
  bool bStarted = false;
};

// The dot notation the server gives for legacy channel n (1-16).
std::string Dot(int n) { return std::to_string((n - 1) % 4 + 1) + "." + std::to_string((n - 1) / 4 + 1); }

// A server with a new root holding the instrument's baseline tags.
struct SServer {
  explicit SServer(int port) {
    std::string tags;
    for (const auto& line : sim::BaselineTagLines()) tags += line + "\n";
    WriteFile(Root / "vr480/vr480.tag", tags);
    Process = std::make_unique<CServerProcess>(Root.Path(), port);
  }
  bool WaitStarted() { return Process->WaitForOutput("**FsCountOffset = ", 90s) && Process->WaitForOutput("**\n", 5s); }
  CTempDir Root;
  std::unique_ptr<CServerProcess> Process;
};

class Abuse : public testing::Test {
 protected:
  static void SetUpTestSuite() {
    // The #QUIT! target finds its port held: killed with clients connected and started again at
    // once, the server meets its old connections on the port, and must bind once they are gone.
    const int holder = HoldPort(&HeldPort);
    QuitTarget = new SServer(HeldPort);
    TermTarget = new SServer(FreePort());
    bStarted = holder >= 0 && TermTarget->WaitStarted() &&
               QuitTarget->Process->WaitForOutput("Retrying bind on port " + std::to_string(HeldPort) + " every second.\n", 60s);
    std::this_thread::sleep_for(1500ms);  // a retry or two fails meanwhile
    ::close(holder);
    bStarted = bStarted && QuitTarget->WaitStarted();
  }
  static void TearDownTestSuite() { delete QuitTarget, delete TermTarget; }
  void SetUp() override { ASSERT_TRUE(bStarted) << QuitTarget->Process->Output().substr(0, 4000); }

  static inline SServer *QuitTarget, *TermTarget;
  static inline bool bStarted = false;
  static inline int HeldPort = 0;
};

}  // namespace

// An 11th and 12th client wait until two of ten streaming ones leave; #QUIT! or SIGTERM with a
// full house closes every session and ends normally.
TEST_F(Abuse, FullHouseThenQuitOrSigtermEndsNormally) {
  const std::string bind = QuitTarget->Process->Output(), port = std::to_string(HeldPort);
  EXPECT_NE(bind.find("failed to bind server socket to file descriptor.  Error #" + std::to_string(EADDRINUSE) +
                      "\nCSocket::init() error: " + std::strerror(EADDRINUSE) + "\nRetrying bind on port " + port +
                      " every second.\n"), std::string::npos) << bind;
  EXPECT_EQ(bind.find("Retrying"), bind.rfind("Retrying")) << "said once";
  EXPECT_TRUE(QuitTarget->Process->WaitForOutput("Server socket bound to port " + port + "; accepting clients.\n", 30s));
  auto scenario = [](CServerProcess& server, bool quitCommand) {
    std::vector<std::unique_ptr<CStreamer>> streams;
    for (int i = 0; i < 10; ++i) streams.push_back(std::make_unique<CStreamer>(std::make_unique<CTestClient>(server.Port())));
    for (auto& s : streams)  // the ten hold every slot once their streams flow
      for (const auto end = Clock::now() + 30s; s->Records() == 0 && Clock::now() < end;) std::this_thread::sleep_for(50ms);
    std::vector<std::unique_ptr<CTestClient>> waiting;
    for (int n : {11, 12}) {
      waiting.push_back(std::make_unique<CTestClient>(server.Port()));
      EXPECT_TRUE(waiting.back()->Send("#GET_DOT_NOTATION " + std::to_string(n)));
    }
    std::string body;
    EXPECT_EQ(ReadFrame(*waiting[0], &body, 1500ms), EFrame::Silent) << "served with ten connected";
    streams[0]->Leave();
    streams[1]->Leave();
    for (int i = 0; i < 2; ++i) {
      EXPECT_EQ(ReadFrame(*waiting[i], &body, 20s), EFrame::Whole);
      EXPECT_EQ(body, Dot(11 + i));
    }
    std::unique_ptr<CTestClient> quitter = quitCommand ? std::move(waiting[1]) : nullptr;
    for (int i = 0; i < 2; ++i)
      if (waiting[i]) streams[i] = std::make_unique<CStreamer>(std::move(waiting[i]));
    if (quitCommand) streams.erase(streams.begin() + 1);
    std::this_thread::sleep_for(1s);
    for (size_t i = 0; i < streams.size(); ++i) EXPECT_GT(streams[i]->Records(), 0u) << "client " << i;

    if (quitCommand) { EXPECT_EQ(quitter->Command("#QUIT!"), "Quitting...\n"); }
    EXPECT_EQ(quitCommand ? server.WaitExit(40s) : server.Stop(SIGTERM, 40s), 0);
    EXPECT_NE(server.Output().find("\nServer Terminated Normally.\n"), std::string::npos);
    EXPECT_NE(server.Output().find("Client threads halted.\n"), std::string::npos);
    if (quitter) { EXPECT_EQ(ReadFrame(*quitter, &body, 10s), EFrame::Closed) << "the server closes the session"; }
    for (size_t i = 0; i < streams.size(); ++i) {
      for (const auto end = Clock::now() + 5s; !streams[i]->ClosedByServer() && Clock::now() < end;)
        std::this_thread::sleep_for(50ms);
      EXPECT_TRUE(streams[i]->ClosedByServer()) << "client " << i;
      streams[i]->Leave();
      for (const auto& p : streams[i]->Faults) EXPECT_EQ(p.find("torn"), std::string::npos) << "client " << i << ": " << p;
    }
  };
  std::thread quit([&] { scenario(*QuitTarget->Process, true); });
  scenario(*TermTarget->Process, false);
  quit.join();
}
