// Channel arguments of the processing commands.
//
// Clients name a logical channel (multiplexer layer x 4 + DUT channel) either in legacy
// notation, one number 1-16, or in dot notation "c.m" (optical channel c and multiplexer
// position m, each 1-4). Inside the server the channel is its number - 1. Range messages show
// the channels of the current multiplexer level, 1 to MuxLevel x 4, in the notation the client
// used, so that a client in dot notation is answered "1.1 to 4.2" rather than "1 to 8".
#pragma once

#include <string>

class CCommandContext;
class CVr480Server;

struct SChannelArg {
  int Index = -1;       // logical channel 0-15, or -1 when the column names no channel in range
  bool bLegacy = true;  // the client wrote legacy notation
};

// Reads column `col` as a channel numbered 1..`count` (16, or the channels in use).
SChannelArg ReadChannelArg(const CCommandContext& c, int col, int count);

// The channels in use at the current multiplexer level: MuxLevel x 4.
int ChannelsInUse(const CVr480Server& s);

// The bounds of a range message, "1" / "1.1" and MuxLevel x 4 in the same notation.
struct SChannelRange {
  std::string Low, High;
};
SChannelRange ChannelRange(const CVr480Server& s, bool legacy);

// Reads column `col` as a sensor numbered 1-250: 0-249, or -1 when out of range.
int ReadSensorArg(const CCommandContext& c, int col);

// The refusal of a channel out of range: "!Illegal parameters.  Acceptable ranges are: Ch# 1
// to 4.\n" with both bounds in the client's notation. Returns the reply code.
int ReplyBadChannel(CCommandContext& c, bool legacy);
