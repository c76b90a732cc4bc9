// A TCP client of the command protocol for tests: it sends command lines and decodes reply
// frames (ten decimal digits giving the body length, then the body). Shares no code with the
// server's framing, so a framing fault on either side shows.
#pragma once

#include <chrono>
#include <string>

class CTestClient {
 public:
  CTestClient() = default;
  // `receiveBuffer` > 0 shrinks the socket's receive buffer (a reader that stalls then fills
  // the server's send path quickly).
  explicit CTestClient(int port, std::chrono::milliseconds connectTimeout = std::chrono::seconds(60), int receiveBuffer = 0);
  ~CTestClient();
  CTestClient(const CTestClient&) = delete;
  CTestClient& operator=(const CTestClient&) = delete;

  // Connects to 127.0.0.1:port, retrying until the timeout (the server may still be starting).
  bool Connect(int port, std::chrono::milliseconds timeout = std::chrono::seconds(60), int receiveBuffer = 0);
  bool Connected() const { return Fd >= 0; }
  int Descriptor() const { return Fd; }
  void Close();
  // Closes with a reset instead of an orderly end: the server's next read or write fails at once.
  void Abort();

  // Sends `line` followed by a line feed.
  bool Send(const std::string& line);
  bool SendRaw(const std::string& bytes);
  // Reads exactly n bytes (false on time-out or a closed connection, *closed telling which; on
  // failure *out holds what did arrive).
  bool ReadExact(size_t n, std::string* out, std::chrono::milliseconds timeout = std::chrono::seconds(10),
                 bool* closed = nullptr);
  // Reads one frame and returns its body; *ok is false on time-out, a closed connection or a
  // malformed length.
  std::string ReadFrame(bool* ok = nullptr, std::chrono::milliseconds timeout = std::chrono::seconds(10));
  // Sends a command and returns the body of its reply frame.
  std::string Command(const std::string& line, std::chrono::milliseconds timeout = std::chrono::seconds(10));
  // True when nothing arrives within the wait.
  bool Silent(std::chrono::milliseconds wait);

 private:
  int Fd = -1;
};
