// One connection to an instrument's command port: command lines out, frames in (ten decimal
// digits giving the body's length, then the body).
#pragma once

#include <optional>
#include <string>

namespace vr480bridge {

class CLink {
 public:
  ~CLink() { Close(); }
  // Closes with a reset: when the instrument went away first, its side of the connection then
  // ends at once instead of lingering, and a restarted server can listen on its port again.
  void Close();
  // Connects, giving up after two seconds; keepalive notices a dead host within ten.
  bool Open(const std::string& host, int port);
  bool Send(const std::string& line);
  // The next frame's body into *body: 1 a frame, 0 none within wait, -1 the connection failed.
  int Frame(std::string* body, int waitMs);
  // A command's text reply; nullopt on a lost connection or no reply within ten seconds.
  std::optional<std::string> Ask(const std::string& line, int waitMs = 10000);
  bool IsOpen() const { return Fd >= 0; }

 private:
  int Fd = -1;
  std::string In;
  size_t At = 0;
};

}  // namespace vr480bridge
