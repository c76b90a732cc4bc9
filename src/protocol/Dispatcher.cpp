// ProcessCmd: the single entry point of every command line, from clients and from the tag
// replay at start-up. It splits the line, keeps the command history, finds the row that
// accepts the argument count, runs its handler and records the setting as a tag.
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iostream>

#include "commands/Families.h"
#include "protocol/Notation.h"
#include "protocol/CommandTable.h"
#include "server/Vr480Server.h"

// ---- The table -------------------------------------------------------------------------------

void CCommandTable::Add(const SCommandRow* rows, size_t count) {
  Rows.insert(Rows.end(), rows, rows + count);
  Reindex();
}

void CCommandTable::Reindex() {
  ByName.clear();
  for (const auto& row : Rows) ByName[row.Name].push_back(&row);
}

const std::vector<const SCommandRow*>* CCommandTable::Find(const std::string& name) const {
  auto it = ByName.find(name);
  return it == ByName.end() ? nullptr : &it->second;
}

const CCommandTable& Commands() {
  static const CCommandTable table = [] {
    CCommandTable t;
    RegisterAllCommandFamilies(t);
    return t;
  }();
  return table;
}

// ---- The handler's view ----------------------------------------------------------------------

CCommandContext::CCommandContext(CVr480Server& server, int client, const std::string& command,
                                 const std::string& argText)
    : Server(server), Client(client), Row(ClientRow(client)), Command(command), ArgText(argText), Args(argText) {}

std::string CCommandContext::Col(int n) const { return Args.GetCol(static_cast<uint16_t>(n)); }

long CCommandContext::Int(int n) const { return std::strtol(Col(n).c_str(), nullptr, 10); }

double CCommandContext::Dbl(int n) const { return std::strtod(Col(n).c_str(), nullptr); }

bool CCommandContext::FiniteDbl(int n, double& value) {
  value = Dbl(n);
  if (std::isfinite(value)) return true;
  Reply("!Illegal parameters.  Not a finite number: %s.\n", Col(n).c_str());
  return false;
}

char* CCommandContext::Text() const { return Server.ResponseText[Row]; }

int CCommandContext::Reply(const char* format, ...) {
  va_list args;
  va_start(args, format);
  int code = ReplyV(format, args);
  va_end(args);
  return code;
}

int CCommandContext::ReplyV(const char* format, va_list args) {
  char* text = Text();
  va_list copy;
  va_copy(copy, args);
  int n = std::vsnprintf(text, kResponseTextBytes, format, copy);
  va_end(copy);
  if (n >= static_cast<int>(kResponseTextBytes)) {
    const std::string stars(57, '*');
    std::printf("\n%s\nThe Response to %s exceeds MAX_RESPONSE_LENGTH\nMAX_RESPONSE_LENGTH =%zu\n%s response_length = %d\n%s\n",
                stars.c_str(), Command.c_str(), kResponseTextBytes, Command.c_str(), n, stars.c_str());
    std::snprintf(text, kResponseTextBytes, "!The Response to %s exceeds MAX_RESPONSE_LENGTH\n", Command.c_str());
  }
  return kReplyText;
}

// ---- Dispatch ----------------------------------------------------------------------------------

int CVr480Server::CheckNumArgs(const std::string& args, uint16_t min, uint16_t max) {
  const int count = CTkString(args).GetNumCols();
  if (max < min) {
    std::printf("Invalid parameters to call CheckNumArgs: min > max.\n");
    std::printf("This is an INTERNAL syntax error.\n");
    return -2;
  }
  if (count >= min && count <= max) return 0;
  std::printf("Invalid argument [%s]. ", args.c_str());
  if (max == 0) std::printf("This command accepts no arguments\n");
  else if (min == max) std::printf("This command only accepts %d %s", min, min == 1 ? "argument.\n" : "arguments.\n");
  else std::printf("This command accepts %d-%d arguments\n", min, max);
  return -1;
}

void CVr480Server::RecordCommandHistory(const std::string& command, const std::string& argText) {
  std::lock_guard<std::mutex> g(CmdLogLock);
  CurrentCmdLine = command + " " + argText;
  if (CurrentCmdLine == LastCmdLine) {
    ++CmdLogCount;
    return;
  }
  std::snprintf(CmdLog[CmdLogHead], kCmdLogLineChars, "%u %s", CmdLogCount + 1, LastCmdLine.c_str());
  LastCmdLine = CurrentCmdLine;
  CmdLogCount = 0;
  CmdLogHead = (CmdLogHead + 1) % kCmdLogEntries;
}

int CVr480Server::ProcessCmd(short client, const char* line, char** reply, unsigned int* length) {
  std::string command, argText;
  CTagManager::AnalyzeTag(line ? line : "", &command, &argText);
  if (bEnableCmdLog) RecordCommandHistory(command, argText);

  CCommandContext ctx(*this, client, command, argText);
  int code = kReplyInvalid;
  bool handled = false;
  if (const auto* rows = Commands().Find(command)) {
    for (const SCommandRow* row : *rows) {
      if (row->MinArgs != kAnyArgs &&
          CheckNumArgs(argText, static_cast<uint16_t>(row->MinArgs), static_cast<uint16_t>(row->MaxArgs)) != 0)
        continue;
      ctx.Text()[0] = '\0';
      code = row->Handler(ctx);
      if (code == kReplyNoMatch) continue;
      handled = true;
      if (row->Tag != ETagPolicy::None && !ctx.bSkipTag && ctx.Text()[0] != '!') {
        const std::string tag = command + " = \"" + argText + "\"";
        if (row->Tag == ETagPolicy::PerCommand) {
          TagManager.ReplaceTag(tag);
        } else {
          short columns[] = {1};
          TagManager.ReplaceTagOnArg(tag, 1, columns);
        }
      }
      break;
    }
  }
  if (!handled) {
    std::snprintf(ctx.Text(), kResponseTextBytes, "!Invalid command or argument: %s %s.", command.c_str(),
                  argText.c_str());
    std::printf("%s\n", ctx.Text());
    code = kReplyInvalid;
  }
  if (ctx.bExplicitBody) {
    if (reply) *reply = const_cast<char*>(ctx.Body);
    if (length) *length = ctx.Length;
  } else {
    if (reply) *reply = ctx.Text();
    if (length) *length = static_cast<unsigned>(std::strlen(ctx.Text()));
  }
  return code;
}

// The internal client's reply row is shared by every thread that runs a command on the
// server's own behalf (start-up, the acquisition loop, the front panel, handlers); one at a
// time. Recursive: such a command may itself run another.
void CVr480Server::ExecuteInternal(const std::string& line) {
  std::lock_guard<std::recursive_mutex> g(InternalClientLock);
  char* reply = nullptr;
  unsigned length = 0;
  ProcessCmd(kInternalClient, line.c_str(), &reply, &length);
}

// ---- Channel notation --------------------------------------------------------------------------

// Channels are numbered in dot notation, "c.m" (optical channel c, multiplexer position m,
// each 1-4), or in legacy notation as one number 4(m - 1) + c (1-16). The result lives in a
// buffer per thread (several clients convert at once).
const char* Notation(const char* channel, bool legacy, bool* isLegacy) {
  thread_local char result[32];
  char text[11] = {};
  std::strncpy(text, channel ? channel : "", 10);
  const char* dot = std::strchr(text, '.');
  const bool textIsLegacy = dot == nullptr;
  if (isLegacy) *isLegacy = textIsLegacy;
  if (textIsLegacy == legacy) {
    std::snprintf(result, sizeof result, "%s", text);
    return result;
  }
  if (legacy) {
    const int c = std::atoi(text);
    const int m = std::atoi(dot + 1);
    std::snprintf(result, sizeof result, "%d", 4 * m + c - 4);
  } else {
    const int n = std::atoi(text);
    std::snprintf(result, sizeof result, "%d.%d", ((n - 1) % 4) + 1, ((n - 1) / 4) + 1);
  }
  return result;
}

const char* Notation(int channel, bool legacy, bool* isLegacy) {
  char text[16];
  std::snprintf(text, sizeof text, "%d", channel);
  return Notation(text, legacy, isLegacy);
}
