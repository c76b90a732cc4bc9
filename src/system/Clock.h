// The instrument's clocks: the Linux system clock, the battery-backed hardware clock that
// keeps time while the instrument is off, and the NTP daemon that can keep both in step with
// up to five servers (the settings are in system/NetworkGlobals.h). Everything is done with
// the standard tools (date, hwclock, ntpdate, ntpd) through the host seam; their exit status
// is the only failure signal, reported on the console.
#pragma once

#include <atomic>
#include <string>

// The last NTP start succeeded and no stop has happened since. Nothing watches the daemon
// afterwards. Start-up, the network and NTP commands write it; the front panel reads it.
extern std::atomic<bool> bNtpRunning;

// Writes the daemon's configuration (or takes the uploaded one), sets the clock once with
// ntpdate and starts ntpd, for the NTP settings of the set in force. 0 when NTP is not used
// or started; -1 when the configuration could not be written, ntpdate failed or ntpd did not
// start.
int StartNTP();

// Stops any NTP daemon.
void HaltNTP();

// Sets the system clock from "MM.DD.hh.mm.yy" and copies it to the hardware clock. Returns
// the hardware clock update's exit status (so a rejected date still gives 0 when the hardware
// clock works), or -1 when the text is not 14 characters long.
int SetDate(const std::string& text);

// Loads the system clock from the hardware clock; once, at program start. The exit status.
int GetDate();

// The local time as the C library's asctime writes it, ending in a line feed.
std::string LocalTimeText();

// The generated configuration and the paths the daemon is started with.
constexpr const char* kNtpConfFile = "/mnt/ram7/ntp/ntp.conf";
constexpr const char* kCustomNtpConfFile = "/etc/custom_ntp.conf";
