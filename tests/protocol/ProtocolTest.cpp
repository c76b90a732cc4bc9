// The command protocol and the data commands as real TCP clients see them: one real vr480d on
// the simulated card serves the whole suite, every test opening its own connections. Replies
// are decoded with DataWire.h alone, and frames are read byte for byte.
//
// The root's tag file is the instrument's baseline (the laser's drive and scan amplitude) plus
// a few lines of the test's own; the scene puts three gratings on each DUT channel of the
// first multiplexer layer, at no distance (so the time of flight needs no compensation).
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cmath>
#include <memory>
#include <regex>
#include <thread>

#include "DataWire.h"
#include "protocol/HelpTexts.h"
#include "sim/SimCard.h"
#include "support/ServerProcess.h"
#include "support/TempDir.h"
#include "support/TestClient.h"

using namespace std::chrono_literals;
using data_wire::SRecord;
using data_wire::U32;
using data_wire::U8;

namespace {

constexpr double kSceneNm[4][3] = {
    {1530.0, 1545.0, 1560.0}, {1531.5, 1546.5, 1561.5}, {1533.0, 1548.0, 1563.0}, {1534.5, 1549.5, 1564.5}};
constexpr char kInvalid[] = "!Invalid command or argument: ";

class EndToEnd : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    Root = new CTempDir;
    std::string tags, scene;
    for (const auto& line : sim::BaselineTagLines()) tags += line + "\n";
    WriteFile(*Root / "vr480/vr480.tag", tags + "#TEST_CMD = \"7 8 9\"\n// a remark\n  #GET_DOT_NOTATION 5\n");
    for (int ch = 0; ch < 4; ++ch)
      for (double nm : kSceneNm[ch]) scene += std::to_string(ch + 1) + " " + std::to_string(nm) + " 0 12000\n";
    WriteFile(*Root / "scene.txt", scene);
    Server = new CServerProcess(Root->Path(), FreePort(), {"--scene", *Root / "scene.txt"});
    // Clients are served from early in start-up; the offset line ends it.
    bStarted = Server->WaitForOutput("**FsCountOffset = ", 90s) && Server->WaitForOutput("**\n", 5s);
  }
  static void TearDownTestSuite() {
    delete Server;
    delete Root;
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
  const std::string help(kFullHelpText, kFullHelpLength);
  char header[11];
  std::snprintf(header, sizeof header, "%010zu", help.size());
  const std::string whole = header + help;
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
  // record's values lie within 3 pm of the gratings.
  uint32_t last = Read(c).Sweep();
  int jumps = 0, checked = 0;
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
      for (uint32_t j = 0; j < 3; ++j)
        EXPECT_NEAR(rec.Value(ch, j) * 1e-3, kSceneNm[ch][j] * 1000.0, 3.0) << "record " << i << ", channel " << ch + 1;
  }
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
