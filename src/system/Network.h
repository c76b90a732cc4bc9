// Network start-up and interface queries.
#pragma once

#include <string>

// Applies the current network configuration (static address, DHCP or embedded mode).
int StartNetwork();
// The address, netmask and default gateway of the network interface.
void GetIfConfig(std::string& ip, std::string& netmask, std::string& gateway);
