#include "protocol/Socket.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <pthread.h>
#include <sched.h>
#include <signal.h>
#include <sys/eventfd.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <new>
#include <system_error>

#include "host/ConfinedPath.h"
#include "host/Host.h"

namespace {

bool ValidClient(uint16_t client) { return client < CSocket::kMaxClients; }

void SleepUs(uint32_t us) {
  if (us > 0) ::usleep(us);
}

}  // namespace

CSocket::CClientConnection::~CClientConnection() {
  if (Fd >= 0) ::close(Fd);
}

CSocket::CSocket() {
  for (int i = 0; i < kMaxClients; ++i) {
    ClientAddressLength[i] = sizeof(sockaddr_in);
    WriteRecoveryAttempts[i] = kDefaultWriteRecoveryAttempts;
    WriteRecoveryDelayUs[i] = kDefaultWriteRecoveryDelayUs;
  }
  ServerAddress.sin_family = AF_INET;
  ServerAddress.sin_addr.s_addr = htonl(INADDR_ANY);
  FileXferBuffer.reset(new (std::nothrow) uint8_t[kFileXferBufferSize]);
  bFileXferBufferAllocated = FileXferBuffer != nullptr;
  if (!bFileXferBufferAllocated) {
    std::printf("CSocket allocation error on FileXferBuffer[].\n");
    std::printf("Could not allocate the FileXferBuffers.\n");
    std::fflush(stdout);
  }
}

// Clients are closed (with their callbacks) before the accept thread is joined, as the session
// layer expects; the stop flag is raised first so that no client is accepted meanwhile.
CSocket::~CSocket() {
  {
    std::lock_guard<std::mutex> g(TableLock);
    bStopping = true;
  }
  WakeAcceptThread();
  for (uint16_t c = 0; c < kMaxClients; ++c) {
    bool occupied;
    {
      std::lock_guard<std::mutex> g(TableLock);
      occupied = bClientConnected[c];
    }
    if (occupied) close_client(c);
  }
  if (bFileXferBufferAllocated) {
    std::printf("CSocket: Freeing the file Xfer buffers...\n");
    FileXferBuffer.reset();
    bFileXferBufferAllocated = false;
  }
  std::printf("Canceling cs_thread...");
  std::fflush(stdout);
  std::printf(Stop() ? "thread canceled.\n" : "~CSocket() Thread cancelation failed.\n");
  std::fflush(stdout);
}

int CSocket::SetListenAddress(const std::string& addr) {
  in_addr a{};
  if (::inet_pton(AF_INET, addr.c_str(), &a) != 1) return -1;
  ServerAddress.sin_addr = a;
  return 0;
}

// ---- Start and stop -----------------------------------------------------------------------

int CSocket::init(int port) {
  if (port < 1 || port > 9999) {
    std::printf("socket #%d out of range.\n", port);
    std::fflush(stdout);
    return -1;
  }
  if (cs_thread.joinable() || ServerSocket >= 0) {
    std::printf("CSocket::init() already listening on port %d.\n", Port);
    std::fflush(stdout);
    return -1;
  }
  Port = port;
  {
    std::lock_guard<std::mutex> g(TableLock);
    bStopping = false;  // a server stopped earlier may listen again
  }
  bAcceptThreadEnded = false;
  // Non-blocking so that a connection reset between poll and accept cannot stall the accept
  // thread; close-on-exec so that no command the server runs inherits the listener.
  ServerSocket = ::socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
  if (ServerSocket < 0) {
    int err = errno;
    std::printf("could not create the server socket.  Error #%d\n", err);
    PrintSystemError("CSocket::init() error", err);
    return -1;
  }
  ServerAddress.sin_family = AF_INET;
  ServerAddress.sin_port = htons(static_cast<uint16_t>(port));
  ServerAddressLength = sizeof(sockaddr_in);

  const int wake = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  if (wake < 0) {
    const int err = errno;
    std::printf("CSocket thread creation failed with error code %d\n", err);
    std::fflush(stdout);
    ::close(ServerSocket);
    ServerSocket = -1;
    return err;
  }
  {
    std::lock_guard<std::mutex> g(TableLock);  // clients of an earlier init may be closing
    WakeEvent = wake;
  }

  int result = BindServerSocket();
  if (result != 0) {
    const int err = errno;
    std::printf("failed to bind server socket to file descriptor.  Error #%d\n", err);
    PrintSystemError("CSocket::init() error", err);
    // The port is still held by connections of a server that just ended (they linger for about
    // a minute), or the address is not configured yet: an instrument restarted by a person or
    // a service manager must become reachable once it is free, not run on without a listener.
    bBindPending = bRetryBind && (err == EADDRINUSE || err == EADDRNOTAVAIL);
    if (!bBindPending) {
      ::close(ServerSocket);
      ServerSocket = -1;
      CloseWakeEvent();
      return result;
    }
    std::printf("Retrying bind on port %d every second.\n", port);
    std::fflush(stdout);
  } else {
    const int listened = ListenOnServerSocket();
    if (listened != 0) {
      ::close(ServerSocket);
      ServerSocket = -1;
      CloseWakeEvent();
      return listened;
    }
  }

  int code = 0;
  try {
    cs_thread = std::thread(&CSocket::CSocketConnectThread, this);
  } catch (const std::system_error& e) {
    code = e.code().value();
  }
  if (code != 0) {
    std::printf("CSocket thread creation failed with error code %d\n", code);
    std::fflush(stdout);
    CloseWakeEvent();
    ::close(ServerSocket);  // a listener nobody accepts on would leave clients hanging
    ServerSocket = -1;
    return code;
  }

  // Writes to a vanished peer must fail with an error, not end the process. Every write also
  // passes MSG_NOSIGNAL; this covers any other code that writes to a socket.
  ::signal(SIGPIPE, SIG_IGN);
  std::fflush(stdout);
  return result;
}

// No SO_REUSEADDR: a second server on the same port must fail to start, not share it.
int CSocket::BindServerSocket() {
  return ::bind(ServerSocket, reinterpret_cast<sockaddr*>(&ServerAddress), ServerAddressLength);
}

int CSocket::ListenOnServerSocket() {
  // Inherited by every accepted socket: short replies must leave at once, not wait for more.
  int on = 1;
  if (::setsockopt(ServerSocket, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on) != 0) {
    int err = errno;
    std::printf("could not set the TCP_NODELAY option for the server socket.\n");
    PrintSystemError("CSocket::init() error", err);
  }
  const int result = ::listen(ServerSocket, kListenBacklog);
  if (result != 0) std::printf("failed to create a queue for the server socket.  Error #%d\n", errno);
  std::fflush(stdout);
  return result;
}

// The accept thread's first task when init could not bind: once a second until the bind
// succeeds, or a stop. True when the socket listens.
bool CSocket::RetryBind() {
  for (;;) {
    if (WaitForWake(1000)) return false;
    if (BindServerSocket() == 0) break;
    if (errno != EADDRINUSE && errno != EADDRNOTAVAIL) {
      const int err = errno;
      std::printf("failed to bind server socket to file descriptor.  Error #%d\n", err);
      PrintSystemError("CSocket::init() error", err);
      return false;
    }
  }
  if (ListenOnServerSocket() != 0) return false;
  std::printf("Server socket bound to port %d; accepting clients.\n", Port);
  std::fflush(stdout);
  return true;
}

bool CSocket::Stop() {
  {
    std::lock_guard<std::mutex> g(TableLock);
    bStopping = true;
  }
  if (!cs_thread.joinable()) return bAcceptThreadEnded;
  WakeAcceptThread();
  cs_thread.join();
  bAcceptThreadEnded = true;
  // Closed here rather than left to process exit, so that the port can be bound again.
  ::close(ServerSocket);
  ServerSocket = -1;
  CloseWakeEvent();
  return true;
}

void CSocket::CloseWakeEvent() {
  std::lock_guard<std::mutex> g(TableLock);  // a closing client may be waking the thread
  if (WakeEvent >= 0) ::close(WakeEvent);
  WakeEvent = -1;
}

bool CSocket::Stopping() const {
  std::lock_guard<std::mutex> g(TableLock);
  return bStopping;
}

// Tells the accept thread to look again: a slot has freed, or it must stop.
void CSocket::WakeAcceptThread() {
  std::lock_guard<std::mutex> g(TableLock);
  if (WakeEvent < 0) return;
  uint64_t one = 1;
  (void)!::write(WakeEvent, &one, sizeof one);
}

// Sleeps up to timeoutMs or until woken; true when a stop was requested.
bool CSocket::WaitForWake(int timeoutMs) {
  pollfd p{WakeEvent, POLLIN, 0};
  if (::poll(&p, 1, timeoutMs) > 0) {
    uint64_t count;
    (void)!::read(WakeEvent, &count, sizeof count);
  }
  return Stopping();
}

// ---- Accept thread ------------------------------------------------------------------------

void CSocket::PinToCpu0IfBoardMarker() {
  struct stat st {};
  if (::stat(Host().Path("/vr480.9361.id").c_str(), &st) != 0) return;
  long tid = ::syscall(SYS_gettid);
  std::printf("Setting Socket thread [PID: %ld] CPU affinity to CPU %d\n", tid, 0);
  cpu_set_t set;
  CPU_ZERO(&set);
  CPU_SET(0, &set);
  int err = pthread_setaffinity_np(pthread_self(), sizeof set, &set);
  if (err != 0) PrintSystemError("pthread_setaffinity_np() failed.", err);
  std::fflush(stdout);
}

void CSocket::CSocketConnectThread() {
  PinToCpu0IfBoardMarker();
  if (bBindPending && !RetryBind()) return;
  std::printf("Entering thread loop...\n");
  std::fflush(stdout);
  while (!Stopping()) {
    short slot = find_free_client_connection_point();
    if (slot < 0) {
      // All slots taken: further clients wait in the listen queue until close_client wakes
      // this thread (the time-out is only a safety net).
      WaitForWake(5000);
      continue;
    }
    pollfd p[2] = {{ServerSocket, POLLIN, 0}, {WakeEvent, POLLIN, 0}};
    int r = ::poll(p, 2, -1);
    if (r < 0) {
      if (errno == EINTR) continue;
      PrintSystemError("CSocketConnectThread() error", errno);
      WaitForWake(1000);
      continue;
    }
    if (p[1].revents != 0) {
      WaitForWake(0);  // takes the wake-up; the loop looks at the stop flag and the slots again
      continue;
    }
    if (p[0].revents != 0 && !AcceptInto(slot)) return;
  }
}

// Accepts one waiting connection into `slot`. A failed accept leaves the slot free. False when
// a stop was requested meanwhile.
bool CSocket::AcceptInto(short slot) {
  sockaddr_in peer{};
  socklen_t peerLength = sizeof peer;
  int fd = ::accept4(ServerSocket, reinterpret_cast<sockaddr*>(&peer), &peerLength, SOCK_NONBLOCK | SOCK_CLOEXEC);
  if (fd < 0) {
    int err = errno;
    // The peer gave up before we got to it, or another wake-up took it: nothing to do.
    if (err == EAGAIN || err == EWOULDBLOCK || err == EINTR || err == ECONNABORTED || err == EPROTO) return true;
    // Out of descriptors or memory: the connection stays queued; wait instead of spinning.
    std::printf("accept failed for client socket %d.\n", slot);
    PrintSystemError("CSocketConnectThread() error", err);
    return !WaitForWake(1000);
  }

  int on = 1;
  if (::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on) != 0) {
    int err = errno;
    std::printf("could not set the TCP_NODELAY option for client socket %d.\n", slot);
    PrintSystemError("CSocketConnectThread() error", err);
  }
  // Keep-alive timing is set system-wide at network start-up; it ends sessions of vanished peers.
  if (::setsockopt(fd, SOL_SOCKET, SO_KEEPALIVE, &on, sizeof on) != 0) {
    int err = errno;
    std::printf("could not set the SO_KEEPALIVE option for client socket %d.\n", slot);
    PrintSystemError("CSocketConnectThread() error", err);
  }

  ClientCallback connected;
  {
    std::lock_guard<std::mutex> g(TableLock);
    if (bStopping) {
      ::close(fd);
      return false;
    }
    ClientSocket[slot] = std::make_shared<CClientConnection>(fd);
    ClientAddress[slot] = peer;
    ClientAddressLength[slot] = peerLength;
    ++NumClients;
    bClientConnected[slot] = true;
    if (bConnectCallbackSet) connected = ConnectCallback;
  }
  if (connected) connected(static_cast<uint16_t>(slot));
  std::printf("Connected client #%d (%s)\n", slot, FormatAddress(peer).c_str());
  PrintClientCount(GetNumClients());
  return true;
}

short CSocket::find_free_client_connection_point() {
  int numClients;
  {
    std::lock_guard<std::mutex> g(TableLock);
    if (NumClients >= kMaxClients) return -1;
    for (short c = 0; c < kMaxClients; ++c)
      if (!bClientConnected[c]) return c;
    numClients = NumClients;
  }
  std::printf("CSocket error:  find_free_client_connection_point()\n");
  std::printf("No free client connection point was found.  However, NumClients reports\n");
  std::printf("that only %d out of a possible %d are connected.\n", numClients, kMaxClients);
  std::fflush(stdout);
  return -1;
}

// ---- Callbacks and queries ----------------------------------------------------------------

int CSocket::SetClientConnectCallbackFunction(ClientCallback fn) {
  std::lock_guard<std::mutex> g(TableLock);
  ConnectCallback = std::move(fn);
  bConnectCallbackSet = true;
  return 0;
}

int CSocket::SetClientPreDisconnectCallbackFunction(ClientCallback fn) {
  std::lock_guard<std::mutex> g(TableLock);
  PreDisconnectCallback = std::move(fn);
  bPreDisconnectCallbackSet = true;
  return 0;
}

int CSocket::SetClientDisconnectCallbackFunction(ClientCallback fn) {
  std::lock_guard<std::mutex> g(TableLock);
  DisconnectCallback = std::move(fn);
  bDisconnectCallbackSet = true;
  return 0;
}

int CSocket::UnSetClientConnectCallbackFunction() {
  std::lock_guard<std::mutex> g(TableLock);
  bConnectCallbackSet = false;
  return 0;
}

int CSocket::UnSetClientPreDisconnectCallbackFunction() {
  std::lock_guard<std::mutex> g(TableLock);
  bPreDisconnectCallbackSet = false;
  return 0;
}

int CSocket::UnSetClientDisconnectCallbackFunction() {
  std::lock_guard<std::mutex> g(TableLock);
  bDisconnectCallbackSet = false;
  return 0;
}

int CSocket::GetNumClients() const {
  std::lock_guard<std::mutex> g(TableLock);
  return NumClients;
}

const char* CSocket::GetClientAddress(uint16_t client) {
  thread_local char text[16];
  std::string s = "0.0.0.0";
  if (ValidClient(client)) {
    std::lock_guard<std::mutex> g(TableLock);
    if (bClientConnected[client]) s = FormatAddress(ClientAddress[client]);
  }
  std::snprintf(text, sizeof text, "%s", s.c_str());
  return text;
}

std::string CSocket::FormatAddress(const sockaddr_in& addr) {
  const auto* b = reinterpret_cast<const unsigned char*>(&addr.sin_addr.s_addr);
  char text[16];
  std::snprintf(text, sizeof text, "%d.%d.%d.%d", b[0], b[1], b[2], b[3]);
  return text;
}

namespace {
// The slot and connection the calling thread serves, when it is a session's thread.
thread_local int tSessionClient = -1;
thread_local std::weak_ptr<void> tSessionConnection;
}  // namespace

std::weak_ptr<void> CSocket::ConnectionOf(uint16_t client) const { return Lease(client); }

void CSocket::BindSessionThread(uint16_t client, std::weak_ptr<void> connection) {
  tSessionClient = client;
  tSessionConnection = std::move(connection);
}

CSocket::ConnectionPtr CSocket::Lease(uint16_t client) const {
  if (!ValidClient(client)) return nullptr;
  const std::shared_ptr<void> bound = tSessionClient == client ? tSessionConnection.lock() : nullptr;
  // A session's own thread, several times a record while it streams, needs no table lookup:
  // its connection is the slot's for as long as the slot holds it.
  if (bound) {
    auto conn = std::static_pointer_cast<CClientConnection>(bound);
    return conn->bInTable.load(std::memory_order_acquire) ? conn : nullptr;
  }
  std::lock_guard<std::mutex> g(TableLock);
  if (!bClientConnected[client]) return nullptr;
  if (tSessionClient == client && bound != ClientSocket[client]) return nullptr;  // not this thread's client
  return ClientSocket[client];
}

// ---- Reading ------------------------------------------------------------------------------

// Lines are split here, not in the kernel: one read takes whatever the client sent (a command,
// a burst of pipelined ones, or the start of an upload's data), instead of one read per byte.
bool CSocket::CClientConnection::TakeLine() {
  while (InputStart < InputEnd) {
    const char* from = Input + InputStart;
    const size_t room = static_cast<size_t>(kMaxCmdLength) - CmdBuffer.size();
    if (room == 0) {
      // An over-long line is cut: the byte that finds the line full is dropped and ends it.
      ++InputStart;
      return true;
    }
    const size_t look = std::min(InputEnd - InputStart, room);
    if (const void* end = std::memchr(from, '\n', look)) {
      const size_t n = static_cast<size_t>(static_cast<const char*>(end) - from);
      CmdBuffer.append(from, n);
      InputStart += n + 1;
      return true;
    }
    CmdBuffer.append(from, look);
    InputStart += look;
  }
  return false;
}

bool CSocket::CClientConnection::LineBuffered() const {
  const size_t have = InputEnd - InputStart;
  if (have == 0) return false;
  return CmdBuffer.size() + have > static_cast<size_t>(kMaxCmdLength) ||
         std::memchr(Input + InputStart, '\n', have) != nullptr;
}

int CSocket::ReadCmd(uint16_t client, char* buf, int size, bool readSocket) {
  if (buf && size > 0) buf[0] = '\0';
  ConnectionPtr conn = Lease(client);
  if (!conn) return -1;
  while (!conn->TakeLine()) {
    if (!readSocket) return -1;
    const ssize_t n = ::recv(conn->Fd, conn->Input, sizeof conn->Input, 0);
    if (n > 0) {
      conn->InputStart = 0;
      conn->InputEnd = static_cast<size_t>(n);
      continue;
    }
    if (n == 0) {
      CloseSlot(client, conn.get());
      return -1;
    }
    const int err = errno;
    if (err == EINTR) continue;
    if (err == EAGAIN || err == EWOULDBLOCK) return -1;  // the partial line waits for more bytes
    std::printf("read error in CSocket[%d]::ReadCmd: err = %d\n", client, err);
    std::fflush(stdout);
    CloseSlot(client, conn.get());
    return -1;
  }
  std::string& line = conn->CmdBuffer;
  if (buf && size > 0) {
    const size_t n = std::min(line.size(), static_cast<size_t>(size - 1));
    std::memcpy(buf, line.data(), n);
    buf[n] = '\0';
  }
  line.clear();
  return 0;
}

int CSocket::ReadData(uint16_t client, char* buf, int len) {
  ConnectionPtr conn = Lease(client);
  if (!conn) return -1;
  const size_t want = static_cast<size_t>(std::max(len, 0));
  // Bytes that came with the last command line (an upload's first data) go first.
  if (const size_t have = conn->InputEnd - conn->InputStart; have > 0 && want > 0) {
    const size_t n = std::min(have, want);
    std::memcpy(buf, conn->Input + conn->InputStart, n);
    conn->InputStart += n;
    return static_cast<int>(n);
  }
  return static_cast<int>(::recv(conn->Fd, buf, want, 0));
}

int CSocket::WaitReadable(uint16_t client, int timeoutMs) {
  ConnectionPtr conn = Lease(client);
  if (!conn) return -1;
  if (conn->LineBuffered()) return 1;
  pollfd p{conn->Fd, POLLIN, 0};
  int r = ::poll(&p, 1, timeoutMs);
  if (r < 0) return errno == EINTR ? 0 : -1;
  return r > 0 ? 1 : 0;
}

// ---- Writing ------------------------------------------------------------------------------

int CSocket::WriteData(uint16_t client, const char* data, int len) { return WriteData(client, data, len, nullptr, 0); }

int CSocket::WriteData(uint16_t client, const std::string& data, int len) {
  return WriteData(client, data.data(), std::min(len, static_cast<int>(data.size())));
}

int CSocket::WriteData(uint16_t client, const char* head, int headLen, const char* tail, int tailLen) {
  ConnectionPtr conn = Lease(client);
  if (!conn) return -1;
  const uint32_t budget = WriteRecoveryAttempts[client];
  const uint32_t delayUs = WriteRecoveryDelayUs[client];
  iovec parts[2] = {{const_cast<char*>(head), static_cast<size_t>(std::max(headLen, 0))},
                    {const_cast<char*>(tail), static_cast<size_t>(std::max(tailLen, 0))}};
  const int len = static_cast<int>(parts[0].iov_len + parts[1].iov_len);
  int first = parts[0].iov_len > 0 ? 0 : 1;  // the first part with bytes left
  int written = 0;
  uint32_t used = 0;
  // The budget counts only full-buffer retries, per call: partial writes go on for free.
  while (written < len && used < budget) {
    msghdr msg{};
    msg.msg_iov = parts + first;
    msg.msg_iovlen = static_cast<size_t>(2 - first);
    const ssize_t n = ::sendmsg(conn->Fd, &msg, MSG_NOSIGNAL);
    if (n > 0) {
      BytesSent[client].fetch_add(static_cast<uint64_t>(n), std::memory_order_relaxed);
      written += static_cast<int>(n);
      for (size_t left = static_cast<size_t>(n); left > 0;) {
        const size_t take = std::min(left, parts[first].iov_len);
        parts[first].iov_base = static_cast<char*>(parts[first].iov_base) + take;
        parts[first].iov_len -= take;
        left -= take;
        if (parts[first].iov_len == 0) ++first;
      }
      while (first < 2 && parts[first].iov_len == 0) ++first;
      continue;
    }
    int err = n < 0 ? errno : EAGAIN;
    if (err == EINTR) continue;
    if (err == EAGAIN || err == EWOULDBLOCK) {
      ++used;
      SleepUs(delayUs);
      continue;
    }
    return CloseAfterWriteError(client, conn.get(), err);
  }
  if (written == len) return 0;
  // Whatever follows on this connection would be read from the middle of this reply: the
  // connection ends here instead.
  std::printf("Write failed. (%d of %d bytes written after %u attempts (%u us/attempt).\n", written, len, used, delayUs);
  std::fflush(stdout);
  CloseSlot(client, conn.get());
  return written > 0 ? written : -1;
}

// A write that fails for any reason but a full buffer means the peer is gone: the slot closes.
int CSocket::CloseAfterWriteError(uint16_t client, const CClientConnection* conn, int err) {
  std::printf("closing client on error #%d\n", err);
  std::printf("CSocket::WriteData() Broken Pipe\n");
  std::fflush(stdout);
  CloseSlot(client, conn);
  return err;
}

int CSocket::SetWriteRecoveryOptions(uint16_t client, uint32_t attempts, uint32_t delayUs) {
  if (!ValidClient(client)) return -1;
  WriteRecoveryAttempts[client] = attempts == 0 ? 1 : attempts;  // every write gets at least one try
  WriteRecoveryDelayUs[client] = delayUs;
  return 0;
}

int CSocket::GetWriteRecoveryOptions(uint16_t client, uint32_t* attempts, uint32_t* delayUs) {
  if (!ValidClient(client)) return -1;
  if (attempts) *attempts = WriteRecoveryAttempts[client];
  if (delayUs) *delayUs = WriteRecoveryDelayUs[client];
  return 0;
}

// ---- File transfer ------------------------------------------------------------------------

int64_t CSocket::TransferFile(uint16_t client, const char* path) {
  if (!Lease(client)) return -1;
  const char* name = path ? path : "";
  int64_t size = 0;
  const int fd = OpenClientFileForReading(name, &size);
  if (fd < 0) {
    if (errno == ENOENT) {
      std::printf("Could not stat %s.\n", name);
      std::fflush(stdout);
      return -1;
    }
    std::printf("Error opening %s.\n", name);
    std::fflush(stdout);
    return -2;
  }
  const int64_t result = TransferFile(client, fd, size, name);
  ::close(fd);
  return result;
}

int64_t CSocket::TransferFile(uint16_t client, int fd, int64_t size, const char* name) {
  ConnectionPtr conn = Lease(client);
  if (!conn) return -1;
  std::unique_ptr<uint8_t[]> chunk(new (std::nothrow) uint8_t[kFileXferBufferSize]);
  if (!chunk) {
    std::printf("No available Xfer buffer.\n");
    std::fflush(stdout);
    return -2;
  }
  std::printf("%s opened for Xfer...\n", name);
  std::fflush(stdout);

  // A stalled reader gets this many waits of up to 1 ms per chunk (400 by default).
  const uint64_t budget = 10ull * WriteRecoveryAttempts[client];
  bool shrank = false;
  int64_t sent = 0;
  while (sent < size) {
    const size_t want = static_cast<size_t>(std::min<int64_t>(kFileXferBufferSize, size - sent));
    size_t have = 0;
    while (have < want) {
      const ssize_t n = ::read(fd, chunk.get() + have, want - have);
      if (n < 0 && errno == EINTR) continue;
      if (n <= 0) break;
      have += static_cast<size_t>(n);
    }
    if (have < want) {
      // The client was promised `size` bytes: a frame cut short would swallow its next reply.
      if (!shrank) {
        std::printf("%s ended before its %lld bytes; the rest goes as zeros.\n", name, static_cast<long long>(size));
        std::fflush(stdout);
      }
      shrank = true;
      std::memset(chunk.get() + have, 0, want - have);
    }

    size_t done = 0;
    uint64_t used = 0;
    while (done < want) {
      if (used >= budget) {
        std::printf("Write failed.\n");
        std::printf("closing %s.\n", name);
        std::fflush(stdout);
        // The client was promised the whole file in one frame: a cut one would swallow its
        // later replies, so the connection ends too.
        CloseSlot(client, conn.get());
        return sent + static_cast<int64_t>(done);
      }
      const ssize_t n = ::send(conn->Fd, chunk.get() + done, want - done, MSG_NOSIGNAL);
      if (n > 0) {
        BytesSent[client].fetch_add(static_cast<uint64_t>(n), std::memory_order_relaxed);
        done += static_cast<size_t>(n);
        continue;
      }
      const int err = n < 0 ? errno : EAGAIN;
      if (err == EINTR) continue;
      if (err == EAGAIN || err == EWOULDBLOCK) {
        // One unit of the budget: wait up to 1 ms, less when the reader makes room sooner.
        ++used;
        pollfd p{conn->Fd, POLLOUT, 0};
        ::poll(&p, 1, 1);
        continue;
      }
      return CloseAfterWriteError(client, conn.get(), err);
    }
    sent += static_cast<int64_t>(want);
  }
  return 0;
}

// ---- Closing ------------------------------------------------------------------------------

int CSocket::close_client(uint16_t client) {
  if (!ValidClient(client)) {
    std::printf("Client %d not connected.\n", client);
    std::fflush(stdout);
    return -1;
  }
  return CloseSlot(client, nullptr);
}

// Closes `client`. With `expected` set (a reader or writer that found its own connection dead),
// only that connection is closed: if another thread closed it already, or the slot meanwhile
// holds a newer client, nothing happens.
int CSocket::CloseSlot(uint16_t client, const CClientConnection* expected) {
  bool mine = false;
  ClientCallback preDisconnect;
  {
    std::lock_guard<std::mutex> g(TableLock);
    bool holds = bClientConnected[client] && !bClientClosing[client] &&
                 (!expected || ClientSocket[client].get() == expected);
    if (expected && !holds) return -1;
    if (holds) {
      // Keeps the slot occupied, so not re-accepted, while the session is told to stop.
      bClientClosing[client] = true;
      mine = true;
    }
    if (bPreDisconnectCallbackSet) preDisconnect = PreDisconnectCallback;
  }
  if (preDisconnect) preDisconnect(client);
  if (!mine) {
    std::printf("Client %d not connected.\n", client);
    std::fflush(stdout);
    return -1;
  }

  std::printf("Closing connection on client %d\n", client);
  ConnectionPtr conn;
  int numClients;
  ClientCallback disconnected;
  {
    std::lock_guard<std::mutex> g(TableLock);
    conn = std::move(ClientSocket[client]);
    conn->bInTable.store(false, std::memory_order_release);
    bClientConnected[client] = false;
    bClientClosing[client] = false;
    --NumClients;
    numClients = NumClients;
    if (bDisconnectCallbackSet) disconnected = DisconnectCallback;
  }
  // The peer sees the close now and a reader in WaitReadable wakes; the descriptor itself goes
  // when the last call still using it returns.
  ::shutdown(conn->Fd, SHUT_RDWR);
  conn.reset();
  WakeAcceptThread();  // a client waiting in the listen queue may now have this slot
  PrintClientCount(numClients);
  if (disconnected) disconnected(client);
  return 0;
}

void CSocket::PrintClientCount(int numClients) {
  std::printf("%d%s", numClients, numClients == 1 ? " client connected\n" : " clients connected\n");
  std::fflush(stdout);
}

// Standard output, in the layout of perror: the console is the one place diagnostics go.
void CSocket::PrintSystemError(const char* prefix, int err) {
  std::printf("%s: %s\n", prefix, std::strerror(err));
  std::fflush(stdout);
}
