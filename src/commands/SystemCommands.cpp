// System and identification commands: shell, reboot, shut-down, watchdogs, console, variables,
// identification, versions, serial number.
//
// The processor boards carry a hardware watchdog behind a character device that takes short
// text orders ("f" restarts the machine now, "w N" sets the timeout, "t N" the reset timer).
// The server writes them with the shell's echo, as the board's own tools do; on a workstation
// the host seam records those commands instead of running them.
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <string>

#include "commands/Families.h"
#include "host/Host.h"
#include "protocol/CommandTable.h"
#include "server/Globals.h"
#include "server/Options.h"
#include "server/Vr480Server.h"
#include "settings/SettingsFiles.h"

namespace {

constexpr const char* kSysCmdFile = "/tmp/sys.cmd";
constexpr const char* kBoardWatchdog = "/dev/pcm9381_wd";
constexpr const char* kPcm9361Watchdog = "/dev/pcm9361_wd";
constexpr const char* kCpuNameLine = "#SYSTEM cat /proc/cpuinfo | grep 'model name' | awk -F : '{print $2}'";
constexpr size_t kHeaderTextChars = 39;  // what the front panel's header line holds

int32_t SaturatedInt(long v) { return static_cast<int32_t>(std::clamp<long>(v, INT32_MIN, INT32_MAX)); }

// Copies at most size - 1 characters and always terminates.
template <size_t N>
void CopyText(char (&field)[N], const std::string& text) {
  std::snprintf(field, N, "%s", text.c_str());
}

// ---- Shell, reboot, shut-down, console -------------------------------------------------------

// Every caller shares the one output file, so one shell command runs at a time.
std::mutex SystemLock;

int System(CCommandContext& c) {
  if (ServerOptions.bNoShellCommands) {
    c.SkipTag();
    return c.Reply("!Shell commands are disabled on this instrument.\n");
  }
  std::lock_guard<std::mutex> g(SystemLock);
  const std::string& text = c.ArgText;
  std::printf("Executing system command >>%s<<\n", text.c_str());
  std::fflush(stdout);
  Host().Run(text + " &>" + kSysCmdFile);

  const std::string path = Host().Path(kSysCmdFile);
  FILE* f = std::fopen(path.c_str(), "rb");
  if (!f) {
    c.Reply("Failed to execute system command >>%s<<.\n", text.c_str());
  } else {
    char* out = c.Text();
    const size_t n = std::fread(out, 1, kResponseTextBytes - 1, f);
    out[n] = '\0';
    std::fclose(f);
    if (n == 0) c.Reply("Executing system command >>%s<<.\n", text.c_str());
  }
  Host().Run(std::string("rm -f ") + kSysCmdFile);
  if (!Host().IsInstrument()) std::remove(path.c_str());  // the recorded rm removed nothing
  return kReplyText;
}

int GetCpuName(CCommandContext& c) {
  return c.Server.ProcessCmd(static_cast<short>(c.Client), kCpuNameLine, nullptr, nullptr);
}

int Reboot(CCommandContext& c) {
  std::printf("\nRebooting...\n");
  std::fflush(stdout);
  Host().Run(std::string("echo f >") + (c.Server.bPcm9361Board ? kPcm9361Watchdog : kBoardWatchdog));
  return c.Reply("Rebooting...\n");
}

// The acquisition thread sees bRun cleared, closes the sessions and runs the power-down
// countdown (SimulateShutdown) with this delay.
int Shutdown(CCommandContext& c) {
  c.Server.ShutdownDelaySeconds = SaturatedInt(c.Int(1));
  c.Server.bShutdownRequested = true;
  bRun = false;
  c.Server.SetStatusText("Shutting down...");
  bUpdateGui = true;
  return c.Reply("Shutting down...\n");
}

// Console messages go to the serial port from here on: the port's descriptor replaces
// standard output, for a technician with a terminal on the board's first serial port.
int OutputToCom(CCommandContext& c) {
  FILE* port = c.Server.SerialPort;
  if (!port) return c.Reply("!Serial port 0 is not open; the console output is unchanged.\n");
  std::fflush(stdout);
  if (::dup2(::fileno(port), STDOUT_FILENO) < 0) std::perror("dup2() failed");
  return c.Reply("Setting output to serial port.\n");
}

// ---- Watchdogs --------------------------------------------------------------------------------

// The front panel's acquisition watchdog (a stalled card restarts the machine).
int SetFpgaWatchdogEnable(CCommandContext& c) {
  const bool on = static_cast<uint8_t>(c.Int(1)) != 0;
  bFpgaWatchDogEnabled = on;
  return c.Reply(on ? "FPGA Watchdog Enabled.\n" : "FPGA Watchdog Disabled.\n");
}

int GetFpgaWatchdogEnable(CCommandContext& c) { return c.Reply("%d", bFpgaWatchDogEnabled ? 1 : 0); }

// The device takes a whole number of seconds up to 255; 0 turns the function off.
int CpuWatchdogSeconds(CCommandContext& c) { return static_cast<int>(std::clamp<long>(c.Int(1), 0, 255)); }

int SetCpuWatchdogSec(CCommandContext& c) {
  const int s = CpuWatchdogSeconds(c);
  Host().Run("echo w " + std::to_string(s) + " >" + kBoardWatchdog);
  if (s == 0) return c.Reply("CPU Watchdog disabled.\n");
  return c.Reply("CPU Watchdog timeout set to %d seconds.\n", s);
}

int SetCpuWdResetTimerSec(CCommandContext& c) {
  const int s = CpuWatchdogSeconds(c);
  Host().Run("echo t " + std::to_string(s) + " >" + kBoardWatchdog);
  if (s == 0) return c.Reply("CPU Watchdog reset timer disabled.\n");
  return c.Reply("CPU Watchdog reset timer set to %d seconds.\n", s);
}

// ---- User and maker variables -----------------------------------------------------------------

// Ten integers a client may keep on the instrument across restarts (an installation number, a
// site code); the maker's ten are separate. An index outside 0-9 leaves the line unrecognised.
bool VarIndex(CCommandContext& c, int& index) {
  const long i = c.Int(1);
  if (i < 0 || i >= kUserVars) return false;
  index = static_cast<int>(i);
  return true;
}

int SetVar(CCommandContext& c, Relaxed<int32_t>* vars) {
  int i;
  if (!VarIndex(c, i)) return kReplyNoMatch;
  const int32_t v = SaturatedInt(c.Int(2));
  vars[i] = v;
  return c.Reply("Setting User Variable %d to %d", i, v);
}

int GetVar(CCommandContext& c, Relaxed<int32_t>* vars) {
  int i;
  if (!VarIndex(c, i)) return kReplyNoMatch;
  return c.Reply("%d", static_cast<int32_t>(vars[i]));
}

int SetUserVar(CCommandContext& c) { return SetVar(c, c.Server.UserVar); }
int GetUserVar(CCommandContext& c) { return GetVar(c, c.Server.UserVar); }
int SetZorVar(CCommandContext& c) { return SetVar(c, c.Server.ZorVar); }
int GetZorVar(CCommandContext& c) { return GetVar(c, c.Server.ZorVar); }

// ---- Identification and versions --------------------------------------------------------------

// The setters echo the text as stored (cut to the field).
template <size_t N>
int SetIdentity(CCommandContext& c, char (&field)[N], const char* format) {
  std::lock_guard<std::mutex> g(c.Server.IdentityLock);
  CopyText(field, c.ArgText);
  return c.Reply(format, field);
}

template <size_t N>
int GetIdentity(CCommandContext& c, const char (&field)[N]) {
  std::lock_guard<std::mutex> g(c.Server.IdentityLock);
  return c.Reply("%s", field);
}

int SetIdnTxt(CCommandContext& c) { return SetIdentity(c, c.Server.IdnText, "Setting IDN text to >>%s<<.\n"); }
int GetIdnTxt(CCommandContext& c) { return GetIdentity(c, c.Server.IdnText); }
int SetZorIdn(CCommandContext& c) { return SetIdentity(c, c.Server.ZorIdn, "Setting ZOR IDN to >>%s<<.\n"); }
int GetZorIdn(CCommandContext& c) { return GetIdentity(c, c.Server.ZorIdn); }
int SetProductId(CCommandContext& c) { return SetIdentity(c, c.Server.ProductId, "Setting Product ID to >>%s<<.\n"); }
int GetProductId(CCommandContext& c) { return GetIdentity(c, c.Server.ProductId); }

// The header line of the front panel lives in the identification file, not in the settings.
int SetHeaderTxt(CCommandContext& c) {
  const std::string text = c.ArgText.substr(0, kHeaderTextChars);
  WriteInstID(text);
  return c.Reply("Setting Header text to >>%s<<.\n", text.c_str());
}

int GetFirmwareVer(CCommandContext& c) { return c.Reply("%s", kServerRelease); }
int GetCfcVer(CCommandContext& c) { return c.Reply("%d", c.Server.CfcVersion); }

// The synthesis release travels in every record's status header.
int GetSynthesisVer(CCommandContext& c) {
  return c.Reply("%d", c.Server.LatestStatus.SynthesisRelease());
}

int GetDriverVer(CCommandContext& c) { return c.Reply("%d", c.Server.Driver.GetDriverVersion()); }

// ---- Serial number ------------------------------------------------------------------------------

// Only the server itself sets the serial number: the tag replay at start-up and #SET_ZOR_SN,
// which also writes it to the card's configuration memory.
int SetSn(CCommandContext& c) {
  if (c.Client != kInternalClient) return c.Reply("!You do not have permission to execute this command.");
  std::lock_guard<std::mutex> g(c.Server.IdentityLock);
  CopyText(c.Server.SerialNumber, c.ArgText);
  bUpdateGui = true;
  return c.Reply("S/N set to '%s'.\n", c.Server.SerialNumber);
}

int SetZorSn(CCommandContext& c) {
  char serial[sizeof c.Server.SerialNumber];
  {
    std::lock_guard<std::mutex> g(c.Server.IdentityLock);
    CopyText(c.Server.SerialNumber, c.ArgText);
    std::memcpy(serial, c.Server.SerialNumber, sizeof serial);
  }
  const std::string text(serial);
  c.Server.ProcessCmd(static_cast<short>(c.Client), ("#SET_NVRAM_SN " + text).c_str(), nullptr, nullptr);
  // The internal caller's reply row is shared: hold it until its reply has been copied.
  std::lock_guard<std::recursive_mutex> g(c.Server.InternalClientLock);
  char* reply = nullptr;
  c.Server.ProcessCmd(kInternalClient, ("#SET_SN " + text).c_str(), &reply, nullptr);
  if (reply != c.Text()) std::snprintf(c.Text(), kResponseTextBytes, "%s", reply);
  return kReplyText;
}

int GetSn(CCommandContext& c) {
  std::lock_guard<std::mutex> g(c.Server.IdentityLock);
  return c.Reply("%s", c.Server.SerialNumber);
}

const SCommandRow kRows[] = {
    {"#SYSTEM", kAnyArgs, kAnyArgs, kNone, System},
    {"#REBOOT", 0, 0, kNone, Reboot},
    {"#SHUTDOWN", 1, 1, kNone, Shutdown},
    {"#OUTPUT_TO_COM", 0, 0, kNone, OutputToCom},
    {"#SET_FPGA_WATCHDOG_ENABLE", 1, 1, kTag, SetFpgaWatchdogEnable},
    {"#GET_FPGA_WATCHDOG_ENABLE", 0, 0, kNone, GetFpgaWatchdogEnable},
    {"#SET_CPU_WATCHDOG_SEC", 1, 1, kTag, SetCpuWatchdogSec},
    {"#SET_CPU_WD_RESET_TIMER_SEC", 1, 1, kTag, SetCpuWdResetTimerSec},
    {"#GET_CPU_NAME", 0, 0, kNone, GetCpuName},
    {"#SET_USER_VAR", 2, 2, kTagPerArg1, SetUserVar},
    {"#GET_USER_VAR", 1, 1, kNone, GetUserVar},
    {"#SET_ZOR_VAR", 2, 2, kTagPerArg1, SetZorVar},
    {"#GET_ZOR_VAR", 1, 1, kNone, GetZorVar},
    {"#SET_IDN_TXT", kAnyArgs, kAnyArgs, kTag, SetIdnTxt},
    {"#GET_IDN_TXT", 0, 0, kNone, GetIdnTxt},  // "#IDN?" is a general command
    {"#SET_ZOR_IDN", kAnyArgs, kAnyArgs, kTag, SetZorIdn},
    {"#GET_ZOR_IDN", 0, 0, kNone, GetZorIdn},
    {"#SET_PRODUCT_ID", kAnyArgs, kAnyArgs, kTag, SetProductId},
    {"#GET_PRODUCT_ID", 0, 0, kNone, GetProductId},
    {"#SET_HEADER_TXT", kAnyArgs, kAnyArgs, kNone, SetHeaderTxt},
    {"#GET_FIRMWARE_VER", 0, 0, kNone, GetFirmwareVer},
    {"#GET_CFC_VER", 0, 0, kNone, GetCfcVer},
    {"#GET_SYNTHESIS_VER", 0, 0, kNone, GetSynthesisVer},
    {"#GET_DRIVER_VER", 0, 0, kNone, GetDriverVer},
    {"#SET_SN", 0, 20, kTag, SetSn},
    {"#SET_ZOR_SN", 0, 20, kNone, SetZorSn},
    {"#GET_SN", 0, 0, kNone, GetSn},
};

}  // namespace

void RegisterSystemCommands(CCommandTable& table) { table.Add(kRows); }
