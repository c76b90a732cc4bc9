// System and identification commands end to end: replies and the host commands they run
// (recorded on a workstation), the shell refusal, identification kept across a restart, the
// console moved to the serial port, and the power-down countdown as the card's LEDs show it.
#include <gtest/gtest.h>
#include <signal.h>

#include <chrono>
#include <string>
#include <vector>

#include "commands/InProcessServer.h"
#include "sim/SimInstrument.h"

namespace {

using namespace laser_test;
using namespace std::chrono_literals;

constexpr uint8_t kClientLedCode = 0x08;
const std::string kCpuInfo = "cat /proc/cpuinfo | grep 'model name' | awk -F : '{print $2}'";

struct SRow {
  std::string Line;
  std::string Reply;
  std::vector<std::string> Host;  // commands recorded while it ran, in order
};

std::vector<std::string> Since(size_t from) {
  const std::vector<std::string> log = Host().CommandLog();
  return {log.begin() + static_cast<long>(std::min(from, log.size())), log.end()};
}

TEST(SystemCommands, RepliesAndHostCommands) {
  CInProcessServer server;
  ASSERT_TRUE(server.Started());
  CTestClient client;
  ASSERT_TRUE(client.Connect(server.Port()));

  // Start-up appends the server, driver, synthesis and CFC releases to the identification.
  const std::string driver = client.Command("#GET_DRIVER_VER");
  ASSERT_TRUE(WaitFor([&] { return client.Command("#GET_SYNTHESIS_VER") != "0"; }, 30s));
  EXPECT_EQ(client.Command("#IDN?"), "Zorvane vr480, 2.0h-" + driver + "-" + client.Command("#GET_SYNTHESIS_VER") +
                                         "-" + client.Command("#GET_CFC_VER") + " ");

  Host().Script("uname -n", 0, "vr480-sim\n");
  Host().Script("cat /proc/cpuinfo", 0, " Simulated Processor @ 1.60GHz\n");
  const std::string header50(50, 'H');
  const std::vector<SRow> rows = {
      {"#SET_USER_VAR 3 -7", "Setting User Variable 3 to -7", {}},
      {"#GET_USER_VAR 3", "-7", {}},
      {"#SET_USER_VAR 10 5", "!Invalid command or argument: #SET_USER_VAR 10 5.", {}},
      {"#GET_USER_VAR -1", "!Invalid command or argument: #GET_USER_VAR -1.", {}},
      {"#SET_ZOR_VAR 9 99999999999", "Setting User Variable 9 to 2147483647", {}},
      {"#GET_ZOR_VAR 9", "2147483647", {}},
      {"#GET_USER_VAR 9", "0", {}},
      {"#SET_FPGA_WATCHDOG_ENABLE 256", "FPGA Watchdog Disabled.\n", {}},
      {"#GET_FPGA_WATCHDOG_ENABLE", "0", {}},
      {"#SET_FPGA_WATCHDOG_ENABLE 1", "FPGA Watchdog Enabled.\n", {}},
      {"#GET_FPGA_WATCHDOG_ENABLE", "1", {}},
      {"#SET_CPU_WATCHDOG_SEC 300", "CPU Watchdog timeout set to 255 seconds.\n", {"echo w 255 >/dev/pcm9381_wd"}},
      {"#SET_CPU_WATCHDOG_SEC -5", "CPU Watchdog disabled.\n", {"echo w 0 >/dev/pcm9381_wd"}},
      {"#SET_CPU_WD_RESET_TIMER_SEC 30", "CPU Watchdog reset timer set to 30 seconds.\n", {"echo t 30 >/dev/pcm9381_wd"}},
      {"#SET_CPU_WD_RESET_TIMER_SEC 0", "CPU Watchdog reset timer disabled.\n", {"echo t 0 >/dev/pcm9381_wd"}},
      {"#REBOOT", "Rebooting...\n", {"echo f >/dev/pcm9381_wd"}},
      {"#SYSTEM uname -n", "vr480-sim\n", {"uname -n &>/tmp/sys.cmd", "rm -f /tmp/sys.cmd"}},
      {"#SYSTEM true", "Executing system command >>true<<.\n", {"true &>/tmp/sys.cmd", "rm -f /tmp/sys.cmd"}},
      {"#GET_CPU_NAME", " Simulated Processor @ 1.60GHz\n", {kCpuInfo + " &>/tmp/sys.cmd", "rm -f /tmp/sys.cmd"}},
      {"#SET_IDN_TXT Test rig  7", "Setting IDN text to >>Test rig  7<<.\n", {}},
      {"#IDN?", "Test rig  7", {}},
      {"#GET_IDN_TXT", "Test rig  7", {}},
      {"#SET_ZOR_IDN vr480-b", "Setting ZOR IDN to >>vr480-b<<.\n", {}},
      {"#GET_ZOR_IDN", "vr480-b", {}},
      {"#SET_PRODUCT_ID 123456_654321", "Setting Product ID to >>123456_654321<<.\n", {}},
      {"#GET_PRODUCT_ID", "123456_654321", {}},
      {"#SET_HEADER_TXT " + header50, "Setting Header text to >>" + header50.substr(0, 39) + "<<.\n",
       {"/bin/mount -o,remount /vr480", "/bin/sync", "/bin/mount -o,remount,ro /vr480"}},
      {"#GET_FIRMWARE_VER", "2.0h", {}},
      {"#GET_SN", "No S/N", {}},
      {"#SET_SN A1234", "!You do not have permission to execute this command.", {}},
      {"#GET_SN", "No S/N", {}},
      {"#SET_ZOR_SN AB 1234", "S/N set to 'AB 1234'.\n", {}},
      {"#GET_SN", "AB 1234", {}},
      {"#GET_NVRAM_SN", "AB 1234", {}},
  };
  for (const SRow& row : rows) {
    const size_t from = Host().CommandLog().size();
    EXPECT_EQ(client.Command(row.Line), row.Reply) << row.Line;
    EXPECT_EQ(Since(from), row.Host) << row.Line;
  }
  EXPECT_EQ(ReadFile(server.RootPath() + "/vr480/instid"), header50.substr(0, 39) + "\n");
  EXPECT_FALSE(std::ifstream(server.RootPath() + "/tmp/sys.cmd").good()) << "the output file is left behind";
  const std::string tags = client.Command("#GET_TAGS");
  for (const char* tag : {"#SET_SN = \"AB 1234\"\n", "#SET_USER_VAR = \"3 -7\"\n", "#SET_IDN_TXT = \"Test rig  7\"\n",
                          "#SET_CPU_WATCHDOG_SEC = \"-5\"\n"})
    EXPECT_NE(tags.find(tag), std::string::npos) << tag;
  EXPECT_EQ(tags.find("#SET_HEADER_TXT"), std::string::npos);

  // The operator's option refuses every shell command and runs nothing.
  ServerOptions.bNoShellCommands = true;
  const size_t from = Host().CommandLog().size();
  for (const char* line : {"#SYSTEM uname -n", "#GET_CPU_NAME"})
    EXPECT_EQ(client.Command(line), "!Shell commands are disabled on this instrument.\n") << line;
  EXPECT_TRUE(Since(from).empty());
}

// Identification, variables and the serial number come back after #SAVE_SETTINGS and a restart.
// The restarted server runs on the board with the marker file, whose reboot goes through that
// board's watchdog. Before the restart the console moves to the serial port: on a workstation
// that is the root's "dev/ttyS0" file.
TEST(SystemCommands, IdentificationSurvivesARestartAndTheConsoleMovesToTheSerialPort) {
  CTempDir root;
  const std::vector<std::pair<std::string, std::string>> readBack = {
      {"#GET_ZOR_IDN", "vr480-b"}, {"#GET_PRODUCT_ID", "123456_654321"}, {"#GET_SN", "AB 1234"},
      {"#GET_USER_VAR 3", "-7"},   {"#GET_ZOR_VAR 0", "42"},             {"#GET_FPGA_WATCHDOG_ENABLE", "0"},
  };
  {
    CServerProcess server(root.Path(), FreePort());
    CTestClient client;
    ASSERT_TRUE(client.Connect(server.Port()));
    for (const char* line : {"#SET_IDN_TXT Test rig 7", "#SET_ZOR_IDN vr480-b", "#SET_PRODUCT_ID 123456_654321",
                             "#SET_ZOR_SN AB 1234", "#SET_USER_VAR 3 -7", "#SET_ZOR_VAR 0 42",
                             "#SET_FPGA_WATCHDOG_ENABLE 0", "#SAVE_SETTINGS"}) {
      const std::string reply = client.Command(line);
      EXPECT_TRUE(!reply.empty() && reply[0] != '!') << line << " -> " << reply;
    }
    EXPECT_EQ(client.Command("#OUTPUT_TO_COM"), "Setting output to serial port.\n");
    EXPECT_EQ(client.Command("#SYSTEM true"), "Executing system command >>true<<.\n");
    EXPECT_TRUE(WaitFor([&] { return ReadFile(root / "dev/ttyS0").find("Executing system command >>true<<\n") !=
                                     std::string::npos; },
                        30s));
    EXPECT_EQ(server.Output().find("Executing system command >>true<<"), std::string::npos);
    EXPECT_EQ(server.Stop(SIGTERM), 0);
  }
  WriteFile(root / "vr480.9361.id", "");
  CServerProcess server(root.Path(), FreePort());
  CTestClient client;
  ASSERT_TRUE(client.Connect(server.Port()));
  for (const auto& [getter, value] : readBack) EXPECT_EQ(client.Command(getter), value) << getter;
  // Start-up appends the releases to the stored text as its last step, before acquisition starts.
  ASSERT_TRUE(server.WaitForOutput("**** FS is optimized ****", 60s));
  EXPECT_EQ(client.Command("#GET_IDN_TXT").rfind("Test rig 72.0h-", 0), 0u);
  EXPECT_EQ(client.Command("#REBOOT"), "Rebooting...\n");
  EXPECT_EQ(CHost(root.Path()).CommandLog().back(), "echo f >/dev/pcm9361_wd");
  EXPECT_EQ(server.Stop(SIGTERM), 0);
}

// The ready LED's words from `from` on, with the time each reached the card.
std::vector<sim::CCommandLogEntry> Words(CInProcessServer& server, uint8_t code, size_t from) {
  std::vector<sim::CCommandLogEntry> out;
  const auto log = server.Card().CommandLog();
  for (size_t i = from; i < log.size(); ++i)
    if (log[i].Word >> 24 == code) out.push_back(log[i]);
  return out;
}

struct SShutdown {
  std::vector<sim::CCommandLogEntry> Ready;  // ready LED words from the command on
  std::vector<uint32_t> Client;              // client LED values from the command on
  std::string Console;                       // what the server printed meanwhile
};

// Sends "#SHUTDOWN seconds" and waits for the countdown to end; the server then idles.
SShutdown RunShutdown(int seconds) {
  CInProcessServer server;
  EXPECT_TRUE(server.Started());
  CTestClient client;
  EXPECT_TRUE(client.Connect(server.Port()));
  testing::internal::CaptureStdout();
  const size_t from = server.LogSize();
  EXPECT_EQ(client.Command("#SHUTDOWN " + std::to_string(seconds)), "Shutting down...\n");
  EXPECT_TRUE(WaitFor([&] { return server.S().GetStatusText() == "*** Shutdown Complete ***"; },
                      std::chrono::seconds(seconds + 30)));
  std::this_thread::sleep_for(500ms);  // an idle server prints nothing more
  SShutdown result;
  result.Console = testing::internal::GetCapturedStdout();
  result.Ready = Words(server, kReadyLedCode, from);
  for (const auto& w : Words(server, kClientLedCode, from)) result.Client.push_back(w.Word & 1);
  return result;
}

size_t Count(const std::string& text, const std::string& what) {
  size_t n = 0;
  for (size_t i = text.find(what); i != std::string::npos; i = text.find(what, i + 1)) ++n;
  return n;
}

TEST(SystemCommands, ShutdownWithoutDelayTurnsTheLedsOffRingsAndIdles) {
  const SShutdown s = RunShutdown(0);
  ASSERT_FALSE(s.Ready.empty());
  // No blinking: once off, the ready LED stays off.
  bool off = false;
  for (const auto& w : s.Ready) {
    if (off) {
      EXPECT_EQ(w.Word & 1, 0u);
    }
    off = off || (w.Word & 1) == 0;
  }
  EXPECT_EQ(s.Ready.back().Word & 1, 0u);
  EXPECT_EQ(Count(s.Console, "\a\n"), 3u);
  EXPECT_EQ(s.Console.find("Waiting for client threads to halt"), std::string::npos);
}

// A delay of 12 s: 500 ms phases while more than 10 s remain, then ever shorter ones down to
// 50 ms; both LEDs show each phase, the first one off.
TEST(SystemCommands, ShutdownCountdownBlinksFasterTowardsTheEnd) {
  const SShutdown s = RunShutdown(12);
  const auto& r = s.Ready;
  // The blink starts with an off phase after the two offs of the stop: the first "on" that
  // follows two offs is its second phase.
  size_t start = 0;
  for (size_t i = 2; i < r.size() && start == 0; ++i)
    if ((r[i].Word & 1) && !(r[i - 1].Word & 1) && !(r[i - 2].Word & 1)) start = i - 1;
  ASSERT_GT(start, 0u);
  const size_t end = r.size() - 1;  // both LEDs off once the time is up
  ASSERT_GT(end - start, 20u) << "the phases did not speed up";
  for (size_t i = start; i < end; ++i) EXPECT_EQ(r[i].Word & 1, (i - start) % 2) << "phase " << i - start;
  EXPECT_EQ(r[end].Word & 1, 0u);

  auto ms = [&](size_t a, size_t b) { return std::chrono::duration<double, std::milli>(r[b].When - r[a].When).count(); };
  EXPECT_GE(ms(start, end), 11900.0);
  for (size_t i = start; i < end && ms(start, i) < 1900.0; ++i) EXPECT_GE(ms(i, i + 1), 480.0) << "phase " << i - start;
  EXPECT_LT(ms(end - 1, end), 300.0);
  EXPECT_LT(ms(end - 2, end - 1), ms(start + 6, start + 7));

  // The client LED shows the same phases (its last words; a closing session may add an earlier one).
  ASSERT_GE(s.Client.size(), end - start + 1);
  for (size_t k = 0; k <= end - start; ++k)
    EXPECT_EQ(s.Client[s.Client.size() - 1 - k], r[end - k].Word & 1) << "phase from the end " << k;
  EXPECT_EQ(Count(s.Console, "\a\n"), 3u);
}

}  // namespace
