#include "system/Clock.h"

#include <chrono>
#include <cstdio>
#include <ctime>
#include <thread>

#include "host/Host.h"
#include "settings/TkString.h"
#include "system/Network.h"
#include "system/NetworkGlobals.h"

std::atomic<bool> bNtpRunning{false};

namespace {

// The generated file lives on a RAM disk that the instrument's file system also shows as
// "/etc/ntp/ntp.conf", the path ntpd is started with.
bool WriteNtpConf() {
  std::FILE* f = CreateSystemFile(kNtpConfFile);
  if (!f) {
    std::printf("Error opening output file %s\n", kNtpConfFile);
    return false;
  }
  // Nobody but the local host and the configured servers may query or steer the daemon.
  std::fputs("restrict default ignore\n", f);
  std::fputs("restrict 127.0.0.1\n", f);
  for (const char* server : NtpServer) {
    if (server[0] == '\0') continue;
    const CTkString entry(server);
    std::fprintf(f, "restrict %s mask 255.255.255.255 nomodify notrap noquery\n", entry.GetCol(1).c_str());
    std::fprintf(f, "server %s\n", server);
  }
  std::fputs("fudge\t127.127.1.0 stratum 10\n", f);
  std::fputs("driftfile /etc/ntp/drift\n", f);
  std::fputs("keyfile /etc/ntp/keys\n", f);
  std::fputs("broadcastdelay\t0.008\n", f);
  std::fclose(f);
  return true;
}

}  // namespace

int StartNTP() {
  const int s = CurrentNetworkConfig.load() == 1 ? 1 : 0;
  if (!bUseNTP[s]) return 0;
  HaltNTP();

  bool failed = false;
  int status = 0;
  if (!bUseCustomNtpConfig[s]) {
    if (!WriteNtpConf()) return -1;
    // ntpd only slews a clock that is close; ntpdate steps it there first. Three tries: the
    // first packets after an interface comes up are often lost.
    const std::string command = std::string("ntpdate -u ") + NtpServer[0];
    int ntpdate = 0;
    for (int i = 0; i < 3; ++i) ntpdate = Host().Run(command);
    if (ntpdate != 0) {
      std::printf("Call to 'ntpdate -u %s' returned error %d\n", NtpServer[0], ntpdate);
      failed = true;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(250));
    status = Host().Run("ntpd -g -c /etc/ntp/ntp.conf");
  } else {
    status = Host().Run(std::string("ntpd -g -c ") + kCustomNtpConfFile);
  }
  if (status != 0) {
    std::printf("Call to 'ntpd -g ' returned error %d\n", status);
    failed = true;
  }
  bNtpRunning = !failed;
  std::printf(failed ? "Failed to start the NTP daemon.\n" : "NTP daemon running.\n");
  return failed ? -1 : 0;
}

void HaltNTP() {
  bNtpRunning = false;
  Host().Run("kill `pgrep ntpd`");
}

int SetDate(const std::string& text) {
  if (text.size() != 14) {
    std::printf("Invalid clock entry");
    return -1;
  }
  std::string digits;
  for (char ch : text)
    if (ch != '.') digits += ch;
  const std::string command = "/bin/date " + digits;
  const int status = Host().Run(command);
  std::printf("%s returned %d\n", command.c_str(), status);
  std::printf(status == 0 ? "System Clock Successfully Set." : "Could not set the system clock.");
  // The hardware clock is written even after a rejected date: it then keeps the time it had.
  const int hw = Host().Run("/sbin/hwclock --systohc");
  std::printf("/sbin/hwclock --systohc returned %d\n", hw);
  return hw;
}

int GetDate() {
  const int status = Host().Run("/sbin/hwclock --hctosys");
  if (status != 0) std::printf("/sbin/hwclock --hctosys returned error #%d\n", status);
  return status;
}

std::string LocalTimeText() {
  const std::time_t now = std::time(nullptr);
  std::tm local{};
  localtime_r(&now, &local);
  char text[64];
  return asctime_r(&local, text) ? text : "\n";
}
