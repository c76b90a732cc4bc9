// vr480-cli: a command-line client of the instrument server.
//
//   vr480-cli [--host H] [--port P] [--timeout S] [--values] COMMAND...
//   vr480-cli [--host H] [--port P] [--timeout S] [--csv] --stream N [COMMAND...]
//   vr480-cli [--host H] [--port P] [--timeout S] [--values]            (commands from standard input)
//
// Every reply arrives in a frame: ten decimal digits giving the body's length, then the body.
// A text reply is printed as it stands; a binary reply (measurement records, the card's raw
// record, spectra) as a one-line summary of what it holds. With --stream the client turns
// streaming on and prints the sweep counter and sensor count of each of N records (or, with
// --csv, one line of time, sweep, status and each sensor's wavelength in nm under the column
// names the recorder uses, "c.m/n"), then ends the stream
// and waits for its end token.
//
// Exit status: 0 when all went well, 1 when a reply began with "!", 2 when the connection
// could not be made or was lost, 3 when a reply did not arrive within the time-out, 64 for a
// usage error.
//
// Standalone on purpose: it knows the wire format from its documentation, not from the
// server's code, so it also checks the server.
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <map>
#include <string>
#include <vector>

namespace {

enum : int { kExitOk = 0, kExitBang = 1, kExitConnection = 2, kExitTimeout = 3, kExitUsage = 64 };

constexpr const char* kUsage =
    "usage: vr480-cli [--host H] [--port P] [--timeout S] [--values] COMMAND...\n"
    "       vr480-cli [--host H] [--port P] [--timeout S] [--csv] --stream N [COMMAND...]\n"
    "       vr480-cli [--host H] [--port P] [--timeout S] [--values]   (commands from standard input)\n"
    "\n"
    "  --host H      server address (default 127.0.0.1)\n"
    "  --port P      command port (default 1852)\n"
    "  --timeout S   seconds to wait for a reply (default 10)\n"
    "  --values      also print the wavelengths (nm) of a measurement record\n"
    "  --stream N    stream N records, printing sweep counter and sensor count of each\n"
    "  --csv         while streaming: time,sweep,status and one column per sensor (c.m/n, nm)\n"
    "\n"
    "Exit status: 0 ok, 1 a reply began with \"!\", 2 connection failed or lost, 3 no reply in time.\n";

// ---- Reading the wire format ------------------------------------------------------------------

uint32_t U8(const std::string& b, size_t at) { return static_cast<uint8_t>(b[at]); }
uint32_t U16(const std::string& b, size_t at) { return U8(b, at) | U8(b, at + 1) << 8; }
uint32_t U32(const std::string& b, size_t at) { return U16(b, at) | U16(b, at + 2) << 16; }

// A measurement record: the 88-byte header, one i32 wavelength per sensor (units of
// 1/granularity nm), then (levels replies) one u16 level per peak of the amplitude channel.
struct SRecordView {
  const std::string& B;
  uint32_t Type() const { return U8(B, 7) >> 4; }
  uint32_t Status() const { return U8(B, 47); }
  uint32_t Sweep() const { return U32(B, 28); }
  uint32_t FreePercent() const { return U8(B, 48); }
  uint32_t Granularity() const { return U32(B, 72); }
  uint32_t Count(int ch) const { return U16(B, 16 + 2 * ch); }
  uint32_t Sensors() const { return Count(0) + Count(1) + Count(2) + Count(3); }
  uint32_t AmplitudeChannel() const { return U8(B, 3) & 0x07; }
  double Nm(uint32_t i) const {
    const uint32_t g = Granularity();
    return g ? static_cast<int32_t>(U32(B, 88 + 4 * i)) / static_cast<double>(g) : 0.0;
  }
  bool NoData() const { return B.size() == 88 && Status() == 9 && Sweep() == 0; }
};

std::string Upper(std::string s) {
  for (char& c : s) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
  return s;
}

// The command word of a line, as the server takes it (upper case, up to a blank or "=").
std::string CommandWord(const std::string& line) {
  size_t start = line.find_first_not_of(" \t\r");
  if (start == std::string::npos) return "";
  size_t end = line.find_first_of(" \t\r=", start);
  return Upper(line.substr(start, end == std::string::npos ? std::string::npos : end - start));
}

// Commands whose reply is binary; every other reply is text unless it holds control bytes.
bool IsBinaryCommand(const std::string& command) {
  static const char* const kBinary[] = {"#GET_DATA",         "#GET_DATA_AND_LEVELS", "#GET_UNBUFFERED_DATA",
                                        "#GET_UNBUFFERED_DATA_AND_LEVELS", "#GET_WVL_LVL_CNTS",
                                        "#GET_RAW_DATA",     "#GET_HIGH_SPEED_FS",   "#GET_SPECTRUM",
                                        "#GET_RAW_SPECTRUM"};
  for (const char* b : kBinary)
    if (command == b) return true;
  return false;
}

bool LooksLikeText(const std::string& body) {
  for (unsigned char c : body)
    if (c < 0x20 && c != '\n' && c != '\r' && c != '\t') return false;
  return true;
}

std::string Summarize(const std::string& command, const std::string& body, bool values) {
  char line[256];
  const size_t n = body.size();
  const bool record = command == "#GET_DATA" || command == "#GET_DATA_AND_LEVELS" ||
                      command == "#GET_UNBUFFERED_DATA" || command == "#GET_UNBUFFERED_DATA_AND_LEVELS";
  if ((record || command == "#GET_WVL_LVL_CNTS") && n >= 88) {
    const SRecordView r{body};
    if (r.NoData()) return "no new data (88-byte header, status 9)";
    const uint32_t t = r.Sensors();
    const bool counts = command == "#GET_WVL_LVL_CNTS";
    const size_t tail = n - 88 - 4 * t - (counts ? 4 * t : 0);
    std::snprintf(line, sizeof line, "%s: %zu bytes, type %u, status %u, sweep %u, free %u%%, sensors %u (%u %u %u %u)",
                  counts ? "record with counts" : "record", n, r.Type(), r.Status(), r.Sweep(), r.FreePercent(), t,
                  r.Count(0), r.Count(1), r.Count(2), r.Count(3));
    std::string out = line;
    if (r.Type() == 5 || counts) {
      std::snprintf(line, sizeof line, ", levels %zu of channel %u", tail / 2, r.AmplitudeChannel());
      out += line;
    }
    for (uint32_t i = 0; values && i < t && 88 + 4 * (i + 1) <= n; ++i) {
      std::snprintf(line, sizeof line, "%s%.6f", i ? " " : "\n  nm: ", r.Nm(i));
      out += line;
      if (counts) {
        std::snprintf(line, sizeof line, " (count %d)", static_cast<int32_t>(U32(body, n - 4 * t + 4 * i)));
        out += line;
      }
    }
    return out;
  }
  if (command == "#GET_RAW_DATA" && n == 6176) {
    std::snprintf(line, sizeof line,
                  "raw peaks record: %zu bytes, sweep %u, record %u, peaks: grating %u, comb %u, channels %u %u %u %u",
                  n, U32(body, 28), U16(body, 24), U16(body, 12), U16(body, 14), U16(body, 16), U16(body, 18),
                  U16(body, 20), U16(body, 22));
    return line;
  }
  if (command == "#GET_HIGH_SPEED_FS") {
    if (n == 0) return "high-speed spectrum: empty (full-spectrum acquisition off)";
    std::snprintf(line, sizeof line, "high-speed spectrum: %zu samples", n / 2);
    return line;
  }
  if (command == "#GET_SPECTRUM" || command == "#GET_RAW_SPECTRUM") {
    const char* kind = command == "#GET_SPECTRUM" ? "spectrum" : "raw spectrum";
    if (n < 88) {
      std::snprintf(line, sizeof line, "%s: empty", kind);
      return line;
    }
    std::snprintf(line, sizeof line, "%s: %zu bytes, type %u, %zu points, sweep %u, free %u%%", kind, n, U8(body, 7) >> 4,
                  (n - 88) / 2, U32(body, 28), U8(body, 48));
    return line;
  }
  std::snprintf(line, sizeof line, "binary reply: %zu bytes", n);
  return line;
}

// ---- The connection --------------------------------------------------------------------------

class CConnection {
 public:
  ~CConnection() {
    if (Fd >= 0) ::close(Fd);
  }

  bool Open(const std::string& host, const std::string& port) {
    addrinfo hints{};
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* list = nullptr;
    if (const int err = ::getaddrinfo(host.c_str(), port.c_str(), &hints, &list); err != 0) {
      std::fprintf(stderr, "vr480-cli: %s:%s: %s\n", host.c_str(), port.c_str(), gai_strerror(err));
      return false;
    }
    for (addrinfo* a = list; a && Fd < 0; a = a->ai_next) {
      const int fd = ::socket(a->ai_family, a->ai_socktype | SOCK_CLOEXEC, a->ai_protocol);
      if (fd < 0) continue;
      if (::connect(fd, a->ai_addr, a->ai_addrlen) == 0) {
        int one = 1;
        ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
        Fd = fd;
      } else {
        ::close(fd);
      }
    }
    ::freeaddrinfo(list);
    if (Fd < 0) std::fprintf(stderr, "vr480-cli: cannot connect to %s:%s: %s\n", host.c_str(), port.c_str(), std::strerror(errno));
    return Fd >= 0;
  }

  bool SendLine(const std::string& line) {
    const std::string bytes = line + "\n";
    size_t sent = 0;
    while (sent < bytes.size()) {
      const ssize_t n = ::send(Fd, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
      if (n < 0 && errno == EINTR) continue;
      if (n <= 0) return Lost();
      sent += static_cast<size_t>(n);
    }
    return true;
  }

  // Reads one frame's body. kExitOk, kExitConnection or kExitTimeout.
  int ReadFrame(std::string* body) {
    std::string digits;
    if (const int r = ReadExact(10, &digits); r != kExitOk) return r;
    size_t length = 0;
    for (char d : digits) {
      if (d < '0' || d > '9') {
        std::fprintf(stderr, "vr480-cli: malformed frame length \"%s\"\n", digits.c_str());
        return kExitConnection;
      }
      length = length * 10 + static_cast<size_t>(d - '0');
    }
    return ReadExact(length, body);
  }

  int TimeoutSeconds = 10;

 private:
  bool Lost() {
    std::fprintf(stderr, "vr480-cli: connection lost\n");
    return false;
  }

  // The time-out applies to each wait for more bytes: a long body that keeps arriving is fine.
  int ReadExact(size_t n, std::string* out) {
    out->clear();
    char buf[65536];
    while (out->size() < n) {
      pollfd p{Fd, POLLIN, 0};
      const int r = ::poll(&p, 1, TimeoutSeconds * 1000);
      if (r < 0 && errno == EINTR) continue;
      if (r == 0) {
        std::fprintf(stderr, "vr480-cli: no reply within %d s\n", TimeoutSeconds);
        return kExitTimeout;
      }
      const ssize_t got = ::recv(Fd, buf, std::min(sizeof buf, n - out->size()), 0);
      if (got < 0 && errno == EINTR) continue;
      if (got <= 0) {
        Lost();
        return kExitConnection;
      }
      out->append(buf, static_cast<size_t>(got));
    }
    return kExitOk;
  }

  int Fd = -1;
};

// ---- What the client does ---------------------------------------------------------------------

struct SOptions {
  std::string Host = "127.0.0.1";
  std::string Port = "1852";
  int TimeoutSeconds = 10;
  long Stream = -1;  // records to stream, -1 no streaming
  bool Csv = false;
  bool Values = false;
  std::string Command;  // the words of COMMAND joined by blanks; empty: read standard input
};

// Sends one command line and prints its reply. Returns the exit status it calls for.
int RunCommand(CConnection& conn, const std::string& line, bool values) {
  if (!conn.SendLine(line)) return kExitConnection;
  std::string body;
  if (const int r = conn.ReadFrame(&body); r != kExitOk) return r;
  const std::string command = CommandWord(line);
  const bool binary = IsBinaryCommand(command);
  if (body.empty()) {
    std::puts(binary ? Summarize(command, body, values).c_str() : "(empty reply)");
  } else if (LooksLikeText(body) && (!binary || body[0] == '!')) {
    std::fwrite(body.data(), 1, body.size(), stdout);
    if (body.back() != '\n') std::fputc('\n', stdout);
  } else {
    std::puts(Summarize(command, body, values).c_str());
  }
  std::fflush(stdout);
  return !body.empty() && body[0] == '!' ? kExitBang : kExitOk;
}

// CSV columns as the recorder names them: time (seconds since the epoch, when the record was
// received), sweep, status, then one column per sensor "c.m/n" (fibre c, multiplexer position
// m, sensor n from 1) in nm. The columns grow as records show sensors not seen before (other
// multiplexer layers); each growth prints a new header line, and a record leaves the columns of
// sensors it did not report empty.
class CCsvColumns {
 public:
  void Print(const SRecordView& r, double time) {
    const int layer = U8(r.B, 6) & 0x03;
    bool grown = Layout.empty();
    for (int ch = 0; ch < 4; ++ch) {
      uint32_t& n = Layout[{layer, ch}];
      if (r.Count(ch) > n) {
        n = r.Count(ch);
        grown = true;
      }
    }
    if (grown) {
      std::printf("time,sweep,status");
      for (const auto& [key, n] : Layout)
        for (uint32_t j = 1; j <= n; ++j) std::printf(",%d.%d/%u", key.second + 1, key.first + 1, j);
      std::printf("\n");
    }
    std::printf("%.6f,%u,%u", time, r.Sweep(), r.Status());
    for (const auto& [key, n] : Layout) {
      // The record's values start at its channel's first sensor; other layers' columns stay empty.
      uint32_t first = 0;
      for (int ch = 0; ch < key.second; ++ch) first += r.Count(ch);
      const uint32_t have = key.first == layer ? r.Count(key.second) : 0;
      for (uint32_t j = 0; j < n; ++j) {
        if (j < have && 88 + 4 * (first + j + 1) <= r.B.size()) std::printf(",%.6f", r.Nm(first + j));
        else std::printf(",");
      }
    }
    std::printf("\n");
  }

 private:
  std::map<std::pair<int, int>, uint32_t> Layout;  // (layer, channel) -> sensors, layer-major
};

void PrintStreamed(const std::string& record, CCsvColumns* csv) {
  const SRecordView r{record};
  if (record.size() < 88) {
    std::printf("short record (%zu bytes)\n", record.size());
  } else if (r.NoData()) {
    std::printf(csv ? "# no new data\n" : "no new data\n");
  } else if (csv) {
    const double now = std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch()).count();
    csv->Print(r, now);
  } else if (r.Status() != 0) {
    std::printf("sweep %u sensors %u status %u\n", r.Sweep(), r.Sensors(), r.Status());
  } else {
    std::printf("sweep %u sensors %u\n", r.Sweep(), r.Sensors());
  }
}

// Streams `count` records with stream tokens: each frame's declared length includes the
// 8-byte token that follows the record, "XXXXXXXX" while the stream goes on, "ZZZZZZZZ" after
// the last record once streaming is switched off.
int Stream(CConnection& conn, long count, bool csv) {
  std::string body;
  if (!conn.SendLine("#SET_USE_STREAM_TOKENS 1")) return kExitConnection;
  if (const int r = conn.ReadFrame(&body); r != kExitOk) return r;
  if (!conn.SendLine("#SET_STREAMING_DATA 1")) return kExitConnection;
  if (const int r = conn.ReadFrame(&body); r != kExitOk) return r;
  if (body.rfind("Streaming data enabled.", 0) != 0) {
    std::fprintf(stderr, "vr480-cli: streaming was not switched on: %s\n", body.c_str());
    return kExitBang;
  }
  CCsvColumns columns;
  for (long n = 0; n < count;) {
    if (const int r = conn.ReadFrame(&body); r != kExitOk) return r;
    if (body.size() < 8) {
      std::fprintf(stderr, "vr480-cli: frame without a stream token (%zu bytes)\n", body.size());
      return kExitConnection;
    }
    const std::string record = body.substr(0, body.size() - 8);
    PrintStreamed(record, csv ? &columns : nullptr);
    if (!SRecordView{record}.NoData()) ++n;
  }
  std::fflush(stdout);
  if (!conn.SendLine("#SET_STREAMING_DATA 0")) return kExitConnection;
  // Records keep coming until the command is served; the last one carries the end token.
  for (;;) {
    if (const int r = conn.ReadFrame(&body); r != kExitOk) return r;
    if (body.size() >= 8 && body.compare(body.size() - 8, 8, "ZZZZZZZZ") == 0) return kExitOk;
  }
}

bool ParseArgs(int argc, char** argv, SOptions& o) {
  std::vector<std::string> words;
  for (int i = 1; i < argc; ++i) {
    const std::string a = argv[i];
    auto value = [&](const char* name) -> const char* {
      if (i + 1 >= argc) {
        std::fprintf(stderr, "vr480-cli: %s needs a value\n", name);
        return nullptr;
      }
      return argv[++i];
    };
    if (!words.empty()) {
      words.push_back(a);  // everything after the command word belongs to the command
    } else if (a == "--host") {
      const char* v = value("--host");
      if (!v) return false;
      o.Host = v;
    } else if (a == "--port") {
      const char* v = value("--port");
      if (!v) return false;
      o.Port = v;
    } else if (a == "--timeout") {
      const char* v = value("--timeout");
      if (!v || std::atoi(v) <= 0) return false;
      o.TimeoutSeconds = std::atoi(v);
    } else if (a == "--stream") {
      const char* v = value("--stream");
      if (!v || std::atol(v) <= 0) return false;
      o.Stream = std::atol(v);
    } else if (a == "--csv") {
      o.Csv = true;
    } else if (a == "--values") {
      o.Values = true;
    } else if (a == "--help" || a == "-h") {
      std::fputs(kUsage, stdout);
      std::exit(kExitOk);
    } else if (a.rfind("--", 0) == 0) {
      std::fprintf(stderr, "vr480-cli: unknown option %s\n", a.c_str());
      return false;
    } else {
      words.push_back(a);
    }
  }
  for (const auto& w : words) o.Command += (o.Command.empty() ? "" : " ") + w;
  return true;
}

}  // namespace

int main(int argc, char** argv) {
  SOptions o;
  if (!ParseArgs(argc, argv, o)) {
    std::fputs(kUsage, stderr);
    return kExitUsage;
  }
  CConnection conn;
  conn.TimeoutSeconds = o.TimeoutSeconds;
  if (!conn.Open(o.Host, o.Port)) return kExitConnection;

  if (o.Stream > 0) {
    if (!o.Command.empty()) {
      const int r = RunCommand(conn, o.Command, o.Values);
      if (r != kExitOk) return r;
    }
    return Stream(conn, o.Stream, o.Csv);
  }
  if (!o.Command.empty()) return RunCommand(conn, o.Command, o.Values);

  // Interactive: one command per line; a blank line gets no reply from the server, so it is
  // not sent. The status is that of the worst reply.
  const bool tty = ::isatty(STDIN_FILENO);
  int status = kExitOk;
  std::string line;
  for (;;) {
    if (tty) std::fputs("vr480> ", stderr);
    if (!std::getline(std::cin, line)) break;
    if (line.find_first_not_of(" \t\r") == std::string::npos) continue;
    const int r = RunCommand(conn, line, o.Values);
    if (r == kExitConnection) return r;
    if (r != kExitOk && status == kExitOk) status = r;
  }
  return status;
}
