// Network and clock commands: the two address sets, DHCP, embedded mode, the network restart,
// the date, and the NTP settings, start and stop, query and custom configuration.
//
// The address setters only store their text (checked with the standard dotted-address parser)
// and persist it as a tag: the interface changes at the next network start, at start-up or on
// #RESTART_NETWORK, so an operator can change the address, gateway and mask one by one
// without losing the connection in between. The commands change set 0 only; set 1, the
// embedded address, has its own two setters and never a gateway, DNS server or NTP.
#include <algorithm>
#include <cctype>
#include <climits>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <mutex>
#include <string>

#include <arpa/inet.h>

#include "commands/Families.h"
#include "host/Host.h"
#include "protocol/CommandTable.h"
#include "server/Globals.h"
#include "server/Options.h"
#include "server/Vr480Server.h"
#include "system/Clock.h"
#include "system/Network.h"
#include "system/NetworkGlobals.h"

namespace {

constexpr const char* kNtpqFile = "/tmp/ntpq.dat";

const char* OnOff(bool on) { return on ? "ON" : "OFF"; }

// The setting a flag command writes: the low byte of the value, as the instrument has always
// stored it (so 256 turns a flag off).
bool LowByte(const CCommandContext& c) { return static_cast<uint8_t>(c.Int(1)) != 0; }

// Runs another command line for the same client and hands on its reply: a download writes its
// own frame, a refusal leaves its text in the caller's buffer.
int Forward(CCommandContext& c, const std::string& line) {
  char* reply = nullptr;
  unsigned length = 0;
  const int code = c.Server.ProcessCmd(static_cast<short>(c.Client), line.c_str(), &reply, &length);
  if (reply && reply != c.Text()) c.SetBody(reply, length);
  return code;
}

// ---- Addresses ---------------------------------------------------------------------------------

// Stores the argument (cut to the field) and checks it with the standard dotted-address
// parser. An invalid text is quoted as stored and leaves "0.0.0.0", so the next start refuses
// to configure the interface until a valid address is set.
template <char (*Field)[kNetworkTextChars], int Set>
int SetAddress(CCommandContext& c, const char* done, const char* invalid) {
  char(&field)[kNetworkTextChars] = Field[Set];
  std::snprintf(field, sizeof field, "%s", c.Col(1).c_str());
  in_addr parsed{};
  if (inet_aton(field, &parsed) != 0) return c.Reply(done, field);
  c.Reply(invalid, field);
  std::snprintf(field, sizeof field, "%s", "0.0.0.0");
  return kReplyText;
}

int SetIpAddress(CCommandContext& c) {
  return SetAddress<IpAddress, 0>(c, "IP address set to %s.\n", "!Invalid IP address: %s\n");
}
int SetIpNetmask(CCommandContext& c) {
  return SetAddress<Netmask, 0>(c, "Netmask set to %s.\n", "!Invalid Netmask: %s.\n");
}
int SetDefaultGateway(CCommandContext& c) {
  return SetAddress<Gateway, 0>(c, "Default gateway set to %s.\n", "!Invalid default gateway: %s.\n");
}
int SetDnsServer(CCommandContext& c) {
  return SetAddress<DNS, 0>(c, "DNS Server set to %s.\n", "!Invalid DNS Server: %s.\n");
}
int SetEmbeddedIpAddress(CCommandContext& c) {
  return SetAddress<IpAddress, 1>(c, "Embedded IP address set to %s.\n", "!Invalid IP address: %s\n");
}
int SetEmbeddedIpNetmask(CCommandContext& c) {
  return SetAddress<Netmask, 1>(c, "Embedded Netmask set to %s.\n", "!Invalid Netmask: %s.\n");
}

int GetEmbeddedIpAddress(CCommandContext& c) { return c.Reply("%s", IpAddress[1]); }
int GetEmbeddedIpNetmask(CCommandContext& c) { return c.Reply("%s", Netmask[1]); }

// What the interface holds. An embedded instrument does not tell its host system its address.
enum class EIfValue { Ip, Netmask, Gateway, Dns };
template <EIfValue Which>
int GetIfValue(CCommandContext& c) {
  if (c.Server.bEmbeddedMode) return c.Reply("%s", "0.0.0.0");
  std::string ip, netmask, gateway, dns;
  GetIfConfig(ip, netmask, gateway, dns);
  const std::string& value = Which == EIfValue::Ip        ? ip
                             : Which == EIfValue::Netmask ? netmask
                             : Which == EIfValue::Gateway ? gateway
                                                          : dns;
  return c.Reply("%s", value.substr(0, 30).c_str());
}

// ---- DHCP, embedded mode, restart --------------------------------------------------------------

// The reply tells the state of the set in force: in embedded mode DHCP stays off whatever set
// 0 says.
int SetDhcp(CCommandContext& c) {
  bUseDhcp[0] = c.Int(1) != 0;
  const bool on = bUseDhcp[CurrentNetworkConfig.load() == 1 ? 1 : 0];
  return c.Reply(on ? "DHCP client enabled.\n" : "DHCP client disabled.\n");
}

int GetDhcp(CCommandContext& c) { return c.Reply(bUseDhcp[CurrentNetworkConfig.load() == 1 ? 1 : 0] ? "1" : "0"); }

int SetEmbeddedMode(CCommandContext& c) {
  c.Server.bEmbeddedMode = LowByte(c);
  return c.Reply("Embedded Mode %s (network restart or reboot required).\n",
                 c.Server.bEmbeddedMode ? "enabled" : "disabled");
}

int GetEmbeddedMode(CCommandContext& c) { return c.Reply("%d", c.Server.bEmbeddedMode ? 1 : 0); }

// The client is told before anything happens to the interface; whatever the outcome, the
// console shows what the interface holds afterwards.
int RestartNetwork(CCommandContext& c) {
  CurrentNetworkConfig = c.Server.bEmbeddedMode ? 1 : 0;
  StartNetwork();
  PrintIfConfig();
  bUpdateGui = true;
  return c.Reply("Restarting network...\n");
}

// ---- Date --------------------------------------------------------------------------------------

// "MM.DD.hh.mm.yy": two digits per field. Only such a text reaches the date tool, so nothing
// a client types can become more than a date on the shell's command line.
bool IsDateText(const std::string& text) {
  if (text.size() != 14) return false;
  for (size_t i = 0; i < text.size(); ++i) {
    const bool dot = i % 3 == 2;
    if (dot ? text[i] != '.' : !std::isdigit(static_cast<unsigned char>(text[i]))) return false;
  }
  return true;
}

int SetDateCmd(CCommandContext& c) {
  const std::string text = c.Col(1);
  if (!IsDateText(text))
    return c.Reply("!Invalid date format (%s).  Correct format: MM.DD.hh.mm.yy\n", text.c_str());
  if (SetDate(text) != 0) return c.Reply("!Failed to set system clock.\n");
  return c.Reply("System clock reads %s.", LocalTimeText().c_str());
}

int GetDateCmd(CCommandContext& c) { return c.Reply("%s", LocalTimeText().c_str()); }

// ---- NTP ---------------------------------------------------------------------------------------

// The NTP flags of set 0; the embedded set keeps its defaults.
template <std::atomic<bool> (&Flags)[kNetworkConfigs]>
int SetNtpFlag(CCommandContext& c, const char* format) {
  Flags[0] = LowByte(c);
  return c.Reply(format, OnOff(Flags[0]));
}
template <std::atomic<bool> (&Flags)[kNetworkConfigs]>
int GetNtpFlag(CCommandContext& c) {
  return c.Reply("%d", Flags[0] ? 1 : 0);
}

int SetEnableNtp(CCommandContext& c) { return SetNtpFlag<bUseNTP>(c, "NTP Services turned %s.\n"); }
int SetAutoStartNtp(CCommandContext& c) { return SetNtpFlag<bAutoStartNTP>(c, "Auto-start NTP Services %s.\n"); }
int SetUseCustomNtpConf(CCommandContext& c) {
  return SetNtpFlag<bUseCustomNtpConfig>(c, "Custom NTP configuration %s.\n");
}

int StartNtpCmd(CCommandContext& c) {
  return c.Reply(StartNTP() == 0 ? "NTP Services Started" : "!Failed to start NTP Services.");
}

int StopNtpCmd(CCommandContext& c) {
  HaltNTP();
  return c.Reply("NTP Services Halted.");
}

// The whole argument text: a server entry may carry ntpd options after the address.
template <int N>
int SetNtpServer(CCommandContext& c) {
  std::snprintf(NtpServer[N], sizeof NtpServer[N], "%s", c.ArgText.c_str());
  return c.Reply("NTP Server %d set to %s.\n", N, NtpServer[N]);
}
template <int N>
int GetNtpServer(CCommandContext& c) {
  return c.Reply("%s", NtpServer[N]);
}

// Every caller shares the one output file.
std::mutex NtpqLock;

// The query's output goes to a file that the client then receives as a download.
int Ntpq(CCommandContext& c) {
  if (ServerOptions.bNoShellCommands) return c.Reply("!Shell commands are disabled on this instrument.\n");
  std::lock_guard<std::mutex> g(NtpqLock);
  const std::string query = c.ArgText.empty() ? "help" : c.ArgText;
  Host().Run("ntpq -c " + query + " &>" + kNtpqFile);
  const int code = Forward(c, std::string("#DOWNLOAD ") + kNtpqFile);
  c.Server.CheckNumArgs(c.ArgText, 0, 0);  // tells the console when a query was given
  return code;
}

// The root file system is read-only in operation: the upload is bracketed by a remount.
int UploadCustomNtpConf(CCommandContext& c) {
  const int size = static_cast<int>(std::clamp<long>(c.Int(1), INT_MIN, INT_MAX));
  if (!Host().IsInstrument()) {
    std::error_code ec;
    std::filesystem::create_directories(std::filesystem::path(Host().Path(kCustomNtpConfFile)).parent_path(), ec);
  }
  Host().Run("mount -o,remount /");
  const int code = Forward(c, "#UPLOAD " + std::to_string(size) + " " + kCustomNtpConfFile);
  Host().Run("mount -o,remount,ro /");
  return code;
}

int DownloadCustomNtpConf(CCommandContext& c) { return Forward(c, std::string("#DOWNLOAD ") + kCustomNtpConfFile); }

const SCommandRow kRows[] = {
    {"#SET_DHCP", 1, 1, kTag, SetDhcp},
    {"#GET_DHCP", 0, 0, kNone, GetDhcp},
    {"#SET_IP_ADDRESS", 1, 1, kTag, SetIpAddress},
    {"#SET_IP_NETMASK", 1, 1, kTag, SetIpNetmask},
    {"#SET_DEFAULT_GATEWAY", 1, 1, kTag, SetDefaultGateway},
    {"#SET_DNS_SERVER", 1, 1, kTag, SetDnsServer},
    {"#GET_IP_ADDRESS", 0, 0, kNone, GetIfValue<EIfValue::Ip>},
    {"#GET_IP_NETMASK", 0, 0, kNone, GetIfValue<EIfValue::Netmask>},
    {"#GET_DEFAULT_GATEWAY", 0, 0, kNone, GetIfValue<EIfValue::Gateway>},
    {"#GET_DNS_SERVER", 0, 0, kNone, GetIfValue<EIfValue::Dns>},
    {"#SET_EMBEDDED_MODE", 1, 1, kTag, SetEmbeddedMode},
    {"#GET_EMBEDDED_MODE", 0, 0, kNone, GetEmbeddedMode},
    {"#SET_EMBEDDED_IP_ADDRESS", 1, 1, kTag, SetEmbeddedIpAddress},
    {"#SET_EMBEDDED_IP_NETMASK", 1, 1, kTag, SetEmbeddedIpNetmask},
    {"#GET_EMBEDDED_IP_ADDRESS", 0, 0, kNone, GetEmbeddedIpAddress},
    {"#GET_EMBEDDED_IP_NETMASK", 0, 0, kNone, GetEmbeddedIpNetmask},
    {"#RESTART_NETWORK", 0, 0, kNone, RestartNetwork},
    {"#SET_DATE", 1, 1, kNone, SetDateCmd},
    {"#GET_DATE", 0, 0, kNone, GetDateCmd},
    {"#SET_ENABLE_NTP", 1, 1, kTag, SetEnableNtp},
    {"#GET_ENABLE_NTP", 0, 0, kNone, GetNtpFlag<bUseNTP>},
    {"#SET_AUTO_START_NTP", 1, 1, kTag, SetAutoStartNtp},
    {"#GET_AUTO_START_NTP", 0, 0, kNone, GetNtpFlag<bAutoStartNTP>},
    {"#SET_USE_CUSTOM_NTP_CONF", 1, 1, kTag, SetUseCustomNtpConf},
    {"#GET_USE_CUSTOM_NTP_CONF", 0, 0, kNone, GetNtpFlag<bUseCustomNtpConfig>},
    {"#START_NTP", 0, 0, kNone, StartNtpCmd},
    {"#STOP_NTP", 0, 0, kNone, StopNtpCmd},
    {"#SET_NTP_SERVER0", kAnyArgs, kAnyArgs, kTag, SetNtpServer<0>},
    {"#SET_NTP_SERVER1", kAnyArgs, kAnyArgs, kTag, SetNtpServer<1>},
    {"#SET_NTP_SERVER2", kAnyArgs, kAnyArgs, kTag, SetNtpServer<2>},
    {"#SET_NTP_SERVER3", kAnyArgs, kAnyArgs, kTag, SetNtpServer<3>},
    {"#SET_NTP_SERVER4", kAnyArgs, kAnyArgs, kTag, SetNtpServer<4>},
    {"#GET_NTP_SERVER0", 0, 0, kNone, GetNtpServer<0>},
    {"#GET_NTP_SERVER1", 0, 0, kNone, GetNtpServer<1>},
    {"#GET_NTP_SERVER2", 0, 0, kNone, GetNtpServer<2>},
    {"#GET_NTP_SERVER3", 0, 0, kNone, GetNtpServer<3>},
    {"#GET_NTP_SERVER4", 0, 0, kNone, GetNtpServer<4>},
    {"#NTPQ", kAnyArgs, kAnyArgs, kNone, Ntpq},
    {"#UPLOAD_CUSTOM_NTP_CONF", 1, 1, kNone, UploadCustomNtpConf},
    {"#DOWNLOAD_CUSTOM_NTP_CONF", 0, 0, kNone, DownloadCustomNtpConf},
};

}  // namespace

void RegisterNetworkCommands(CCommandTable& table) { table.Add(kRows); }
