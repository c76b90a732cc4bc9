// Fuzz target: command lines as a client sends them. Each input is one client session on slot
// 0 of a running server over the simulated card: its lines (up to 16, cut at LF, at most 256
// characters, as the socket layer reads them) go through ProcessCmd as the client's service
// thread sends them. Every byte the service thread would send of each reply is read (the body,
// and the frame's room in front of it), so that a reply body or length that reaches past its
// buffer shows up under ASan. Slot 0 has no connection: transfers and uploads end at once.
//
// The server's settings carry over from one input to the next, as they do from one client to
// the next on an instrument; the session's own state starts afresh with each input.
#include <cstddef>
#include <cstdint>

#include "FuzzServer.h"
#include "protocol/CommandTable.h"

namespace {

constexpr size_t kMaxLines = 16;
constexpr uint16_t kClient = 0;

// What the connect callback gives every new session.
void NewSession(CVr480Server& s) {
  s.ReleaseClientRecord(kClient);
  s.bStreaming[kClient] = false;
  s.bUseStreamTokens[kClient] = true;
  s.bBufferEnable[kClient] = true;
  s.DataInterleave[kClient] = 1;
  const uint16_t write = s.ProcessedWriteIndex;
  s.ProcessedReadIndex[kClient] = write == 0 ? kProcessedRingSlots - 1 : write - 1;
  const uint16_t spectrum = s.SpectrumWriteIndex;
  s.SpectrumReadIndex[kClient] = spectrum == 0 ? kSpectrumRingSlots - 1 : spectrum - 1;
}

volatile uint8_t Sink;

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  fuzz::Server();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  fuzz::CFuzzServer& f = fuzz::Server();
  CVr480Server& s = f.S();
  NewSession(s);
  for (const std::string& line : fuzz::InputLines(data, size, kMaxLines)) {
    if (line.empty() || fuzz::Denied(line)) continue;
    f.Watched(kClient, line, [&] {
      char* reply = nullptr;
      unsigned length = 0;
      const int code = s.ProcessCmd(kClient, line.c_str(), &reply, &length);
      // What the service thread sends: the body, and for a reply framed in place the ten
      // bytes in front of it where the frame digits go.
      uint8_t sum = 0;
      for (unsigned i = 0; reply && i < length; ++i) sum ^= static_cast<uint8_t>(reply[i]);
      if (reply && code != kReplyNone && code != kReplyConstant)
        for (int i = 1; i <= 10; ++i) sum ^= static_cast<uint8_t>(reply[-i]);
      Sink = sum;
      if (code == kReplyRecord) s.ReleaseClientRecord(kClient);
    });
  }
  f.CheckStillRunning();
  f.TrimHostLog();
  return 0;
}
