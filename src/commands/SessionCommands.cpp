// Session commands: how this client is served (streaming, stream tokens, buffering,
// interleave) and the server-wide write-recovery budgets. None of them is persisted.
#include <cstdio>

#include "commands/Families.h"
#include "protocol/CommandTable.h"
#include "server/Vr480Server.h"

namespace {

const char* Enabled(bool on) { return on ? "enabled" : "disabled"; }

// Streaming switches the slot's write budget: a streaming client may stall for a minute (600
// attempts of 100 ms) before records are dropped; an interactive one for 10 ms.
int SetStreamingData(CCommandContext& c) {
  CVr480Server& s = c.Server;
  const bool was = s.bStreaming[c.Row];
  const bool on = c.Int(1) != 0;
  s.bStreaming[c.Row] = on;
  if (c.Client < kClientSlots) {
    if (on) s.Socket.SetWriteRecoveryOptions(static_cast<uint16_t>(c.Client), s.StreamRecoveryAttempts,
                                             s.StreamRecoveryDelayUs);
    else s.Socket.SetWriteRecoveryOptions(static_cast<uint16_t>(c.Client), s.SocketRecoveryAttempts,
                                          s.SocketRecoveryDelayUs);
  }
  c.Reply("Streaming data %s.\n", Enabled(on));
  // A client that was streaming learns of the end from the stream's end token instead.
  return was ? kReplyNone : kReplyAlways;
}

int GetStreamingData(CCommandContext& c) { return c.Reply("%d", c.Server.bStreaming[c.Row] ? 1 : 0); }

int SetUseStreamTokens(CCommandContext& c) {
  const bool on = c.Int(1) != 0;
  c.Server.bUseStreamTokens[c.Row] = on;
  return c.Reply("Streaming tokens %s.\n", Enabled(on));
}

int GetUseStreamTokens(CCommandContext& c) { return c.Reply("%d", c.Server.bUseStreamTokens[c.Row] ? 1 : 0); }

int SetBufferEnable(CCommandContext& c) {
  const bool on = c.Int(1) != 0;
  c.Server.bBufferEnable[c.Row] = on;
  return c.Reply("Client buffers %s.\n", Enabled(on));
}

int GetBufferEnable(CCommandContext& c) { return c.Reply("%d", c.Server.bBufferEnable[c.Row] ? 1 : 0); }

int SetDataInterleave(CCommandContext& c) {
  long n = static_cast<int32_t>(c.Int(1));  // read as a 32-bit decimal integer
  if (n <= 0) n = 1;
  c.Server.DataInterleave[c.Row] = static_cast<uint32_t>(n);
  return c.Reply("Client data interleave set to %d.\n", static_cast<int>(n));
}

int GetDataInterleave(CCommandContext& c) { return c.Reply("%d", static_cast<int>(c.Server.DataInterleave[c.Row])); }

int SetSocketRecoveryAttempts(CCommandContext& c) {
  c.Server.SocketRecoveryAttempts = static_cast<int32_t>(c.Int(1));
  return c.Reply("Setting socket write recovery # attempts to %d.\n", static_cast<int>(c.Server.SocketRecoveryAttempts));
}
int GetSocketRecoveryAttempts(CCommandContext& c) { return c.Reply("%d", static_cast<int>(c.Server.SocketRecoveryAttempts)); }

int SetSocketRecoveryDelayUs(CCommandContext& c) {
  c.Server.SocketRecoveryDelayUs = static_cast<int32_t>(c.Int(1));
  return c.Reply("Setting socket write recovery dalay to %d micro-seconds.\n",
                 static_cast<int>(c.Server.SocketRecoveryDelayUs));
}
int GetSocketRecoveryDelayUs(CCommandContext& c) { return c.Reply("%d", static_cast<int>(c.Server.SocketRecoveryDelayUs)); }

int SetStreamRecoveryAttempts(CCommandContext& c) {
  c.Server.StreamRecoveryAttempts = static_cast<int32_t>(c.Int(1));
  return c.Reply("Setting socket stream write recovery # attempts to %d.\n",
                 static_cast<int>(c.Server.StreamRecoveryAttempts));
}
int GetStreamRecoveryAttempts(CCommandContext& c) { return c.Reply("%d", static_cast<int>(c.Server.StreamRecoveryAttempts)); }

int SetStreamRecoveryDelayUs(CCommandContext& c) {
  c.Server.StreamRecoveryDelayUs = static_cast<int32_t>(c.Int(1));
  return c.Reply("Setting socket stream write recovery dalay to %d micro-seconds.\n",
                 static_cast<int>(c.Server.StreamRecoveryDelayUs));
}
int GetStreamRecoveryDelayUs(CCommandContext& c) { return c.Reply("%d", static_cast<int>(c.Server.StreamRecoveryDelayUs)); }

const SCommandRow kRows[] = {
    {"#SET_STREAMING_DATA", 1, 1, kNone, SetStreamingData},
    {"#GET_STREAMING_DATA", 0, 0, kNone, GetStreamingData},
    {"#SET_USE_STREAM_TOKENS", 1, 1, kNone, SetUseStreamTokens},
    {"#GET_USE_STREAM_TOKENS", 0, 0, kNone, GetUseStreamTokens},
    {"#SET_BUFFER_ENABLE", 1, 1, kNone, SetBufferEnable},
    {"#GET_BUFFER_ENABLE", 0, 0, kNone, GetBufferEnable},
    {"#SET_DATA_INTERLEAVE", 1, 1, kNone, SetDataInterleave},
    {"#GET_DATA_INTERLEAVE", 0, 0, kNone, GetDataInterleave},
    {"#SET_SOCKET_RECOVERY_ATTEMPTS", 1, 1, kNone, SetSocketRecoveryAttempts},
    {"#GET_SOCKET_RECOVERY_ATTEMPTS", 0, 0, kNone, GetSocketRecoveryAttempts},
    {"#SET_SOCKET_RECOVERY_DELAY_US", 1, 1, kNone, SetSocketRecoveryDelayUs},
    {"#GET_SOCKET_RECOVERY_DELAY_US", 0, 0, kNone, GetSocketRecoveryDelayUs},
    {"#SET_STREAM_RECOVERY_ATTEMPTS", 1, 1, kNone, SetStreamRecoveryAttempts},
    {"#GET_STREAM_RECOVERY_ATTEMPTS", 0, 0, kNone, GetStreamRecoveryAttempts},
    {"#SET_STREAM_RECOVERY_DELAY_US", 1, 1, kNone, SetStreamRecoveryDelayUs},
    {"#GET_STREAM_RECOVERY_DELAY_US", 0, 0, kNone, GetStreamRecoveryDelayUs},
};

}  // namespace

void RegisterSessionCommands(CCommandTable& table) { table.Add(kRows); }
