// vr480-bridge: carries the records of many instruments into an MQTT broker.
//
//   vr480-bridge --broker HOST:PORT [options] NAME=HOST:PORT ...
//   vr480-bridge --broker HOST:PORT [options] --config FILE
//
// The config file has one instrument a line, "name host port [channels]", where channels is
// "all" (the default) or a comma-separated list of the channels to show in the sensors topic,
// in dot notation ("1.1,2.1") or legacy numbers ("1,5"); "#" starts a comment.
//
// Each instrument is read by its own thread over one connection, streaming with tokens on and
// the server's ring enabled; a second connection asks for its status every few seconds. One
// MQTT client publishes for all of them from a thread of its own, so a slow or absent broker
// only fills the per-instrument queues and never holds up reading an instrument.
//
// Topics (NAME from the command line or the config file; ID from --id, the host name by default):
//
//   vr480/NAME/records   QoS 1, one message per batch of records (--batch, default 200; a batch
//                        also goes out when its first record is --flush-ms old), binary,
//                        little-endian:
//                          0  "VR48"
//                          4  u8  version (1)
//                          5  u8  flags: bit 0 set when the instrument's sweep counter went back
//                                 before the first record (the instrument restarted)
//                          6  u16 header length in bytes (32; records start there)
//                          8  u32 sweep counter of the first record
//                         12  u32 sweep counter of the last record
//                         16  u32 number of records
//                         20  u32 sweeps missing right before the first record (a batch
//                                 never spans a gap)
//                         24  u64 when the bridge read the first record, microseconds since
//                                 the epoch (bridge's clock)
//                         32  per record: u32 length, then the record exactly as the server
//                                 sent it (88-byte header, wavelengths), without stream token
//   vr480/NAME/sensors   QoS 0, JSON at --rate Hz (default 10): {"time": s since the epoch,
//                        "sweep": last sweep, "records": n, "sensors": {"1.1/1": mean nm, ...}}
//   vr480/NAME/status    QoS 1, retained JSON every --status-s seconds (default 3) and at every
//                        change of reachability: online, ready, rate (records/s received),
//                        temperature (deg C), clients, sweep, records, gaps, lost, restarts,
//                        dropped, dropped_records
//   vr480/bridge/ID/status  retained "online"; the broker sets "offline" (last will) when the
//                        bridge goes away
//
// Lost and counted: when an instrument connection breaks the bridge connects again every
// second and goes on after the last sweep it read (#RESUME_AFTER_SWEEP); what the instrument's
// ring no longer held shows as a jump of the sweep counter, counted in "gaps" and "lost". A
// queue that fills while the broker is away (--queue batches per instrument, default 2000)
// drops its oldest batches, counted in "dropped" and "dropped_records". A broker without
// persistence forgets what it acknowledged but had not delivered when it stops, and its
// subscribers must subscribe again before anything reaches them; so after a reconnect the
// bridge waits --settle-s seconds (default 3), then sends again the batches that were not
// acknowledged and those acknowledged in the last two seconds before the loss, then the
// queue: consumers may see some sweeps twice and keep the first.
#include <fcntl.h>
#include <mosquitto.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cstdarg>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <fstream>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <type_traits>
#include <vector>

namespace {

using SClock = std::chrono::steady_clock;
using namespace std::chrono_literals;

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

constexpr size_t kBatchHeader = 32;
constexpr int kWindow = 32;                // batches sent and not yet acknowledged
constexpr auto kReplay = 2s;               // acknowledged batches sent again after a broker loss
constexpr auto kRetry = 1s;                // between attempts to reach an instrument
// A stream silent this long is asked for again (resuming after its last sweep): an instrument
// that was still starting up when the stream began may never send on it.
constexpr auto kSilence = 5s;

std::atomic<bool> gStop{false};

int64_t EpochMicros() {
  return std::chrono::duration_cast<std::chrono::microseconds>(std::chrono::system_clock::now().time_since_epoch())
      .count();
}

void Log(const char* fmt, ...) __attribute__((format(printf, 1, 2)));
void Log(const char* fmt, ...) {
  char line[512];
  va_list ap;
  va_start(ap, fmt);
  std::vsnprintf(line, sizeof line, fmt, ap);
  va_end(ap);
  std::fprintf(stderr, "vr480-bridge: %s\n", line);
}

uint32_t U16(const char* b) { return static_cast<uint8_t>(b[0]) | static_cast<uint8_t>(b[1]) << 8; }
uint32_t U32(const char* b) { return U16(b) | U16(b + 2) << 16; }
void Put16(char* b, uint32_t v) { b[0] = static_cast<char>(v), b[1] = static_cast<char>(v >> 8); }
void Put32(char* b, uint32_t v) { Put16(b, v), Put16(b + 2, v >> 16); }
void Put64(char* b, uint64_t v) { Put32(b, static_cast<uint32_t>(v)), Put32(b + 4, static_cast<uint32_t>(v >> 32)); }

// Sleeps up to d, less when the bridge is told to stop.
void Nap(SClock::duration d) {
  for (auto end = SClock::now() + d; !gStop && SClock::now() < end;) std::this_thread::sleep_for(50ms);
}

// ---- One connection to an instrument ------------------------------------------------------------

class CLink {
 public:
  ~CLink() { Close(); }
  // Closes with a reset: when the instrument went away first, its side of the connection then
  // ends at once instead of lingering, and a restarted server can listen on its port again.
  void Close() {
    if (Fd >= 0) {
      const linger abort{1, 0};
      ::setsockopt(Fd, SOL_SOCKET, SO_LINGER, &abort, sizeof abort);
      ::close(Fd);
    }
    Fd = -1;
    In.clear();
    At = 0;
  }
  bool Open(const std::string& host, int port) {
    Close();
    addrinfo hints{};
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* list = nullptr;
    if (::getaddrinfo(host.c_str(), std::to_string(port).c_str(), &hints, &list) != 0) return false;
    for (addrinfo* a = list; a && Fd < 0; a = a->ai_next) {
      const int fd = ::socket(a->ai_family, a->ai_socktype | SOCK_CLOEXEC, a->ai_protocol);
      if (fd < 0) continue;
      // A dead host or cable is noticed within about ten seconds, a stopped server at once.
      int one = 1, idle = 4, interval = 2, count = 3;
      ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
      ::setsockopt(fd, SOL_SOCKET, SO_KEEPALIVE, &one, sizeof one);
      ::setsockopt(fd, IPPROTO_TCP, TCP_KEEPIDLE, &idle, sizeof idle);
      ::setsockopt(fd, IPPROTO_TCP, TCP_KEEPINTVL, &interval, sizeof interval);
      ::setsockopt(fd, IPPROTO_TCP, TCP_KEEPCNT, &count, sizeof count);
      // At most two seconds for a host that does not answer, so that stopping is never held up.
      const int flags = ::fcntl(fd, F_GETFL);
      ::fcntl(fd, F_SETFL, flags | O_NONBLOCK);
      int err = ::connect(fd, a->ai_addr, a->ai_addrlen) == 0 ? 0 : errno;
      if (err == EINPROGRESS) {
        pollfd p{fd, POLLOUT, 0};
        socklen_t len = sizeof err;
        err = ::poll(&p, 1, 2000) == 1 && ::getsockopt(fd, SOL_SOCKET, SO_ERROR, &err, &len) == 0 ? err : ETIMEDOUT;
      }
      ::fcntl(fd, F_SETFL, flags);
      if (err == 0) Fd = fd;
      else ::close(fd);
    }
    ::freeaddrinfo(list);
    return Fd >= 0;
  }
  bool Send(const std::string& line) {
    const std::string bytes = line + "\n";
    for (size_t sent = 0; sent < bytes.size();) {
      const ssize_t n = ::send(Fd, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
      if (n < 0 && errno == EINTR) continue;
      if (n <= 0) return false;
      sent += static_cast<size_t>(n);
    }
    return true;
  }
  // The next frame's body into *body: 1 a frame, 0 none within wait, -1 the connection failed.
  int Frame(std::string* body, int waitMs) {
    for (;;) {
      if (In.size() - At >= 10) {
        size_t length = 0;
        for (int i = 0; i < 10; ++i) {
          const char d = In[At + i];
          if (d < '0' || d > '9') return -1;
          length = length * 10 + static_cast<size_t>(d - '0');
        }
        if (In.size() - At >= 10 + length) {
          body->assign(In, At + 10, length);
          At += 10 + length;
          return 1;
        }
      }
      if (At > 0 && (At == In.size() || At > (1u << 20))) In.erase(0, At), At = 0;
      pollfd p{Fd, POLLIN, 0};
      const int r = ::poll(&p, 1, waitMs);
      if (r < 0 && errno == EINTR) continue;
      if (r == 0) return 0;
      char buf[1 << 16];
      const ssize_t n = ::recv(Fd, buf, sizeof buf, 0);
      if (n < 0 && errno == EINTR) continue;
      if (n <= 0) return -1;
      In.append(buf, static_cast<size_t>(n));
    }
  }
  // A command's text reply; nullopt on a lost connection or no reply within ten seconds.
  std::optional<std::string> Ask(const std::string& line, int waitMs = 10000) {
    std::string body;
    if (!Send(line) || Frame(&body, waitMs) != 1) return std::nullopt;
    while (!body.empty() && (body.back() == '\n' || body.back() == '\r')) body.pop_back();
    return body;
  }
  bool IsOpen() const { return Fd >= 0; }

 private:
  int Fd = -1;
  std::string In;
  size_t At = 0;
};

// ---- What is kept per instrument -----------------------------------------------------------------

struct SBatch {
  std::string Bytes;
  uint32_t Records = 0;
  SClock::time_point Acked;
};

struct SInstrument {
  std::string Name, Host;
  int Port = 0;
  std::set<int> Channels;  // legacy 1-16 shown in the sensors topic; empty: all

  // Under CBridge::M.
  std::deque<SBatch> Queue;
  std::deque<SBatch> Recent;  // acknowledged within kReplay, for a broker that lost them
  std::optional<std::string> Sensors;
  bool StatusDirty = true;
  bool Online = false;
  std::optional<bool> Ready;
  std::optional<double> Temperature;
  std::optional<int> Clients;
  double Rate = 0;
  uint64_t Gaps = 0, Lost = 0, Restarts = 0, Dropped = 0, DroppedRecords = 0;
  std::optional<uint32_t> Sweep;

  std::atomic<uint64_t> Records{0};  // read from the instrument
  std::thread Reader, Poller;
};

std::string Json(const std::optional<double>& v, const char* fmt = "%.2f") {
  if (!v) return "null";
  char s[64];
  std::snprintf(s, sizeof s, fmt, *v);
  return s;
}

// ---- The bridge ------------------------------------------------------------------------------------

struct SOptions {
  std::string BrokerHost = "127.0.0.1";
  int BrokerPort = 1883;
  std::string Id;
  size_t Batch = 200;
  int FlushMs = 100;
  double Rate = 10;
  size_t Queue = 2000;
  int StatusSeconds = 3;
  int SettleSeconds = 3;
};

class CBridge {
 public:
  CBridge(SOptions o, std::vector<std::unique_ptr<SInstrument>> list) : O(std::move(o)), Instruments(std::move(list)) {}

  int Run();

 private:
  // Broker side.
  void Publisher();
  bool Publish(const std::string& topic, const std::string& payload, int qos, bool retain, SInstrument* batchOf,
               SBatch* batch);
  std::string StatusJson(const SInstrument& in) const;
  static void OnConnect(mosquitto*, void* self, int rc);
  static void OnDisconnect(mosquitto*, void* self, int rc);
  static void OnPublish(mosquitto*, void* self, int mid);
  void Acked(int mid);

  // Instrument side.
  void Read(SInstrument& in);
  void Poll(SInstrument& in);
  void Enqueue(SInstrument& in, SBatch batch, uint32_t lastSweep);
  void SetOnline(SInstrument& in, bool online);

  const SOptions O;
  std::vector<std::unique_ptr<SInstrument>> Instruments;
  mosquitto* Mosq = nullptr;
  std::string BridgeTopic;

  std::mutex M;
  std::condition_variable Wake;
  bool Connected = false, Announce = false;
  std::optional<SClock::time_point> LostAt;  // when the broker went away, until the replay
  struct SInFlight {
    SInstrument* Of = nullptr;  // null: not a batch
    SBatch Batch;
  };
  std::map<int, SInFlight> InFlight;
  std::set<int> EarlyAcks;  // acknowledged before Publish() noted the message
  std::set<int> Forgotten;  // batches already put back in their queue after a broker loss
  SClock::time_point HoldUntil;  // no batches before then: consumers subscribe again first
  int Batches = 0;          // batches in InFlight
};

void CBridge::OnConnect(mosquitto*, void* self, int rc) {
  auto* b = static_cast<CBridge*>(self);
  Log("broker: %s", rc == 0 ? "connected" : mosquitto_connack_string(rc));
  if (rc != 0) return;
  std::lock_guard lock(b->M);
  b->Connected = b->Announce = true;
  b->Wake.notify_all();
}

void CBridge::OnDisconnect(mosquitto*, void* self, int rc) {
  auto* b = static_cast<CBridge*>(self);
  if (!gStop) Log("broker: connection lost (%s), reconnecting", mosquitto_strerror(rc));
  std::lock_guard lock(b->M);
  if (b->Connected && !b->LostAt) b->LostAt = SClock::now();
  b->Connected = false;
}

void CBridge::OnPublish(mosquitto*, void* self, int mid) { static_cast<CBridge*>(self)->Acked(mid); }

void CBridge::Acked(int mid) {
  std::lock_guard lock(M);
  if (Forgotten.erase(mid)) return;
  auto it = InFlight.find(mid);
  if (it == InFlight.end()) {
    EarlyAcks.insert(mid);
    return;
  }
  if (SInstrument* in = it->second.Of) {
    --Batches;
    const auto now = SClock::now();
    it->second.Batch.Acked = now;
    in->Recent.push_back(std::move(it->second.Batch));
    while (!in->Recent.empty() && now - in->Recent.front().Acked > kReplay) in->Recent.pop_front();
  }
  InFlight.erase(it);
  Wake.notify_all();
}

// Called without M held: libmosquitto takes its own locks, and its thread calls Acked().
bool CBridge::Publish(const std::string& topic, const std::string& payload, int qos, bool retain, SInstrument* of,
                      SBatch* batch) {
  int mid = 0;
  const int rc = mosquitto_publish(Mosq, &mid, topic.c_str(), static_cast<int>(payload.size()), payload.data(), qos,
                                   retain);
  std::lock_guard lock(M);
  if (rc != MOSQ_ERR_SUCCESS) return false;
  Forgotten.erase(mid);
  if (EarlyAcks.erase(mid)) {
    if (of) {
      batch->Acked = SClock::now();
      of->Recent.push_back(std::move(*batch));
    }
    return true;
  }
  InFlight[mid] = SInFlight{of, of ? std::move(*batch) : SBatch{}};
  if (of) ++Batches;
  return true;
}

std::string CBridge::StatusJson(const SInstrument& in) const {
  std::ostringstream s;
  s << "{\"online\": " << (in.Online ? "true" : "false")
    << ", \"ready\": " << (in.Ready ? (*in.Ready ? "true" : "false") : "null") << ", \"rate\": " << Json(in.Rate, "%.1f")
    << ", \"temperature\": " << Json(in.Temperature)
    << ", \"clients\": " << (in.Clients ? std::to_string(*in.Clients) : "null")
    << ", \"sweep\": " << (in.Sweep ? std::to_string(*in.Sweep) : "null") << ", \"records\": " << in.Records.load()
    << ", \"gaps\": " << in.Gaps << ", \"lost\": " << in.Lost << ", \"restarts\": " << in.Restarts
    << ", \"dropped\": " << in.Dropped << ", \"dropped_records\": " << in.DroppedRecords
    << ", \"time\": " << Json(EpochMicros() / 1e6, "%.3f") << "}";
  return s.str();
}

// The only thread that publishes: statuses and sensors first (small), then batches round-robin
// while fewer than kWindow are unacknowledged.
void CBridge::Publisher() {
  size_t next = 0;
  std::unique_lock lock(M);
  while (!gStop) {
    Wake.wait_for(lock, 100ms);
    if (!Connected) continue;
    struct SOut {
      std::string Topic, Payload;
      int Qos;
      bool Retain;
      SInstrument* Of;
      SBatch Batch;
    };
    std::vector<SOut> out;
    if (Announce) {
      Announce = false;
      out.push_back({BridgeTopic, "online", 1, true, nullptr, {}});
      for (auto& in : Instruments) in->StatusDirty = true;
      // After a loss: put back, oldest first, what was not acknowledged and what the broker
      // acknowledged just before it went away, and give consumers time to subscribe again.
      if (LostAt) {
        for (auto it = InFlight.rbegin(); it != InFlight.rend(); ++it)
          if (it->second.Of) it->second.Of->Queue.push_front(std::move(it->second.Batch)), Forgotten.insert(it->first);
        for (auto it = InFlight.begin(); it != InFlight.end();) it = it->second.Of ? InFlight.erase(it) : std::next(it);
        Batches = 0;
        for (auto& in : Instruments) {
          for (auto it = in->Recent.rbegin(); it != in->Recent.rend(); ++it)
            if (*LostAt - it->Acked < kReplay) in->Queue.push_front(std::move(*it));
          in->Recent.clear();
        }
        LostAt.reset();
        HoldUntil = SClock::now() + std::chrono::seconds(O.SettleSeconds);
      }
    }
    for (auto& in : Instruments) {
      const std::string base = "vr480/" + in->Name + "/";
      if (in->StatusDirty) out.push_back({base + "status", StatusJson(*in), 1, true, nullptr, {}});
      in->StatusDirty = false;
      if (in->Sensors) out.push_back({base + "sensors", std::move(*in->Sensors), 0, false, nullptr, {}});
      in->Sensors.reset();
    }
    const bool hold = SClock::now() < HoldUntil;
    for (size_t idle = 0, taken = 0; !hold && Batches + taken < kWindow && idle < Instruments.size();) {
      SInstrument& in = *Instruments[next++ % Instruments.size()];
      if (in.Queue.empty()) {
        ++idle;
        continue;
      }
      out.push_back({"vr480/" + in.Name + "/records", {}, 1, false, &in, std::move(in.Queue.front())});
      in.Queue.pop_front();
      ++taken, idle = 0;
    }
    lock.unlock();
    for (auto& o : out) {
      const std::string& payload = o.Of ? o.Batch.Bytes : o.Payload;
      if (!Publish(o.Topic, payload, o.Qos, o.Retain, o.Of, &o.Batch) && o.Of) {
        std::lock_guard back(M);  // not taken: keep it for after the reconnect
        o.Of->Queue.push_front(std::move(o.Batch));
      }
    }
    lock.lock();
  }
}

void CBridge::Enqueue(SInstrument& in, SBatch batch, uint32_t lastSweep) {
  std::lock_guard lock(M);
  in.Sweep = lastSweep;
  in.Queue.push_back(std::move(batch));
  while (in.Queue.size() > O.Queue) {
    ++in.Dropped;
    in.DroppedRecords += in.Queue.front().Records;
    in.Queue.pop_front();
    in.StatusDirty = true;
  }
  Wake.notify_all();
}

void CBridge::SetOnline(SInstrument& in, bool online) {
  std::lock_guard lock(M);
  if (in.Online == online) return;
  in.Online = online;
  if (!online) in.Ready.reset(), in.Temperature.reset(), in.Clients.reset(), in.Rate = 0;
  in.StatusDirty = true;
  Wake.notify_all();
}

// Reads one instrument's stream into batches and sensor means, for as long as the bridge runs.
void CBridge::Read(SInstrument& in) {
  CLink link;
  std::optional<uint32_t> last;  // sweep of the last record read
  std::string batch;
  uint32_t count = 0, first = 0, gapBefore = 0;
  bool restarted = false;
  SClock::time_point started;
  auto flush = [&] {
    if (!count) return;
    char* h = batch.data();
    std::memcpy(h, "VR48", 4);
    h[4] = 1, h[5] = restarted ? 1 : 0;
    Put16(h + 6, kBatchHeader), Put32(h + 8, first), Put32(h + 12, *last), Put32(h + 16, count);
    Put32(h + 20, gapBefore);
    Enqueue(in, SBatch{std::move(batch), count, {}}, *last);
    batch.clear(), count = 0, gapBefore = 0, restarted = false;
  };
  // Sensor means over the interval, by (layer, channel) and sensor.
  std::map<std::pair<int, int>, std::vector<std::pair<double, uint32_t>>> sums;
  uint32_t meanRecords = 0;
  const auto period = O.Rate > 0 ? std::chrono::duration_cast<SClock::duration>(std::chrono::duration<double>(1 / O.Rate))
                                 : SClock::duration::max();
  auto nextMean = SClock::now() + (O.Rate > 0 ? period : 24h);
  auto publishMeans = [&] {
    std::ostringstream s;
    s << "{\"time\": " << Json(EpochMicros() / 1e6, "%.3f") << ", \"sweep\": " << (last ? *last : 0)
      << ", \"records\": " << meanRecords << ", \"sensors\": {";
    const char* sep = "";
    for (auto& [key, sensors] : sums)
      for (size_t j = 0; j < sensors.size(); ++j) {
        if (!sensors[j].second) continue;
        s << sep << '"' << key.second + 1 << '.' << key.first + 1 << '/' << j + 1
          << "\": " << Json(sensors[j].first / sensors[j].second, "%.6f");
        sep = ", ";
        sensors[j] = {0, 0};
      }
    s << "}}";
    meanRecords = 0;
    std::lock_guard lock(M);
    in.Sensors = s.str();
    Wake.notify_all();
  };
  auto take = [&](const std::string& body, size_t size) {
    if (size < 88) return;
    const char* r = body.data();
    const uint32_t sweep = U32(r + 28), status = static_cast<uint8_t>(r[47]);
    if (size == 88 && status == 9 && sweep == 0) return;  // "no new data": not a record
    if (last) {
      const uint32_t step = sweep - *last;
      if (step == 0) return;
      if (step >= 0x80000000u) {  // the counter went back: a new start of the instrument
        flush();
        restarted = true;
        std::lock_guard lock(M);
        ++in.Restarts, in.StatusDirty = true;
        Log("%s: sweep counter went back from %u to %u (the instrument restarted)", in.Name.c_str(), *last, sweep);
      } else if (step > 1) {  // each batch is contiguous: a gap starts a new one
        flush();
        gapBefore = step - 1;
        std::lock_guard lock(M);
        ++in.Gaps, in.Lost += step - 1, in.StatusDirty = true;
        Log("%s: sweeps %u to %u missing (%u)", in.Name.c_str(), *last + 1, sweep - 1, step - 1);
      }
    }
    if (!count) {
      batch.assign(kBatchHeader, '\0');
      Put64(batch.data() + 24, static_cast<uint64_t>(EpochMicros()));
      first = sweep, started = SClock::now();
    }
    char length[4];
    Put32(length, static_cast<uint32_t>(size));
    batch.append(length, 4).append(body, 0, size);
    ++count;
    last = sweep;
    in.Records.fetch_add(1, std::memory_order_relaxed);
    if (count >= O.Batch) flush();
    if (O.Rate > 0) {
      const int layer = r[6] & 3;
      size_t at = 88;
      for (int ch = 0; ch < 4; ++ch) {
        const uint32_t n = U16(r + 16 + 2 * ch);
        const bool shown = in.Channels.empty() || in.Channels.count(4 * layer + ch + 1);
        if (shown && at + 4 * n <= size) {
          auto& v = sums[{layer, ch}];
          if (v.size() < n) v.resize(n);
          const double scale = 1.0 / (U32(r + 72) ? U32(r + 72) : 1);
          for (uint32_t j = 0; j < n; ++j)
            v[j].first += static_cast<int32_t>(U32(r + at + 4 * j)) * scale, ++v[j].second;
        }
        at += 4 * n;
      }
      ++meanRecords;
    }
  };

  bool silent = false, unreachable = false;
  while (!gStop) {
    if (!link.Open(in.Host, in.Port)) {
      if (!unreachable) Log("%s: %s:%d unreachable, trying every second", in.Name.c_str(), in.Host.c_str(), in.Port);
      unreachable = true;
      SetOnline(in, false);
      Nap(kRetry);
      continue;
    }
    bool ok = link.Ask("#SET_USE_STREAM_TOKENS 1") && link.Ask("#SET_BUFFER_ENABLE 1");
    if (ok && last) {
      const auto reply = link.Ask("#RESUME_AFTER_SWEEP " + std::to_string(*last));
      ok = reply.has_value();
      if (ok) Log("%s: %s", in.Name.c_str(), reply->c_str());
    }
    const auto on = ok ? link.Ask("#SET_STREAMING_DATA 1") : std::nullopt;
    if (!on || on->rfind("Streaming data enabled.", 0) != 0) {
      Log("%s: %s:%d: could not start streaming%s%s", in.Name.c_str(), in.Host.c_str(), in.Port, on ? ": " : "",
          on ? on->c_str() : "");
      link.Close();
      SetOnline(in, false);
      Nap(kRetry);
      continue;
    }
    if (!silent) Log("%s: streaming from %s:%d", in.Name.c_str(), in.Host.c_str(), in.Port);
    unreachable = false;
    SetOnline(in, true);
    std::string body;
    const uint64_t before = in.Records.load();
    auto heard = SClock::now();
    silent = false;
    for (int got; !gStop && (got = link.Frame(&body, 20)) >= 0;) {
      if (got == 1) {
        heard = SClock::now();
        const size_t n = body.size();
        const bool token = n >= 8 && (body.compare(n - 8, 8, "XXXXXXXX") == 0 || body.compare(n - 8, 8, "ZZZZZZZZ") == 0);
        // A stopping server sends its last record without a token.
        const size_t size = token ? n - 8 : n;
        if (size >= 88 && size >= 88 + 4 * (U16(&body[16]) + U16(&body[18]) + U16(&body[20]) + U16(&body[22])))
          take(body, size);
      }
      const auto now = SClock::now();
      if (now - heard > kSilence) {
        silent = true;
        break;
      }
      if (count && now - started >= std::chrono::milliseconds(O.FlushMs)) flush();
      if (now >= nextMean) {
        if (meanRecords) publishMeans();
        nextMean = std::max(nextMean + period, now);
      }
    }
    flush();
    link.Close();
    if (gStop) break;
    if (silent) {  // an idle card, or a stream that stopped: ask again, quietly if idle
      if (in.Records.load() != before) Log("%s: no record for %lld s, streaming again", in.Name.c_str(),
                                           static_cast<long long>(kSilence / 1s));
      continue;
    }
    Log("%s: connection lost, reconnecting every second", in.Name.c_str());
    SetOnline(in, false);
    Nap(kRetry);
  }
}

// Asks one instrument for its status over a connection of its own every --status-s seconds.
void CBridge::Poll(SInstrument& in) {
  CLink link;
  uint64_t records = in.Records.load();
  auto then = SClock::now();
  while (!gStop) {
    Nap(std::chrono::seconds(O.StatusSeconds));
    const auto now = SClock::now();
    const uint64_t r = in.Records.load();
    const double rate = (r - records) / std::chrono::duration<double>(now - then).count();
    records = r, then = now;
    std::optional<bool> ready;
    std::optional<double> temperature;
    std::optional<int> clients;
    if (link.IsOpen() || link.Open(in.Host, in.Port)) {
      const auto a = link.Ask("#READY?", 3000), t = a ? link.Ask("#GET_TX_DEGC", 3000) : std::nullopt,
                 w = t ? link.Ask("#WEB_STATUS", 3000) : std::nullopt;
      if (!w) link.Close();
      if (a) ready = *a == "1";
      if (t) temperature = std::atof(t->c_str());
      if (w) {  // field 10 of the status line: clients connected
        std::stringstream fields(*w);
        std::string f;
        for (int i = 0; i < 10 && std::getline(fields, f, '$'); ++i) {}
        clients = std::atoi(f.c_str());
      }
    }
    std::lock_guard lock(M);
    if (in.Online) in.Ready = ready, in.Temperature = temperature, in.Clients = clients;
    in.Rate = in.Online ? rate : 0;
    in.StatusDirty = true;
    Wake.notify_all();
  }
}

int CBridge::Run() {
  char host[256] = "bridge";
  ::gethostname(host, sizeof host - 1);
  const std::string id = O.Id.empty() ? host : O.Id;
  BridgeTopic = "vr480/bridge/" + id + "/status";

  mosquitto_lib_init();
  Mosq = mosquitto_new(("vr480-bridge-" + id).c_str(), true, this);
  if (!Mosq) {
    Log("cannot create the MQTT client");
    return 1;
  }
  mosquitto_will_set(Mosq, BridgeTopic.c_str(), 7, "offline", 1, true);
  mosquitto_reconnect_delay_set(Mosq, 1, 4, false);
  mosquitto_max_inflight_messages_set(Mosq, kWindow + 16);
  mosquitto_connect_callback_set(Mosq, OnConnect);
  mosquitto_disconnect_callback_set(Mosq, OnDisconnect);
  mosquitto_publish_callback_set(Mosq, OnPublish);
  std::thread publisher([this] { Publisher(); });
  for (auto& in : Instruments) {
    in->Reader = std::thread([this, p = in.get()] { Read(*p); });
    in->Poller = std::thread([this, p = in.get()] { Poll(*p); });
  }

  sigset_t stop;
  sigemptyset(&stop);
  sigaddset(&stop, SIGINT);
  sigaddset(&stop, SIGTERM);
  // The client's own thread reconnects after a loss, but not when the very first attempt
  // fails: until one succeeds, the instruments are read and queued while this tries every second.
  bool running = true, told = false;
  for (int rc; running && (rc = mosquitto_connect_async(Mosq, O.BrokerHost.c_str(), O.BrokerPort, 10)) != MOSQ_ERR_SUCCESS;) {
    if (!told) Log("broker %s:%d: %s, trying every second", O.BrokerHost.c_str(), O.BrokerPort, mosquitto_strerror(rc));
    told = true;
    const timespec second{1, 0};
    running = sigtimedwait(&stop, nullptr, &second) < 0;
  }
  if (running && mosquitto_loop_start(Mosq) != MOSQ_ERR_SUCCESS) {
    Log("cannot start the MQTT client's thread");
    running = false;
  }
  int sig = 0;
  if (running) sigwait(&stop, &sig);
  Log("stopping");
  gStop = true;
  for (auto& in : Instruments) in->Reader.join(), in->Poller.join();
  Wake.notify_all();
  publisher.join();

  // What is still queued goes out if the broker takes it within two seconds.
  for (auto deadline = SClock::now() + 2s; SClock::now() < deadline;) {
    std::vector<std::pair<SInstrument*, SBatch>> out;
    {
      std::lock_guard lock(M);
      if (!Connected) break;
      for (auto& in : Instruments) {
        in->Online = false;
        if (!in->Queue.empty()) out.emplace_back(in.get(), std::move(in->Queue.front())), in->Queue.pop_front();
      }
      if (out.empty() && InFlight.empty()) break;
    }
    for (auto& [in, batch] : out) Publish("vr480/" + in->Name + "/records", batch.Bytes, 1, false, in, &batch);
    if (out.empty()) std::this_thread::sleep_for(20ms);
  }
  for (auto& in : Instruments) {
    std::string status;
    {
      std::lock_guard lock(M);
      in->Online = false;
      in->Ready.reset(), in->Temperature.reset(), in->Clients.reset(), in->Rate = 0;
      status = StatusJson(*in);
      Log("%s: %llu records, %llu gaps, %llu lost, %llu restarts, %llu batches dropped", in->Name.c_str(),
          static_cast<unsigned long long>(in->Records.load()), static_cast<unsigned long long>(in->Gaps),
          static_cast<unsigned long long>(in->Lost), static_cast<unsigned long long>(in->Restarts),
          static_cast<unsigned long long>(in->Dropped));
    }
    Publish("vr480/" + in->Name + "/status", status, 1, true, nullptr, nullptr);
  }
  Publish(BridgeTopic, "offline", 1, true, nullptr, nullptr);
  std::this_thread::sleep_for(200ms);
  mosquitto_disconnect(Mosq);
  mosquitto_loop_stop(Mosq, false);
  mosquitto_destroy(Mosq);
  mosquitto_lib_cleanup();
  return 0;
}

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
