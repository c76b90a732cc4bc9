// The network and time-service settings of the host. Two configurations are kept: index 0 is
// the normal one, index 1 the fixed embedded-mode one; CurrentNetworkConfig selects which is
// applied. Written by the network and clock commands and the tag replay; read when the
// network or NTP is (re)started and by the front panel.
#pragma once

#include <atomic>

constexpr int kNetworkConfigs = 2;
constexpr int kNtpServers = 5;

extern char IpAddress[kNetworkConfigs][20];
extern char Netmask[kNetworkConfigs][20];
extern char Gateway[kNetworkConfigs][20];
extern char DNS[kNetworkConfigs][20];
extern bool bUseDhcp[kNetworkConfigs];
extern bool bUseNTP[kNetworkConfigs];
extern bool bAutoStartNTP[kNetworkConfigs];
extern bool bUseCustomNtpConfig[kNetworkConfigs];
extern char NtpServer[kNtpServers][256];
extern std::atomic<int> CurrentNetworkConfig;  // 0 normal, 1 embedded; set by Init and #SET_EMBEDDED_MODE
