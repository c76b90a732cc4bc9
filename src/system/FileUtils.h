// Small file queries shared by the command families (transfers, logs, the diagnostic bundle).
// Names are instrument paths: absolute, or relative to the settings directory "/vr480", and
// resolved through the host seam, so on a workstation they stay under its root. Messages name
// the file as the caller gave it.
#pragma once

#include <cstdint>
#include <string>

// 0 when the file can be opened for reading, else -1.
int CheckFile(const std::string& name);
// The size in bytes, or -1 after printing "Failed to stat NAME.\n".
int64_t GetFileSize(const std::string& name);
// The same query under the name the socket code has always used.
int64_t GetFileSize_(const std::string& name);
// How many bytes of the file equal `ch`; -1 after printing "Error opening file NAME.\n".
int64_t CharCount(const std::string& name, char ch);
// The size and the modification time in the C library's ctime form without its line feed (at
// most 50 characters). 0, or -1 after printing "Failed to stat NAME.\n".
int GetFileInfo(const std::string& name, std::string& timeText, int64_t& size);
