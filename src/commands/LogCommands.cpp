// Event log and command history commands.
//
// The event log ("vr480.log") keeps notes across restarts: operators add them with
// #LOG_ENTRY, and the server's own watchdog and temperature monitor send theirs through the
// same command. The command history is an in-memory ring of the last 128 distinct command
// lines with their repeat counts, for diagnosing what a client actually sent; the dispatcher
// records it (RecordCommandHistory) while it is enabled.
#include <cstdio>
#include <cstring>
#include <mutex>
#include <string>

#include "commands/Families.h"
#include "protocol/CommandTable.h"
#include "server/Vr480Server.h"

namespace {

constexpr const char* kEventLogName = "vr480.log";

int LogEntry(CCommandContext& c) {
  std::printf("Log Entry: >>%s<<\n", c.ArgText.c_str());
  c.Server.LogEntry(c.ArgText);
  return c.Reply("Log Entry: >>%s<<.\n", c.ArgText.c_str());
}

// The log's first bytes and a NUL, which the reply's length counts. Only that much is read,
// however long the log has grown. A missing log answers the NUL alone.
int GetLog(CCommandContext& c) {
  c.Text()[0] = '\0';
  const int n = CDataLogger::GetLog(kEventLogName, c.Text(), static_cast<int>(kResponseTextBytes));
  c.SetBody(c.Text(), static_cast<unsigned>(n));
  return kReplyText;
}

int SetEnableCmdLog(CCommandContext& c) {
  const bool on = c.Int(1) != 0;
  c.Server.bEnableCmdLog = on;
  return c.Reply(on ? "Command Log enabled.\n" : "Command Log disabled.\n");
}

int GetEnableCmdLog(CCommandContext& c) { return c.Reply("%d", c.Server.bEnableCmdLog ? 1 : 0); }

// Oldest entry first: the ring is read from its next write position round to the last one.
int GetCmdLog(CCommandContext& c) {
  CVr480Server& s = c.Server;
  std::string text;
  {
    std::lock_guard<std::mutex> g(s.CmdLogLock);
    for (int i = 0; i < kCmdLogEntries; ++i) {
      const char* entry = s.CmdLog[(s.CmdLogHead + i) % kCmdLogEntries];
      if (entry[0] == '\0') continue;
      text.append(entry, strnlen(entry, kCmdLogLineChars - 1));
      text += '\n';
    }
  }
  return c.Reply("%s", text.c_str());
}

int FlushCmdLog(CCommandContext& c) {
  CVr480Server& s = c.Server;
  {
    std::lock_guard<std::mutex> g(s.CmdLogLock);
    std::memset(s.CmdLog, 0, sizeof s.CmdLog);
    s.CmdLogHead = 0;
    s.CmdLogCount = 0;
    s.LastCmdLine.clear();
    s.CurrentCmdLine.clear();
  }
  return c.Reply("Command Log Flushed.\n");
}

const SCommandRow kRows[] = {
    {"#LOG_ENTRY", kAnyArgs, kAnyArgs, kNone, LogEntry},
    {"#GET_LOG", 0, 0, kNone, GetLog},
    {"#SET_ENABLE_CMD_LOG", 1, 1, kNone, SetEnableCmdLog},
    {"#GET_ENABLE_CMD_LOG", 0, 0, kNone, GetEnableCmdLog},
    {"#GET_CMD_LOG", 0, 0, kNone, GetCmdLog},
    {"#FLUSH_CMD_LOG", 0, 0, kNone, FlushCmdLog},
};

}  // namespace

void RegisterLogCommands(CCommandTable& table) { table.Add(kRows); }
