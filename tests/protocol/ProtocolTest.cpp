// The command protocol, the data commands and file transfer as real TCP clients see them: one
// real vr480d on the simulated card serves the whole suite, every test opening its own
// connections. Replies are decoded with DataWire.h alone, and frames are read byte for byte.
//
// The root's tag file is the instrument's baseline (the laser's drive and scan amplitude) plus
// a few lines of the test's own; the scene puts three gratings on each DUT channel of the
// first multiplexer layer, at no distance (so the time of flight needs no compensation).
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <memory>
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
using data_wire::U32;
using data_wire::U8;
namespace fs = std::filesystem;

namespace {

constexpr double kSceneNm[4][3] = {
    {1530.0, 1545.0, 1560.0}, {1531.5, 1546.5, 1561.5}, {1533.0, 1548.0, 1563.0}, {1534.5, 1549.5, 1564.5}};
constexpr char kInvalid[] = "!Invalid command or argument: ";

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
  static void TearDownTestSuite() {
    delete Server;
    delete Root;
    Server = nullptr;
    Root = nullptr;
  }
  void SetUp() override { ASSERT_TRUE(bStarted) << Server->Output().substr(0, 4000); }

  static int Port() { return Server->Port(); }
  static SRecord Read(CTestClient& c, const char* command = "#GET_DATA") { return SRecord{c.Command(command, 5s)}; }
  // Waits for records that carry the scene's twelve sensors; false if none come in time.
  static bool WaitForSensors(CTestClient& c) {
    for (const auto end = std::chrono::steady_clock::now() + 30s; std::chrono::steady_clock::now() < end;) {
      const SRecord rec = Read(c, "#GET_UNBUFFERED_DATA");
      if (rec.Size() > 88 && !rec.IsNoDataHeader() && rec.Status() == 0 && rec.Sensors() == 12) return true;
      std::this_thread::sleep_for(100ms);
    }
    return false;
  }
  // Waits until the card stops delivering: this client's unread count stays put for half a
  // second (records arrive every few milliseconds while the card records).
  static bool WaitForQuiet(CTestClient& c) {
    c.Command("#FLUSH_BUFFER");
    std::string last = c.Command("#GET_BUFFER_COUNT");
    for (int i = 0; i < 60; ++i) {
      std::this_thread::sleep_for(500ms);
      const std::string now = c.Command("#GET_BUFFER_COUNT");
      if (now == last) return true;
      last = now;
    }
    return false;
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

// The header fields every record reply must have right, whatever the laser does.
void ExpectWellFormed(const SRecord& rec, uint32_t type) {
  ASSERT_GE(rec.Size(), 88u);
  EXPECT_EQ(rec.Type(), type);
  EXPECT_EQ(rec.Granularity(), 1000000u);
  const uint32_t status = rec.Status();
  EXPECT_TRUE(status == 0 || (status >= 2 && status <= 7) || status == 0x81) << status;
  if (status != 0 && status != 0x81) { EXPECT_EQ(rec.Sensors(), 0u); }
  if (type == 1) {
    EXPECT_TRUE(rec.LengthMatchesCounts()) << rec.Size() << " bytes for " << rec.Sensors() << " sensors";
    return;
  }
  ASSERT_GE(rec.Size(), 88 + 4 * rec.Sensors());
  EXPECT_EQ((rec.Size() - 88 - 4 * rec.Sensors()) % 2, 0u);
  const uint32_t amplitudeChannel = rec.AmplitudeChannel();
  if (amplitudeChannel >= 2 && amplitudeChannel <= 5) { EXPECT_EQ(rec.Levels(), rec.Count(amplitudeChannel - 2)); }
  if (amplitudeChannel == 0) { EXPECT_EQ(rec.Levels(), 0u); }
}

}  // namespace

TEST_F(EndToEnd, TagsAreReplayedAtStartInFileOrder) {
  const std::string out = Server->Output();
  const size_t first = out.find("CMD: #TEST_CMD = \"7 8 9\"\n"), second = out.find("CMD: #GET_DOT_NOTATION 5\n");
  ASSERT_NE(first, std::string::npos);
  ASSERT_NE(second, std::string::npos);
  EXPECT_LT(first, second);
  EXPECT_EQ(out.find("a remark"), std::string::npos);
}

// One frame per command line; names are case-insensitive; "=", quotes and a space give the
// same arguments; CR LF works; numbers are read as the C library reads a prefix.
TEST_F(EndToEnd, EachCommandGetsOneFrameAndTheInvalidReplyNamesTheLine) {
  CTestClient c(Port());
  EXPECT_EQ(c.Command("#IDN?").rfind("Zorvane vr480, 2.0h-52-101-", 0), 0u);
  const std::pair<const char*, std::string> rows[] = {
      {"#GET_LEGACY_NOTATION 2.3", "10"},
      {"#GET_DOT_NOTATION 16", "4.4"},
      {"#GET_DOT_NOTATION 10", "2.3"},
      {"#GET_DOT_NOTATION 2.3", "2.3"},
      {"#GET_DOT_NOTATION 0", "0.1"},
      {"#WHOAMI?", "127.0.0.1"},
      {"#FOO 1 2", std::string(kInvalid) + "#FOO 1 2."},
      {"#TEST_CMD 1 2", std::string(kInvalid) + "#TEST_CMD 1 2."},
      {"#TEST_CMD 1 2 3 4", std::string(kInvalid) + "#TEST_CMD 1 2 3 4."},
      {"#IDN? extra", std::string(kInvalid) + "#IDN? extra."},
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
  const std::string help = c.Command("#HELP"), full = c.Command("#ZOR_HELP");
  EXPECT_EQ(help.rfind("#CLEAR_REFERENCE\n#FLUSH_BUFFER\n", 0), 0u);
  EXPECT_EQ(help.substr(help.size() - 15), "#WHO?\n#WHOAMI?\n");
  EXPECT_NE(full.find("\n#QUIT!\n#READ_NVRAM_BYTE\n"), std::string::npos);

  // Byte for byte: ten digits and the body, nothing else.
  const SFrame f = RawFrame(c, "#SET_STREAMING_DATA 0");
  EXPECT_EQ(f.Digits + f.Body, "0000000025Streaming data disabled.\n");
  EXPECT_TRUE(c.Silent(200ms));
  // An empty line gets no reply; a line holding only a CR is an empty command, answered as
  // invalid; the next command is answered.
  ASSERT_TRUE(c.SendRaw("\n\r\n"));
  EXPECT_EQ(c.ReadFrame(), std::string(kInvalid) + " .");
  EXPECT_EQ(c.Command("#GET_DOT_NOTATION 1"), "1.1");
  // A line is cut at 256 characters: the 257th is dropped and ends it. A command split over
  // segments is served whole.
  const std::string line = "#TEST_CMD 1 2 " + std::string(241, ' ') + "3";
  ASSERT_TRUE(c.SendRaw(line + "X#GET_DOT_NOTATION 7\n#GET_LEG"));
  EXPECT_EQ(c.ReadFrame(), "Test command set to 1 2 3.\n");
  EXPECT_EQ(c.ReadFrame(), "3.2");
  std::this_thread::sleep_for(100ms);
  ASSERT_TRUE(c.SendRaw("ACY_NOTATION 4.4\n"));
  EXPECT_EQ(c.ReadFrame(), "16");
}

// A client that sends many commands and reads only afterwards gets whole frames; when a reply
// cannot be sent whole within the write budget, the connection ends rather than going on from
// the middle of a frame.
TEST_F(EndToEnd, ASlowReaderGetsWholeFramesOrAClosedConnection) {
  CTestClient c(Port());
  std::string burst, stream, chunk;
  for (int i = 0; i < 10000; ++i) burst += "#ZOR_HELP\n";
  c.SendRaw(burst);  // may fail part-way once the server gives up on this client
  while (c.ReadExact(1, &chunk, 5s)) {  // until the end of the connection, in large reads
    stream += chunk;
    c.ReadExact(64 * 1024, &chunk, 200ms);
    stream += chunk;
  }
  const std::string whole = Frame(std::string(kFullHelpText, kFullHelpLength));
  size_t at = 0, frames = 0;
  for (; stream.size() - at >= whole.size(); at += whole.size(), ++frames)
    ASSERT_EQ(stream.compare(at, whole.size(), whole), 0) << "frame " << frames;
  EXPECT_GT(frames, 0u);
  EXPECT_LT(frames, 10000u) << "the socket buffers cannot hold all replies";
  EXPECT_EQ(stream.substr(at), whole.substr(0, stream.size() - at)) << "the tail is the start of one more frame";
  EXPECT_EQ(CTestClient(Port()).Command("#GET_DOT_NOTATION 1"), "1.1");
}

TEST_F(EndToEnd, RecordsCarryTheirHeaderFieldsAndTheScenesWavelengths) {
  CTestClient c(Port());
  const SRecord first = Read(c);
  ExpectWellFormed(first, 1);
  EXPECT_GE(first.FreePercent(), 99u);  // the newest record, at once (100 only if it had to wait)
  ASSERT_TRUE(WaitForSensors(c)) << "no record with the scene's 12 sensors";
  // Buffered: every sweep, in order. A starved machine may let the card's own ring overrun
  // once (the acquisition's loss, not the buffer's): one jump is forgiven, not two. Every
  // record's values lie within 3 pm of the gratings, and their mean within 1 pm.
  uint32_t last = Read(c).Sweep();
  int jumps = 0, checked = 0;
  double sum[4][3] = {};
  for (int i = 0; i < 100; ++i) {
    const SRecord rec = Read(c, i % 2 ? "#GET_DATA_AND_LEVELS" : "#GET_DATA");
    ExpectWellFormed(rec, i % 2 ? 5 : 1);
    EXPECT_GT(rec.Sweep(), last);
    jumps += rec.Sweep() != last + 1;
    last = rec.Sweep();
    if (rec.Status() != 0 || rec.Sensors() != 12) continue;
    ++checked;
    EXPECT_NE(rec.FbgPosition(), 0u);
    EXPECT_EQ(rec.Layer(), 0u);
    for (int ch = 0; ch < 4; ++ch)
      for (uint32_t j = 0; j < 3; ++j) {
        const double errorPm = rec.Value(ch, j) * 1e-3 - kSceneNm[ch][j] * 1000.0;
        sum[ch][j] += errorPm;
        EXPECT_NEAR(errorPm, 0.0, 3.0) << "record " << i << ", channel " << ch + 1;
      }
  }
  for (int ch = 0; ch < 4; ++ch)
    for (int j = 0; j < 3; ++j) EXPECT_NEAR(sum[ch][j] / checked, 0.0, 1.0) << "channel " << ch + 1 << " sensor " << j + 1;
  EXPECT_LE(jumps, 1);
  EXPECT_GT(checked, 90);
}

TEST_F(EndToEnd, WithNoNewRecordsTheReplyIsTheNoDataHeader) {
  CTestClient setup(Port());
  // Software triggering without a start: the card keeps sweeping, nothing is published.
  struct SRestore {
    CTestClient& C;
    ~SRestore() {  // records drop for a moment after the mode change: wait for them to flow
      C.Command("#SET_TRIG_MODE 0", 10s);
      C.Command("#FLUSH_BUFFER");
      for (int i = 0, run = 0; i < 100 && run < 3; ++i) run = Read(C).IsNoDataHeader() ? 0 : run + 1;
    }
  } restore{setup};
  ASSERT_EQ(setup.Command("#SET_TRIG_MODE 1", 10s).rfind('!', 0), std::string::npos);
  std::this_thread::sleep_for(200ms);  // lets a record already on its way be published

  CTestClient c(Port());
  EXPECT_EQ(c.Command("#GET_BUFFER_COUNT"), "1");
  const SRecord rec = Read(c);
  ASSERT_GE(rec.Size(), 88u);
  EXPECT_FALSE(rec.IsNoDataHeader());
  EXPECT_EQ(rec.FreePercent(), 99u);
  EXPECT_EQ(c.Command("#GET_BUFFER_COUNT"), "0");
  // The waiting read ends empty (triggered acquisition wakes the readers at every sweep).
  const SFrame frame = RawFrame(c, "#GET_DATA", 30s);
  ASSERT_TRUE(frame.Ok);
  EXPECT_EQ(frame.Digits, "0000000088");
  EXPECT_TRUE(SRecord{frame.Body}.IsNoDataHeader());
  EXPECT_EQ(c.Command("#FLUSH_BUFFER").substr(0, 7), "Client ");
  EXPECT_EQ(c.Command("#GET_BUFFER_COUNT"), "0");
  EXPECT_TRUE(Read(c, "#GET_DATA_AND_LEVELS").IsNoDataHeader());
}

// With tokens each record frame's length counts an 8-byte token, and the last record's frame
// is completed by the end token; without, the end token comes in a frame of its own. Text
// replies do not reach a streaming client.
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
    for (int i = 0; i < 1300; ++i) {
      ASSERT_LT(i, 1200) << "the stream did not end";
      f = RawFrame(c);
      ASSERT_TRUE(f.Ok) << "record " << i;
      if (!tokens && f.Body.size() == 8) {
        EXPECT_EQ(f.Digits + f.Body, "0000000008ZZZZZZZZ");
        break;
      }
      ASSERT_GE(f.Body.size(), 88 + token);
      const SRecord rec{f.Body.substr(0, f.Body.size() - token)};
      ExpectWellFormed(rec, 1);
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

TEST_F(EndToEnd, CountsRawRecordAndSpectraTravelInTheirFrames) {
  CTestClient c(Port());
  ASSERT_TRUE(WaitForSensors(c));
  // The card's record (6176 bytes, the digits sent on their own), then the newest record with
  // levels and one count per sensor. Sensors at no distance: each count is the card's own
  // position less twice the full-spectrum offset, give or take the detector's noise.
  const std::string console = Server->Output();
  const int offset = std::atoi(console.c_str() + console.find("**FsCountOffset = ") + 18);
  const SFrame raw = RawFrame(c, "#GET_RAW_DATA"), counts = RawFrame(c, "#GET_WVL_LVL_CNTS");
  ASSERT_TRUE(raw.Ok && counts.Ok);
  EXPECT_EQ(raw.Digits, "0000006176");
  EXPECT_EQ(U8(raw.Body, 2), 101u);  // the card's firmware release
  const SRecord rec{counts.Body};
  ASSERT_EQ(rec.Sensors(), 12u);
  ExpectWellFormed(SRecord{counts.Body.substr(0, counts.Body.size() - 4 * 12)}, 5);
  const size_t base = counts.Body.size() - 4 * 12;
  for (int ch = 0; ch < 4; ++ch)
    for (int j = 0; j < 3; ++j)
      EXPECT_NEAR(static_cast<int32_t>(U32(counts.Body, base + 4 * (3 * ch + j))),
                  static_cast<double>(U32(raw.Body, 1152 + 4 * (250 * ch + j))) - 2 * offset, 4.0)
          << "channel " << ch + 1 << " sensor " << j + 1;

  // High-speed samples: 512 bytes with full-spectrum acquisition on; ten zeros and no body
  // without (the next bytes are already the next reply's).
  ASSERT_EQ(c.Command("#GET_ZOR_FS_ENABLE"), "1");
  EXPECT_EQ(RawFrame(c, "#GET_HIGH_SPEED_FS").Digits, "0000000512");
  c.Command("#SET_ZOR_FS_ENABLE 0");
  ASSERT_TRUE(c.SendRaw("#GET_HIGH_SPEED_FS\n#GET_ZOR_FS_ENABLE\n"));
  std::string bytes;
  ASSERT_TRUE(c.ReadExact(21, &bytes));
  EXPECT_EQ(bytes, "000000000000000000010");
  c.Command("#SET_ZOR_FS_ENABLE 1");

  // Spectra: a calibrated spectrum is 88 + 65536 bytes of type 2, the raw one of type 6.
  SFrame f;
  for (int i = 0; i < 20 && f.Body.empty(); ++i) f = RawFrame(c, "#GET_SPECTRUM");
  ASSERT_EQ(f.Body.size(), 65624u);
  EXPECT_EQ(U8(f.Body, 0), 15u);
  EXPECT_EQ(U8(f.Body, 7) >> 4, 2u);
  EXPECT_EQ(U32(f.Body, 72), 1000000u);
  f = RawFrame(c, "#GET_RAW_SPECTRUM");
  ASSERT_EQ(f.Body.size(), 65624u);
  EXPECT_EQ(U8(f.Body, 7) >> 4, 6u);
  EXPECT_EQ(U32(f.Body, 84), 32767u);
}

// An idle card: the card's DMA switched off, so that sweeps go on but no record reaches the
// server. A client waiting for data then gets nothing at all (no header-only reply each
// second) until the card records again, and a streaming client can still end its stream.
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
  EXPECT_EQ(b.Command("#GET_BUFFER_COUNT"), "0");
  ASSERT_TRUE(b.Send("#GET_DATA"));
  EXPECT_TRUE(b.Silent(2500ms)) << "a reply reached the client of an idle card";
  ASSERT_EQ(a.Command("#ENABLE_DMA 1"), "DMA Enabled.\n");
  bool ok = false;
  const SRecord first{b.ReadFrame(&ok, 30s)};
  ASSERT_TRUE(ok) << "no reply once the card recorded again";
  EXPECT_FALSE(first.IsNoDataHeader());
  EXPECT_TRUE(first.Size() > 88 && first.LengthMatchesCounts() && first.Sensors() > 0) << first.Size() << " bytes";
  EXPECT_GT(first.Sweep(), before.Sweep());

  ASSERT_EQ(a.Command("#ENABLE_DMA 0"), "DMA Disabled.\n");
  ASSERT_TRUE(WaitForQuiet(a)) << "records kept coming with DMA off";
  ASSERT_EQ(s.Command("#SET_USE_STREAM_TOKENS 1"), "Streaming tokens enabled.\n");
  ASSERT_EQ(s.Command("#FLUSH_BUFFER").substr(0, 7), "Client ");
  const SFrame f = RawFrame(s, "#SET_STREAMING_DATA 1");
  EXPECT_EQ(f.Digits + f.Body, "0000000024Streaming data enabled.\n");
  EXPECT_TRUE(s.Silent(2s)) << "a frame reached the streaming client of an idle card";
  // No record frame is open for the token to complete, so it comes in a frame of its own.
  std::string bytes;
  ASSERT_TRUE(s.Send("#SET_STREAMING_DATA 0") && s.ReadExact(18, &bytes, 10s)) << "the stream did not end";
  EXPECT_EQ(bytes, "0000000008ZZZZZZZZ");
  EXPECT_EQ(s.Command("#GET_STREAMING_DATA"), "0");
  ASSERT_EQ(a.Command("#ENABLE_DMA 1"), "DMA Enabled.\n");
  EXPECT_GT(SRecord{s.Command("#GET_DATA", 30s)}.Sensors(), 0u);
  const std::string console = Server->Output();  // no restart over the idle spells
  EXPECT_EQ(console.find("**FsCountOffset = "), console.rfind("**FsCountOffset = "));
}

// The command-line client against the same server (built beside vr480d).
TEST_F(EndToEnd, CommandLineClientPrintsRepliesAndStreams) {
  const std::string server = VR480D_BINARY;
  const std::string cli = server.substr(0, server.rfind('/') + 1) + "vr480-cli";
  if (::access(cli.c_str(), X_OK) != 0) GTEST_SKIP() << "vr480-cli not built";
  int status = -1;
  auto run = [&](int port, const std::string& args) {
    std::string out;
    FILE* p = ::popen((cli + " --port " + std::to_string(port) + " " + args + " 2>&1").c_str(), "r");
    char buf[4096];
    for (size_t n; (n = std::fread(buf, 1, sizeof buf, p)) > 0;) out.append(buf, n);
    const int st = ::pclose(p);
    status = WIFEXITED(st) ? WEXITSTATUS(st) : -1;
    return out;
  };
  std::string out = run(Port(), "'#GET_BUFFER_COUNT'");
  EXPECT_EQ(status, 0);
  EXPECT_TRUE(std::regex_match(out, std::regex("[0-9]+\n"))) << out;
  out = run(Port(), "'#GET_DATA'");
  EXPECT_EQ(status, 0);
  EXPECT_TRUE(std::regex_search(out, std::regex("^record: [0-9]+ bytes, type 1, status [0-9]+, sweep [0-9]+"))) << out;
  out = run(Port(), "'#GET_DATA' 5");
  EXPECT_EQ(status, 1);
  EXPECT_EQ(out, std::string(kInvalid) + "#GET_DATA 5.\n");
  out = run(Port(), "--stream 20");
  EXPECT_EQ(status, 0) << out;
  std::smatch m;
  uint32_t last = 0;
  int lines = 0;
  for (std::string rest = out; std::regex_search(rest, m, std::regex("sweep ([0-9]+) sensors ([0-9]+)[^\n]*\n")); rest = m.suffix()) {
    const uint32_t sweep = static_cast<uint32_t>(std::stoul(m[1]));
    if (last) { EXPECT_EQ(sweep, last + 1); }
    last = sweep;
    ++lines;
  }
  EXPECT_EQ(lines, 20) << out;
  run(FreePort(), "'#GET_DATA'");
  EXPECT_EQ(status, 2);
}

// #DOWNLOAD and #UPLOAD: byte-exact round trips (also two clients at once), hostile paths that
// must neither read nor touch anything outside the root, refused byte counts, and a client that
// vanishes mid-upload.
namespace {

std::string RandomBytes(size_t n, unsigned seed) {
  std::mt19937 gen(seed);
  std::string s(n, '\0');
  for (char& ch : s) ch = static_cast<char>(gen());
  return s;
}
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

TEST_F(EndToEnd, FileTransferRoundTripsAreByteExactAlsoForTwoClientsAtOnce) {
  CTestClient Client(Port());
  const std::string dir = Root->Path() + "/vr480";  // where relative names land
  const std::pair<std::string, std::string> rows[] = {
      {"empty.bin", ""}, {"forty.bin", RandomBytes(40000, 1)}, {"big.bin", RandomBytes(10 << 20, 2)}};
  for (const auto& [name, content] : rows) {
    SCOPED_TRACE(name);
    EXPECT_EQ(Upload(Client, name, content), std::to_string(content.size()) + " bytes received.\n");
    EXPECT_TRUE(ReadFile(dir + "/" + name) == content);
    EXPECT_TRUE(Download(Client, name) == Frame(content));
  }
  EXPECT_EQ(Download(Client, "empty.bin"), "0000000000");
  EXPECT_TRUE(Download(Client, "/vr480/forty.bin") == Frame(rows[1].second));
  EXPECT_FALSE(HasUploadLeftovers(dir));

  // One client downloads the big file while another uploads a different one and then
  // downloads the small one: each gets exactly its own bytes. A reply that cannot be sent
  // whole within the write budget closes the connection: both clients allow 10 s, so that a
  // machine too busy to read for a while fails no download.
  const auto patient = [](CTestClient& c) {
    c.Command("#SET_SOCKET_RECOVERY_ATTEMPTS 40000");
    c.Command("#SET_STREAMING_DATA 0");  // takes the new budget
  };
  patient(Client);
  const std::string other = RandomBytes(10 << 20, 3);
  std::string downloaded[2], uploadReply, small[20];
  std::thread second([&] {
    CTestClient c(Port());
    patient(c);
    uploadReply = Upload(c, "other.bin", other);
    for (auto& s : small) s = Download(c, "forty.bin");
  });
  for (auto& d : downloaded) d = Download(Client, "big.bin");
  second.join();
  for (const auto& d : downloaded) EXPECT_TRUE(d == Frame(rows[2].second));
  EXPECT_EQ(uploadReply, std::to_string(other.size()) + " bytes received.\n");
  EXPECT_TRUE(ReadFile(dir + "/other.bin") == other);
  for (const auto& s : small) EXPECT_TRUE(s == Frame(rows[1].second));
  EXPECT_EQ(Client.Command("#SET_SOCKET_RECOVERY_ATTEMPTS 40"), "Setting socket write recovery # attempts to 40.\n");
}

TEST_F(EndToEnd, FileTransferHostilePathsAndCountsAreRefusedAndNothingOutsideTheRootIsTouched) {
  CTestClient Client(Port());
  const std::string dir = Root->Path() + "/vr480";  // where relative names land
  CTempDir outside;  // beside the root: must stay untouched
  const std::string sentinel = outside / "sentinel";
  WriteFile(sentinel, "secret");
  WriteFile(dir + "/inside.txt", "inside");
  const std::string outName = fs::path(outside.Path()).filename().string();
  // Each would reach the sentinel if the text were handed to the kernel as it is.
  const std::string climb = fs::relative(sentinel, dir).string();
  ASSERT_EQ(climb, "../../" + outName + "/sentinel");
  fs::create_symlink(sentinel, dir + "/link");
  fs::create_symlink(outside.Path(), dir + "/outdir");
  fs::create_symlink("/dev/null", dir + "/devnull");
  fs::create_symlink(dir + "/inside.txt", dir + "/inlink");  // stays inside: allowed
  ASSERT_EQ(::mkfifo((dir + "/fifo").c_str(), 0600), 0);
  fs::create_directory(dir + "/subdir");
  const std::set<std::string> outsideBefore = Listing(outside.Path());

  for (const std::string& path : {climb, "/../" + outName + "/sentinel", "a/../../../" + outName + "/sentinel",
                                  std::string("link"), std::string("outdir/sentinel"), std::string("devnull"),
                                  std::string("fifo"), std::string("subdir"), "/vr480/../../" + outName + "/sentinel"}) {
    SCOPED_TRACE(path);
    EXPECT_EQ(Download(Client, path), Frame("!File Not Found.\n"));
    // Refused before any byte is read, so the client sends none.
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
  EXPECT_TRUE(fs::is_symlink(dir + "/link"));
  EXPECT_TRUE(fs::is_fifo(dir + "/fifo"));
  EXPECT_FALSE(fs::exists(dir + "/x.bin"));
  EXPECT_TRUE(fs::exists(dir + "/zero.bin"));
  EXPECT_FALSE(HasUploadLeftovers(dir));
}

TEST_F(EndToEnd, FileTransferAClientVanishingMidUploadLeavesNoFileAndTheServerGoesOn) {
  CTestClient Client(Port());
  const std::string dir = Root->Path() + "/vr480";  // where relative names land
  const auto waitFor = [](auto condition) {
    for (const auto end = std::chrono::steady_clock::now() + 30s; std::chrono::steady_clock::now() < end;
         std::this_thread::sleep_for(50ms))
      if (condition()) return true;
    return false;
  };
  {
    CTestClient quitter(Port());
    ASSERT_TRUE(quitter.Send("#UPLOAD 100000 half.bin") && quitter.SendRaw(RandomBytes(5000, 4)));
    ASSERT_TRUE(waitFor([&] { return HasUploadLeftovers(dir); })) << "the upload never started";
    EXPECT_EQ(Client.Command("#IDN?").substr(0, 7), "Zorvane");  // served while the upload waits
  }
  EXPECT_TRUE(waitFor([&] { return Client.Command("#WHO?") == "127.0.0.1" && !HasUploadLeftovers(dir); }));
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
