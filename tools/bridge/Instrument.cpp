// The instrument side: a thread reading each instrument's stream into batches and sensor
// means, and one asking for its status.
#include <cstdlib>
#include <cstring>
#include <sstream>

#include "Bridge.h"
#include "Link.h"

namespace vr480bridge {

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

}  // namespace vr480bridge
