// System, network, clock and log commands end to end: replies, the host commands they run (only
// recorded on a workstation), files written, the diagnostic bundle, persistence, the watchdog and
// the power-down countdown. One in-process server serves the suite; the last test shuts it down.
#include <gtest/gtest.h>
#include <signal.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <future>
#include <regex>
#include <string>
#include <vector>

#include "commands/InProcessServer.h"
#include "system/Clock.h"
#include "system/DataLogger.h"
#include "system/Network.h"
#include "system/NetworkGlobals.h"

namespace {

using namespace laser_test;
using namespace std::chrono_literals;
using Strings = std::vector<std::string>;
namespace fs = std::filesystem;

// The host commands recorded since `from` (a size of the command log).
Strings HostCommandsSince(size_t from, const Strings& log = Host().CommandLog()) {
  return {log.begin() + static_cast<long>(std::min(from, log.size())), log.end()};
}

const Strings kRemountBracket = {"/bin/mount -o,remount /vr480", "/bin/sync", "/bin/mount -o,remount,ro /vr480"};

class SystemSuite : public ::testing::Test {
 protected:
  static void SetUpTestSuite() { RestoreNetworkDefaults(), Server = new laser_test::CInProcessServer(); }
  static void TearDownTestSuite() { delete Server, Server = nullptr, RestoreNetworkDefaults(); }
  void SetUp() override {
    ASSERT_TRUE(Server->Started());
    ASSERT_TRUE(Client.Connect(Server->Port()));
    RestoreNetworkDefaults();
    S().bEmbeddedMode = false;
    Host().ClearScripts();
  }
  void TearDown() override {
    ServerOptions.bNoShellCommands = false;
    Host().ClearScripts();
    if (!bShutDown) {
      EXPECT_EQ(Client.Command("#GET_FIRMWARE_VER"), "2.0h") << "the server answers on";
    }
  }
  CVr480Server& S() { return Server->S(); }
  std::string RootFile(const std::string& path) { return ReadFile(Server->RootPath() + path); }
  // Rows of command line, exact reply, and the host commands it ran, in order.
  struct Row {
    std::string Line, Reply;
    std::vector<std::string> Host = {};
  };
  void RunRows(const std::vector<Row>& rows) {
    for (const Row& r : rows) {
      const size_t before = Host().CommandLog().size();
      EXPECT_EQ(Client.Command(r.Line), r.Reply) << r.Line;
      EXPECT_EQ(HostCommandsSince(before), r.Host) << r.Line;
    }
  }
  static inline laser_test::CInProcessServer* Server = nullptr;
  static inline bool bShutDown = false;
  CTestClient Client;
};

constexpr uint8_t kClientLedCode = 0x08;
const std::string kCpuInfo = "cat /proc/cpuinfo | grep 'model name' | awk -F : '{print $2}'";
constexpr const char* kCoreReply = "Core File is /tmp/vr_core.zip.  Now, #DOWNLOAD /tmp/vr_core.zip";

// The bundle's own host commands since `from` (a log entry's remounts may come in between).
Strings BundleCommands(size_t from) {
  Strings out;
  for (const std::string& c : HostCommandsSince(from))
    for (const char* prefix : {"rm -rf /tmp/", "cp /vr480/vr480.tag", "cd /tmp; unix2dos", "mv /tmp/", "zip "})
      if (c.rfind(prefix, 0) == 0) out.push_back(c);
  return out;
}

Strings operator+(Strings a, const Strings& b) {
  a.insert(a.end(), b.begin(), b.end());
  return a;
}

const Strings kDown = {"kill `pgrep ntpd`", "/sbin/dhclient -r ", "/sbin/ifconfig eth0 down"};
const Strings kUp = {"/sbin/ifconfig lo 127.0.0.1 up", "sysctl -w net.ipv4.tcp_keepalive_probes=2",
                      "sysctl -w net.ipv4.tcp_keepalive_time=15", "sysctl -w net.ipv4.tcp_keepalive_intvl=5"};

Strings StaticStart(const std::string& ip, const std::string& mask, const std::string& gw) {
  return kDown + Strings{"/sbin/ifconfig eth0 inet " + ip + " netmask " + mask + " txqueuelen 10000",
                          "/sbin/route add default gw " + gw} +
         kUp;
}

const std::string kResolver = std::string("nameserver 10.0.0.254\nnameserver ") + kFallbackNameServer + "\n";
const std::string kAscTime = R"([A-Z][a-z]{2} [A-Z][a-z]{2} [ 0-9]\d \d\d:\d\d:\d\d \d{4}\n)";
const std::string kLog = "/vr480/vr480.log";

}  // namespace

// Entries are time-stamped lines written in one remount bracket; the command history lists runs of one command once they end.
TEST_F(SystemSuite, LogAndCommandHistoryCommands) {
  std::filesystem::remove(Server->RootPath() + kLog);
  const size_t before = Host().CommandLog().size();
  EXPECT_EQ(Client.Command("#LOG_ENTRY Fan failure"), "Log Entry: >>Fan failure<<.\n");
  EXPECT_EQ(HostCommandsSince(before), kRemountBracket) << "the entry is written inside one remount bracket";
  EXPECT_EQ(Client.Command("#LOG_ENTRY"), "Log Entry: >><<.\n");
  const std::string log = RootFile(kLog);
  const std::string stamp = R"([A-Z][a-z]{2} [A-Z][a-z]{2} [ 0-9]\d \d\d:\d\d:\d\d \d{4}:\t)";  // asctime, no line feed
  EXPECT_TRUE(std::regex_match(log, std::regex(stamp + "Fan failure\n" + stamp + "\n"))) << log;
  EXPECT_EQ(Client.Command("#GET_LOG"), log + '\0');
  const std::string text49(49, 'x');  // "#LOG_ENTRY " and 49 characters: a 60-character line
  const std::pair<std::string, std::string> rows[] = {
      {"#SET_ENABLE_CMD_LOG 1", "Command Log enabled.\n"},
      {"#GET_ENABLE_CMD_LOG", "1"},
      {"#FLUSH_CMD_LOG", "Command Log Flushed.\n"},
      {"#READY?", ""},
      {"#READY?", ""},
      {"#READY?", ""},
      {"#GET_TAGS", ""},
      // A run is listed once it ends; the first entry after a flush is the empty line's.
      {"#GET_CMD_LOG", "1 \n3 #READY? \n1 #GET_TAGS \n"},
      {"#LOG_ENTRY " + text49, "Log Entry: >>" + text49 + "<<.\n"},
      {"#GET_CMD_LOG", "1 \n3 #READY? \n1 #GET_TAGS \n1 #GET_CMD_LOG \n1 #LOG_ENTRY " + text49.substr(0, 26) + "\n"},
      {"#SET_ENABLE_CMD_LOG 0", "Command Log disabled.\n"},
      {"#GET_ENABLE_CMD_LOG", "0"},
      {"#FLUSH_CMD_LOG", "Command Log Flushed.\n"},
      {"#GET_CMD_LOG", ""},
  };
  for (const auto& [line, expected] : rows) {
    const std::string reply = Client.Command(line);
    EXPECT_TRUE(reply == expected || (expected.empty() && line != "#GET_CMD_LOG")) << line << " -> " << reply;  // others only recorded
  }
}

// The log only grows: a missing file answers the NUL alone, a new logger appends to what is
// there, and a long log answers with its first 31999 bytes without being read whole.
TEST_F(SystemSuite, LogFileGrowsAndAnswersItsFirstBytes) {
  std::filesystem::remove(Server->RootPath() + kLog);
  EXPECT_EQ(Client.Command("#GET_LOG"), std::string(1, '\0'));
  for (int run = 0; run < 2; ++run) {  // two server lives, each with its own logger
    CDataLogger logger;
    EXPECT_EQ(logger.OpenLog("vr480.log"), run == 0 ? 1 : 0);
    logger.UseDateStamp(false);
    EXPECT_EQ(logger.LogEntry("run " + std::to_string(run)), 0);
    EXPECT_EQ(logger.CloseLog(), 0);
  }
  EXPECT_EQ(RootFile(kLog), "run 0\nrun 1\n");
  std::string big;
  for (int i = 0; i < 100000; ++i) big += "Wed Nov 18 14:35:48 2026:\tentry " + std::to_string(i) + "\n";
  WriteFile(Server->RootPath() + kLog, big);
  EXPECT_EQ(Client.Command("#GET_LOG"), big.substr(0, 31999) + '\0');
}

// Start-up: the tags replayed, then the set in force started before any client can connect.
TEST_F(SystemSuite, NetworkStartsAtStartUp) {
  const Strings log = Host().CommandLog(), expected = StaticStart("10.0.0.126", "255.255.255.0", "10.0.0.1");
  const auto start = std::find(log.begin(), log.end(), kDown[0]);
  EXPECT_EQ(Strings(start, start + std::min(log.end() - start, static_cast<long>(expected.size()))), expected);
}

// The setters store text and persist it; nothing reaches the interface until a restart.
TEST_F(SystemSuite, NetworkSettersAndRefusals) {
  RunRows({
      {"#SET_IP_ADDRESS 10.1.2.3", "IP address set to 10.1.2.3.\n"},
      {"#SET_IP_ADDRESS 10.0.0.300", "!Invalid IP address: 10.0.0.300\n"},
      {"#SET_IP_ADDRESS 123456789012345678901234", "!Invalid IP address: 1234567890123456789\n"},
      {"#SET_IP_NETMASK 255.255.0.0", "Netmask set to 255.255.0.0.\n"},
      {"#SET_IP_NETMASK 255.255.0.x", "!Invalid Netmask: 255.255.0.x.\n"},
      {"#SET_DEFAULT_GATEWAY 10.1.0.1", "Default gateway set to 10.1.0.1.\n"},
      {"#SET_DEFAULT_GATEWAY gw", "!Invalid default gateway: gw.\n"},
      {"#SET_DNS_SERVER 1.2.3.4.5", "!Invalid DNS Server: 1.2.3.4.5.\n"},
      {"#SET_EMBEDDED_IP_ADDRESS 172.16.1.9", "Embedded IP address set to 172.16.1.9.\n"},
      {"#SET_EMBEDDED_IP_NETMASK bad", "!Invalid Netmask: bad.\n"},
      {"#GET_EMBEDDED_IP_NETMASK", "0.0.0.0"},
      {"#SET_DHCP 1", "DHCP client enabled.\n"},
      {"#SET_EMBEDDED_MODE 256", "Embedded Mode disabled (network restart or reboot required).\n"},
      {"#SET_EMBEDDED_MODE 1", "Embedded Mode enabled (network restart or reboot required).\n"},
      {"#SET_ENABLE_NTP 1", "NTP Services turned ON.\n"},
      {"#SET_AUTO_START_NTP 0", "Auto-start NTP Services OFF.\n"},
      {"#SET_USE_CUSTOM_NTP_CONF 1", "Custom NTP configuration ON.\n"},
      {"#SET_NTP_SERVER3 ntp.example.org iburst", "NTP Server 3 set to ntp.example.org iburst.\n"},
      {"#GET_NTP_SERVER4", ""},
  });
  EXPECT_STREQ(IpAddress[0], "0.0.0.0");
  EXPECT_STREQ(Gateway[0], "0.0.0.0");
}

// #RESTART_NETWORK starts the set chosen by embedded mode, and answers whatever happens.
TEST_F(SystemSuite, RestartNetwork) {
  RunRows({
      {"#RESTART_NETWORK", "Restarting network...\n", StaticStart("10.0.0.126", "255.255.255.0", "10.0.0.1")},
      {"#GET_IP_ADDRESS", "10.0.0.126"},
      {"#GET_IP_NETMASK", "255.255.255.0"},
      {"#GET_DEFAULT_GATEWAY", "10.0.0.1"},
      {"#GET_DNS_SERVER", "10.0.0.254"},
      {"#SET_DHCP 1", "DHCP client enabled.\n"},
      {"#RESTART_NETWORK", "Restarting network...\n", kDown + Strings{"/sbin/dhclient"} + kUp},
      {"#SET_EMBEDDED_MODE 1", "Embedded Mode enabled (network restart or reboot required).\n"},
      {"#RESTART_NETWORK", "Restarting network...\n", StaticStart("172.16.1.3", "255.0.0.0", "0.0.0.0")},
      {"#GET_IP_ADDRESS", "0.0.0.0"},
      {"#GET_EMBEDDED_IP_ADDRESS", "172.16.1.3"},
      {"#SET_DHCP 1", "DHCP client disabled.\n", {}},  // the state of the set in force
      {"#SET_EMBEDDED_MODE 0", "Embedded Mode disabled (network restart or reboot required).\n"},
      {"#SET_DHCP 0", "DHCP client disabled.\n"},
      {"#SET_IP_ADDRESS 10.0.0.300", "!Invalid IP address: 10.0.0.300\n"},
      {"#RESTART_NETWORK", "Restarting network...\n", kDown},  // the interface stays down
      {"#SET_IP_ADDRESS 10.0.0.127", "IP address set to 10.0.0.127.\n"},
      {"#SET_ENABLE_NTP 1", "NTP Services turned ON.\n"},
      {"#SET_USE_CUSTOM_NTP_CONF 1", "Custom NTP configuration ON.\n"},
      {"#RESTART_NETWORK", "Restarting network...\n",
       StaticStart("10.0.0.127", "255.255.255.0", "10.0.0.1") +
           Strings{"kill `pgrep ntpd`", "ntpd -g -c /etc/custom_ntp.conf"}},
  });
  EXPECT_TRUE(bNtpRunning);
  EXPECT_EQ(RootFile("/mnt/ram7/dhcp/resolv.conf"), kResolver);
  // A DHCP server that does not answer: no fall-back to the static address, no keep-alive
  // tuning, no NTP.
  Host().Script("/sbin/dhclient", 1);
  RunRows({
      {"#SET_DHCP 1", "DHCP client enabled.\n"},
      {"#RESTART_NETWORK", "Restarting network...\n", kDown + Strings{"/sbin/dhclient"}},
  });
}

TEST_F(SystemSuite, Date) {
  const size_t before = Host().CommandLog().size();
  EXPECT_TRUE(std::regex_match(Client.Command("#SET_DATE 11.18.14.35.26"), std::regex("System clock reads " + kAscTime + "\\.")));
  EXPECT_EQ(HostCommandsSince(before), (Strings{"/bin/date 1118143526", "/sbin/hwclock --systohc"}));
  EXPECT_TRUE(std::regex_match(Client.Command("#GET_DATE"), std::regex(kAscTime)));
  Host().Script("/sbin/hwclock", 1);
  RunRows({
      {"#SET_DATE 11.18.14.35.26", "!Failed to set system clock.\n", {"/bin/date 1118143526", "/sbin/hwclock --systohc"}},
      {"#SET_DATE 11.18.14.35", "!Invalid date format (11.18.14.35).  Correct format: MM.DD.hh.mm.yy\n"},
      {"#SET_DATE 1;reboot;1234", "!Invalid date format (1;reboot;1234).  Correct format: MM.DD.hh.mm.yy\n"},
  });
}

TEST_F(SystemSuite, Ntp) {
  const Strings start = Strings{"kill `pgrep ntpd`"} + Strings(3, "ntpdate -u 10.0.0.5 iburst") +
                         Strings{"ntpd -g -c /etc/ntp/ntp.conf"};
  RunRows({
      {"#START_NTP", "NTP Services Started", {}},  // NTP not in use
      {"#SET_ENABLE_NTP 1", "NTP Services turned ON.\n"},
      {"#SET_NTP_SERVER0 10.0.0.5 iburst", "NTP Server 0 set to 10.0.0.5 iburst.\n"},
      {"#SET_NTP_SERVER2 ntp.example.org", "NTP Server 2 set to ntp.example.org.\n"},
      {"#START_NTP", "NTP Services Started", start},
  });
  EXPECT_EQ(RootFile("/mnt/ram7/ntp/ntp.conf"),
            "restrict default ignore\n"
            "restrict 127.0.0.1\n"
            "restrict 10.0.0.5 mask 255.255.255.255 nomodify notrap noquery\n"
            "server 10.0.0.5 iburst\n"
            "restrict ntp.example.org mask 255.255.255.255 nomodify notrap noquery\n"
            "server ntp.example.org\n"
            "fudge\t127.127.1.0 stratum 10\n"
            "driftfile /etc/ntp/drift\n"
            "keyfile /etc/ntp/keys\n"
            "broadcastdelay\t0.008\n");
  EXPECT_TRUE(bNtpRunning);
  Host().Script("ntpdate", 1);  // the daemon starts, but the clock was never stepped
  RunRows({
      {"#START_NTP", "!Failed to start NTP Services.", start},
      {"#SET_USE_CUSTOM_NTP_CONF 1", "Custom NTP configuration ON.\n"},
      {"#START_NTP", "NTP Services Started", {"kill `pgrep ntpd`", "ntpd -g -c /etc/custom_ntp.conf"}},
      {"#STOP_NTP", "NTP Services Halted.", {"kill `pgrep ntpd`"}},
      {"#SET_EMBEDDED_MODE 1", "Embedded Mode enabled (network restart or reboot required).\n"},
      {"#RESTART_NETWORK", "Restarting network...\n", StaticStart("172.16.1.3", "255.0.0.0", "0.0.0.0")},
      {"#START_NTP", "NTP Services Started", {}},  // the embedded set never uses NTP
  });
  EXPECT_FALSE(bNtpRunning);
}

// The query's output and the custom configuration reach the client as downloads.
TEST_F(SystemSuite, NtpqAndCustomConfiguration) {
  Host().Script("ntpq -c peers", 0, "     remote           refid\n");
  Host().Script("ntpq -c help", 0, "ntpq commands:\n");
  RunRows({
      {"#NTPQ peers", "     remote           refid\n", {"ntpq -c peers &>/tmp/ntpq.dat"}},
      {"#NTPQ", "ntpq commands:\n", {"ntpq -c help &>/tmp/ntpq.dat"}},
  });
  ServerOptions.bNoShellCommands = true;
  RunRows({{"#NTPQ peers", "!Shell commands are disabled on this instrument.\n", {}}});
  const std::string conf = "server 10.0.0.5 iburst\n";
  const size_t before = Host().CommandLog().size();
  ASSERT_TRUE(Client.Send("#UPLOAD_CUSTOM_NTP_CONF " + std::to_string(conf.size())));
  ASSERT_TRUE(Client.SendRaw(conf));
  EXPECT_EQ(Client.ReadFrame(), std::to_string(conf.size()) + " bytes received.\n");
  EXPECT_EQ(HostCommandsSince(before), (Strings{"mount -o,remount /", "mount -o,remount,ro /"}));
  EXPECT_EQ(RootFile("/etc/custom_ntp.conf"), conf);
  EXPECT_EQ(Client.Command("#DOWNLOAD_CUSTOM_NTP_CONF"), conf);
}

TEST_F(SystemSuite, RepliesAndHostCommands) {
  // Start-up appends the server, driver, synthesis and CFC releases to the identification.
  const std::string driver = Client.Command("#GET_DRIVER_VER");
  ASSERT_TRUE(WaitFor([&] { return Client.Command("#GET_SYNTHESIS_VER") != "0"; }, 30s));
  EXPECT_EQ(Client.Command("#IDN?"), "Zorvane vr480, 2.0h-" + driver + "-" + Client.Command("#GET_SYNTHESIS_VER") +
                                         "-" + Client.Command("#GET_CFC_VER") + " ");
  Host().Script("uname -n", 0, "vr480-sim\n");
  Host().Script("cat /proc/cpuinfo", 0, " Simulated Processor @ 1.60GHz\n");
  const std::string header50(50, 'H');
  RunRows({
      {"#SET_USER_VAR 3 -7", "Setting User Variable 3 to -7"},
      {"#SET_USER_VAR 10 5", "!Invalid command or argument: #SET_USER_VAR 10 5."},
      {"#SET_ZOR_VAR 9 99999999999", "Setting User Variable 9 to 2147483647"},
      {"#GET_ZOR_VAR 9", "2147483647"},
      {"#GET_USER_VAR 9", "0"},
      {"#SET_FPGA_WATCHDOG_ENABLE 256", "FPGA Watchdog Disabled.\n"},
      {"#GET_FPGA_WATCHDOG_ENABLE", "0"},
      {"#SET_FPGA_WATCHDOG_ENABLE 1", "FPGA Watchdog Enabled.\n"},
      {"#SET_CPU_WATCHDOG_SEC 300", "CPU Watchdog timeout set to 255 seconds.\n", {"echo w 255 >/dev/pcm9381_wd"}},
      {"#SET_CPU_WATCHDOG_SEC -5", "CPU Watchdog disabled.\n", {"echo w 0 >/dev/pcm9381_wd"}},
      {"#SET_CPU_WD_RESET_TIMER_SEC 30", "CPU Watchdog reset timer set to 30 seconds.\n", {"echo t 30 >/dev/pcm9381_wd"}},
      {"#SET_CPU_WD_RESET_TIMER_SEC 0", "CPU Watchdog reset timer disabled.\n", {"echo t 0 >/dev/pcm9381_wd"}},
      {"#REBOOT", "Rebooting...\n", {"echo f >/dev/pcm9381_wd"}},
      {"#SYSTEM uname -n", "vr480-sim\n", {"uname -n &>/tmp/sys.cmd", "rm -f /tmp/sys.cmd"}},
      {"#SYSTEM true", "Executing system command >>true<<.\n", {"true &>/tmp/sys.cmd", "rm -f /tmp/sys.cmd"}},
      {"#GET_CPU_NAME", " Simulated Processor @ 1.60GHz\n", {kCpuInfo + " &>/tmp/sys.cmd", "rm -f /tmp/sys.cmd"}},
      {"#SET_IDN_TXT Test rig  7", "Setting IDN text to >>Test rig  7<<.\n"},
      {"#IDN?", "Test rig  7"},
      {"#SET_ZOR_IDN vr480-b", "Setting ZOR IDN to >>vr480-b<<.\n"},
      {"#SET_PRODUCT_ID 123456_654321", "Setting Product ID to >>123456_654321<<.\n"},
      {"#SET_HEADER_TXT " + header50, "Setting Header text to >>" + header50.substr(0, 39) + "<<.\n", kRemountBracket},
      {"#GET_SN", "No S/N"},
      {"#SET_SN A1234", "!You do not have permission to execute this command."},
      {"#SET_ZOR_SN AB 1234", "S/N set to 'AB 1234'.\n"},
      {"#GET_SN", "AB 1234"},
      {"#GET_NVRAM_SN", "AB 1234"},
  });
  EXPECT_EQ(RootFile("/vr480/instid"), header50.substr(0, 39) + "\n");
  EXPECT_FALSE(fs::exists(Server->RootPath() + "/tmp/sys.cmd")) << "the output file is left behind";
  const std::string tags = Client.Command("#GET_TAGS");
  for (const char* tag : {"#SET_SN = \"AB 1234\"\n", "#SET_IDN_TXT = \"Test rig  7\"\n", "#SET_CPU_WATCHDOG_SEC = \"-5\"\n"})
    EXPECT_NE(tags.find(tag), std::string::npos) << tag;
  EXPECT_EQ(tags.find("#SET_HEADER_TXT"), std::string::npos);
  // The operator's option refuses every shell command and runs nothing.
  ServerOptions.bNoShellCommands = true;
  RunRows({{"#SYSTEM uname -n", "!Shell commands are disabled on this instrument.\n"},
           {"#GET_CPU_NAME", "!Shell commands are disabled on this instrument.\n", {}}});
}

// Off the instrument no text a client typed reaches a shell: every command that builds a shell
// command line from client text only records it, whatever shell syntax the text carries.
TEST_F(SystemSuite, ClientTextIsOnlyRecorded) {
  CTempDir outside;  // where a shell that ran the text would leave its mark
  const std::string mark = (fs::path(outside.Path()) / "pwned").string();
  const Strings payloads = {"x; touch " + mark,  "x | touch " + mark, "x `touch " + mark + "`", "x $(touch " + mark + ")",
                            "x && touch " + mark, "x' \"; touch " + mark + "; echo '", "x\ntouch " + mark};
  const Strings lines = {"#SYSTEM ",         "#NTPQ ",        "#SET_NTP_SERVER0 ", "#SET_DATE ",
                         "#SET_HEADER_TXT ", "#SET_IDN_TXT ", "#SET_ZOR_SN ",      "#SET_PRODUCT_ID "};
  ASSERT_EQ(Client.Command("#SET_ENABLE_NTP 1"), "NTP Services turned ON.\n");
  for (const std::string& payload : payloads) {
    for (const std::string& line : lines) {
      ASSERT_TRUE(Client.Send(line + payload));
      bool ok = false;
      Client.ReadFrame(&ok, 30s);
      EXPECT_TRUE(ok) << line << payload;
      if (payload.find('\n') != std::string::npos) Client.ReadFrame(&ok);  // the rest is a line of its own
      EXPECT_FALSE(fs::exists(mark)) << line << payload;
    }
    ASSERT_EQ(Client.Command("#START_NTP").substr(0, 4), "NTP ");  // the server name goes into ntpdate's line
  }
  // The texts went as far as the recorded commands, whole.
  const Strings log = Host().CommandLog();
  for (const std::string& text : {"x; touch " + mark + " &>/tmp/sys.cmd", "ntpq -c x | touch " + mark + " &>/tmp/ntpq.dat",
                                  "ntpdate -u x && touch " + mark})
    EXPECT_NE(std::find(log.begin(), log.end(), text), log.end()) << text;
  EXPECT_TRUE(fs::is_empty(outside.Path()));
}

// "#DUMP_CORE" builds a real zip archive (summary, settings, raw data, query replies) that
// "#DOWNLOAD" hands out byte for byte; its password reaches only the archive, never a shell.
TEST_F(SystemSuite, DiagnosticBundle) {
  ASSERT_TRUE(WaitReady(Client, 60s));  // the bundle of a ready laser takes seconds, not half a minute
  ASSERT_EQ(Client.Command("#SAVE_SETTINGS", 30s), "Settings Saved.\n");  // the data files come from the last save
  CTempDir outside;
  const std::string password = "s3cr;et$(touch${IFS}" + outside / "pwned" + ")";
  const size_t from = Host().CommandLog().size();
  ASSERT_EQ(Client.Command("#DUMP_CORE " + password, 120s), kCoreReply);
  const std::string files = " /tmp/raw_data_sw* /tmp/raw_spectrum_dut* /tmp/raw_fbg_spectrum.dat /tmp/raw_ffpi_spectrum.dat";
  EXPECT_EQ(BundleCommands(from),
            (Strings{"rm -rf /tmp/vr_core.zip", "cp /vr480/vr480.tag /tmp/stored_tags.txt",
                     "cd /tmp; unix2dos /tmp/stored_tags.txt", "mv /tmp/active_tags.txt.tag /tmp/active_tags.txt",
                     "cd /tmp; unix2dos /tmp/active_tags.txt", "cd /tmp; unix2dos /tmp/index.txt",
                     "zip -j -P " + password + " /tmp/vr_core.zip /tmp/index.txt /tmp/stored_tags.txt /tmp/active_tags.txt" +
                         files + " averages.dat references.dat locations.dat db2counts.dat /tmp/cmd.dat",
                     "rm -rf /tmp/index.txt /tmp/stored_tags.txt /tmp/active_tags.txt" + files + " /tmp/cmd.dat"}));
  EXPECT_TRUE(fs::is_empty(outside.Path()));
  const std::string zip = Server->RootPath() + "/tmp/vr_core.zip", out = Server->RootPath() + "/tmp/unpacked";
  ASSERT_EQ(std::system(("unzip -Z1 " + zip + " > " + out + ".txt").c_str()), 0);
  EXPECT_EQ(ReadFile(out + ".txt"),
            "index.txt\nstored_tags.txt\nactive_tags.txt\nraw_data_sw0.dat\nraw_spectrum_dut1.dat\nraw_spectrum_dut2.dat\n"
            "raw_spectrum_dut3.dat\nraw_spectrum_dut4.dat\nraw_fbg_spectrum.dat\nraw_ffpi_spectrum.dat\naverages.dat\n"
            "references.dat\nlocations.dat\ndb2counts.dat\ncmd.dat\n");
  // The working files are gone again; the archive stays.
  EXPECT_FALSE(fs::exists(Server->RootPath() + "/tmp/index.txt") || fs::exists(Server->RootPath() + "/tmp/raw_data_sw0.dat"));
  EXPECT_NE(CHost::Exec({"unzip", "-q", "-o", "-P", "wrong", zip, "index.txt", "-d", out + "/wrong"}), 0);
  ASSERT_EQ(CHost::Exec({"unzip", "-q", "-o", "-P", password, zip, "-d", out}), 0);
  const std::string index = ReadFile(out + "/index.txt");
  EXPECT_EQ(index.rfind("Instrument:vr480\r\nSN:", 0), 0u) << index;
  EXPECT_NE(index.find("\r\nMuxLevel:1\r\n"), std::string::npos) << index;
  EXPECT_EQ(std::count(index.begin(), index.end(), '\n'), std::count(index.begin(), index.end(), '\r'));
  EXPECT_NE(ReadFile(out + "/active_tags.txt").find("#SET_SCAN_AMP = \"40800\"\r\n"), std::string::npos);
  EXPECT_EQ(ReadFile(out + "/raw_data_sw0.dat").size(), 6176u);
  EXPECT_GT(ReadFile(out + "/raw_ffpi_spectrum.dat").size(), 88u);
  // cmd.dat: records of command, line feed, ten-digit length and reply, back to back.
  const std::string cmd = ReadFile(out + "/cmd.dat");
  Strings commands;
  size_t at = 0;
  while (at < cmd.size()) {
    const size_t lf = cmd.find('\n', at);
    ASSERT_TRUE(lf != std::string::npos && lf + 11 <= cmd.size());
    const std::string digits = cmd.substr(lf + 1, 10);
    ASSERT_EQ(digits.find_first_not_of("0123456789"), std::string::npos) << digits;
    commands.push_back(cmd.substr(at, lf - at));
    at = lf + 11 + std::stoul(digits);
  }
  EXPECT_EQ(at, cmd.size());
  EXPECT_NE(std::find(commands.begin(), commands.end(), "#GET_SCAN_AMP"), commands.end());
  EXPECT_EQ(std::find(commands.begin(), commands.end(), "#GET_DATA"), commands.end());
  ASSERT_GE(commands.size(), 4u);
  EXPECT_EQ(Strings(commands.end() - 4, commands.end()), (Strings{"#READY?", "#IDN?", "#WHO?", "#WHOAMI?"}));
  const std::string downloaded = Client.Command("#DOWNLOAD /tmp/vr_core.zip", 30s);
  EXPECT_TRUE(downloaded == ReadFile(zip)) << downloaded.size() << " bytes: " << downloaded.substr(0, 80);
}

// vr480d processes beside the suite: identification, variables and serial number survive a save
// and restart; the console moves to the serial port (the root's "dev/ttyS0"). Restarted on the
// board with the marker file, five seconds without a record make the armed acquisition watchdog
// log the reset, sync and reboot through that board's watchdog; disarmed, it does nothing.
namespace {
void ProcessScenarios() {
  CTempDir root;
  {
    CServerProcess server(root.Path(), FreePort());
    CTestClient client;
    ASSERT_TRUE(client.Connect(server.Port()));
    for (const char* line : {"#SET_IDN_TXT Test rig 7", "#SET_ZOR_IDN vr480-b", "#SET_ZOR_SN AB 1234",
                             "#SET_USER_VAR 3 -7", "#SET_FPGA_WATCHDOG_ENABLE 0", "#SAVE_SETTINGS"})
      EXPECT_NE(client.Command(line).substr(0, 1), "!") << line;
    EXPECT_EQ(client.Command("#OUTPUT_TO_COM"), "Setting output to serial port.\n");
    EXPECT_EQ(client.Command("#SYSTEM true"), "Executing system command >>true<<.\n");
    EXPECT_TRUE(WaitFor([&] { return ReadFile(root / "dev/ttyS0").find("Executing system command >>true<<\n") != std::string::npos; }, 30s));
    EXPECT_EQ(server.Output().find("Executing system command >>true<<"), std::string::npos);
    EXPECT_EQ(server.Stop(SIGTERM), 0);
  }
  WriteFile(root / "vr480.9361.id", "");
  CServerProcess server(root.Path(), FreePort());
  CTestClient client;
  ASSERT_TRUE(client.Connect(server.Port()));
  EXPECT_EQ(client.Command("#GET_ZOR_IDN") + client.Command("#GET_SN") + client.Command("#GET_USER_VAR 3") +
                client.Command("#GET_FPGA_WATCHDOG_ENABLE"), "vr480-bAB 1234-70");
  // Start-up appends the releases to the stored text as its last step, before acquisition starts.
  ASSERT_TRUE(server.WaitForOutput("**** FS is optimized ****", 60s));
  EXPECT_EQ(client.Command("#GET_IDN_TXT").rfind("Test rig 72.0h-", 0), 0u);
  const std::string log = root / "vr480/vr480.log";
  auto logged = [&] { return ReadFile(log).find(":\tFPGA Watchdog reset.\n") != std::string::npos; };
  EXPECT_EQ(client.Command("#ENABLE_DMA 0"), "DMA Disabled.\n");
  EXPECT_FALSE(WaitFor(logged, 7s)) << "a disarmed watchdog logged a reset";
  const size_t before = CHost(root.Path()).CommandLog().size();
  EXPECT_EQ(client.Command("#SET_FPGA_WATCHDOG_ENABLE 1"), "FPGA Watchdog Enabled.\n");
  EXPECT_TRUE(WaitFor(logged, 30s));
  const auto since = [&] { return HostCommandsSince(before, CHost(root.Path()).CommandLog()); };
  EXPECT_TRUE(WaitFor([&] { return since().size() >= 5; }, 30s));
  EXPECT_EQ(since(), (Strings{kRemountBracket[0], kRemountBracket[1], kRemountBracket[2], "/bin/sync", "echo f >/dev/pcm9361_wd"}));
  EXPECT_EQ(server.Stop(SIGTERM), 0);
}

class CProcessScenarios : public ::testing::Environment {
  void SetUp() override { Done = std::async(std::launch::async, ProcessScenarios); }
  void TearDown() override { Done.get(); }
  std::future<void> Done;
};
::testing::Environment* const kProcessScenarios = ::testing::AddGlobalTestEnvironment(new CProcessScenarios);
}  // namespace

// "#SHUTDOWN 11": 500 ms phases while more than 10 s remain, then ever shorter ones down to
// 50 ms; both LEDs show each phase, the first one off; three bells, and the server idles.
// The suite's last test: the server is done afterwards.
TEST_F(SystemSuite, ShutdownCountdownBlinksFasterTowardsTheEnd) {
  bShutDown = true;
  testing::internal::CaptureStdout();
  const size_t from = Server->LogSize();
  EXPECT_EQ(Client.Command("#SHUTDOWN 11"), "Shutting down...\n");
  EXPECT_TRUE(WaitFor([&] { return S().GetStatusText() == "*** Shutdown Complete ***"; }, 45s));
  std::this_thread::sleep_for(500ms);  // an idle server prints nothing more
  const std::string console = testing::internal::GetCapturedStdout();
  std::vector<sim::CCommandLogEntry> r;
  const auto log = Server->Card().CommandLog();
  for (size_t i = from; i < log.size(); ++i)
    if (log[i].Word >> 24 == kReadyLedCode) r.push_back(log[i]);
  const std::vector<uint32_t> clientLed = Server->Sent(kClientLedCode, from);
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
  EXPECT_GE(ms(start, end), 10900.0);
  for (size_t i = start; i < end && ms(start, i) < 900.0; ++i) EXPECT_GE(ms(i, i + 1), 480.0) << "phase " << i - start;
  // The last phases are shorter than the first: medians, so that one phase a loaded machine
  // stretched does not decide.
  auto median = [&](size_t a, size_t b) {
    std::vector<double> v;
    for (size_t i = a; i < b; ++i) v.push_back(ms(i, i + 1));
    std::nth_element(v.begin(), v.begin() + v.size() / 2, v.end());
    return v[v.size() / 2];
  };
  EXPECT_LT(median(end - 5, end), median(start, start + 3));
  // The client LED shows the same phases (its last words; a closing session may add an earlier one).
  ASSERT_GE(clientLed.size(), end - start + 1);
  for (size_t k = 0; k <= end - start; ++k)
    EXPECT_EQ(clientLed[clientLed.size() - 1 - k] & 1, r[end - k].Word & 1) << "phase from the end " << k;
  EXPECT_EQ(std::count(console.begin(), console.end(), '\a'), 3);  // three bells
  EXPECT_EQ(console.find("Waiting for client threads to halt"), std::string::npos);
}
