// The command protocol seen by real TCP clients of a real server: one frame per command line,
// the invalid-command reply, splitting rules, line cutting, slots and vanishing clients.
#include <gtest/gtest.h>
#include <signal.h>

#include <cstdio>
#include <memory>
#include <vector>
#include <thread>

#include "protocol/HelpTexts.h"
#include "support/ServerProcess.h"
#include "support/TempDir.h"
#include "support/TestClient.h"

namespace {

class ProtocolTest : public testing::Test {
 protected:
  static void SetUpTestSuite() {
    Root = new CTempDir;
    WriteFile(*Root / "vr480/vr480.tag", "#TEST_CMD = \"7 8 9\"\n// a remark\n  #GET_DOT_NOTATION 5\n");
    Server = new CServerProcess(Root->Path(), FreePort());
    // Clients are served from early in start-up, but the identification text is complete only
    // at its end.
    ASSERT_TRUE(Server->WaitForOutput("**FsCountOffset = ", std::chrono::seconds(60)));
  }
  static void TearDownTestSuite() {
    delete Server;
    delete Root;
  }
  static int Port() { return Server->Port(); }
  static CTempDir* Root;
  static CServerProcess* Server;
};

CTempDir* ProtocolTest::Root = nullptr;
CServerProcess* ProtocolTest::Server = nullptr;

}  // namespace

TEST_F(ProtocolTest, TagsAreReplayedAtStartInFileOrder) {
  const std::string out = Server->Output();
  size_t first = out.find("CMD: #TEST_CMD = \"7 8 9\"\n");
  size_t second = out.find("CMD: #GET_DOT_NOTATION 5\n");
  ASSERT_NE(first, std::string::npos);
  ASSERT_NE(second, std::string::npos);
  EXPECT_LT(first, second);
  EXPECT_EQ(out.find("a remark"), std::string::npos);
}

TEST_F(ProtocolTest, EachCommandGetsExactlyOneFrame) {
  CTestClient c(Port());
  ASSERT_TRUE(c.Connected());
  std::string idn = c.Command("#IDN?");
  EXPECT_EQ(idn.rfind("Zorvane vr480, 2.0h-52-101-", 0), 0u) << idn;

  EXPECT_EQ(c.Command("#GET_LEGACY_NOTATION 2.3"), "10");
  EXPECT_EQ(c.Command("#GET_DOT_NOTATION 16"), "4.4");
  EXPECT_EQ(c.Command("#GET_DOT_NOTATION 10"), "2.3");
  EXPECT_EQ(c.Command("#GET_DOT_NOTATION 2.3"), "2.3");
  EXPECT_EQ(c.Command("#GET_DOT_NOTATION 0"), "0.1");

  // Byte for byte: ten digits and the body, nothing else.
  ASSERT_TRUE(c.Send("#SET_STREAMING_DATA 0"));
  std::string raw;
  ASSERT_TRUE(c.ReadExact(35, &raw));
  EXPECT_EQ(raw, "0000000025Streaming data disabled.\n");
  EXPECT_TRUE(c.Silent(std::chrono::milliseconds(200)));

  EXPECT_EQ(c.Command("#WHOAMI?"), "127.0.0.1");
  EXPECT_EQ(c.Command("#READY?"), "0");
  EXPECT_EQ(c.Command("#READY? anything at all"), "0");
}

TEST_F(ProtocolTest, HelpListsComeFromConstantStorage) {
  CTestClient c(Port());
  std::string help = c.Command("#HELP");
  EXPECT_EQ(help, std::string(kShortHelpText, kShortHelpLength));
  EXPECT_EQ(help.rfind("#CLEAR_REFERENCE\n#FLUSH_BUFFER\n", 0), 0u);
  EXPECT_EQ(help.substr(help.size() - 15), "#WHO?\n#WHOAMI?\n");
  std::string full = c.Command("#ZOR_HELP");
  EXPECT_EQ(full, std::string(kFullHelpText, kFullHelpLength));
  EXPECT_NE(full.find("\n#QUIT!\n#READ_NVRAM_BYTE\n"), std::string::npos);
}

TEST_F(ProtocolTest, SplittingRulesAndTheInvalidReply) {
  CTestClient c(Port());
  EXPECT_EQ(c.Command("#FOO 1 2"), "!Invalid command or argument: #FOO 1 2.");
  EXPECT_EQ(c.Command("#TEST_CMD 1 2"), "!Invalid command or argument: #TEST_CMD 1 2.");
  EXPECT_EQ(c.Command("#TEST_CMD 1 2 3 4"), "!Invalid command or argument: #TEST_CMD 1 2 3 4.");
  EXPECT_EQ(c.Command("#IDN? extra"), "!Invalid command or argument: #IDN? extra.");
  // Names are case-insensitive; "=", quotes and a space give the same arguments; CR LF works.
  EXPECT_EQ(c.Command("#test_cmd 1 2 3"), "Test command set to 1 2 3.\n");
  EXPECT_EQ(c.Command("#TEST_CMD=1 2 3"), "Test command set to 1 2 3.\n");
  EXPECT_EQ(c.Command("#TEST_CMD = \"1 2 3\""), "Test command set to 1 2 3.\n");
  EXPECT_EQ(c.Command("#TEST_CMD\t1  2   3\r"), "Test command set to 1 2 3.\n");
  // Numbers are read as the C library reads a prefix; the test values are 16-bit.
  EXPECT_EQ(c.Command("#TEST_CMD 70000 x -5"), "Test command set to 4464 0 -5.\n");
  EXPECT_EQ(c.Command("#SET_DATA_INTERLEAVE 0"), "Client data interleave set to 1.\n");
  EXPECT_EQ(c.Command("#SET_DATA_INTERLEAVE -3"), "Client data interleave set to 1.\n");
  EXPECT_EQ(c.Command("#SET_DATA_INTERLEAVE 4"), "Client data interleave set to 4.\n");
  EXPECT_EQ(c.Command("#GET_DATA_INTERLEAVE"), "4");

  // An empty line gets no reply; a line holding only a CR is an empty command, answered as
  // invalid; the next command is answered.
  ASSERT_TRUE(c.SendRaw("\n\r\n"));
  EXPECT_EQ(c.ReadFrame(), "!Invalid command or argument:  .");
  EXPECT_EQ(c.Command("#GET_DOT_NOTATION 1"), "1.1");
}

TEST_F(ProtocolTest, LongLinesAreCutAt256Characters) {
  CTestClient c(Port());
  std::string line = "#TEST_CMD 1 2 ";
  line += std::string(255 - line.size(), ' ');
  line += "3";  // character 256
  ASSERT_EQ(line.size(), 256u);
  ASSERT_TRUE(c.SendRaw(line + "X" + "#GET_DOT_NOTATION 7\n"));
  EXPECT_EQ(c.ReadFrame(), "Test command set to 1 2 3.\n");
  EXPECT_EQ(c.ReadFrame(), "3.2");
}

TEST_F(ProtocolTest, CommandsSplitOverSegmentsAreServedWhole) {
  CTestClient c(Port());
  ASSERT_TRUE(c.SendRaw("#GET_LEG"));
  std::this_thread::sleep_for(std::chrono::milliseconds(100));
  ASSERT_TRUE(c.SendRaw("ACY_NOTATION 4.4"));
  std::this_thread::sleep_for(std::chrono::milliseconds(100));
  ASSERT_TRUE(c.SendRaw("\n#GET_DOT_NOTATION 3\n"));
  EXPECT_EQ(c.ReadFrame(), "16");
  EXPECT_EQ(c.ReadFrame(), "3.1");
}

// Ten clients hold the ten slots; an eleventh waits in the listen queue and is served as soon
// as a slot frees. A client that vanishes mid-reply frees its slot.
TEST_F(ProtocolTest, TenSlotsAnEleventhWaitsAndVanishingClientsFreeTheirSlots) {
  std::vector<std::unique_ptr<CTestClient>> clients;
  for (int i = 0; i < 10; ++i) {
    clients.push_back(std::make_unique<CTestClient>(Port()));
    ASSERT_EQ(clients.back()->Command("#GET_DOT_NOTATION 1"), "1.1") << "client " << i;
  }
  CTestClient eleventh(Port());
  ASSERT_TRUE(eleventh.Connected());  // accepted by the kernel's queue
  ASSERT_TRUE(eleventh.Send("#GET_DOT_NOTATION 2"));
  EXPECT_TRUE(eleventh.Silent(std::chrono::milliseconds(1500)));

  // One client asks for long replies and vanishes without reading them.
  ASSERT_TRUE(clients[3]->Send("#ZOR_HELP"));
  ASSERT_TRUE(clients[3]->Send("#ZOR_HELP"));
  clients[3]->Close();
  const auto freed = std::chrono::steady_clock::now();
  bool ok = false;
  EXPECT_EQ(eleventh.ReadFrame(&ok, std::chrono::seconds(8)), "2.1");
  EXPECT_TRUE(ok);
  const auto waited = std::chrono::steady_clock::now() - freed;
  EXPECT_LT(waited, std::chrono::seconds(2));
  std::printf("the eleventh client was answered %.1f ms after a slot freed\n",
              std::chrono::duration<double, std::milli>(waited).count());

  // The others carry on.
  for (int i = 0; i < 10; ++i) {
    if (i != 3) {
      EXPECT_EQ(clients[i]->Command("#GET_DOT_NOTATION 5"), "1.2") << "client " << i;
    }
  }
  clients.clear();
  CTestClient after(Port());
  // The server sees the nine leave a moment after they closed.
  std::string who;
  for (int i = 0; i < 300 && (who = after.Command("#WHO?")) != "127.0.0.1,127.0.0.1"; ++i)
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
  EXPECT_EQ(who, "127.0.0.1,127.0.0.1") << "the eleventh and this one";
}

// A client that sends many commands and reads only afterwards gets whole frames; when a reply
// cannot be sent whole within the write budget, the connection ends rather than going on from
// the middle of a frame.
TEST_F(ProtocolTest, ASlowReaderGetsWholeFramesOrAClosedConnection) {
  CTestClient c(Port());
  std::string burst;
  for (int i = 0; i < 10000; ++i) burst += "#ZOR_HELP\n";
  c.SendRaw(burst);  // may fail part-way once the server gives up on this client
  std::string stream, chunk;
  while (c.ReadExact(1, &chunk, std::chrono::seconds(5))) {  // until the end of the connection
    stream += chunk;
    c.ReadExact(64 * 1024, &chunk, std::chrono::milliseconds(200));  // whatever arrives, in large reads
    stream += chunk;
  }
  const std::string help(kFullHelpText, kFullHelpLength);
  char header[11];
  std::snprintf(header, sizeof header, "%010u", static_cast<unsigned>(help.size()));
  size_t at = 0, frames = 0;
  while (stream.size() - at >= 10 + help.size()) {
    ASSERT_EQ(stream.compare(at, 10, header), 0) << "frame " << frames << " starts with " << stream.substr(at, 10);
    ASSERT_EQ(stream.compare(at + 10, help.size(), help), 0) << "frame " << frames;
    at += 10 + help.size();
    ++frames;
  }
  EXPECT_GT(frames, 0u);
  EXPECT_LT(frames, 10000u) << "the socket buffers cannot hold all replies";
  const std::string whole = header + help;
  EXPECT_EQ(stream.substr(at), whole.substr(0, stream.size() - at)) << "the tail is the start of one more frame";
  CTestClient fresh(Port());
  EXPECT_EQ(fresh.Command("#GET_DOT_NOTATION 1"), "1.1");
}

// Killed while clients are connected and started again at once, the server finds its port
// held by the old connections for about a minute; it binds as soon as the port frees.
TEST(ProtocolRestart, KilledWithClientsConnectedIsReachableAgainWithinAMinute) {
  CTempDir root;
  const int port = FreePort();
  std::vector<std::unique_ptr<CTestClient>> clients;
  {
    CServerProcess first(root.Path(), port);
    for (int i = 0; i < 10; ++i) {
      clients.push_back(std::make_unique<CTestClient>(port, std::chrono::seconds(60)));
      ASSERT_EQ(clients.back()->Command("#GET_DOT_NOTATION 1"), "1.1") << "client " << i;
    }
    EXPECT_NE(first.Stop(SIGKILL), -1);
  }
  CServerProcess second(root.Path(), port);
  const auto started = std::chrono::steady_clock::now();
  CTestClient c;
  ASSERT_TRUE(c.Connect(port, std::chrono::seconds(65)));
  EXPECT_EQ(c.Command("#GET_DOT_NOTATION 1"), "1.1");
  std::printf("reachable %.1f s after the restart\n",
              std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count());
  const std::string out = second.Output();
  const size_t retry = out.find("Retrying bind on port " + std::to_string(port) + " every second.\n");
  if (retry != std::string::npos) {
    EXPECT_NE(out.find("failed to bind server socket to file descriptor.  Error #98\n"), std::string::npos) << out;
    EXPECT_EQ(retry, out.rfind("Retrying bind")) << "said once";
  }
}

TEST(ProtocolQuit, QuitStopsTheServerNormally) {
  CTempDir root;
  CServerProcess server(root.Path(), FreePort());
  CTestClient c(server.Port());
  ASSERT_TRUE(c.Connected());
  ASSERT_TRUE(server.WaitForOutput("**FsCountOffset = ", std::chrono::seconds(30)));
  EXPECT_EQ(c.Command("#QUIT!"), "Quitting...\n");
  std::string rest;
  EXPECT_FALSE(c.ReadExact(1, &rest, std::chrono::seconds(10))) << "the server closes the session";
  EXPECT_EQ(server.WaitExit(std::chrono::seconds(20)), 0);
  EXPECT_NE(server.Output().find("Client threads halted.\n"), std::string::npos);
  EXPECT_NE(server.Output().find("\nServer Terminated Normally.\n"), std::string::npos);
}
