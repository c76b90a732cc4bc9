// The TCP command server: one listening socket, a fixed table of ten client slots, an accept
// thread that fills them, and the low-level line reader and reply writer that the client
// sessions use. It knows nothing of commands.
//
// Slots. A client is its slot number 0..9 everywhere in the server. The accept thread picks the
// lowest free slot and then waits for a connection to put in it. While all ten are taken,
// further connections wait in the kernel's listen queue (backlog 10) and the accept thread
// sleeps until a slot frees (it is woken at once; it also looks every 5 seconds). A slot is
// freed only by close_client: on end of file or a read error in ReadCmd, on a hard write error
// or a reply that could not be sent whole in WriteData or TransferFile, or by the destructor.
// No command closes a session; the client closes it.
//
// Whole replies. A reply frame is either sent whole or the connection is closed: a client whose
// stream stopped in the middle of a frame would read every later reply from a wrong offset.
//
// Callbacks, each called with the slot number:
//  - connect:        on the accept thread, after the slot is occupied (the session layer starts
//                    the client's service thread there);
//  - pre-disconnect: first thing in close_client, on whichever thread closes, while the slot is
//                    still occupied (the session layer tells the service thread to stop), and
//                    also when close_client finds the slot already free;
//  - disconnect:     last thing in close_client, after the slot is free and counted out.
// Because the pre-disconnect callback runs before the slot is freed, a new client can never be
// accepted into the slot (and have its session flags set) before the old session was told to stop.
//
// Locking. One mutex guards the slot table, NumClients, the callbacks and the stop flag. It is
// held only while a slot changes state or is looked up, never across a read, write, sleep or
// callback, so a callback may call any member. Every connection is shared between the table and
// the calls using it: a close on one thread shuts the connection down at once (waking a reader
// in WaitReadable) but the descriptor itself is closed only when the last call using it
// returns, so its number cannot be reused by the next accept under another thread's read.
// ReadCmd, ReadData and WaitReadable for a slot belong to that client's service thread alone;
// WriteData may be called from any thread.
//
// All diagnostics go to standard output; none reach a client.
#pragma once

#include <netinet/in.h>
#include <sys/socket.h>

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

class CSocket {
 public:
  static constexpr int kMaxClients = 10;               // client slots 0..9
  static constexpr int kListenBacklog = 10;            // connections the kernel holds while the slots are full
  static constexpr int kMaxCmdLength = 256;            // characters kept of one command line
  static constexpr int kFileXferBufferSize = 16384;    // bytes per file-transfer chunk
  static constexpr uint32_t kDefaultWriteRecoveryAttempts = 40;
  static constexpr uint32_t kDefaultWriteRecoveryDelayUs = 250;

  using ClientCallback = std::function<void(uint16_t client)>;

  CSocket();
  virtual ~CSocket();
  CSocket(const CSocket&) = delete;
  CSocket& operator=(const CSocket&) = delete;

  // Address to bind, as dotted-quad text, for a later init (default: any address). 0, or -1
  // when the text is not an IPv4 address (the previous address stays).
  int SetListenAddress(const std::string& addr);

  // Opens, binds and listens on `port` (1..9999) and starts the accept thread. 0, -1 when the
  // port is out of range or the socket cannot be made, the bind or listen result when those
  // fail, or the error code when the thread cannot start. Call once.
  // With the bind retry on (below), a port still held by connections of an earlier run (bind
  // fails with EADDRINUSE, or EADDRNOTAVAIL before the network is up) does not end it: init
  // prints the failure and "Retrying bind on port N every second.", returns the bind result,
  // and the accept thread binds once a second until it succeeds, then listens and serves.
  virtual int init(int port);

  // Retry a failed bind in the background (see init); off by default. Set before init.
  void SetBindRetry(bool on) { bRetryBind = on; }

  // Ends the accept thread (within moments, also while it waits for a free slot or retries
  // the bind) and closes the listening socket; connected clients stay. True when the thread
  // has ended, false when none was ever started. Call from the thread that owns the object;
  // the destructor calls it.
  bool Stop();

  // Register or forget a callback (see above). All return 0.
  int SetClientConnectCallbackFunction(ClientCallback fn);
  int SetClientPreDisconnectCallbackFunction(ClientCallback fn);
  int SetClientDisconnectCallbackFunction(ClientCallback fn);
  int UnSetClientConnectCallbackFunction();
  int UnSetClientPreDisconnectCallbackFunction();
  int UnSetClientDisconnectCallbackFunction();

  // Number of occupied slots (the stop path waits for it to reach 0).
  int GetNumClients() const;

  // The connection now in `client`'s slot (empty when the slot is free). A session's thread
  // binds itself to it: from then on that thread's reads and writes for the slot reach only
  // that connection, so a thread that outlives its client never talks to the slot's next one.
  std::weak_ptr<void> ConnectionOf(uint16_t client) const;
  static void BindSessionThread(uint16_t client, std::weak_ptr<void> connection);

  // Peer address of a slot as "%d.%d.%d.%d", "0.0.0.0" when the slot is free. The text lives in
  // a buffer of the calling thread, overwritten by that thread's next call.
  const char* GetClientAddress(uint16_t client);

  // Delivers one complete command line into `buf` (0), or nothing (-1, `buf` empty). The
  // non-blocking socket is read in blocks into the connection's own buffer and lines are split
  // from there; a partial line, and any bytes after a complete one, wait for the next call. The
  // line feed ends a line and is not delivered; a carriage return is an ordinary character. A
  // line longer than 256 characters is cut: the 257th character is dropped and ends the line,
  // the characters after it begin the next one. At most size - 1 characters are copied, always
  // terminated. End of file or a read error closes the slot (once the buffered lines are taken).
  // With `readSocket` false only a line already buffered is taken (no system call).
  int ReadCmd(uint16_t client, char* buf, int size, bool readSocket = true);

  // Up to `len` bytes of the client's input: first those ReadCmd buffered beyond its last line,
  // else one plain read, whose result it returns (-1 with errno EAGAIN when nothing is
  // waiting, 0 at end of file); -1 when the slot is free.
  int ReadData(uint16_t client, char* buf, int len);

  // Waits up to `timeoutMs` for input (or end of file, or an error) on the slot, so that a
  // service thread need not spin on ReadCmd. 1 readable (at once when a whole line is already
  // buffered), 0 time-out or interrupted, -1 slot free or poll failed. Returns early when the
  // slot is closed by another thread.
  int WaitReadable(uint16_t client, int timeoutMs);

  // Writes all `len` bytes straight from `data`. Each time the socket buffer is full one unit of
  // the slot's retry budget is used and the thread sleeps the slot's delay. 0 when all was
  // written; the errno of any other failure, after closing the slot ("Broken Pipe"); -1 for a
  // free slot. When the budget runs out the reply cannot be sent whole: "Write failed. (" is
  // printed, the slot is closed, and the count written is returned (-1 when none was).
  // Bytes written to the clients of a slot since the server started (all its sessions).
  uint64_t GetBytesSent(uint16_t client) const {
    return client < kMaxClients ? BytesSent[client].load(std::memory_order_relaxed) : 0;
  }
  int WriteData(uint16_t client, const char* data, int len);
  int WriteData(uint16_t client, const std::string& data, int len);
  // The same for a reply in two pieces (a record frame and its stream token, or frame digits
  // and a constant body), sent as one piece of the stream: one system call when there is room.
  int WriteData(uint16_t client, const char* head, int headLen, const char* tail, int tailLen);

  // The slot's retry budget per WriteData call; 0 attempts are stored as 1. Both return 0
  // (-1 for a client number outside 0..9). A new client keeps the previous client's values.
  int SetWriteRecoveryOptions(uint16_t client, uint32_t attempts, uint32_t delayUs);
  int GetWriteRecoveryOptions(uint16_t client, uint32_t* attempts, uint32_t* delayUs);

  // Closes one slot, running the callbacks as described above. 0, or -1 when it was free.
  int close_client(uint16_t client);

  // Lowest free slot, or -1 when all are taken.
  short find_free_client_connection_point();

  // Streams a file to the client as the body of a download reply (the caller has sent the ten
  // frame digits). `path` is a client's path, confined to the root off the instrument (see
  // host/ConfinedPath.h). Chunks of 16384 bytes, each in a buffer of this transfer's own, with
  // a retry budget of 10 x the slot's WriteRecoveryAttempts waits of 1 ms for room in the
  // socket. 0 when the whole file was sent; -1 when the slot is free or the file is missing;
  // -2 when no buffer could be had or the file cannot be opened; the errno of a hard socket
  // error, after closing the slot; or the bytes sent when a chunk's budget ran out.
  int64_t TransferFile(uint16_t client, const char* path);
  // The same for a file the caller has open (read from its current offset; the descriptor
  // stays open), so that the file checked is the file sent. Exactly `size` bytes are sent:
  // a file that shrank meanwhile is made up with zeros, one that grew is cut, so that the
  // client's frame stays whole. `name` is for the console.
  int64_t TransferFile(uint16_t client, int fd, int64_t size, const char* name);

 private:
  // One accepted connection, shared by the slot table and every call using it; the descriptor
  // is closed when the last of them lets go.
  // The input side belongs to the slot's reader (its service thread) alone.
  struct CClientConnection {
    static constexpr size_t kInputBlock = 4096;  // bytes asked of one read
    int Fd = -1;
    std::string CmdBuffer;        // the command line being assembled
    char Input[kInputBlock];      // bytes read from the socket ...
    size_t InputStart = 0;        // ... of which those from here ...
    size_t InputEnd = 0;          // ... to here are not yet taken
    std::atomic<bool> bInTable{true};  // false once its slot let it go (set under TableLock)
    explicit CClientConnection(int fd) : Fd(fd) {}
    ~CClientConnection();
    // Moves buffered bytes into CmdBuffer; true when that completed a line.
    bool TakeLine();
    // True when the buffered bytes complete a line.
    bool LineBuffered() const;
  };
  using ConnectionPtr = std::shared_ptr<CClientConnection>;

  void CSocketConnectThread();
  void PinToCpu0IfBoardMarker();
  bool AcceptInto(short slot);
  int BindServerSocket();
  int ListenOnServerSocket();
  bool RetryBind();
  bool Stopping() const;
  bool WaitForWake(int timeoutMs);
  void WakeAcceptThread();
  void CloseWakeEvent();
  ConnectionPtr Lease(uint16_t client) const;
  int CloseSlot(uint16_t client, const CClientConnection* expected);
  int CloseAfterWriteError(uint16_t client, const CClientConnection* conn, int err);
  void PrintClientCount(int numClients);
  static void PrintSystemError(const char* prefix, int err);
  static std::string FormatAddress(const sockaddr_in& addr);

  // Kept as the start-up check that a chunk buffer can be had; every transfer allocates its own,
  // so that two clients downloading at once never mix their chunks.
  std::unique_ptr<uint8_t[]> FileXferBuffer;   // 16384 bytes; constructor
  bool bFileXferBufferAllocated = false;       // the allocation succeeded; constructor
  int Port = 0;                                // TCP port given to init; init
  int ServerSocket = -1;                       // listening descriptor; init, closed by Stop
  int WakeEvent = -1;                          // eventfd that wakes the accept thread (stop, slot freed); init, Stop; under TableLock
  bool bRetryBind = false;                     // a failed bind is retried every second; SetBindRetry
  bool bBindPending = false;                   // init's bind failed, the accept thread retries it; init
  sockaddr_in ServerAddress{};                 // bound address, port in network order; SetListenAddress, init
  socklen_t ServerAddressLength = 0;           // sizeof(sockaddr_in) once init has run
  std::thread cs_thread;                       // the accept thread; init, joined by Stop
  bool bAcceptThreadEnded = false;             // Stop has joined the accept thread

  mutable std::mutex TableLock;                // guards everything below up to the callbacks
  ConnectionPtr ClientSocket[kMaxClients];     // connection of each occupied slot; accept thread, close_client
  sockaddr_in ClientAddress[kMaxClients]{};    // peer of each slot; accept thread
  socklen_t ClientAddressLength[kMaxClients];  // accept's length in/out; accept thread
  uint16_t NumClients = 0;                     // occupied slots; accept thread, close_client
  bool bClientConnected[kMaxClients] = {};     // slot occupied; accept thread, close_client
  bool bClientClosing[kMaxClients] = {};       // close_client is running the pre-disconnect callback
  bool bStopping = false;                      // the accept thread must take no more clients; Stop, destructor
  bool bConnectCallbackSet = false;            // callbacks and their flags: the owner, any thread
  bool bPreDisconnectCallbackSet = false;
  bool bDisconnectCallbackSet = false;
  ClientCallback ConnectCallback;
  ClientCallback PreDisconnectCallback;
  ClientCallback DisconnectCallback;

  std::atomic<uint64_t> BytesSent[kMaxClients] = {};  // bytes written to each slot's clients since start; metrics
  std::atomic<uint32_t> WriteRecoveryAttempts[kMaxClients];  // EAGAIN retries per WriteData; session commands
  std::atomic<uint32_t> WriteRecoveryDelayUs[kMaxClients];   // us slept after each EAGAIN; session commands
};
