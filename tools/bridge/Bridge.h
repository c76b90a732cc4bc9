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
#pragma once

#include <mosquitto.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <thread>
#include <vector>

namespace vr480bridge {

using SClock = std::chrono::steady_clock;
using namespace std::chrono_literals;

constexpr size_t kBatchHeader = 32;
constexpr int kWindow = 32;                // batches sent and not yet acknowledged
constexpr auto kReplay = 2s;               // acknowledged batches sent again after a broker loss
constexpr auto kRetry = 1s;                // between attempts to reach an instrument
// A stream silent this long is asked for again (resuming after its last sweep): an instrument
// that was still starting up when the stream began may never send on it.
constexpr auto kSilence = 5s;

inline std::atomic<bool> gStop{false};  // set once, when the bridge is told to stop

int64_t EpochMicros();
void Log(const char* fmt, ...) __attribute__((format(printf, 1, 2)));
// Sleeps up to d, less when the bridge is told to stop.
void Nap(SClock::duration d);
// A number for JSON, null when absent.
std::string Json(const std::optional<double>& v, const char* fmt = "%.2f");

inline uint32_t U16(const char* b) { return static_cast<uint8_t>(b[0]) | static_cast<uint8_t>(b[1]) << 8; }
inline uint32_t U32(const char* b) { return U16(b) | U16(b + 2) << 16; }
inline void Put16(char* b, uint32_t v) { b[0] = static_cast<char>(v), b[1] = static_cast<char>(v >> 8); }
inline void Put32(char* b, uint32_t v) { Put16(b, v), Put16(b + 2, v >> 16); }
inline void Put64(char* b, uint64_t v) { Put32(b, static_cast<uint32_t>(v)), Put32(b + 4, static_cast<uint32_t>(v >> 32)); }

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

}  // namespace vr480bridge
