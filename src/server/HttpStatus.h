// The optional read-only HTTP port (--http-port): a status page with a live plot of chosen
// sensors ("/"), the same status as JSON ("/status.json"), the newest wavelengths of chosen
// sensors ("/samples.json?sensors=1.1/1,2.1/3") and counters for a monitoring system in the
// Prometheus text format ("/metrics").
//
// It is no client of the command port: it takes none of the ten client slots, and it reads the
// server's state and the newest records of the processed-data ring without taking any lock the
// acquisition thread takes, so a slow or busy browser never holds the instrument back. Two
// worker threads serve it.
#pragma once

#include <memory>
#include <mutex>
#include <string>
#include <thread>

class CVr480Server;

class CHttpStatus {
 public:
  explicit CHttpStatus(CVr480Server& server);
  ~CHttpStatus();

  // Binds address:port and serves from a thread of its own. Prints the outcome; false when the
  // port cannot be bound (the instrument runs on without its page).
  bool Start(const std::string& address, int port);
  void Stop();

  // The bodies of the JSON and metrics answers.
  std::string StatusJson();
  std::string Metrics();
  // Sensors named "c.m/n" (fibre c, multiplexer position m, sensor n from 1), comma-separated;
  // empty names the first sensor of each channel of the newest record (at most eight).
  std::string SamplesJson(const std::string& sensors);

 private:
  double RecordRate();

  CVr480Server& Server;
  struct SImpl;
  std::unique_ptr<SImpl> Impl;
  std::thread Thread;
  std::mutex RateLock;
  double RateMark = 0.0;          // steady seconds of the last rate sample
  unsigned long long RateCount = 0;
  double Rate = 0.0;              // records published per second, over the last second or more
};
