// A TCP client of the command protocol for tests: it sends command lines and decodes reply
// frames (ten decimal digits giving the body length, then the body). Shares no code with the
// server's framing, so a framing fault on either side shows.
#pragma once

#include <chrono>
#include <string>

class CTestClient {
 public:
  CTestClient() = default;
  explicit CTestClient(int port, std::chrono::milliseconds connectTimeout = std::chrono::seconds(20));
  ~CTestClient();
  CTestClient(const CTestClient&) = delete;
  CTestClient& operator=(const CTestClient&) = delete;

  // Connects to 127.0.0.1:port, retrying until the timeout (the server may still be starting).
  bool Connect(int port, std::chrono::milliseconds timeout = std::chrono::seconds(20));
  bool Connected() const { return Fd >= 0; }
  void Close();

  // Sends `line` followed by a line feed.
  bool Send(const std::string& line);
  bool SendRaw(const std::string& bytes);
  // Reads exactly n bytes (false on time-out or a closed connection).
  bool ReadExact(size_t n, std::string* out, std::chrono::milliseconds timeout = std::chrono::seconds(10));
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
