#include "system/Network.h"

#include "system/NetworkGlobals.h"

// Applying addresses, DHCP and routes arrives with the network configuration commands; until
// then the host's network is left as it is.
int StartNetwork() { return 0; }

// Until the interface queries exist, report the configuration in force.
void GetIfConfig(std::string& ip, std::string& netmask, std::string& gateway) {
  const int c = CurrentNetworkConfig;
  ip = IpAddress[c];
  netmask = Netmask[c];
  gateway = Gateway[c];
}
