// How the server was started. With no argument it behaves as on the instrument: front panel,
// root "/", port 1852. Any argument suppresses the front panel; the workstation options are
// arguments too. Arguments that are not options are accepted and ignored, as the instrument
// has always done (any argument only suppresses the window).
#pragma once

#include <string>

struct CServerOptions {
  std::string Root = "/";       // the directory that stands for "/"
  int Port = 1852;              // TCP command port
  std::string ListenAddress;    // address to bind; empty = any (127.0.0.1 once --root is given)
  bool bForceSim = false;       // use the simulated card even where "/dev/vr480" exists
  std::string SceneFile;        // the simulated card's scene; empty = <root>/vr480/sim_scene.txt, else built in
  bool bFreeRun = false;        // the simulated card records as fast as the server takes records
  double TimeScale = 1.0;       // the simulated card's clock runs this many times faster than real time
  int HttpPort = 0;             // read-only HTTP status page and metrics; 0 = off
  bool bNoShellCommands = false;  // #SYSTEM and #NTPQ answer a refusal, even on the instrument
  bool bFrontPanel = true;      // show the front panel
  bool bHelp = false;           // print the usage and exit
};

// Parses the command line. Returns false with a message in `error` for a bad option.
bool ParseOptions(int argc, char** argv, CServerOptions& options, std::string& error);
const char* UsageText();

// Prepares a workstation root: "vr480/", "tmp/" and "dev/" inside it, and the baseline tag file
// that gives the simulated laser its drive, scan amplitude and loops when the root has none.
bool PrepareWorkstationRoot(const std::string& root, std::string& error);

extern CServerOptions ServerOptions;
