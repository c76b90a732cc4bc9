#include "commands/ChannelArgs.h"

#include <cstdlib>

#include "protocol/CommandTable.h"
#include "protocol/Notation.h"
#include "server/Vr480Server.h"

namespace {

// Dot notation names one of four optical channels and four multiplexer positions; the
// conversion to a number alone would take "5.1" for channel 5 (that is, "1.2").
bool DotPartsInRange(const std::string& text) {
  const size_t dot = text.find('.');
  const long channel = std::strtol(text.substr(0, dot).c_str(), nullptr, 10);
  const long position = std::strtol(text.substr(dot + 1).c_str(), nullptr, 10);
  return channel >= 1 && channel <= kOpticalChannels && position >= 1 && position <= kMaxMuxLevel;
}

}  // namespace

SChannelArg ReadChannelArg(const CCommandContext& c, int col, int count) {
  SChannelArg arg;
  const std::string text = c.Col(col);
  arg.bLegacy = text.find('.') == std::string::npos;
  if (!arg.bLegacy && !DotPartsInRange(text)) return arg;
  const long number = std::strtol(Notation(text.c_str(), true, &arg.bLegacy), nullptr, 10);
  if (number >= 1 && number <= count) arg.Index = static_cast<int>(number - 1);
  return arg;
}

int ChannelsInUse(const CVr480Server& s) { return s.GetMuxLevel() * kOpticalChannels; }

SChannelRange ChannelRange(const CVr480Server& s, bool legacy) {
  bool ignored;
  return {legacy ? "1" : "1.1", Notation(ChannelsInUse(s), legacy, &ignored)};
}

int ReadSensorArg(const CCommandContext& c, int col) {
  const long n = c.Int(col);
  return n >= 1 && n <= kSensorsPerChannel ? static_cast<int>(n - 1) : -1;
}

int ReplyBadChannel(CCommandContext& c, bool legacy) {
  const SChannelRange range = ChannelRange(c.Server, legacy);
  return c.Reply("!Illegal parameters.  Acceptable ranges are: Ch# %s to %s.\n", range.Low.c_str(), range.High.c_str());
}
