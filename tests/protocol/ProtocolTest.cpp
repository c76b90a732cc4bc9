// The protocol, the data commands and file transfer as TCP clients see them, frames read byte for
// byte: one vr480d on the simulated card (three gratings per DUT channel) serves the whole suite.
// Two more (Abuse) are stopped with a full house, one with #QUIT!, one with SIGTERM.
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <random>
#include <regex>
#include <set>
#include <thread>

#include "DataWire.h"
#include "host/ConfinedPath.h"
#include "host/Host.h"
#include "protocol/HelpTexts.h"
#include "sim/SimCard.h"
#include "support/ServerProcess.h"
#include "support/TempDir.h"
#include "support/TestClient.h"

using namespace std::chrono_literals;
using data_wire::SRecord;
namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

namespace {

constexpr double kSceneNm[4][3] = {
    {1530.0, 1545.0, 1560.0}, {1531.5, 1546.5, 1561.5}, {1533.0, 1548.0, 1563.0}, {1534.5, 1549.5, 1564.5}};
const std::string kInvalid = "!Invalid command or argument: ";

template <class F>
bool WaitUntil(F condition, std::chrono::seconds limit = 30s) {
  for (const auto end = Clock::now() + limit; Clock::now() < end; std::this_thread::sleep_for(50ms))
    if (condition()) return true;
  return false;
}

class EndToEnd : public ::testing::Test {
 public:
  static void Start() {
    Root = new CTempDir;
    std::string tags, scene;
    for (const auto& line : sim::BaselineTagLines()) tags += line + "\n";
    WriteFile(*Root / "vr480/vr480.tag", tags + "#TEST_CMD = \"7 8 9\"\n// a remark\n  #GET_DOT_NOTATION 5\n");
    for (int ch = 0; ch < 4; ++ch)
      for (double nm : kSceneNm[ch]) scene += std::to_string(ch + 1) + " " + std::to_string(nm) + " 0 12000\n";
    WriteFile(*Root / "scene.txt", scene);
    Server = new CServerProcess(Root->Path(), FreePort(), {"--scene", *Root / "scene.txt"});
  }

 protected:
  static void SetUpTestSuite() {
    if (!Server) Start();
    // Clients are served from early in start-up; the offset line ends it.
    bStarted = Server->WaitForOutput("**FsCountOffset = ", 90s) && Server->WaitForOutput("**\n", 5s);
  }
  static void TearDownTestSuite() { delete Server, delete Root, Server = nullptr, Root = nullptr; }
  void SetUp() override { ASSERT_TRUE(bStarted) << Server->Output().substr(0, 4000); }

  static int Port() { return Server->Port(); }
  static std::string Dir() { return Root->Path() + "/vr480"; }  // where relative names land
  static SRecord Read(CTestClient& c, const char* command = "#GET_DATA") { return SRecord{c.Command(command, 5s)}; }
  // Waits for records that carry the scene's twelve sensors.
  static bool WaitForSensors(CTestClient& c) {
    return WaitUntil([&] {
      const SRecord rec = Read(c, "#GET_UNBUFFERED_DATA");
      return rec.Size() > 88 && !rec.IsNoDataHeader() && rec.Status() == 0 && rec.Sensors() == 12;
    });
  }
  // Waits until the card stops delivering: this client's unread count stays put for half a second.
  static bool WaitForQuiet(CTestClient& c) {
    c.Command("#FLUSH_BUFFER");
    return WaitUntil([&] {
      const std::string before = c.Command("#GET_BUFFER_COUNT");
      std::this_thread::sleep_for(500ms);
      return c.Command("#GET_BUFFER_COUNT") == before;
    });
  }

  // A fresh client gets the exact reply to a cheap command and two records whose sweep
  // counters advance: the server still answers and still acquires.
  static testing::AssertionResult StillServes() {
    CTestClient c(Port());
    const std::string dot = c.Command("#GET_DOT_NOTATION 10", 30s);
    if (dot != "2.3") return testing::AssertionFailure() << "#GET_DOT_NOTATION 10 answered \"" << dot << "\"";
    const SRecord a{c.Command("#GET_DATA", 10s)}, b{c.Command("#GET_DATA", 10s)};
    if (a.Size() < 88 || b.Size() < 88 || b.Sweep() <= a.Sweep())
      return testing::AssertionFailure() << "records of " << a.Size() << " and " << b.Size() << " bytes";
    return testing::AssertionSuccess();
  }
  // A reader the machine's load keeps away for a while must not lose its session in the bulk
  // cases: the server-wide budget (10 s) is taken into this client's slot.
  static void Patient(CTestClient& c) {
    c.Command("#SET_SOCKET_RECOVERY_ATTEMPTS 40000");
    ASSERT_EQ(c.Command("#SET_STREAMING_DATA 0"), "Streaming data disabled.\n");
  }

  static inline CTempDir* Root = nullptr;
  static inline CServerProcess* Server = nullptr;
  static inline bool bStarted = false;
};

// Start-up takes seconds, mostly waiting: the server starts with the program, beside the
// suites that run before this one.
class CEarlyStart : public testing::Environment {
  void SetUp() override {
    auto* unit = testing::UnitTest::GetInstance();
    for (int i = 0; i < unit->total_test_suite_count(); ++i)
      if (std::string(unit->GetTestSuite(i)->name()) == "EndToEnd" && unit->GetTestSuite(i)->should_run()) EndToEnd::Start();
  }
};
testing::Environment* const kEarlyStart = testing::AddGlobalTestEnvironment(new CEarlyStart);

std::string RandomBytes(size_t n, unsigned seed) {
  std::mt19937 gen(seed);
  std::string s(n, '\0');
  for (char& ch : s) ch = static_cast<char>(gen());
  return s;
}
std::string Dot(int n) { return std::to_string((n - 1) % 4 + 1) + "." + std::to_string((n - 1) / 4 + 1); }

std::string Frame(const std::string& body) {
  char digits[16];
  std::snprintf(digits, sizeof digits, "%010zu", body.size());
  return digits + body;
}

// A frame read byte for byte: the ten digits and the body.
struct SFrame {
  std::string Digits, Body;
  bool Ok = false;
};
SFrame RawFrame(CTestClient& c, const std::string& command = "", std::chrono::milliseconds timeout = 5s) {
  SFrame f;
  if ((!command.empty() && !c.Send(command)) || !c.ReadExact(10, &f.Digits, timeout)) return f;
  if (f.Digits.find_first_not_of("0123456789") != std::string::npos) return f;
  f.Ok = c.ReadExact(std::stoul(f.Digits), &f.Body, timeout);
  return f;
}

}  // namespace

// Guards the parser and framing: tags replayed at start in file order (remarks skipped); one
// frame per line; names case-insensitive; "=", quotes and spaces give the same arguments; CR LF;
// numbers read as the C library reads a prefix; lines cut at 256 characters; split commands.
TEST_F(EndToEnd, EachCommandGetsOneFrameAndTheInvalidReplyNamesTheLine) {
  const std::string out = Server->Output();
  const size_t first = out.find("CMD: #TEST_CMD = \"7 8 9\"\n"), second = out.find("CMD: #GET_DOT_NOTATION 5\n");
  EXPECT_TRUE(first != std::string::npos && second != std::string::npos && first < second);
  EXPECT_EQ(out.find("a remark"), std::string::npos);

  CTestClient c(Port());
  EXPECT_EQ(c.Command("#IDN?").rfind("Zorvane vr480, 2.0h-52-101-", 0), 0u);
  const std::pair<const char*, std::string> rows[] = {
      {"#GET_LEGACY_NOTATION 2.3", "10"},
      {"#GET_DOT_NOTATION 16", "4.4"},
      {"#GET_DOT_NOTATION 10", "2.3"},
      {"#GET_DOT_NOTATION 2.3", "2.3"},
      {"#GET_DOT_NOTATION 0", "0.1"},
      {"#WHOAMI?", "127.0.0.1"},
      {"#FOO 1 2", kInvalid + "#FOO 1 2."},
      {"#TEST_CMD 1 2", kInvalid + "#TEST_CMD 1 2."},
      {"#TEST_CMD 1 2 3 4", kInvalid + "#TEST_CMD 1 2 3 4."},
      {"#IDN? extra", kInvalid + "#IDN? extra."},
      {"#test_cmd 1 2 3", "Test command set to 1 2 3.\n"},
      {"#TEST_CMD=1 2 3", "Test command set to 1 2 3.\n"},
      {"#TEST_CMD = \"1 2 3\"", "Test command set to 1 2 3.\n"},
      {"#TEST_CMD\t1  2   3\r", "Test command set to 1 2 3.\n"},
      {"#TEST_CMD 70000 x -5", "Test command set to 4464 0 -5.\n"},  // the test values are 16-bit
      {"#SET_DATA_INTERLEAVE 0", "Client data interleave set to 1.\n"},
      {"#SET_DATA_INTERLEAVE -3", "Client data interleave set to 1.\n"},
      {"#SET_DATA_INTERLEAVE 4", "Client data interleave set to 4.\n"},
      {"#GET_DATA_INTERLEAVE", "4"},
      {"#HELP", std::string(kShortHelpText, kShortHelpLength)},
      {"#ZOR_HELP", std::string(kFullHelpText, kFullHelpLength)},
  };
  for (const auto& [line, reply] : rows) EXPECT_EQ(c.Command(line), reply) << line;
  EXPECT_TRUE(std::regex_match(c.Command("#READY? anything at all"), std::regex("[01]")));

  const SFrame f = RawFrame(c, "#SET_STREAMING_DATA 0");  // ten digits and the body, nothing else
  EXPECT_EQ(f.Digits + f.Body, "0000000025Streaming data disabled.\n");
  EXPECT_TRUE(c.Silent(200ms));
  // An empty line gets no reply; a line holding only a CR is an empty command, answered as invalid.
  ASSERT_TRUE(c.SendRaw("\n\r\n"));
  EXPECT_EQ(c.ReadFrame(), kInvalid + " .");
  EXPECT_EQ(c.Command("#GET_DOT_NOTATION 1"), "1.1");
  // The 257th character is dropped and ends the line; a command split over segments is served whole.
  ASSERT_TRUE(c.SendRaw("#TEST_CMD 1 2 " + std::string(241, ' ') + "3X#GET_DOT_NOTATION 7\n#GET_LEG"));
  EXPECT_EQ(c.ReadFrame(), "Test command set to 1 2 3.\n");
  EXPECT_EQ(c.ReadFrame(), "3.2");
  std::this_thread::sleep_for(100ms);
  ASSERT_TRUE(c.SendRaw("ACY_NOTATION 4.4\n"));
  EXPECT_EQ(c.ReadFrame(), "16");
  // An empty constant reply (high-speed samples without full-spectrum acquisition) is ten zeros
  // and no body: the next bytes are already the next reply's.
  ASSERT_EQ(c.Command("#GET_ZOR_FS_ENABLE"), "1");
  EXPECT_EQ(RawFrame(c, "#GET_HIGH_SPEED_FS").Digits, "0000000512");
  c.Command("#SET_ZOR_FS_ENABLE 0");
  std::string bytes;
  ASSERT_TRUE(c.SendRaw("#GET_HIGH_SPEED_FS\n#GET_ZOR_FS_ENABLE\n") && c.ReadExact(21, &bytes));
  EXPECT_EQ(bytes, "000000000000000000010");
  c.Command("#SET_ZOR_FS_ENABLE 1");
}

// Guards the "no new data" header over TCP: with software triggering and no start, the waiting
// read ends empty (88 bytes, status 9).
TEST_F(EndToEnd, WithNoNewRecordsTheReplyIsTheNoDataHeader) {
  CTestClient setup(Port());
  struct SRestore {  // records drop for a moment after the mode change: wait for them to flow
    CTestClient& C;
    ~SRestore() {
      C.Command("#SET_TRIG_MODE 0", 10s);
      C.Command("#FLUSH_BUFFER");
      for (int i = 0, run = 0; i < 100 && run < 3; ++i) run = Read(C).IsNoDataHeader() ? 0 : run + 1;
    }
  } restore{setup};
  ASSERT_EQ(setup.Command("#SET_TRIG_MODE 1", 10s).rfind('!', 0), std::string::npos);
  std::this_thread::sleep_for(200ms);  // lets a record already on its way be published
  CTestClient c(Port());
  EXPECT_FALSE(Read(c).IsNoDataHeader());  // the one record published
  const SFrame frame = RawFrame(c, "#GET_DATA", 30s);  // triggered acquisition wakes readers every sweep
  ASSERT_TRUE(frame.Ok);
  EXPECT_EQ(frame.Digits, "0000000088");
  EXPECT_TRUE(SRecord{frame.Body}.IsNoDataHeader());
  EXPECT_TRUE(Read(c, "#GET_DATA_AND_LEVELS").IsNoDataHeader());
}

// Guards streaming: consecutive records, the tokens (the end token completes the last frame, or
// comes in its own without tokens), and no text replies to a streaming client.
TEST_F(EndToEnd, StreamsDeliverConsecutiveRecordsAndEndWithTheEndToken) {
  for (const bool tokens : {true, false}) {
    SCOPED_TRACE(tokens ? "with tokens" : "without tokens");
    CTestClient c(Port());
    EXPECT_EQ(c.Command(tokens ? "#SET_USE_STREAM_TOKENS 1" : "#SET_USE_STREAM_TOKENS 0"),
              tokens ? "Streaming tokens enabled.\n" : "Streaming tokens disabled.\n");
    SFrame f = RawFrame(c, "#SET_STREAMING_DATA 1");
    EXPECT_EQ(f.Digits + f.Body, "0000000024Streaming data enabled.\n");
    const size_t token = tokens ? 8 : 0;
    uint32_t last = 0;
    for (int i = 0;; ++i) {
      ASSERT_LT(i, 1200) << "the stream did not end";
      f = RawFrame(c);
      ASSERT_TRUE(f.Ok) << "record " << i;
      if (!tokens && f.Body.size() == 8) {
        EXPECT_EQ(f.Digits + f.Body, "0000000008ZZZZZZZZ");
        break;
      }
      ASSERT_GE(f.Body.size(), 88 + token);
      const SRecord rec{f.Body.substr(0, f.Body.size() - token)};  // well formed whatever the laser does
      const uint32_t status = rec.Status();
      EXPECT_TRUE(status == 0 || (status >= 2 && status <= 7) || status == 0x81) << status;
      EXPECT_TRUE(rec.Type() == 1 && rec.Granularity() == 1000000u && rec.LengthMatchesCounts()) << "record " << i;
      if (status != 0 && status != 0x81) { EXPECT_EQ(rec.Sensors(), 0u); }
      if (last) { ASSERT_EQ(rec.Sweep(), last + 1) << "record " << i; }
      last = rec.Sweep();
      if (i == 100) { ASSERT_TRUE(c.Send("#GET_BUFFER_COUNT")); }  // executed, but not answered
      if (i == 200) { ASSERT_TRUE(c.Send("#SET_STREAMING_DATA 0")); }
      if (!tokens) continue;
      const std::string end = f.Body.substr(f.Body.size() - 8);
      if (end == "ZZZZZZZZ" && i > 200) break;
      ASSERT_EQ(end, "XXXXXXXX") << "record " << i;
    }
    EXPECT_TRUE(c.Silent(300ms));
    EXPECT_EQ(c.Command("#GET_STREAMING_DATA"), "0");
    EXPECT_EQ(c.Command("#GET_USE_STREAM_TOKENS"), tokens ? "1" : "0");
  }
}

// Crash safety: every reply before a known command's is a whole frame, garbage gets the invalid
// reply, and 10000 pipelined commands are answered in order.
TEST_F(EndToEnd, MalformedOrPipelinedInputIsAnsweredInWholeFramesInOrder) {
  static constexpr char kNulLines[] = "\0\0\0\n\0\n#GET_DOT_NOTATION 3\0tail\n";
  std::string burst;
  std::vector<std::string> dots;
  for (int i = 0; i < 10000; ++i) burst += "#GET_DOT_NOTATION " + std::to_string(i % 16 + 1) + "\n", dots.push_back(Dot(i % 16 + 1));
  const struct {
    const char* Name;
    std::string Bytes;
    int Replies;        // expected count, or -1 when it depends on how the line is cut
    bool bOnlyInvalid;  // every reply is the invalid-command reply
    std::vector<std::string> Expected;
  } inputs[] = {
      {"empty lines", "\n\n\n\n", 0, true, {}},
      {"CR-only lines", "\r\n\r\n\r\n", 3, true, {}},
      {"a 64 KB line", std::string(65536, 'x') + "\n", -1, true, {}},
      {"NUL bytes", std::string(kNulLines, sizeof kNulLines - 1), -1, false, {}},
      {"1 MB of random bytes", std::regex_replace(RandomBytes(1 << 20, 5), std::regex("#"), "$") + "\n", -1, true, {}},
      {"10000 pipelined commands", burst, 10000, false, dots},
  };
  for (const auto& in : inputs) {
    SCOPED_TRACE(in.Name);
    CTestClient c(Port());
    Patient(c);
    std::thread writer([&] { c.SendRaw(in.Bytes + "#GET_LEGACY_NOTATION 4.4\n"); });
    int replies = 0;
    for (bool ok = true; ok; ++replies) {
      const std::string body = c.ReadFrame(&ok, 30s);
      if (body == "16") break;
      EXPECT_TRUE(ok) << "torn or missing frame after " << replies << " replies";
      if (in.bOnlyInvalid) { EXPECT_EQ(body.rfind("!Invalid command or argument: ", 0), 0u) << body.substr(0, 80); }
      if (!in.Expected.empty() && (replies >= in.Replies || body != in.Expected[replies])) {
        ADD_FAILURE() << "reply " << replies << ": " << body.substr(0, 80);
        c.Abort();  // ends the writer
        break;
      }
    }
    writer.join();
    if (in.Replies >= 0) { EXPECT_EQ(replies, in.Replies); }
    EXPECT_TRUE(c.Silent(300ms));
    EXPECT_TRUE(StillServes());
  }
}

// Sessions ended inside a line (whose start must not leak into the next session), a reply or a
// streamed record (the next client right behind, likely in the same slot, gets its own replies
// and never the old stream), again and again: every slot is freed.
TEST_F(EndToEnd, SessionsBrokenOffAnywhereFreeTheirSlots) {
  std::string part;
  for (int i = 0; i < 60; ++i) {
    CTestClient c(Port(), 20s, i % 6 == 4 ? 4096 : 0);
    ASSERT_TRUE(c.Connected()) << "cycle " << i;
    if (i % 6 == 1) c.Send("#GET_DOT_NOTATION 1");
    if (i % 6 == 2) {
      ASSERT_TRUE(c.SendRaw("#GET_DOT_NOT"));
      std::this_thread::sleep_for(50ms);  // read by the server into the slot's line
      c.Abort();
      EXPECT_EQ(CTestClient(Port()).Command("ATION 1"), "!Invalid command or argument: ATION 1.") << "cycle " << i;
    }
    if (i % 6 == 3) { EXPECT_TRUE(c.SendRaw("#ZOR_HELP\n#ZOR_HELP\n") && c.ReadExact(100, &part, 10s)); }
    if (i % 6 == 4) { EXPECT_TRUE(c.Send("#SET_STREAMING_DATA 1")), std::this_thread::sleep_for(100ms); }
    if (i % 6 == 3 || i % 6 == 4) c.Abort();  // a reset while the server writes
    if (i % 6 == 5) {
      ASSERT_TRUE(c.Send("#SET_STREAMING_DATA 1") && c.ReadExact(34 + 200, &part, 10s));
      c.Close();
      ASSERT_EQ(CTestClient(Port()).Command("#GET_DOT_NOTATION 10"), "2.3") << "cycle " << i;
    }
  }
  CTestClient checker(Port());
  EXPECT_TRUE(WaitUntil([&] { return checker.Command("#WHO?") == "127.0.0.1"; })) << "every broken-off session frees its slot";
  EXPECT_TRUE(StillServes());
}

// Regression: with the card's DMA off (sweeps go on, no record reaches the server) a waiting
// client got a header-only reply every second, and a streaming client could not end its stream.
TEST_F(EndToEnd, WaitingReadersGetNothingFromAnIdleCard) {
  CTestClient a(Port()), b(Port()), s(Port());
  ASSERT_TRUE(WaitForSensors(a));
  const SRecord before = Read(a, "#GET_UNBUFFERED_DATA");
  struct SRestore {  // whatever fails below, the card records again afterwards
    CTestClient& C;
    ~SRestore() { C.Command("#ENABLE_DMA 1"); }
  } restore{a};
  ASSERT_EQ(a.Command("#ENABLE_DMA 0"), "DMA Disabled.\n");
  ASSERT_TRUE(WaitForQuiet(a)) << "records kept coming with DMA off";
  ASSERT_EQ(b.Command("#FLUSH_BUFFER").substr(0, 7), "Client ");
  ASSERT_TRUE(b.Send("#GET_DATA"));
  EXPECT_TRUE(b.Silent(2500ms)) << "a reply reached the client of an idle card";
  ASSERT_EQ(a.Command("#ENABLE_DMA 1"), "DMA Enabled.\n");
  bool ok = false;
  const SRecord first{b.ReadFrame(&ok, 30s)};
  ASSERT_TRUE(ok) << "no reply once the card recorded again";
  EXPECT_TRUE(first.Size() > 88 && first.LengthMatchesCounts() && first.Sensors() > 0) << first.Size() << " bytes";
  EXPECT_GT(first.Sweep(), before.Sweep());

  ASSERT_EQ(a.Command("#ENABLE_DMA 0"), "DMA Disabled.\n");
  ASSERT_TRUE(WaitForQuiet(a)) << "records kept coming with DMA off";
  ASSERT_EQ(s.Command("#SET_USE_STREAM_TOKENS 1"), "Streaming tokens enabled.\n");
  ASSERT_EQ(s.Command("#FLUSH_BUFFER").substr(0, 7), "Client ");
  EXPECT_EQ(RawFrame(s, "#SET_STREAMING_DATA 1").Body, "Streaming data enabled.\n");
  EXPECT_TRUE(s.Silent(2s)) << "a frame reached the streaming client of an idle card";
  std::string bytes;  // no record frame is open for the token to complete: a frame of its own
  ASSERT_TRUE(s.Send("#SET_STREAMING_DATA 0") && s.ReadExact(18, &bytes, 10s)) << "the stream did not end";
  EXPECT_EQ(bytes, "0000000008ZZZZZZZZ");
  ASSERT_EQ(a.Command("#ENABLE_DMA 1"), "DMA Enabled.\n");
  EXPECT_GT(SRecord{s.Command("#GET_DATA", 30s)}.Sensors(), 0u);
  const std::string console = Server->Output();  // no restart over the idle spells
  EXPECT_EQ(console.find("**FsCountOffset = "), console.rfind("**FsCountOffset = "));
}

// Guards the command-line client (built beside vr480d): replies, records, its exit codes and streams.
TEST_F(EndToEnd, CommandLineClientPrintsRepliesAndStreams) {
  const std::string server = VR480D_BINARY;
  const std::string cli = server.substr(0, server.rfind('/') + 1) + "vr480-cli";
  if (::access(cli.c_str(), X_OK) != 0) GTEST_SKIP() << "vr480-cli not built";
  int status = -1;
  auto run = [&](const std::string& args, int port = Port()) {
    std::string out;
    FILE* p = ::popen((cli + " --port " + std::to_string(port) + " " + args + " 2>&1").c_str(), "r");
    char buf[4096];
    for (size_t n; (n = std::fread(buf, 1, sizeof buf, p)) > 0;) out.append(buf, n);
    const int st = ::pclose(p);
    status = WIFEXITED(st) ? WEXITSTATUS(st) : -1;
    return out;
  };
  EXPECT_TRUE(std::regex_match(run("'#GET_BUFFER_COUNT'"), std::regex("[0-9]+\n")) && status == 0);
  const std::string record = run("'#GET_DATA'");
  EXPECT_TRUE(std::regex_search(record, std::regex("^record: [0-9]+ bytes, type 1, status [0-9]+, sweep [0-9]+")) && status == 0) << record;
  EXPECT_EQ(run("'#GET_DATA' 5"), kInvalid + "#GET_DATA 5.\n");
  EXPECT_EQ(status, 1);
  const std::string out = run("--stream 20");
  EXPECT_EQ(status, 0) << out;
  std::smatch m;
  int lines = 0;
  for (std::string rest = out; std::regex_search(rest, m, std::regex("sweep ([0-9]+) sensors ([0-9]+)[^\n]*\n")); rest = m.suffix()) ++lines;
  EXPECT_EQ(lines, 20) << out;
  run("'#GET_DATA'", FreePort());
  EXPECT_EQ(status, 2);
}

namespace {

std::set<std::string> Listing(const std::string& dir) {
  std::set<std::string> names;
  for (const auto& e : fs::directory_iterator(dir)) names.insert(e.path().filename().string());
  return names;
}
bool HasUploadLeftovers(const std::string& dir) {
  for (const auto& name : Listing(dir))
    if (name.rfind(".vr480-upload-", 0) == 0) return true;
  return false;
}
// The raw download reply: frame digits and body.
std::string Download(CTestClient& c, const std::string& path) {
  const SFrame f = RawFrame(c, "#DOWNLOAD " + path, 60s);
  return f.Ok ? f.Digits + f.Body : "<no reply>";
}
std::string Upload(CTestClient& c, const std::string& path, const std::string& bytes) {
  bool ok = c.Send("#UPLOAD " + std::to_string(bytes.size()) + " " + path) && c.SendRaw(bytes);
  const std::string reply = c.ReadFrame(&ok, 60s);
  return ok ? reply : "<no reply>";
}

}  // namespace

// Guards byte-exact transfers, also one client downloading while another uploads and downloads.
TEST_F(EndToEnd, FileTransferRoundTripsAreByteExactAlsoForTwoClientsAtOnce) {
  CTestClient Client(Port());
  Patient(Client);
  const std::pair<std::string, std::string> rows[] = {
      {"empty.bin", ""}, {"forty.bin", RandomBytes(40000, 1)}, {"big.bin", RandomBytes(10 << 20, 2)}};
  for (const auto& [name, content] : rows) {
    SCOPED_TRACE(name);
    EXPECT_EQ(Upload(Client, name, content), std::to_string(content.size()) + " bytes received.\n");
    EXPECT_TRUE(ReadFile(Dir() + "/" + name) == content);
    EXPECT_TRUE(Download(Client, name) == Frame(content));
  }
  EXPECT_TRUE(Download(Client, "/vr480/forty.bin") == Frame(rows[1].second));
  EXPECT_FALSE(HasUploadLeftovers(Dir()));
  const std::string other = RandomBytes(10 << 20, 3);
  std::string downloaded[2], uploadReply, small[20];
  std::thread second([&] {
    CTestClient c(Port());
    Patient(c);
    uploadReply = Upload(c, "other.bin", other);
    for (auto& s : small) s = Download(c, "forty.bin");
  });
  for (auto& d : downloaded) d = Download(Client, "big.bin");
  second.join();
  for (const auto& d : downloaded) EXPECT_TRUE(d == Frame(rows[2].second));
  EXPECT_EQ(uploadReply, std::to_string(other.size()) + " bytes received.\n");
  EXPECT_TRUE(ReadFile(Dir() + "/other.bin") == other);
  for (const auto& s : small) EXPECT_TRUE(s == Frame(rows[1].second));
  EXPECT_EQ(Client.Command("#SET_SOCKET_RECOVERY_ATTEMPTS 40"), "Setting socket write recovery # attempts to 40.\n");
}

// Guards confinement: hostile paths neither read nor touch anything outside the root, special
// files are refused, bad byte counts are refused before any byte is read, an upload cut off
// leaves nothing.
TEST_F(EndToEnd, FileTransferHostilePathsAndCountsAreRefusedAndNothingOutsideTheRootIsTouched) {
  CTestClient Client(Port());
  const std::string dir = Dir();
  CTempDir outside;  // beside the root: must stay untouched
  const std::string sentinel = outside / "sentinel";
  WriteFile(sentinel, "secret");
  WriteFile(dir + "/inside.txt", "inside");
  const std::string outName = fs::path(outside.Path()).filename().string();
  const std::string climb = fs::relative(sentinel, dir).string();
  ASSERT_EQ(climb, "../../" + outName + "/sentinel");
  fs::create_symlink(sentinel, dir + "/link");
  fs::create_symlink(outside.Path(), dir + "/outdir");
  fs::create_symlink("/dev/null", dir + "/devnull");
  fs::create_symlink(dir + "/inside.txt", dir + "/inlink");  // stays inside: allowed
  ASSERT_EQ(::mkfifo((dir + "/fifo").c_str(), 0600), 0);
  fs::create_directory(dir + "/subdir");
  const std::set<std::string> outsideBefore = Listing(outside.Path());
  // Each would reach the sentinel if the text were handed to the kernel as it is.
  for (const std::string& path : {climb, "/../" + outName + "/sentinel", "a/../../../" + outName + "/sentinel",
                                  std::string("link"), std::string("outdir/sentinel"), std::string("devnull"),
                                  std::string("fifo"), std::string("subdir"), "/vr480/../../" + outName + "/sentinel"}) {
    EXPECT_EQ(Download(Client, path), Frame("!File Not Found.\n")) << path;
    EXPECT_EQ(Client.Command("#UPLOAD 6 " + path), "!Failed to open output file >>" + path + "<<.\n");
  }
  EXPECT_EQ(Client.Command("#UPLOAD 6 outdir/new.bin"), "!Failed to open output file >>outdir/new.bin<<.\n");
  EXPECT_EQ(Download(Client, "inlink"), Frame("inside"));
  for (const std::string count : {"-5", "abc", "12abc", "9000000000000000000"})
    EXPECT_EQ(Client.Command("#UPLOAD " + count + " x.bin"), "!Failed to open output file >>x.bin<<.\n") << count;
  EXPECT_EQ(Client.Command("#UPLOAD 5").rfind(kInvalid, 0), 0u);
  EXPECT_EQ(Upload(Client, "zero.bin", ""), "0 bytes received.\n");
  EXPECT_EQ(ReadFile(sentinel), "secret");
  EXPECT_EQ(Listing(outside.Path()), outsideBefore);
  EXPECT_TRUE(fs::is_symlink(dir + "/link") && fs::is_fifo(dir + "/fifo"));
  EXPECT_FALSE(fs::exists(dir + "/x.bin"));
  EXPECT_TRUE(fs::exists(dir + "/zero.bin"));
  EXPECT_FALSE(HasUploadLeftovers(dir));
  {  // a client vanishing mid-upload: no file is left, and the server goes on meanwhile
    CTestClient quitter(Port());
    ASSERT_TRUE(quitter.Send("#UPLOAD 100000 half.bin") && quitter.SendRaw(RandomBytes(5000, 4)));
    ASSERT_TRUE(WaitUntil([&] { return HasUploadLeftovers(dir); })) << "the upload never started";
    EXPECT_EQ(Client.Command("#IDN?").substr(0, 7), "Zorvane");
  }
  EXPECT_TRUE(WaitUntil([&] { return Client.Command("#WHO?") == "127.0.0.1" && !HasUploadLeftovers(dir); }));
  EXPECT_FALSE(fs::exists(dir + "/half.bin"));
}

// On the instrument paths are used as given, but a FIFO or a directory must still be refused
// at once rather than block the client's thread; a link is written through to its file.
TEST(FileTransferOnInstrument, NonRegularFilesAreRefusedWithoutBlocking) {
  ASSERT_TRUE(Host().IsInstrument());
  CTempDir dir;
  ASSERT_EQ(::mkfifo((dir / "fifo").c_str(), 0600), 0);
  WriteFile(dir / "file", "12345");
  fs::create_symlink(dir / "file", dir / "link");
  int64_t size = -1;
  EXPECT_EQ(OpenClientFileForReading(dir / "fifo", &size), -1);
  EXPECT_EQ(OpenClientFileForReading(dir.Path(), &size), -1);
  const int fd = OpenClientFileForReading(dir / "link", &size);
  EXPECT_GE(fd, 0);
  EXPECT_EQ(size, 5);
  if (fd >= 0) ::close(fd);
  std::string why;
  CUploadTarget fifo, link;
  EXPECT_FALSE(fifo.Open(dir / "fifo", 1, &why));
  ASSERT_TRUE(link.Open(dir / "link", 3, &why)) << why;
  EXPECT_TRUE(link.Write("abc", 3, &why) && link.Commit(&why)) << why;
  EXPECT_TRUE(fs::is_symlink(dir / "link"));
  EXPECT_EQ(ReadFile(dir / "file"), "abc");
}

namespace {

// The length of a frame from its ten digits; -1 when they are not ten digits.
long Length(const std::string& digits) {
  if (digits.size() != 10 || digits.find_first_not_of("0123456789") != std::string::npos) return -1;
  return std::stol(digits);
}

// A streaming client read on its own thread: it counts whole frames, notes a torn one and where
// the sweep counters of its records jump.
class CStreamer {
 public:
  explicit CStreamer(std::unique_ptr<CTestClient> client) : Client(std::move(client)) {
    if (Client->Send("#SET_STREAMING_DATA 1")) Reader = std::thread([this] { Run(); });
  }
  ~CStreamer() { Leave(); }
  void Leave() {  // stops reading and closes the connection
    bLeave = true;
    if (Reader.joinable()) Reader.join();
    Client->Close();
  }
  uint64_t Records() const { return Frames > 0 ? Frames - 1 : 0; }  // after the reply that starts the stream
  bool ClosedByServer() const { return bClosedByServer; }
  std::atomic<bool> bTorn{false};  // a frame whose length is not ten digits
  std::vector<std::pair<uint32_t, uint32_t>> Gaps;  // (last sweep, next sweep); read after Leave()

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
        if ((length = Length(pending.substr(at, 10))) < 0) return void(bTorn = true);
        if (pending.size() - at - 10 < static_cast<size_t>(length)) break;
        if (Frames++ > 0 && length > 96) {  // a record and its token, after the reply that starts the stream
          const uint32_t sweep = SRecord{pending.substr(at + 10, static_cast<size_t>(length) - 8)}.Sweep();
          if (LastSweep != 0 && sweep != LastSweep + 1) Gaps.emplace_back(LastSweep, sweep);
          LastSweep = sweep;
        }
      }
      pending.erase(0, at);
    }
  }
  std::unique_ptr<CTestClient> Client;
  std::thread Reader;
  std::atomic<bool> bLeave{false}, bClosedByServer{false};
  std::atomic<uint64_t> Frames{0};
  uint32_t LastSweep = 0;
};

// A server with a new root holding the instrument's baseline tags, sweeping at 2 kHz if asked.
struct SServer {
  explicit SServer(int port, bool twoKilohertz = false) {
    std::string tags;
    for (const auto& line : sim::BaselineTagLines()) tags += line + "\n";
    WriteFile(Root / "vr480/vr480.tag", tags + (twoKilohertz ? "#SET_2KHZ_MODE = \"1\"\n" : ""));
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
    TermTarget = new SServer(FreePort(), true);
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

// Resident memory of a process in kB.
long ResidentKb(pid_t pid) {
  std::ifstream in("/proc/" + std::to_string(pid) + "/status");
  for (std::string line; std::getline(in, line);)
    if (line.rfind("VmRSS:", 0) == 0) return std::atol(line.c_str() + 6);
  return -1;
}

// Clients connected now, as #WHO? lists them (addresses separated by one character).
int ConnectedClients(CTestClient& c) {
  const std::string who = c.Command("#WHO?", 20s);
  return who.empty() || who[0] == '<' ? -1 : 1 + static_cast<int>(std::count(who.begin(), who.end(), ','));
}

}  // namespace

// A streaming client that reads nothing is cut off once its write budget runs out (after the
// kernel's buffers have taken seconds of records), having had whole frames only; the others
// keep every record at 2 kHz, and nothing is queued for the stalled one (memory stays put).
TEST_F(Abuse, StalledStreamerIsCutOffWhileOthersKeepEveryRecord) {
  CServerProcess& server = *TermTarget->Process;
  CTestClient checker(server.Port());
  ASSERT_EQ(checker.Command("#GET_2KHZ_MODE"), "1");
  // The others may be kept from reading by a loaded machine for seconds: they take the patient
  // server-wide budget into their slots; the stalled one takes the stream budget set after.
  ASSERT_EQ(checker.Command("#SET_SOCKET_RECOVERY_ATTEMPTS 40000"), "Setting socket write recovery # attempts to 40000.\n");
  std::vector<std::unique_ptr<CStreamer>> others;
  for (int i = 0; i < 4; ++i) others.push_back(std::make_unique<CStreamer>(std::make_unique<CTestClient>(server.Port())));
  ASSERT_EQ(checker.Command("#SET_STREAM_RECOVERY_ATTEMPTS 50"), "Setting socket stream write recovery # attempts to 50.\n");
  // The processed-data ring (30000 records) is written through once before memory is measured.
  const uint32_t first = SRecord{checker.Command("#GET_UNBUFFERED_DATA")}.Sweep();
  EXPECT_TRUE(WaitUntil([&] { return SRecord{checker.Command("#GET_UNBUFFERED_DATA")}.Sweep() > first + 30000; }, 90s));
  CTestClient stalled(server.Port(), 20s, 4096);
  ASSERT_TRUE(stalled.Send("#SET_STREAMING_DATA 1"));
  std::string reply;
  ASSERT_TRUE(stalled.ReadExact(34, &reply, 10s));
  EXPECT_EQ(reply, "0000000024Streaming data enabled.\n");

  const long rssBefore = ResidentKb(server.Pid());
  long rssPeak = rssBefore;
  EXPECT_TRUE(WaitUntil([&] {
    rssPeak = std::max(rssPeak, ResidentKb(server.Pid()));
    return ConnectedClients(checker) == 5;  // the checker and the four others
  }, 90s)) << "the stalled session was not closed";
  // What the stalled client finds in its buffers: whole frames, then the end (inside a frame
  // is an end too: nothing can be misread after it). After a long stall with a small receive
  // buffer the rest may come in bursts seconds apart, as the kernel probes the window again.
  int frames = 0;
  bool closed = false;
  for (std::string digits; frames < 100000 && stalled.ReadExact(10, &digits, 30s, &closed); ++frames) {
    ASSERT_EQ(digits.find_first_not_of("0123456789"), std::string::npos) << "torn after " << frames << " frames";
    if (!stalled.ReadExact(std::stoul(digits), &reply, 30s, &closed)) break;
  }
  EXPECT_TRUE(closed) << "after " << frames << " whole frames";

  // A gap all four see at the same sweeps is records the acquisition itself lost (the card's
  // ring overran while the machine was busy), not records withheld from a client.
  for (auto& s : others) s->Leave();
  for (auto& s : others) {
    EXPECT_FALSE(s->bTorn);
    EXPECT_FALSE(s->ClosedByServer());
    EXPECT_GT(s->Records(), 0u);
    for (const auto& gap : s->Gaps) {
      bool everyone = true;
      for (auto& o : others) everyone &= std::find(o->Gaps.begin(), o->Gaps.end(), gap) != o->Gaps.end();
      EXPECT_TRUE(everyone) << "a client alone lost sweeps " << gap.first + 1 << " to " << gap.second - 1;
    }
  }
  // Records queued for the stalled client would cost tens of megabytes a second. The sanitizer's
  // quarantine holds freed memory back, so the bound means nothing there.
#ifndef __SANITIZE_ADDRESS__
  EXPECT_LT(rssPeak - rssBefore, 32 * 1024) << "kB: " << rssBefore << " before, peak " << rssPeak;
#endif
  checker.Command("#SET_SOCKET_RECOVERY_ATTEMPTS 40");
}

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
    EXPECT_TRUE(waiting[0]->Silent(1500ms)) << "served with ten connected";
    streams[0]->Leave();
    streams[1]->Leave();
    for (int i = 0; i < 2; ++i) {
      bool ok = false;
      EXPECT_EQ(waiting[i]->ReadFrame(&ok, 20s), Dot(11 + i));
      EXPECT_TRUE(ok);
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
    std::string rest;
    bool closed = false;
    if (quitter) { EXPECT_TRUE(!quitter->ReadExact(1, &rest, 10s, &closed) && closed) << "the server closes the session"; }
    for (size_t i = 0; i < streams.size(); ++i) {
      for (const auto end = Clock::now() + 5s; !streams[i]->ClosedByServer() && Clock::now() < end;)
        std::this_thread::sleep_for(50ms);
      EXPECT_TRUE(streams[i]->ClosedByServer()) << "client " << i;
      streams[i]->Leave();
      EXPECT_FALSE(streams[i]->bTorn) << "client " << i;
    }
  };
  std::thread quit([&] { scenario(*QuitTarget->Process, true); });
  scenario(*TermTarget->Process, false);
  quit.join();
}
