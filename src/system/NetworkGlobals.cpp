#include "system/NetworkGlobals.h"

#include <cstring>

char IpAddress[kNetworkConfigs][kNetworkTextChars];
char Netmask[kNetworkConfigs][kNetworkTextChars];
char Gateway[kNetworkConfigs][kNetworkTextChars];
char DNS[kNetworkConfigs][kNetworkTextChars];
std::atomic<bool> bUseDhcp[kNetworkConfigs];
std::atomic<bool> bUseNTP[kNetworkConfigs];
std::atomic<bool> bAutoStartNTP[kNetworkConfigs];
std::atomic<bool> bUseCustomNtpConfig[kNetworkConfigs];
char NtpServer[kNtpServers][kNtpServerChars];
std::atomic<int> CurrentNetworkConfig{0};
std::atomic<in_addr_t> StaticIpAddress{0};
std::atomic<in_addr_t> StaticNetmask{0};
std::atomic<in_addr_t> DefaultGateway{0};
std::atomic<in_addr_t> StaticDNS{0};

namespace {

// The factory addresses: set 0 is the instrument's address on a fresh office network, set 1
// the fixed address a host system expects of an embedded instrument (no gateway, no DNS).
struct SNetworkDefaults {
  SNetworkDefaults() { RestoreNetworkDefaults(); }
};
const SNetworkDefaults kApplyDefaultsAtLoad;

void Copy(char (&field)[kNetworkTextChars], const char* text) {
  std::strncpy(field, text, kNetworkTextChars - 1);
  field[kNetworkTextChars - 1] = '\0';
}

}  // namespace

void RestoreNetworkDefaults() {
  Copy(IpAddress[0], "10.0.0.126");
  Copy(Netmask[0], "255.255.255.0");
  Copy(Gateway[0], "10.0.0.1");
  Copy(DNS[0], "10.0.0.254");
  Copy(IpAddress[1], "172.16.1.3");
  Copy(Netmask[1], "255.0.0.0");
  Copy(Gateway[1], "0.0.0.0");
  Copy(DNS[1], "0.0.0.0");
  for (int s = 0; s < kNetworkConfigs; ++s) {
    bUseDhcp[s] = false;
    bUseNTP[s] = false;
    bAutoStartNTP[s] = true;
    bUseCustomNtpConfig[s] = false;
  }
  for (auto& server : NtpServer) server[0] = '\0';
  CurrentNetworkConfig = 0;
  StaticIpAddress = 0;
  StaticNetmask = 0;
  DefaultGateway = 0;
  StaticDNS = 0;
}
