// What the full-spectrum tests share: access to the acquisition stages the server keeps
// private, hand-made peaks records, and a server object over its own simulated card.
#pragma once

#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "host/Host.h"
#include "server/Globals.h"
#include "server/Vr480Server.h"
#include "sim/SimCardProvider.h"
#include "sim/SimOptics.h"
#include "sim/SimScene.h"
#include "support/TempDir.h"

struct FullSpectrumAccess {
  static void KnownState(CVr480Server& s) { s.PutCardInKnownState(); }
  static void InitAveraging(CVr480Server& s) { s.InitAveragingStore(); }
  static void Pass(CVr480Server& s) { s.AcquisitionPass(); }
  static void GetData(CVr480Server& s) { s.GetData(); }
  static void BuildRawFSBuffer(CVr480Server& s) { s.BuildRawFSBuffer(); }
  static void BuildSpectrum(CVr480Server& s) { s.BuildSpectrum(); }
  static int CalibrateFsOffset(CVr480Server& s) { return s.CalibrateFsOffset(); }
  static bool StartThread(CVr480Server& s) { return s.StartCalibrationThread(); }
  static bool StopThread(CVr480Server& s) { return s.StopCalibrationThread(); }
};

namespace fstest {

// A record of the given sampling phase, layer and amplitude channel whose sample i reads
// `base` + i, with the level bits of multiplexer level `level`.
inline struct_dma_peaks_data MakeRecord(int phase, int layer = 0, int ampChannel = 0, int level = 1, int base = 1000) {
  struct_dma_peaks_data r;
  std::memset(&r, 0, sizeof r);
  r.status.CurrentLayer = static_cast<uint8_t>(phase);
  r.status.Status3 = static_cast<uint8_t>(0x20 | ampChannel);
  const int levelBits = level == 4 ? 3 : level - 1;
  r.status.flags1_lo = static_cast<uint8_t>(layer | levelBits << 2);
  for (int i = 0; i < kFsSamplesPerRecord; ++i) r.FsSamples[i] = 0xA5A50000u | static_cast<uint32_t>(base + i);
  return r;
}

// Runs the stage on a record the way the acquisition loop hands it over.
inline void Feed(CVr480Server& s, struct_dma_peaks_data& r) {
  s.pPeaks = &r;
  s.pLastPeaks = &r;
}

// The amplitude channels of the card's detectors: 0 grating, 1 comb, 2-5 DUT channels 1-4.
constexpr uint8_t kGratingChannel = 0;

// A server over its own simulated card, prepared as Init prepares it for acquisition, with
// the laser at the working point and both control loops on. The host is a temporary root.
class CSpectrumBench {
 public:
  explicit CSpectrumBench(const sim::CSimScene& scene, sim::EProducerMode mode = sim::EProducerMode::FreeRunning) {
    InstallHost(Root.Path());
    sim::CSimOptions options;
    options.Mode = mode;
    Card = std::make_unique<sim::CSimCardProvider>(options);
    Card->Card().LoadScene(scene);
    Server = std::make_unique<CVr480Server>();
    Server->Driver.SetCardProvider(Card.get());
    Server->Driver.SetSleepHook([](unsigned long) {});
    testing::internal::CaptureStdout();
    bOpen = Server->Driver.init_vr480() == 0;
    if (bOpen) {
      FullSpectrumAccess::KnownState(*Server);
      Server->build_FBG_Vth2Thz_LUT();
      FullSpectrumAccess::InitAveraging(*Server);
      Server->AllocateRings();
    }
    testing::internal::GetCapturedStdout();
    Server->Driver.SetSOADrive(30000);
    Server->Driver.SetScanAmp(sim::factory::kScanAmp);  // the laser's factory point: the loops start at lock
    Server->Driver.SetBias(sim::factory::kBias);
    Server->Bias = sim::factory::kBias;
    Server->bAutoBias = true;
    Server->bAutoScanAmp = true;
    bRun = true;
  }
  ~CSpectrumBench() {
    if (bThread) FullSpectrumAccess::StopThread(*Server);
    bRun = false;
    if (bOpen) Server->Driver.close_vr480();
    Server.reset();
    Card.reset();
    InstallHost("/");
  }

  CVr480Server& S() { return *Server; }
  sim::CSimCard& SimCard() { return Card->Card(); }

  void Pass() { FullSpectrumAccess::Pass(*Server); }
  // Runs the acquisition loop until the scan loop declares the instrument ready and the bias
  // loop has stopped stepping (each step moves every line along the sweep by several counts).
  bool Settle(int maxRecords = 30000) {
    int i = 0;
    for (; i < maxRecords && !Server->bReady; ++i) Pass();
    while (Server->bReady && i < maxRecords) {
      const uint16_t bias = Server->Bias;
      for (int k = 0; k < 500; ++k, ++i) Pass();
      if (Server->Bias == bias) return true;
    }
    return false;
  }
  bool StartThread() {
    bThread = FullSpectrumAccess::StartThread(*Server);
    return bThread;
  }
  bool StopThread() {
    bThread = false;
    return FullSpectrumAccess::StopThread(*Server);
  }
  // What the connect callback sets up for a client slot.
  void Connect(int client) {
    const uint16_t write = Server->SpectrumWriteIndex;
    Server->SpectrumReadIndex[client] = write == 0 ? kSpectrumRingSlots - 1 : write - 1;
    Server->bBufferEnable[client] = true;
    Server->DataInterleave[client] = 1;
  }
  // A command as client `client` sends it; the reply body.
  std::string Command(int client, const std::string& line) {
    char* reply = nullptr;
    unsigned length = 0;
    Server->ProcessCmd(static_cast<short>(client), line.c_str(), &reply, &length);
    std::string body = reply ? std::string(reply, length) : std::string();
    if (client < kClientSlots) Server->ReleaseClientRecord(static_cast<uint16_t>(client));
    return body;
  }

 private:
  CTempDir Root;
  std::unique_ptr<sim::CSimCardProvider> Card;
  std::unique_ptr<CVr480Server> Server;
  bool bOpen = false;
  bool bThread = false;
};

// The lines of a calibrated spectrum (a #GET_SPECTRUM body): each run of points above
// `threshold`, located at the centroid of its part above half its height. Wavelengths in nm.
inline std::vector<double> SpectrumLinesNm(const std::string& body, int threshold = 3000) {
  std::vector<double> lines;
  if (body.size() != 88 + 2 * 32768) return lines;
  auto i32 = [&](size_t at) {
    int32_t v;
    std::memcpy(&v, body.data() + at, 4);
    return v;
  };
  auto point = [&](int i) {
    int16_t v;
    std::memcpy(&v, body.data() + 88 + 2 * i, 2);
    return static_cast<int>(v);
  };
  const double granularity = i32(72);
  const double lo = i32(80) / granularity, hi = i32(84) / granularity;
  for (int i = 0; i < 32768;) {
    if (point(i) <= threshold) {
      ++i;
      continue;
    }
    int end = i, top = i;
    while (end < 32768 && point(end) > threshold) {
      if (point(end) > point(top)) top = end;
      ++end;
    }
    const double half = point(top) / 2.0;
    double sum = 0.0, weighted = 0.0;
    for (int k = top; k >= 0 && point(k) > half; --k) sum += point(k) - half, weighted += (point(k) - half) * k;
    for (int k = top + 1; k < 32768 && point(k) > half; ++k) sum += point(k) - half, weighted += (point(k) - half) * k;
    lines.push_back(lo + (weighted / sum) * (hi - lo) / 32768);
    i = end;
  }
  return lines;
}

}  // namespace fstest
