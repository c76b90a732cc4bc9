// A real vr480d on its own root with a scene of the test's own, started once per fixture and
// stopped with SIGTERM at the end. Started() tells whether it reached the end of start-up.
#pragma once

#include <signal.h>

#include <chrono>
#include <memory>
#include <string>

#include "support/ServerProcess.h"
#include "support/TempDir.h"

class CSceneServer {
 public:
  explicit CSceneServer(const std::string& scene) {
    WriteFile(Root / "scene.txt", scene);
    Server = std::make_unique<CServerProcess>(Root.Path(), FreePort(), std::vector<std::string>{"--scene", Root / "scene.txt"});
    // The offset line ends start-up: the laser is set and clients see complete identification.
    bStarted = Server->WaitForOutput("**FsCountOffset = ", std::chrono::seconds(60)) &&
               Server->WaitForOutput("**\n", std::chrono::seconds(2));
  }
  ~CSceneServer() {
    if (Server) Server->Stop(SIGTERM);
  }
  bool Started() const { return bStarted; }
  CServerProcess* Process() { return Server.get(); }

 private:
  CTempDir Root;
  std::unique_ptr<CServerProcess> Server;
  bool bStarted = false;
};
