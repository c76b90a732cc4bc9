// A server object over its own simulated card, prepared as start-up does, laser at its ready point.
// In Step mode nothing runs between records; free-running, the calibration thread can run beside.
#pragma once

#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
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
  static void Pass(CVr480Server& s) { s.AcquisitionPass(); }
  static void GetData(CVr480Server& s) { s.GetData(); }
  static int ProcessPeaksData(CVr480Server& s) { return s.ProcessPeaksData(); }
  static int AutoBias(CVr480Server& s) { return s.AutoBias(); }
  static int AutoScanAmp(CVr480Server& s) { return s.AutoScanAmp(); }
  static void BuildRawFSBuffer(CVr480Server& s) { s.BuildRawFSBuffer(); }
  static void BuildSpectrum(CVr480Server& s) { s.BuildSpectrum(); }
  static int CalibrateFsOffset(CVr480Server& s) { return s.CalibrateFsOffset(); }
  static bool StartThread(CVr480Server& s) { return s.StartCalibrationThread(); }
  static bool StopThread(CVr480Server& s) { return s.StopCalibrationThread(); }
  static void Prepare(CVr480Server& s) {
    s.PutCardInKnownState();
    s.build_FBG_Vth2Thz_LUT();
    s.InitAveragingStore();
    s.AllocateRings();
  }
};

namespace bench {

constexpr uint8_t kBiasCode = 0x03, kScanAmpCode = 0x04, kReadyLedCode = 0x07;  // FPGA command codes
constexpr int kReadyBias = sim::factory::kBias;  // where the bias loop settles on the default optics

inline sim::CSimScene Scene(const std::string& text) {
  const sim::CSceneParseResult scene = sim::ParseScene(text);
  EXPECT_TRUE(scene.bOk) << scene.Error;
  return scene.Scene;
}

class CBench {
 public:
  explicit CBench(const sim::CSimScene& scene, sim::EProducerMode mode = sim::EProducerMode::Step)
      : bStep(mode == sim::EProducerMode::Step) {
    InstallHost(Root.Path());
    sim::CSimOptions options;
    options.Mode = mode;
    Provider = std::make_unique<sim::CSimCardProvider>(options);
    Provider->Card().LoadScene(scene);
    Server = std::make_unique<CVr480Server>();
    Server->Driver.SetCardProvider(Provider.get());
    Server->Driver.SetSleepHook([](unsigned long) {});  // the simulated card needs no settling time
    testing::internal::CaptureStdout();
    bOpen = Server->Driver.init_vr480() == 0;
    if (bOpen) FullSpectrumAccess::Prepare(*Server);
    testing::internal::GetCapturedStdout();
    EXPECT_TRUE(bOpen);
    bRun = false;  // light, the laser at its ready point, both loops on; replayed as at start-up
    const std::string bias = std::to_string(kReadyBias), amp = std::to_string(sim::factory::kScanAmp);
    for (const std::string& line : std::vector<std::string>{"#SET_SOA_DRIVE 30000", "#SET_SCAN_AMP " + amp, "#SET_INITIAL_BIAS " + bias,
                                                            "#SET_BIAS " + bias, "#SET_AUTOBIAS 1", "#SET_AUTO_SCAN_AMP 1"})
      Command(line);
    bRun = true;
  }
  ~CBench() {
    if (bThread) FullSpectrumAccess::StopThread(*Server);
    bRun = false;
    if (bOpen) Server->Driver.close_vr480();
    Server.reset();
    InstallHost("/");
  }

  sim::CSimCard& Card() { return Provider->Card(); }
  CVr480Server& S() { return *Server; }

  // A command as client `client` sends it; the reply body.
  std::string Command(const std::string& line, int client = kInternalClient) {
    char* reply = nullptr;
    unsigned length = 0;
    Server->ProcessCmd(static_cast<short>(client), line.c_str(), &reply, &length);
    std::string body = reply ? std::string(reply, length) : std::string();
    if (client < kClientSlots) Server->ReleaseClientRecord(static_cast<uint16_t>(client));
    return body;
  }

  // One record through the whole acquisition pass (the loops run on every 100th record).
  void Pass() {
    if (bStep) Card().Step(1);
    FullSpectrumAccess::Pass(*Server);
  }
  // One record fetched and processed, without the loops: the test calls them itself.
  void Record() {
    Card().Step(1);
    FullSpectrumAccess::GetData(*Server);
    FullSpectrumAccess::ProcessPeaksData(*Server);
  }
  int AutoBias() { return FullSpectrumAccess::AutoBias(*Server); }
  int AutoScanAmp() { return FullSpectrumAccess::AutoScanAmp(*Server); }

  // Runs until the instrument is ready and the bias loop has stopped stepping.
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
  bool StartThread() { return bThread = FullSpectrumAccess::StartThread(*Server); }
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

  // Grating position on the record just fetched (0 when it has none).
  int Grating() const { return static_cast<int>(Server->pPeaks->status.FbgPosition & 0x00FFFFFF); }
  int GratingError() const { return Grating() - Server->GratingTargetLocationCounts; }

  // Arguments of the FPGA words with this code that the card received since MarkLog().
  void MarkLog() { LogMark = Card().CommandLog().size(); }
  std::vector<uint32_t> Sent(uint8_t code) {
    std::vector<uint32_t> args;
    const auto log = Card().CommandLog();
    for (size_t i = LogMark; i < log.size(); ++i)
      if (log[i].Word >> 24 == code) args.push_back(log[i].Word & 0xFFFFFF);
    return args;
  }

 private:
  CTempDir Root;
  bool bStep;
  std::unique_ptr<sim::CSimCardProvider> Provider;
  std::unique_ptr<CVr480Server> Server;
  bool bOpen = false;
  bool bThread = false;
  size_t LogMark = 0;
};

}  // namespace bench
