// A bench for the laser's control loops: a server object on a simulated card in Step mode,
// driven record by record as the acquisition loop drives it. Nothing runs between steps, so
// what the card received and where its grating went follow from the test alone, and seconds
// of card time take a fraction of that in wall time.
//
// The card comes up in the server's known state (as start-up leaves it) plus the laser
// settings of a working instrument, given as command lines through the command interpreter.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "host/Host.h"
#include "server/Globals.h"
#include "server/Vr480Server.h"
#include "sim/SimCardProvider.h"
#include "sim/SimOptics.h"
#include "support/TempDir.h"

// The stages the acquisition thread runs are private to the server.
struct ControlLoopAccess {
  static void PutCardInKnownState(CVr480Server& s) { s.PutCardInKnownState(); }
  static void AcquisitionPass(CVr480Server& s) { s.AcquisitionPass(); }
  static void GetData(CVr480Server& s) { s.GetData(); }
  static int ProcessPeaksData(CVr480Server& s) { return s.ProcessPeaksData(); }
  static int AutoBias(CVr480Server& s) { return s.AutoBias(); }
  static int AutoScanAmp(CVr480Server& s) { return s.AutoScanAmp(); }
};

namespace loops {

// FPGA command codes of the laser settings and the ready LED.
constexpr uint8_t kBiasCode = 0x03;
constexpr uint8_t kScanAmpCode = 0x04;
constexpr uint8_t kReadyLedCode = 0x07;

// Where the loops settle on the simulated card with its default optics, at its default
// internal temperature of 35 degC.
constexpr int kReadyBias = sim::factory::kBias;
constexpr int kReadyScanAmp = sim::factory::kScanAmp;
constexpr int kTargetCounts = 32768;  // the grating's default target, the middle of the sweep

// Sensors are not needed by the loops; one keeps the pipeline honest. The quiet scene reports
// every peak at its exact position, so that a test can put the grating exactly where it wants.
inline const char* kScene = "1 1545.0 10 9000\n";
inline const char* kQuietScene =
    "1 1545.0 10 9000\n"
    "peak_noise 0\n";

class CLoopBench {
 public:
  // `lines`: command lines run as the internal client after the card is in its known state.
  CLoopBench(const std::string& sceneText, const std::vector<std::string>& lines) {
    InstallHost(Root.Path());
    sim::CSimOptions options;
    options.Mode = sim::EProducerMode::Step;
    Provider = std::make_shared<sim::CSimCardProvider>(options);
    const sim::CSceneParseResult scene = sim::ParseScene(sceneText);
    EXPECT_TRUE(scene.bOk) << scene.Error;
    Provider->Card().LoadScene(scene.Scene);

    Server = std::make_unique<CVr480Server>();
    Server->Driver.SetCardProvider(Provider.get());
    Server->Driver.SetSleepHook([](unsigned long) {});  // the card needs no settling time in Step mode
    EXPECT_EQ(Server->Driver.init_vr480(), 0);
    ControlLoopAccess::PutCardInKnownState(*Server);
    EXPECT_TRUE(Server->AllocateRings());
    Server->WvlAvg.Init(4, kSensorsPerChannel, 16);
    Server->build_FBG_Vth2Thz_LUT();
    bRun = false;  // the settings below are replayed as at start-up
    for (const std::string& line : lines) Command(line);
    bRun = true;
  }
  ~CLoopBench() {
    bRun = false;
    Server->Driver.close_vr480();
    Server.reset();
    InstallHost("/");
  }

  sim::CSimCard& Card() { return Provider->Card(); }
  CVr480Server& S() { return *Server; }

  std::string Command(const std::string& line) {
    char* reply = nullptr;
    unsigned length = 0;
    Server->ProcessCmd(kInternalClient, line.c_str(), &reply, &length);
    return std::string(reply, length);
  }

  // One record through the whole acquisition pass (the loops run on every 100th record).
  void Pass() {
    Card().Step(1);
    ControlLoopAccess::AcquisitionPass(*Server);
  }
  void RunSeconds(double seconds) {
    for (long i = 0, n = std::lround(seconds * 1000); i < n; ++i) Pass();
  }
  // One record fetched and processed, without the loops: the test calls them itself.
  void Record() {
    Card().Step(1);
    ControlLoopAccess::GetData(*Server);
    ControlLoopAccess::ProcessPeaksData(*Server);
  }
  int AutoBias() { return ControlLoopAccess::AutoBias(*Server); }
  int AutoScanAmp() { return ControlLoopAccess::AutoScanAmp(*Server); }

  // Grating position on the record just fetched (counts; 0 when it has none).
  int Grating() const { return static_cast<int>(Server->pPeaks->status.FbgPosition & 0x00FFFFFF); }
  int GratingError() const { return Grating() - Server->GratingTargetLocationCounts; }

  // Arguments of the FPGA words with this code that the card received from now on.
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
  std::shared_ptr<sim::CSimCardProvider> Provider;
  std::unique_ptr<CVr480Server> Server;
  size_t LogMark = 0;
};

// The settings of a working instrument: light, the laser at its ready point, both loops on.
inline std::vector<std::string> ReadyLaser() {
  return {"#SET_SOA_DRIVE 30000", "#SET_SCAN_AMP " + std::to_string(kReadyScanAmp),
          "#SET_INITIAL_BIAS " + std::to_string(kReadyBias), "#SET_BIAS " + std::to_string(kReadyBias),
          "#SET_AUTOBIAS 1", "#SET_AUTO_SCAN_AMP 1"};
}

}  // namespace loops
