#include "system/NetworkGlobals.h"

char IpAddress[kNetworkConfigs][20] = {"10.0.0.126", "172.16.1.3"};
char Netmask[kNetworkConfigs][20] = {"255.255.255.0", "255.0.0.0"};
char Gateway[kNetworkConfigs][20] = {"10.0.0.1", "0.0.0.0"};
char DNS[kNetworkConfigs][20] = {"10.0.0.254", "0.0.0.0"};
bool bUseDhcp[kNetworkConfigs] = {false, false};
bool bUseNTP[kNetworkConfigs] = {false, false};
bool bAutoStartNTP[kNetworkConfigs] = {true, true};
bool bUseCustomNtpConfig[kNetworkConfigs] = {false, false};
char NtpServer[kNtpServers][256] = {};
std::atomic<int> CurrentNetworkConfig{0};
