#include "system/Network.h"

#include <arpa/inet.h>
#include <net/if.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <filesystem>
#include <string>

#include "host/Host.h"
#include "system/Clock.h"
#include "system/NetworkGlobals.h"

const char* const kFallbackNameServer = "9.9.9.9";

namespace {

constexpr const char* kResolverFile = "/mnt/ram7/dhcp/resolv.conf";
constexpr int kTxQueueLength = 10000;

std::string Dotted(in_addr_t address) {
  char text[INET_ADDRSTRLEN] = "0.0.0.0";
  in_addr a{};
  a.s_addr = address;
  inet_ntop(AF_INET, &a, text, sizeof text);
  return text;
}

// Parses a dotted address as the C library does (inet_aton); 0 and false when invalid.
bool Parse(const char* text, in_addr_t& out) {
  in_addr a{};
  const bool valid = inet_aton(text, &a) != 0;
  out = valid ? a.s_addr : 0;
  return valid;
}

// "nameserver" lines for the resolver: the site's DNS server first, the public one second.
int WriteResolverFile(const char* dns) {
  std::FILE* f = CreateSystemFile(kResolverFile);
  if (!f) {
    std::printf("Error opening output file %s\n", kResolverFile);
    return -1;
  }
  std::fprintf(f, "nameserver %s\nnameserver %s\n", dns, kFallbackNameServer);
  std::fclose(f);
  return 0;
}

int StartStatic(const char* ip, const char* netmask, const char* gateway, const char* dns) {
  // "0.0.0.0" is what a refused #SET_IP_ADDRESS leaves behind: an interface cannot be given
  // the unspecified address, so the start stops here until a real address is set.
  in_addr_t address = 0;
  const bool ipValid = Parse(ip, address) && address != INADDR_ANY;
  StaticIpAddress = address;
  if (!ipValid) {
    std::printf("Error: IP address is invalid.\n");
    return -1;
  }
  in_addr_t mask = 0;
  const bool maskValid = Parse(netmask, mask);
  StaticNetmask = mask;
  if (!maskValid) std::printf("Warning: netmask is invalid.\n");

  char command[128];
  std::snprintf(command, sizeof command, "/sbin/ifconfig eth0 inet %s netmask %s txqueuelen %d", ip, netmask,
                kTxQueueLength);
  if (const int status = Host().Run(command); status != 0) {
    std::printf("%s returned %d.\n", command, status);
    return status;
  }

  in_addr_t gw = 0;
  const bool gwValid = Parse(gateway, gw);
  DefaultGateway = gw;
  if (gwValid) {
    std::snprintf(command, sizeof command, "/sbin/route add default gw %s", gateway);
    Host().Run(command);  // an existing default route is no reason to give up
  }

  in_addr_t server = 0;
  const bool dnsValid = Parse(dns, server);
  StaticDNS = server;
  if (!dnsValid) {
    std::printf("Warning: Specified DNS is invalid.\n");
    std::printf("No Default DNS will be set.\n");
    return 0;
  }
  return WriteResolverFile(dns);
}

}  // namespace

int StartNetwork() {
  const int s = CurrentNetworkConfig.load() == 1 ? 1 : 0;
  const int result = StartNetwork_(bUseDhcp[s], IpAddress[s], Netmask[s], Gateway[s], DNS[s]);
  if (result != 0) return result;
  tcp_keepalive(15, 2, 5);
  return bAutoStartNTP[s] ? StartNTP() : 0;
}

int StartNetwork_(bool dhcp, const char* ip, const char* netmask, const char* gateway, const char* dns) {
  HaltNTP();
  Host().Run("/sbin/dhclient -r ");  // no lease to release is fine
  if (const int status = Host().Run("/sbin/ifconfig eth0 down"); status != 0) {
    std::printf("</sbin/ifconfig eth0 down> returned %d.\n", status);
    return status;
  }
  if (!dhcp) {
    if (const int result = StartStatic(ip, netmask, gateway, dns); result != 0) return result;
  } else if (const int status = Host().Run("/sbin/dhclient"); status != 0) {
    // No fall-back to the static address: an instrument that silently changed its address
    // would be harder to find than one that has none.
    std::printf("Could not optain an IP address from the DHCP server.\n");
    return status;
  }
  if (const int status = Host().Run("/sbin/ifconfig lo 127.0.0.1 up"); status == 0)
    std::printf("loopback network interface (lo) started as 127.0.0.1\n");
  else
    std::printf("</sbin/ifconfig lo 127.0.0.1 up> returned %d.\n", status);
  return 0;
}

int tcp_keepalive(int time, int probes, int intvl) {
  const std::pair<const char*, int> settings[] = {
      {"net.ipv4.tcp_keepalive_probes", probes},
      {"net.ipv4.tcp_keepalive_time", time},
      {"net.ipv4.tcp_keepalive_intvl", intvl},
  };
  for (const auto& [name, value] : settings) {
    char command[96];
    std::snprintf(command, sizeof command, "sysctl -w %s=%d", name, value);
    std::printf(">>%s<<\n", command);
    Host().Run(command);
  }
  return 0;
}

int GetIfConfig(std::string& ip, std::string& netmask, std::string& gateway, std::string& dns) {
  const int s = CurrentNetworkConfig.load() == 1 ? 1 : 0;
  if (!bUseDhcp[s]) {
    ip = Dotted(StaticIpAddress);
    netmask = Dotted(StaticNetmask);
  } else {
    GetIpAddress("eth0", ip, netmask);
  }
  gateway = Dotted(DefaultGateway);
  dns = Dotted(StaticDNS);
  return 0;
}

int GetIfConfig(std::string& ip, std::string& netmask, std::string& gateway) {
  std::string dns;
  return GetIfConfig(ip, netmask, gateway, dns);
}

void PrintIfConfig() {
  std::string ip, netmask, gateway;
  GetIfConfig(ip, netmask, gateway);
  std::printf("========================================================\n");
  std::printf("eth0:\tIP Address: %s\n", ip.c_str());
  std::printf("\tNetmaks: %s\n", netmask.c_str());
  std::printf("\tgw: %s\n", gateway.c_str());
  std::printf("========================================================\n");
  std::fflush(stdout);
}

std::FILE* CreateSystemFile(const char* instrumentPath) {
  const std::string path = Host().Path(instrumentPath);
  if (!Host().IsInstrument()) {
    std::error_code ec;
    std::filesystem::create_directories(std::filesystem::path(path).parent_path(), ec);
  }
  return std::fopen(path.c_str(), "w");
}

int GetIpAddress(const char* ifname, std::string& ip, std::string& netmask) {
  ip = netmask = "0.0.0.0";
  const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) return -1;
  // Room for four interface records: the instrument has the loopback and eth0.
  ifreq records[4]{};
  ifconf list{};
  list.ifc_len = sizeof records;
  list.ifc_req = records;
  if (::ioctl(fd, SIOCGIFCONF, &list) < 0) {
    perror("SIOCGIFCONF");
    ::close(fd);
    return -1;
  }
  const int count = list.ifc_len / static_cast<int>(sizeof(ifreq));
  for (int i = 0; i < count; ++i) {
    ifreq& r = records[i];
    if (std::strncmp(r.ifr_name, ifname, IFNAMSIZ) != 0) continue;
    ip = Dotted(reinterpret_cast<const sockaddr_in*>(&r.ifr_addr)->sin_addr.s_addr);
    if (::ioctl(fd, SIOCGIFNETMASK, &r) < 0)
      perror("SIOCGIFNETMASK");
    else
      netmask = Dotted(reinterpret_cast<const sockaddr_in*>(&r.ifr_netmask)->sin_addr.s_addr);
    ::close(fd);
    return 0;
  }
  ::close(fd);
  return -1;
}
