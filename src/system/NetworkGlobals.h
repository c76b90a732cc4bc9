// The network and time-service settings of the host. Two address sets are kept: set 0 is the
// normal one (static or DHCP), set 1 the fixed internal address of embedded mode (the
// instrument built into a host system). CurrentNetworkConfig selects the set in force when the
// network is (re)started. Written by the network and clock commands and the tag replay; read
// when the network or NTP is (re)started, by the front panel and by the diagnostic bundle.
// The settings take effect only at the next network start.
#pragma once

#include <netinet/in.h>

#include <atomic>

constexpr int kNetworkConfigs = 2;
constexpr int kNtpServers = 5;
constexpr int kNetworkTextChars = 20;   // dotted addresses: 19 characters and the terminator
constexpr int kNtpServerChars = 256;    // a server entry: 255 characters and the terminator

extern char IpAddress[kNetworkConfigs][kNetworkTextChars];  // dotted address per set; setters
extern char Netmask[kNetworkConfigs][kNetworkTextChars];    // dotted netmask per set; setters
extern char Gateway[kNetworkConfigs][kNetworkTextChars];    // default gateway per set; setters (set 0 only)
extern char DNS[kNetworkConfigs][kNetworkTextChars];        // DNS server per set; setters (set 0 only)
extern std::atomic<bool> bUseDhcp[kNetworkConfigs];         // address by DHCP; #SET_DHCP (set 0 only)
extern std::atomic<bool> bUseNTP[kNetworkConfigs];          // NTP used at all; #SET_ENABLE_NTP (set 0 only)
extern std::atomic<bool> bAutoStartNTP[kNetworkConfigs];    // NTP after each network start; set 0 only
extern std::atomic<bool> bUseCustomNtpConfig[kNetworkConfigs];  // uploaded ntpd configuration; set 0 only
extern char NtpServer[kNtpServers][kNtpServerChars];        // "" unused; address, then ntpd options
extern std::atomic<int> CurrentNetworkConfig;  // 0 normal, 1 embedded; start-up and #RESTART_NETWORK

// What the last static start applied, parsed from the texts (network byte order; 0.0.0.0
// until a static start). Under DHCP the gateway and DNS reported are still these.
extern std::atomic<in_addr_t> StaticIpAddress;
extern std::atomic<in_addr_t> StaticNetmask;
extern std::atomic<in_addr_t> DefaultGateway;
extern std::atomic<in_addr_t> StaticDNS;

// Puts every value above back to its power-on default (a server started again in the same
// process, as the tests do, must not inherit the previous one's addresses).
void RestoreNetworkDefaults();
