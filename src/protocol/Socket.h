// The TCP command server (ten client slots on port 1852). Its accept thread and slot table
// arrive with the client protocol; until then the server has no network listener.
#pragma once

class CSocket {
 public:
  CSocket() = default;
  // Number of connected clients (the stop path waits for it to reach 0).
  int GetNumClients() const { return 0; }
};
