// Lets the server tests drive start-up stages and acquisition passes one by one, in process,
// against a simulated card.
#pragma once

#include <gtest/gtest.h>

#include <memory>

#include "server/Globals.h"
#include "server/Vr480Server.h"
#include "sim/SimCardProvider.h"

struct ServerAccess {
  static void KnownState(CVr480Server& s) { s.PutCardInKnownState(); }
  static void Pass(CVr480Server& s) { s.AcquisitionPass(); }
  static void InitAveraging(CVr480Server& s) { s.InitAveragingStore(); }
  static int BuildTable(CVr480Server& s) { return s.build_FBG_Vth2Thz_LUT(); }
};

// A server object over its own simulated card: the card is open, nothing else is started
// (no TCP server, no threads of the server's own).
class CCardServer {
 public:
  explicit CCardServer(sim::EProducerMode mode, const sim::CSimScene* scene = nullptr) {
    sim::CSimOptions options;
    options.Mode = mode;
    Card = std::make_unique<sim::CSimCardProvider>(options);
    if (scene) Card->Card().LoadScene(*scene);
    Server = std::make_unique<CVr480Server>();
    Server->Driver.SetCardProvider(Card.get());
    Server->Driver.SetSleepHook([](unsigned long) {});
    testing::internal::CaptureStdout();
    bOpen = Server->Driver.init_vr480() == 0;
    testing::internal::GetCapturedStdout();
  }
  ~CCardServer() {
    if (bOpen) Server->Driver.close_vr480();
  }
  // What Init does for acquisition: known state, grating table, averaging store, rings.
  void PrepareAcquisition() {
    ServerAccess::KnownState(*Server);
    ServerAccess::BuildTable(*Server);
    testing::internal::CaptureStdout();
    ServerAccess::InitAveraging(*Server);
    testing::internal::GetCapturedStdout();
    Server->AllocateRings();
  }
  // The laser at the working point the control loops settle on with the default scene.
  void LaserAtWorkingPoint() {
    Server->Driver.SetSOADrive(30000);
    Server->Driver.SetScanAmp(40800);
    Server->Driver.SetBias(28620);
    Server->Bias = 28620;
  }

  std::unique_ptr<sim::CSimCardProvider> Card;
  std::unique_ptr<CVr480Server> Server;
  bool bOpen = false;
};
