#include "server/Options.h"

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <filesystem>

#include "host/Host.h"
#include "sim/SimCard.h"

CServerOptions ServerOptions;

namespace {

bool NeedsValue(int i, int argc, const std::string& name, std::string& error) {
  if (i + 1 < argc) return true;
  error = "option " + name + " needs a value";
  return false;
}

// A port number from 1 to `highest`; false with a message naming `what` otherwise.
bool ParsePort(const char* text, long highest, const char* what, int& port, std::string& error) {
  char* end = nullptr;
  errno = 0;
  const long value = std::strtol(text, &end, 10);
  if (errno != 0 || end == text || *end != '\0' || value < 1 || value > highest) {
    error = std::string("invalid ") + what + " '" + text + "' (1-" + std::to_string(highest) + ")";
    return false;
  }
  port = static_cast<int>(value);
  return true;
}

}  // namespace

const char* UsageText() {
  return "Usage: vr480d [options]\n"
         "Instrument server of the vr480 interrogator. With no argument it runs as on the\n"
         "instrument: front panel on, root \"/\", command port 1852.\n"
         "\n"
         "  --root DIR       directory that stands for \"/\" (created with vr480/ and tmp/)\n"
         "  --port N         TCP command port (1-9999, default 1852)\n"
         "  --listen ADDR    address to bind (default: any; 127.0.0.1 with --root)\n"
         "  --http-port N    serve a read-only status page, JSON and metrics on port N\n"
         "                   (1-65535; off by default; bound to the --listen address)\n"
         "  --sim            use the simulated card even if /dev/vr480 exists\n"
         "  --scene FILE     scene of the simulated card (default <root>/vr480/sim_scene.txt)\n"
         "  --free-run       the simulated card records as fast as the server takes its\n"
         "                   records (load tests; only with the simulated card)\n"
         "  --time-scale F   the simulated card runs F times faster than real time (0.01-1000)\n"
         "  --front-panel    show the front panel although arguments were given\n"
         "  --no-shell-commands  refuse #SYSTEM and #NTPQ (no remote shell on this network)\n"
         "  --help           print this text\n"
         "\n"
         "SIGINT and SIGTERM stop the server as \"#QUIT!\" does.\n";
}

bool ParseOptions(int argc, char** argv, CServerOptions& options, std::string& error) {
  bool rootGiven = false;
  options.bFrontPanel = argc <= 1;
  for (int i = 1; i < argc; ++i) {
    std::string arg = argv[i];
    if (arg == "--help" || arg == "-h") {
      options.bHelp = true;
    } else if (arg == "--root") {
      if (!NeedsValue(i, argc, arg, error)) return false;
      options.Root = argv[++i];
      rootGiven = true;
    } else if (arg == "--port") {
      if (!NeedsValue(i, argc, arg, error) || !ParsePort(argv[++i], 9999, "port", options.Port, error)) return false;
    } else if (arg == "--listen") {
      if (!NeedsValue(i, argc, arg, error)) return false;
      options.ListenAddress = argv[++i];
    } else if (arg == "--http-port") {
      if (!NeedsValue(i, argc, arg, error) || !ParsePort(argv[++i], 65535, "HTTP port", options.HttpPort, error))
        return false;
    } else if (arg == "--sim") {
      options.bForceSim = true;
    } else if (arg == "--scene") {
      if (!NeedsValue(i, argc, arg, error)) return false;
      options.SceneFile = argv[++i];
    } else if (arg == "--free-run") {
      options.bFreeRun = true;
    } else if (arg == "--time-scale") {
      if (!NeedsValue(i, argc, arg, error)) return false;
      const char* text = argv[++i];
      char* end = nullptr;
      const double scale = std::strtod(text, &end);
      if (end == text || *end != '\0' || !(scale >= 0.01 && scale <= 1000.0)) {
        error = std::string("invalid time scale '") + text + "' (0.01-1000)";
        return false;
      }
      options.TimeScale = scale;
    } else if (arg == "--no-shell-commands") {
      options.bNoShellCommands = true;
    } else if (arg == "--front-panel") {
      options.bFrontPanel = true;
    } else if (arg.rfind("--", 0) == 0) {
      error = "unknown option " + arg;
      return false;
    }
    // Any other argument only suppresses the front panel.
  }
  if (rootGiven && options.ListenAddress.empty()) options.ListenAddress = "127.0.0.1";
  return true;
}

bool PrepareWorkstationRoot(const std::string& root, std::string& error) {
  CHost host(root);
  if (host.IsInstrument()) return true;
  std::error_code ec;
  for (const char* dir : {"/vr480", "/tmp", "/dev"}) {
    std::filesystem::create_directories(host.Path(dir), ec);
    if (ec) {
      error = "cannot create " + host.Path(dir) + ": " + ec.message();
      return false;
    }
  }
  // A new root gets the laser-specific settings a real instrument carries in its tag file;
  // without them the simulated laser would sweep with no amplitude and see no peaks.
  const std::string tagFile = host.Path("/vr480/vr480.tag");
  if (!sim::EnsureBaselineTagFile(tagFile)) {
    error = "cannot write " + tagFile;
    return false;
  }
  return true;
}
