// #WEB_STATUS: the instrument's state in one line of 21 fields separated by "$", for the
// instrument's web page. Most fields are what the front panel last displayed; they change only
// while the front panel runs and are empty (numbers 0) before its first refresh.
#include <cstdio>
#include <cstring>
#include <string>

#include "protocol/CommandTable.h"
#include "protocol/DataCommands.h"
#include "server/Vr480Server.h"
#include "system/NetworkGlobals.h"

namespace data_commands {

std::string WebStatusLine(CVr480Server& s) {
  CVr480Server::SPanelTexts panel;
  {
    std::lock_guard<std::mutex> g(s.PanelTextsLock);
    panel = s.PanelTexts;
  }
  const std::string serial(s.SerialNumber, strnlen(s.SerialNumber, sizeof s.SerialNumber));
  const int config = CurrentNetworkConfig.load() == 1 ? 1 : 0;
  const double transmitterDegC = s.LatestStatus.InternalTempC();
  char line[2048];
  std::snprintf(line, sizeof line, "%s$%s$%d$%d$%s$%d$%s$%s$%s$%d$%0.2f$%s$%s$%s$%s$%s$%d$%s$%s$%s$%s", serial.c_str(),
                 panel.SweepRate.c_str(), s.CfcVersion, panel.DriverVersion, kServerRelease, panel.FirmwareVersion,
                 panel.IpAddress.c_str(), panel.Netmask.c_str(), bUseDhcp[config] ? "Enabled" : "Disabled",
                 s.Socket.GetNumClients(), transmitterDegC, panel.DateTime.c_str(),
                 panel.TimeSource == "NTP" ? "NTP" : "System Clock",  // the time service, as the panel last saw it
                 panel.OperatingMode.c_str(),
                 panel.TriggerMode.c_str(), panel.TriggerState.c_str(), s.MuxLevel.load(),
                 panel.SensorCounts[0].c_str(), panel.SensorCounts[1].c_str(), panel.SensorCounts[2].c_str(),
                 panel.SensorCounts[3].c_str());
  return line;
}

int WebStatus(CCommandContext& c) { return c.Reply("%s", WebStatusLine(c.Server).c_str()); }

}  // namespace data_commands
