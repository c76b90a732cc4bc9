// Client sessions: what the server keeps for one connected client between its connect and its
// disconnect, the service thread that reads its command lines and answers them, and the reply
// frame every reply travels in: ten zero-padded decimal digits giving the body length, then the
// body. The digits are written in place into the spare bytes every reply buffer keeps in front
// of its body, so that frame and body leave in one write.
#include <sched.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <chrono>
#include <cstring>
#include <functional>
#include <string>
#include <thread>

#include "protocol/CommandTable.h"
#include "server/Globals.h"
#include "server/Options.h"
#include "server/Vr480Server.h"

namespace {

constexpr const char kMoreToken[] = "XXXXXXXX";  // another streamed record follows
constexpr const char kEndToken[] = "ZZZZZZZZ";   // the stream has ended
constexpr unsigned kTokenBytes = 8;
constexpr int kMaxCommandLine = 256;
constexpr auto kStreamReadInterval = std::chrono::milliseconds(2);

// Writes the frame digits into the 10 bytes before `body` and sends frame and body together,
// followed in the same write by `tail` (a streamed record's token, which its length counts).
// The formatter's terminating zero lands on the body's first byte, which is saved and restored.
void SendFramedInPlace(CVr480Server& s, uint16_t client, char* body, unsigned length, unsigned declared,
                       const char* tail = nullptr) {
  char* frame = body - 10;
  const char first = body[0];
  std::snprintf(frame, 11, "%10.10lu", static_cast<unsigned long>(declared));
  body[0] = first;
  s.Socket.WriteData(client, frame, static_cast<int>(length + 10), tail, tail ? static_cast<int>(kTokenBytes) : 0);
}

void PinClientThread() {
  long tid = ::syscall(SYS_gettid);
  std::printf("Setting Client Service thread [PID: %ld] CPU affinity to CPU %d\n", tid, 0);
  cpu_set_t set;
  CPU_ZERO(&set);
  CPU_SET(0, &set);
  if (const int err = pthread_setaffinity_np(pthread_self(), sizeof set, &set); err != 0) {
    errno = err;  // the call returns its error instead of setting errno
    perror("pthread_setaffinity_np() failed.");
  }
}

struct SServiceArgs {
  CVr480Server* Server;
  uint16_t Client;
  uint32_t Generation;  // the session this thread serves; a newer one on the slot ends it
  std::weak_ptr<void> Connection;  // the connection it serves
};

// Runs one command and sends its reply; a record reply of a streaming client carries
// `recordTail` (its token) in the same write.
int ServeCommand(CVr480Server& s, uint16_t client, const char* command, const char* recordTail) {
  char* body = nullptr;
  unsigned length = 0;
  const int code = s.ProcessCmd(static_cast<short>(client), command, &body, &length);
  const bool streaming = s.bStreaming[client];
  if (code == kReplyRecord) {
    const bool tokens = streaming && s.bUseStreamTokens[client];
    const unsigned declared = length + (tokens ? kTokenBytes : 0);
    SendFramedInPlace(s, client, body, length, declared, tokens ? recordTail : nullptr);
    s.ReleaseClientRecord(client);
  } else if (code == kReplyAlways) {
    SendFramedInPlace(s, client, body, length, length);
  } else if (!streaming && code != kReplyNone) {
    if (code == kReplyConstant) {
      // The body has no room for the digits in front of it: they go from a buffer of their
      // own, in the same write.
      char digits[11];
      std::snprintf(digits, sizeof digits, "%10.10lu", static_cast<unsigned long>(length));
      s.Socket.WriteData(client, digits, 10, body, static_cast<int>(length));
    } else {
      SendFramedInPlace(s, client, body, length, length);
    }
  }
  return code;
}

void WriteFramedEndToken(CVr480Server& s, uint16_t client) {
  char frame[10 + kTokenBytes + 1];
  std::snprintf(frame, sizeof frame, "%10.10lu%s", static_cast<unsigned long>(kTokenBytes), kEndToken);
  s.Socket.WriteData(client, frame, 10 + kTokenBytes);
}

// At the server's stop a session closes its own slot, so that the client sees its connection
// end and the stop path sees the slot free.
void CloseAtStop(CVr480Server& s, uint16_t client, bool mine) {
  if (s.bClosingSessions && mine && std::string(s.Socket.GetClientAddress(client)) != "0.0.0.0")
    s.Socket.close_client(client);
}

// The slot's previous service thread was told to stop when its connection closed, and ends
// within a second (its waits wake that often). The new session waits for it here, on its own
// thread (the accept thread goes on accepting), so that one slot never has two threads using
// its buffers. Then the session starts from its connect values. False when a newer session
// took the slot meanwhile, or the server stops.
bool BeginSession(CVr480Server& s, uint16_t client, const std::function<bool()>& mine) {
  for (bool idle = false; !s.bServiceRunning[client].compare_exchange_weak(idle, true); idle = false) {
    if (!mine() || s.bClosingSessions) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
  if (!mine()) {
    s.bServiceRunning[client] = false;
    return false;
  }
  const uint16_t write = s.ProcessedWriteIndex;
  s.ProcessedReadIndex[client] = write == 0 ? kProcessedRingSlots - 1 : write - 1;
  const uint16_t spectrum = s.SpectrumWriteIndex;
  s.SpectrumReadIndex[client] = spectrum == 0 ? kSpectrumRingSlots - 1 : spectrum - 1;
  // A close of this connection before this point is not lost: its slot is then free, and the
  // loop below ends when it finds it so.
  s.bClientDisconnect[client] = s.bClosingSessions.load();  // a client arriving at the stop is closed at once
  s.bStreaming[client] = false;
  s.bUseStreamTokens[client] = true;
  s.bBufferEnable[client] = true;
  s.DataInterleave[client] = 1;
  s.ClientRecordInUse[client] = -1;
  return true;
}

void* ClientServiceThread(void* raw) {
  SServiceArgs args = *static_cast<SServiceArgs*>(raw);
  delete static_cast<SServiceArgs*>(raw);
  CVr480Server& s = *args.Server;
  const uint16_t client = args.Client;
  if (s.bPcm9361Board) PinClientThread();
  CSocket::BindSessionThread(client, args.Connection);
  const std::function<bool()> mine = [&] { return s.SessionGeneration[client] == args.Generation; };
  if (!BeginSession(s, client, mine)) {
    CloseAtStop(s, client, mine());
    return nullptr;
  }

  char line[kMaxCommandLine + 1];
  bool streamed = false;  // this thread last served the client as streaming
  auto nextRead = std::chrono::steady_clock::time_point{};
  while (!s.bClientDisconnect[client] && !s.bClosingSessions && mine()) {
    // A streaming session looks at its socket every couple of milliseconds rather than once a
    // record (at 2 kHz that read mostly finds nothing); a line already buffered goes at once.
    const auto now = std::chrono::steady_clock::now();
    const bool readSocket = !s.bStreaming[client] || now >= nextRead;
    s.Socket.ReadCmd(client, line, sizeof line, readSocket);  // room for a whole 256-character line
    if (readSocket) nextRead = now + kStreamReadInterval;
    if (!s.bStreaming[client]) {
      // A stream switched off by the server rather than by the client's own command (the
      // acquisition's start clears every stream, and clients may connect while the server
      // still starts) is ended as that command would end it, so the client does not wait
      // for ever.
      if (streamed) WriteFramedEndToken(s, client);
      streamed = false;
      if (line[0] != '\0') s.ServiceSocket(client, line);
      else if (s.Socket.WaitReadable(client, 20) < 0) break;  // wakes at once when input arrives; -1: slot closed
      continue;
    }
    // Streaming: one record per pass, paced by the instrument; a pending command is served
    // after each record; then the token that tells the client what follows.
    // A command already read does not wait for the next record of an idle card.
    streamed = true;
    const bool pending = line[0] != '\0';
    s.bStreamCommandPending[client] = pending;
    // With no command to serve between them, the record and its token leave in one write.
    const int code = ServeCommand(s, client, "#GET_DATA", pending ? nullptr : kMoreToken);
    const bool sentRecord = code == kReplyRecord;
    s.bStreamCommandPending[client] = false;
    if (!pending) continue;  // the token went with the record; without one, there was none to send
    s.ServiceSocket(client, line);
    const bool still = s.bStreaming[client];
    streamed = still;  // a stream the client ends gets its end token below
    if (!sentRecord) {
      // The card is idle, so no record frame is open for a token to complete: a stream that
      // ends here ends with the framed token, whether or not the client uses tokens.
      if (!still) WriteFramedEndToken(s, client);
      continue;
    }
    if (s.bUseStreamTokens[client]) {
      s.Socket.WriteData(client, still ? kMoreToken : kEndToken, kTokenBytes);
    } else if (!still) {
      WriteFramedEndToken(s, client);
    }
  }
  CloseAtStop(s, client, mine());
  s.bServiceRunning[client] = false;
  return nullptr;
}

// Runs on the accept thread, which must not wait here: the session's state is set up by its
// service thread once the slot's previous thread has ended (BeginSession).
void ClientConnectCallback(CVr480Server& s, uint16_t client) {
  s.Driver.SetClientLed(true);
  const uint32_t generation = ++s.SessionGeneration[client];  // a previous thread still on the slot ends

  pthread_attr_t attr;
  pthread_attr_init(&attr);
  pthread_attr_setdetachstate(&attr, PTHREAD_CREATE_DETACHED);
  auto* args = new SServiceArgs{&s, client, generation, s.Socket.ConnectionOf(client)};
  const int err = pthread_create(&s.ClientThread[client], &attr, ClientServiceThread, args);
  pthread_attr_destroy(&attr);
  if (err != 0) {
    delete args;
    std::printf("Failed to creating a client service thread for client %d...", client);
    std::printf("Error = %d\n", err);
    if (err == EAGAIN)
      std::printf("(EAGAIN): Not enough system resources to create  a  process  for  the  new thread.\n");
    std::printf("(PTHREAD_THREADS_MAX = %d)\n", 16384);
  }
  bUpdateGui = true;
}

void ClientPreDisconnectCallback(CVr480Server& s, uint16_t client) { s.bClientDisconnect[client] = true; }

void ClientDisconnectCallback(CVr480Server& s, uint16_t client) {
  if (s.Socket.GetNumClients() == 0) s.Driver.SetClientLed(false);
  bUpdateGui = true;
}

}  // namespace

int CVr480Server::ServiceSocket(uint16_t client, const char* command) {
  return ServeCommand(*this, client, command, nullptr);
}

// The callbacks are in place before the accept thread starts, so that no early client goes
// without its service thread.
void CVr480Server::StartTcpServer() {
  if (!ServerOptions.ListenAddress.empty()) Socket.SetListenAddress(ServerOptions.ListenAddress);
  Socket.SetClientConnectCallbackFunction([this](uint16_t c) { ClientConnectCallback(*this, c); });
  Socket.SetClientPreDisconnectCallbackFunction([this](uint16_t c) { ClientPreDisconnectCallback(*this, c); });
  Socket.SetClientDisconnectCallbackFunction([this](uint16_t c) { ClientDisconnectCallback(*this, c); });
  // A restart while the previous run's connections still hold the port must not leave the
  // instrument unreachable: the bind is retried until the port is free.
  Socket.SetBindRetry(true);
  Socket.init(ServerOptions.Port);
}

int CVr480Server::RunningServiceThreads() const {
  int n = 0;
  for (int i = 0; i < kClientSlots; ++i) n += bServiceRunning[i] ? 1 : 0;
  return n;
}
