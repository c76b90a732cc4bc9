// Bringing up the instrument's Ethernet interface "eth0" and asking the kernel what it holds.
//
// The interface is configured with the standard tools run through the host seam (ifconfig,
// route, dhclient, sysctl), with fixed command texts in a fixed order, and each failure is
// reported on the console in fixed words; no command reply carries it. The settings are in
// system/NetworkGlobals.h.
#pragma once

#include <cstdio>
#include <string>

// Starts the address set CurrentNetworkConfig: the start itself, then the TCP keep-alive
// tuning and, when that set auto-starts it, NTP. 0 on success; otherwise the failing tool's
// exit status or -1 (after the console report).
int StartNetwork();

// The start itself: stops NTP, releases any DHCP lease, takes eth0 down and brings it up with
// the static address (route and resolver file included) or by DHCP, then the loopback.
int StartNetwork_(bool dhcp, const char* ip, const char* netmask, const char* gateway, const char* dns);

// Kernel TCP keep-alive: idle seconds before the first probe, number of probes, seconds
// between probes. A client that vanishes without closing its connection (a cable pulled) is
// then noticed in about half a minute instead of two hours. Returns 0.
int tcp_keepalive(int time, int probes, int intvl);

// The address, netmask, default gateway and DNS server in force, dotted: the static values
// last applied, or under DHCP the interface's own address and netmask. Returns 0.
int GetIfConfig(std::string& ip, std::string& netmask, std::string& gateway, std::string& dns);
int GetIfConfig(std::string& ip, std::string& netmask, std::string& gateway);

// Prints the interface's address, netmask and gateway (GetIfConfig) between two rules on the
// console, after a network start.
void PrintIfConfig();

// Creates or truncates a file the server generates for a system daemon (resolver, NTP) and
// opens it for writing; nullptr on failure. The instrument's RAM disk holds the directories;
// on a workstation they are made under the root first.
std::FILE* CreateSystemFile(const char* instrumentPath);

// Asks the kernel for an interface's IPv4 address and netmask (read only). 0, or -1 with both
// "0.0.0.0" when the interface has no address.
int GetIpAddress(const char* ifname, std::string& ip, std::string& netmask);

// The public resolver written as the second "nameserver" line of a static start's resolver
// file, so that names still resolve when the site's DNS server is unreachable.
extern const char* const kFallbackNameServer;
