// vr480-bridge's command line. What it publishes is described in Bridge.h.
#include <signal.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <type_traits>

#include "Bridge.h"

namespace {

using namespace vr480bridge;

constexpr const char* kUsage =
    "usage: vr480-bridge --broker HOST:PORT [options] NAME=HOST:PORT ...\n"
    "       vr480-bridge --broker HOST:PORT [options] --config FILE\n"
    "\n"
    "  --config FILE     instruments, one a line: name host port [channels]\n"
    "  --id ID           this bridge's name in vr480/bridge/ID/status (default: the host name)\n"
    "  --batch N         records per message (default 200)\n"
    "  --flush-ms MS     send a batch once its first record is this old (default 100)\n"
    "  --rate HZ         sensors messages per second (default 10, 0 none)\n"
    "  --queue N         batches kept per instrument while the broker lags (default 2000)\n"
    "  --status-s S      seconds between status messages (default 3)\n"
    "  --settle-s S      after the broker comes back, seconds before records flow again (default 3)\n";

// ---- Command line ------------------------------------------------------------------------------------

bool SplitHostPort(const std::string& text, std::string* host, int* port) {
  const size_t colon = text.rfind(':');
  if (colon == std::string::npos || colon == 0) return false;
  *host = text.substr(0, colon);
  *port = std::atoi(text.c_str() + colon + 1);
  return *port > 0 && *port < 65536;
}

bool ParseChannels(const std::string& text, std::set<int>* out) {
  if (text == "all") return true;
  std::stringstream s(text);
  std::string item;
  while (std::getline(s, item, ',')) {
    const size_t dot = item.find('.');
    const int c = std::atoi(item.c_str()), m = dot == std::string::npos ? 0 : std::atoi(item.c_str() + dot + 1);
    const int legacy = dot == std::string::npos ? c : 4 * m + c - 4;
    if (legacy < 1 || legacy > 16 || (dot != std::string::npos && (c < 1 || c > 4 || m < 1 || m > 4))) return false;
    out->insert(legacy);
  }
  return true;
}

bool ValidName(const std::string& n) {
  return !n.empty() && n != "bridge" && n.find_first_of("/+# ") == std::string::npos;
}

bool ParseArgs(int argc, char** argv, SOptions* o, std::vector<std::unique_ptr<SInstrument>>* list) {
  auto add = [&](const std::string& name, const std::string& host, int port, const std::string& channels) {
    auto in = std::make_unique<SInstrument>();
    in->Name = name, in->Host = host, in->Port = port;
    if (!ValidName(name) || port <= 0 || port > 65535 || !ParseChannels(channels, &in->Channels)) {
      Log("bad instrument: %s %s %d %s", name.c_str(), host.c_str(), port, channels.c_str());
      return false;
    }
    list->push_back(std::move(in));
    return true;
  };
  for (int i = 1; i < argc; ++i) {
    const std::string a = argv[i];
    const char* v = i + 1 < argc ? argv[i + 1] : nullptr;
    auto number = [&](auto* out, double low) {
      if (!v || std::atof(v) < low) return false;
      *out = static_cast<std::remove_pointer_t<decltype(out)>>(std::atof(v));
      ++i;
      return true;
    };
    if (a == "--broker") {
      if (!v || !SplitHostPort(v, &o->BrokerHost, &o->BrokerPort)) return false;
      ++i;
    } else if (a == "--id") {
      if (!v || !ValidName(v)) return false;
      o->Id = v, ++i;
    } else if (a == "--batch") {
      if (!number(&o->Batch, 1)) return false;
    } else if (a == "--flush-ms") {
      if (!number(&o->FlushMs, 1)) return false;
    } else if (a == "--rate") {
      if (!number(&o->Rate, 0)) return false;
    } else if (a == "--queue") {
      if (!number(&o->Queue, 1)) return false;
    } else if (a == "--settle-s") {
      if (!number(&o->SettleSeconds, 0)) return false;
    } else if (a == "--status-s") {
      if (!number(&o->StatusSeconds, 1)) return false;
    } else if (a == "--config") {
      if (!v) return false;
      std::ifstream f(argv[++i]);
      if (!f) {
        Log("cannot read %s", v);
        return false;
      }
      for (std::string line; std::getline(f, line);) {
        line = line.substr(0, line.find('#'));
        std::istringstream words(line);
        std::string name, host, channels = "all";
        int port = 0;
        if (!(words >> name)) continue;
        words >> host >> port >> channels;
        if (!add(name, host, port, channels)) return false;
      }
    } else if (a == "--help" || a == "-h") {
      std::fputs(kUsage, stdout);
      std::exit(0);
    } else if (const size_t eq = a.find('='); eq != std::string::npos && a.rfind("--", 0) != 0) {
      std::string host;
      int port = 0;
      if (!SplitHostPort(a.substr(eq + 1), &host, &port) || !add(a.substr(0, eq), host, port, "all")) return false;
    } else {
      Log("unknown argument %s", a.c_str());
      return false;
    }
  }
  std::set<std::string> names;
  for (auto& in : *list)
    if (!names.insert(in->Name).second) {
      Log("instrument %s named twice", in->Name.c_str());
      return false;
    }
  return !list->empty();
}

}  // namespace

int main(int argc, char** argv) {
  SOptions o;
  std::vector<std::unique_ptr<SInstrument>> list;
  if (!ParseArgs(argc, argv, &o, &list)) {
    std::fputs(kUsage, stderr);
    return 64;
  }
  // Only the main thread takes the stop signals; every thread started later inherits the mask.
  sigset_t stop;
  sigemptyset(&stop);
  sigaddset(&stop, SIGINT);
  sigaddset(&stop, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &stop, nullptr);
  ::signal(SIGPIPE, SIG_IGN);
  return CBridge(o, std::move(list)).Run();
}
