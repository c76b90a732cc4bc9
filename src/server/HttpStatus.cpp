#include "server/HttpStatus.h"

#include <httplib.h>

#include <chrono>
#include <cstdio>
#include <cstring>
#include <sstream>
#include <vector>

#include "processing/ProcessedRecord.h"
#include "protocol/DataCommands.h"
#include "server/Vr480Server.h"
#include "server/WebAssets.h"

struct CHttpStatus::SImpl {
  httplib::Server Http;
};

namespace {

std::string JsonString(const std::string& s) {
  std::string out = "\"";
  for (const unsigned char c : s) {
    if (c == '"' || c == '\\') {
      out += '\\';
      out += static_cast<char>(c);
    } else if (c < 0x20) {
      char esc[8];
      std::snprintf(esc, sizeof esc, "\\u%04x", c);
      out += esc;
    } else {
      out += static_cast<char>(c);
    }
  }
  return out + "\"";
}

std::vector<std::string> Split(const std::string& s, char sep) {
  std::vector<std::string> out;
  std::string cur;
  for (const char c : s) {
    if (c == sep) {
      out.push_back(cur);
      cur.clear();
    } else {
      cur += c;
    }
  }
  out.push_back(cur);
  return out;
}

double SteadySeconds() {
  return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

double TxDegC(const CVr480Server& s) {
  return s.LatestStatus.InternalTempC();
}

// One sensor as a reader of the ring sees it: channel c (1-4), multiplexer position m (1-4),
// sensor n (from 1).
struct SSensor {
  std::string Name;
  int Channel = 0, Layer = 0, Index = 0;
};

// Fields of a ring slot that no reply patches, so a reader outside the sessions may take them.
int LayerOf(const uint8_t* rec) { return rec[kRecHeaderOffset + data_commands::kBodyLayerByte] & 0x03; }
int SensorsOf(const uint8_t* rec, int channel) {
  return GetRecU16(rec, kRecHeaderOffset + data_commands::kBodyCounts + 2 * channel);
}

bool ParseSensor(const std::string& name, SSensor& out) {
  int c = 0, m = 0, n = 0;
  char tail = 0;
  if (std::sscanf(name.c_str(), "%d.%d/%d%c", &c, &m, &n, &tail) != 3) return false;
  if (c < 1 || c > 4 || m < 1 || m > 4 || n < 1 || n > 250) return false;
  out = {name, c - 1, m - 1, n - 1};
  return true;
}

}  // namespace

CHttpStatus::CHttpStatus(CVr480Server& server) : Server(server), Impl(std::make_unique<SImpl>()) {}

CHttpStatus::~CHttpStatus() { Stop(); }

bool CHttpStatus::Start(const std::string& address, int port) {
  httplib::Server& http = Impl->Http;
  http.new_task_queue = [] { return new httplib::ThreadPool(2); };
  http.set_read_timeout(5, 0);
  http.set_write_timeout(5, 0);
  http.set_keep_alive_max_count(100);
  http.Get("/status.json", [this](const httplib::Request&, httplib::Response& res) {
    res.set_content(StatusJson(), "application/json");
    res.set_header("Cache-Control", "no-store");
  });
  http.Get("/samples.json", [this](const httplib::Request& req, httplib::Response& res) {
    res.set_content(SamplesJson(req.get_param_value("sensors")), "application/json");
    res.set_header("Cache-Control", "no-store");
  });
  http.Get("/metrics", [this](const httplib::Request&, httplib::Response& res) {
    res.set_content(Metrics(), "text/plain; version=0.0.4; charset=utf-8");
  });
  http.Get(R"(/[A-Za-z.]*)", [](const httplib::Request& req, httplib::Response& res) {
    const SWebAsset* asset = FindWebAsset(req.path.c_str());
    if (!asset) {
      res.status = 404;
      res.set_content("Not found\n", "text/plain");
      return;
    }
    res.set_content(reinterpret_cast<const char*>(asset->Data), asset->Size, asset->Type);
  });
  const std::string host = address.empty() ? "0.0.0.0" : address;
  if (!http.bind_to_port(host.c_str(), port)) {
    std::printf("HTTP status page: cannot bind %s:%d; running without it.\n", host.c_str(), port);
    return false;
  }
  std::printf("HTTP status page on http://%s:%d/ (read only).\n", host.c_str(), port);
  Thread = std::thread([this] { Impl->Http.listen_after_bind(); });
  return true;
}

void CHttpStatus::Stop() {
  if (!Thread.joinable()) return;
  Impl->Http.stop();
  Thread.join();
}

double CHttpStatus::RecordRate() {
  std::lock_guard<std::mutex> g(RateLock);
  const double now = SteadySeconds();
  const unsigned long long count = Server.RecordsPublished.load(std::memory_order_relaxed);
  if (RateMark == 0.0) {
    RateMark = now;
    RateCount = count;
  } else if (now - RateMark >= 1.0) {
    Rate = static_cast<double>(count - RateCount) / (now - RateMark);
    RateMark = now;
    RateCount = count;
  }
  return Rate;
}

std::string CHttpStatus::StatusJson() {
  CVr480Server& s = Server;
  static const char* const kNames[] = {"serial_number", "sweep_rate", "cfc_version", "driver_version",
                                       "server_release", "firmware_version", "ip_address", "netmask", "dhcp",
                                       "clients", "internal_temperature", "date_time", "time_source",
                                       "operating_mode", "trigger_mode", "trigger_state", "mux_level"};
  const std::string line = data_commands::WebStatusLine(s);
  const std::vector<std::string> fields = Split(line, '$');
  std::ostringstream o;
  o << "{";
  for (size_t i = 0; i < std::size(kNames) && i < fields.size(); ++i) o << JsonString(kNames[i]) << ":" << JsonString(fields[i]) << ",";
  o << "\"sensor_counts\":[";
  for (size_t i = std::size(kNames); i < fields.size(); ++i) o << (i > std::size(kNames) ? "," : "") << JsonString(fields[i]);
  char numbers[256];
  std::snprintf(numbers, sizeof numbers,
                "],\"ready\":%s,\"record_rate\":%.1f,\"records_published\":%llu,\"laser_bias\":%d,\"scan_amplitude\":%d,",
                s.bReady ? "true" : "false", RecordRate(),
                static_cast<unsigned long long>(s.RecordsPublished.load(std::memory_order_relaxed)),
                static_cast<int>(s.Driver.GetBias()), static_cast<int>(s.Driver.GetScanAmp()));
  o << numbers << "\"web_status\":" << JsonString(line) << "}";
  return o.str();
}

std::string CHttpStatus::Metrics() {
  CVr480Server& s = Server;
  std::ostringstream o;
  auto metric = [&o](const char* name, const char* type, const char* help) {
    o << "# HELP " << name << " " << help << "\n# TYPE " << name << " " << type << "\n";
  };
  auto value = [&o](const char* name, double v, const std::string& labels = "") {
    char text[64];
    std::snprintf(text, sizeof text, "%.17g", v);
    o << name << labels << " " << text << "\n";
  };
  metric("vr480_records_processed_total", "counter", "Card records through the processing pipeline.");
  value("vr480_records_processed_total", static_cast<double>(s.RecordsProcessed.load(std::memory_order_relaxed)));
  metric("vr480_records_published_total", "counter", "Records put in the processed-data ring for clients.");
  value("vr480_records_published_total", static_cast<double>(s.RecordsPublished.load(std::memory_order_relaxed)));
  metric("vr480_sweep_gaps_total", "counter", "Jumps of the card's sweep counter (sweeps the card dropped).");
  value("vr480_sweep_gaps_total", static_cast<double>(s.SweepGaps.load(std::memory_order_relaxed)));
  metric("vr480_sweeps_missed_total", "counter", "Sweeps inside those jumps.");
  value("vr480_sweeps_missed_total", static_cast<double>(s.SweepsMissed.load(std::memory_order_relaxed)));
  metric("vr480_clients_connected", "gauge", "Clients connected to the command port.");
  value("vr480_clients_connected", s.Socket.GetNumClients());
  metric("vr480_client_backlog_records", "gauge", "Records a connected client has not read yet.");
  for (int c = 0; c < kClientSlots; ++c)
    if (!s.Socket.ConnectionOf(static_cast<uint16_t>(c)).expired())
      value("vr480_client_backlog_records", data_commands::UnreadRecords(s, c), "{client=\"" + std::to_string(c) + "\"}");
  metric("vr480_client_sent_bytes_total", "counter", "Bytes sent to the clients of each slot since start.");
  for (int c = 0; c < kClientSlots; ++c)
    value("vr480_client_sent_bytes_total", static_cast<double>(s.Socket.GetBytesSent(static_cast<uint16_t>(c))),
          "{client=\"" + std::to_string(c) + "\"}");
  metric("vr480_ready", "gauge", "1 once the laser is calibrated (#READY?).");
  value("vr480_ready", s.bReady ? 1 : 0);
  metric("vr480_laser_bias", "gauge", "Laser bias drive, DAC counts.");
  value("vr480_laser_bias", s.Driver.GetBias());
  metric("vr480_laser_scan_amplitude", "gauge", "Laser scan amplitude, DAC counts.");
  value("vr480_laser_scan_amplitude", s.Driver.GetScanAmp());
  metric("vr480_internal_temperature_celsius", "gauge", "Internal (transmitter) temperature.");
  value("vr480_internal_temperature_celsius", TxDegC(s));
  metric("vr480_record_rate", "gauge", "Records published per second, over the last second.");
  value("vr480_record_rate", RecordRate());
  return o.str();
}

std::string CHttpStatus::SamplesJson(const std::string& sensors) {
  CVr480Server& s = Server;
  std::ostringstream o;
  const uint8_t* ring = s.ProcessedData;
  const uint16_t w = s.ProcessedWriteIndex;
  auto slotBack = [&](int back) {
    const int i = (static_cast<int>(w) - 1 - back + 2 * kProcessedRingSlots) % kProcessedRingSlots;
    return ring + static_cast<size_t>(i) * kProcessedRecordBytes;
  };
  const int layers = std::max(1, s.MuxLevel.load());
  std::vector<SSensor> chosen;
  for (const std::string& name : Split(sensors, ',')) {
    SSensor sensor;
    if (ParseSensor(name, sensor)) chosen.push_back(sensor);
  }
  if (chosen.empty() && ring && s.RecordsPublished.load() > 0) {
    // The first sensor of every channel the newest records carry, at most eight.
    for (int back = 0; back < layers && chosen.size() < 8; ++back) {
      const uint8_t* rec = slotBack(back);
      const int layer = LayerOf(rec);
      for (int ch = 0; ch < 4 && chosen.size() < 8; ++ch)
        if (SensorsOf(rec, ch) > 0)
          chosen.push_back({std::to_string(ch + 1) + "." + std::to_string(layer + 1) + "/1", ch, layer, 0});
    }
  }
  uint32_t sweep = 0;
  char now[32];
  std::snprintf(now, sizeof now, "%.3f",
                std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch()).count());
  o << "{\"time\":" << now;
  o << ",\"values\":{";
  bool first = true;
  for (const SSensor& sensor : chosen) {
    double nm = -1.0;
    // The newest record of the sensor's multiplexer layer.
    for (int back = 0; ring && s.RecordsPublished.load() > 0 && back < layers; ++back) {
      const uint8_t* rec = slotBack(back);
      if (LayerOf(rec) != sensor.Layer) continue;
      int offset = 0;
      for (int ch = 0; ch < sensor.Channel; ++ch) offset += SensorsOf(rec, ch);
      const int count = SensorsOf(rec, sensor.Channel);
      const uint32_t granularity = GetRecU32(rec, kRecGranularityOffset);
      const uint32_t length = GetRecU32(rec, kRecSensorBytesOffset);
      const uint32_t at = data_commands::kHeaderBytes + 4 * static_cast<uint32_t>(offset + sensor.Index);
      if (sensor.Index < count && granularity > 0 && at + 4 <= length) {
        nm = static_cast<int32_t>(GetRecU32(rec, kRecHeaderOffset + at)) / static_cast<double>(granularity);
        sweep = std::max(sweep, GetRecU32(rec, kRecHeaderOffset + data_commands::kBodySweep));
      }
      break;
    }
    char value[64];
    if (nm >= 0) std::snprintf(value, sizeof value, "%.6f", nm);
    else std::snprintf(value, sizeof value, "null");
    o << (first ? "" : ",") << JsonString(sensor.Name) << ":" << value;
    first = false;
  }
  o << "},\"sweep\":" << sweep << "}";
  return o.str();
}
