// General commands of the dispatcher: readiness, channel notation, who is connected, the test
// command, the help lists, identification and the ordinary stop.
#include <cstdio>
#include <string>

#include "commands/Families.h"
#include "protocol/CommandTable.h"
#include "protocol/HelpTexts.h"
#include "protocol/Notation.h"
#include "server/Globals.h"
#include "server/Vr480Server.h"

namespace {

int Ready(CCommandContext& c) { return c.Reply("%s", c.Server.bReady ? "1" : "0"); }

int GetDotNotation(CCommandContext& c) {
  bool legacy;
  return c.Reply("%s", Notation(c.Col(1).c_str(), false, &legacy));
}

int GetLegacyNotation(CCommandContext& c) {
  bool legacy;
  return c.Reply("%s", Notation(c.Col(1).c_str(), true, &legacy));
}

int WhoAmI(CCommandContext& c) {
  if (c.Client >= kClientSlots) return c.Reply("0.0.0.0");
  return c.Reply("%s", c.Server.Socket.GetClientAddress(static_cast<uint16_t>(c.Client)));
}

// The addresses of every connected client in slot order, separated by commas.
int Who(CCommandContext& c) {
  std::string list;
  for (uint16_t slot = 0; slot < kClientSlots; ++slot) {
    const std::string address = c.Server.Socket.GetClientAddress(slot);
    if (address == "0.0.0.0") continue;  // a free slot
    if (!list.empty()) list += ',';
    list += address;
  }
  return c.Reply("%s", list.c_str());
}

int TestCmd(CCommandContext& c) {
  return c.Reply("Test command set to %d %d %d.\n", static_cast<int16_t>(c.Int(1)), static_cast<int16_t>(c.Int(2)),
                 static_cast<int16_t>(c.Int(3)));
}

int Help(CCommandContext& c) {
  c.SetBody(kShortHelpText, kShortHelpLength);
  return kReplyConstant;
}

int ZorHelp(CCommandContext& c) {
  if (kFullHelpLength > kResponseTextBytes) return c.Reply("!The Response to #ZOR_HELP exceeds MAX_RESPONSE_LENGTH\n");
  c.SetBody(kFullHelpText, kFullHelpLength);
  return kReplyConstant;
}

int Idn(CCommandContext& c) {
  std::lock_guard<std::mutex> g(c.Server.IdentityLock);
  return c.Reply("%s", c.Server.IdnText);
}

int Quit(CCommandContext& c) {
  bStopSignalled = true;  // also when the acquisition loop has not started yet
  bRun = false;
  return c.Reply("Quitting...\n");
}

const SCommandRow kRows[] = {
    {"#READY?", kAnyArgs, kAnyArgs, kNone, Ready},
    {"#GET_DOT_NOTATION", 1, 1, kNone, GetDotNotation},
    {"#GET_LEGACY_NOTATION", 1, 1, kNone, GetLegacyNotation},
    {"#WHOAMI?", 0, 0, kNone, WhoAmI},
    {"#WHO?", 0, 0, kNone, Who},
    {"#TEST_CMD", 3, 3, kNone, TestCmd},
    {"#HELP", 0, 0, kNone, Help},
    {"#ZOR_HELP", 0, 0, kNone, ZorHelp},
    {"#IDN?", 0, 0, kNone, Idn},
    {"#QUIT!", 0, 0, kNone, Quit},
};

}  // namespace

void RegisterGeneralCommands(CCommandTable& table) { table.Add(kRows); }
