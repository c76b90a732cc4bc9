// Network, clock and NTP end to end: replies, the exact host commands of a network start, of
// setting the date and of starting NTP, in order, and the resolver and NTP daemon files.
#include <gtest/gtest.h>

#include <regex>
#include <string>
#include <vector>

#include "system/Clock.h"
#include "system/Network.h"
#include "system/SystemSuite.h"

namespace {

using Commands = std::vector<std::string>;

Commands operator+(Commands a, const Commands& b) {
  a.insert(a.end(), b.begin(), b.end());
  return a;
}

const Commands kDown = {"kill `pgrep ntpd`", "/sbin/dhclient -r ", "/sbin/ifconfig eth0 down"};
const Commands kUp = {"/sbin/ifconfig lo 127.0.0.1 up", "sysctl -w net.ipv4.tcp_keepalive_probes=2",
                      "sysctl -w net.ipv4.tcp_keepalive_time=15", "sysctl -w net.ipv4.tcp_keepalive_intvl=5"};

Commands StaticStart(const std::string& ip, const std::string& mask, const std::string& gw) {
  return kDown + Commands{"/sbin/ifconfig eth0 inet " + ip + " netmask " + mask + " txqueuelen 10000",
                          "/sbin/route add default gw " + gw} +
         kUp;
}

const std::string kResolver = std::string("nameserver 10.0.0.254\nnameserver ") + kFallbackNameServer + "\n";
const std::string kAscTime = R"([A-Z][a-z]{2} [A-Z][a-z]{2} [ 0-9]\d \d\d:\d\d:\d\d \d{4}\n)";

}  // namespace

// Start-up: the tags replayed, then the set in force started before any client can connect.
TEST_F(SystemSuite, NetworkStartsAtStartUp) {
  const Commands log = Host().CommandLog(), expected = StaticStart("10.0.0.126", "255.255.255.0", "10.0.0.1");
  const auto start = std::find(log.begin(), log.end(), kDown[0]);
  EXPECT_EQ(Commands(start, start + std::min(log.end() - start, static_cast<long>(expected.size()))), expected);
}

// The setters store text and persist it; nothing reaches the interface until a restart.
TEST_F(SystemSuite, NetworkSettersAndRefusals) {
  RunRows({
      {"#SET_IP_ADDRESS 10.1.2.3", "IP address set to 10.1.2.3.\n", {}},
      {"#SET_IP_ADDRESS 10.0.0.300", "!Invalid IP address: 10.0.0.300\n", {}},
      {"#SET_IP_ADDRESS 123456789012345678901234", "!Invalid IP address: 1234567890123456789\n", {}},
      {"#SET_IP_NETMASK 255.255.0.0", "Netmask set to 255.255.0.0.\n", {}},
      {"#SET_IP_NETMASK 255.255.0.x", "!Invalid Netmask: 255.255.0.x.\n", {}},
      {"#SET_DEFAULT_GATEWAY 10.1.0.1", "Default gateway set to 10.1.0.1.\n", {}},
      {"#SET_DEFAULT_GATEWAY gw", "!Invalid default gateway: gw.\n", {}},
      {"#SET_DNS_SERVER 1.2.3.4.5", "!Invalid DNS Server: 1.2.3.4.5.\n", {}},
      {"#SET_EMBEDDED_IP_ADDRESS 172.16.1.9", "Embedded IP address set to 172.16.1.9.\n", {}},
      {"#SET_EMBEDDED_IP_NETMASK bad", "!Invalid Netmask: bad.\n", {}},
      {"#GET_EMBEDDED_IP_NETMASK", "0.0.0.0", {}},
      {"#SET_DHCP 1", "DHCP client enabled.\n", {}},
      {"#GET_DHCP", "1", {}},
      {"#SET_EMBEDDED_MODE 256", "Embedded Mode disabled (network restart or reboot required).\n", {}},
      {"#SET_EMBEDDED_MODE 1", "Embedded Mode enabled (network restart or reboot required).\n", {}},
      {"#GET_EMBEDDED_MODE", "1", {}},
      {"#SET_ENABLE_NTP 1", "NTP Services turned ON.\n", {}},
      {"#GET_ENABLE_NTP", "1", {}},
      {"#SET_AUTO_START_NTP 0", "Auto-start NTP Services OFF.\n", {}},
      {"#GET_AUTO_START_NTP", "0", {}},
      {"#SET_USE_CUSTOM_NTP_CONF 1", "Custom NTP configuration ON.\n", {}},
      {"#GET_USE_CUSTOM_NTP_CONF", "1", {}},
      {"#SET_NTP_SERVER3 ntp.example.org iburst", "NTP Server 3 set to ntp.example.org iburst.\n", {}},
      {"#GET_NTP_SERVER3", "ntp.example.org iburst", {}},
      {"#GET_NTP_SERVER4", "", {}},
  });
  EXPECT_STREQ(IpAddress[0], "0.0.0.0");
  EXPECT_STREQ(Gateway[0], "0.0.0.0");
}

// #RESTART_NETWORK starts the set chosen by embedded mode, and answers whatever happens.
TEST_F(SystemSuite, RestartNetwork) {
  RunRows({
      {"#RESTART_NETWORK", "Restarting network...\n", StaticStart("10.0.0.126", "255.255.255.0", "10.0.0.1")},
      {"#GET_IP_ADDRESS", "10.0.0.126", {}},
      {"#GET_IP_NETMASK", "255.255.255.0", {}},
      {"#GET_DEFAULT_GATEWAY", "10.0.0.1", {}},
      {"#GET_DNS_SERVER", "10.0.0.254", {}},
      {"#SET_DHCP 1", "DHCP client enabled.\n", {}},
      {"#RESTART_NETWORK", "Restarting network...\n", kDown + Commands{"/sbin/dhclient"} + kUp},
      {"#SET_EMBEDDED_MODE 1", "Embedded Mode enabled (network restart or reboot required).\n", {}},
      {"#RESTART_NETWORK", "Restarting network...\n", StaticStart("172.16.1.3", "255.0.0.0", "0.0.0.0")},
      {"#GET_IP_ADDRESS", "0.0.0.0", {}},
      {"#GET_EMBEDDED_IP_ADDRESS", "172.16.1.3", {}},
      {"#SET_DHCP 1", "DHCP client disabled.\n", {}},  // the state of the set in force
      {"#SET_EMBEDDED_MODE 0", "Embedded Mode disabled (network restart or reboot required).\n", {}},
      {"#SET_DHCP 0", "DHCP client disabled.\n", {}},
      {"#SET_IP_ADDRESS 10.0.0.300", "!Invalid IP address: 10.0.0.300\n", {}},
      {"#RESTART_NETWORK", "Restarting network...\n", kDown},  // the interface stays down
      {"#SET_IP_ADDRESS 10.0.0.127", "IP address set to 10.0.0.127.\n", {}},
      {"#SET_ENABLE_NTP 1", "NTP Services turned ON.\n", {}},
      {"#SET_USE_CUSTOM_NTP_CONF 1", "Custom NTP configuration ON.\n", {}},
      {"#RESTART_NETWORK", "Restarting network...\n",
       StaticStart("10.0.0.127", "255.255.255.0", "10.0.0.1") +
           Commands{"kill `pgrep ntpd`", "ntpd -g -c /etc/custom_ntp.conf"}},
  });
  EXPECT_TRUE(bNtpRunning);
  EXPECT_EQ(RootFile("/mnt/ram7/dhcp/resolv.conf"), kResolver);
  // A DHCP server that does not answer: no fall-back to the static address, no keep-alive
  // tuning, no NTP.
  Host().Script("/sbin/dhclient", 1);
  RunRows({
      {"#SET_DHCP 1", "DHCP client enabled.\n", {}},
      {"#RESTART_NETWORK", "Restarting network...\n", kDown + Commands{"/sbin/dhclient"}},
  });
}

TEST_F(SystemSuite, Date) {
  const size_t before = Host().CommandLog().size();
  EXPECT_TRUE(std::regex_match(Client.Command("#SET_DATE 11.18.14.35.26"), std::regex("System clock reads " + kAscTime + "\\.")));
  EXPECT_EQ(HostCommandsSince(before), (Commands{"/bin/date 1118143526", "/sbin/hwclock --systohc"}));
  EXPECT_TRUE(std::regex_match(Client.Command("#GET_DATE"), std::regex(kAscTime)));
  Host().Script("/sbin/hwclock", 1);
  RunRows({
      {"#SET_DATE 11.18.14.35.26", "!Failed to set system clock.\n", {"/bin/date 1118143526", "/sbin/hwclock --systohc"}},
      {"#SET_DATE 11.18.14.35", "!Invalid date format (11.18.14.35).  Correct format: MM.DD.hh.mm.yy\n", {}},
      {"#SET_DATE 1;reboot;1234", "!Invalid date format (1;reboot;1234).  Correct format: MM.DD.hh.mm.yy\n", {}},
  });
}

TEST_F(SystemSuite, Ntp) {
  const Commands start = Commands{"kill `pgrep ntpd`"} + Commands(3, "ntpdate -u 10.0.0.5 iburst") +
                         Commands{"ntpd -g -c /etc/ntp/ntp.conf"};
  RunRows({
      {"#START_NTP", "NTP Services Started", {}},  // NTP not in use
      {"#SET_ENABLE_NTP 1", "NTP Services turned ON.\n", {}},
      {"#SET_NTP_SERVER0 10.0.0.5 iburst", "NTP Server 0 set to 10.0.0.5 iburst.\n", {}},
      {"#SET_NTP_SERVER2 ntp.example.org", "NTP Server 2 set to ntp.example.org.\n", {}},
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
      {"#SET_USE_CUSTOM_NTP_CONF 1", "Custom NTP configuration ON.\n", {}},
      {"#START_NTP", "NTP Services Started", {"kill `pgrep ntpd`", "ntpd -g -c /etc/custom_ntp.conf"}},
      {"#STOP_NTP", "NTP Services Halted.", {"kill `pgrep ntpd`"}},
      {"#SET_EMBEDDED_MODE 1", "Embedded Mode enabled (network restart or reboot required).\n", {}},
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
  EXPECT_EQ(HostCommandsSince(before), (Commands{"mount -o,remount /", "mount -o,remount,ro /"}));
  EXPECT_EQ(RootFile("/etc/custom_ntp.conf"), conf);
  EXPECT_EQ(Client.Command("#DOWNLOAD_CUSTOM_NTP_CONF"), conf);
}
