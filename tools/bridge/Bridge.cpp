// The broker side: one MQTT client publishing for every instrument, and the bridge's life.
#include <signal.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdio>
#include <sstream>

#include "Bridge.h"

namespace vr480bridge {

int64_t EpochMicros() {
  return std::chrono::duration_cast<std::chrono::microseconds>(std::chrono::system_clock::now().time_since_epoch())
      .count();
}

void Log(const char* fmt, ...) {
  char line[512];
  va_list ap;
  va_start(ap, fmt);
  std::vsnprintf(line, sizeof line, fmt, ap);
  va_end(ap);
  std::fprintf(stderr, "vr480-bridge: %s\n", line);
}

void Nap(SClock::duration d) {
  for (auto end = SClock::now() + d; !gStop && SClock::now() < end;) std::this_thread::sleep_for(50ms);
}

std::string Json(const std::optional<double>& v, const char* fmt) {
  if (!v) return "null";
  char s[64];
  std::snprintf(s, sizeof s, fmt, *v);
  return s;
}

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

}  // namespace vr480bridge
