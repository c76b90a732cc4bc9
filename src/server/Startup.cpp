// Init: the start-up sequence on the main thread, from opening the card to the first record.
// Each stage is a named step, run in this order; the tag replay (step 10) runs before the TCP
// server starts, so no client can interleave with it.
#include <sys/mman.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iostream>
#include <thread>
#include <vector>

#include "host/Host.h"
#include "server/Globals.h"
#include "server/Vr480Server.h"
#include "settings/SettingsFiles.h"
#include "system/Network.h"
#include "system/NetworkGlobals.h"

namespace {
constexpr uint16_t kBlankBridgeId = 0x4750;
constexpr uint16_t kConfiguredCardId = 0x8882;
constexpr const char* kMonitorNotice =
    "You have connected your monitor to the video output\nof the laser controller.  For access to the KELVANTE\n"
    "graphical interface, please connect your monitor\nto the output of the processor module.";
}  // namespace

int16_t CVr480Server::Init() {
  SetStatusText(kMonitorNotice);
  bUpdateGui = true;

  const char* tty = ::ttyname(STDOUT_FILENO);
  std::snprintf(OutputTerminal, sizeof OutputTerminal, "%s", tty ? tty : "");
  std::printf("The current output terminal is %s\n", OutputTerminal);

  Host().Run("stty -F /dev/ttyS0 ospeed 115200 cs8 -cstopb -parenb");
  SerialPort = std::fopen(Host().Path("/dev/ttyS0").c_str(), "w");
  if (!SerialPort) std::printf("******************** Failed to open serial port 0 ********************\n");

  if (int16_t code = OpenCard(); code != kInitOk) return code;

  // The three mutex/condition pairs are constructed with the object (default attributes).
  PutCardInKnownState();
  WriteIdentificationDefaults();
  InitAveragingStore();
  ReplayTags();

  CurrentNetworkConfig = bEmbeddedMode ? 1 : 0;
  StartNetwork();
  // The rings exist before the first client can ask for data (nothing else changes by
  // allocating them ahead of the TCP server; a failure then ends start-up before it).
  if (!AllocateRings()) return kInitNoMemory;
  StartTcpServer();
  build_FBG_Vth2Thz_LUT();
  ProcessedWriteIndex = 0;
  SpectrumWriteIndex = 0;
  if (!StartCalibrationThread()) {
    std::printf("Failed to create the FS calibration thread.\n");
    return kInitNoCard;
  }
  if (bAutoBias) {
    Driver.SetBias(InitialBias);
    std::this_thread::sleep_for(std::chrono::milliseconds(500));
  }
  LoadDataFiles();
  BuildTimeOfFlightLUT();
  // A stop asked for while the card delivers nothing ends the wait for the first record.
  Driver.SetStopPredicate([] { return bStopSignalled.load(); });
  Driver.GetData(&pPeaks);
  if (pPeaks) LatestStatus.Set(pPeaks->status);
  WriteIdentificationSuffix();
  bUpdateGui = true;
  return kInitOk;
}

// Opens the card and checks its identity. A blank bridge, or a configuration memory whose
// revision is too old for this board, is (re)written here and start-up stops: the new image
// takes effect only at the next power-up.
int16_t CVr480Server::OpenCard() {
  if (Driver.init_vr480() != 0) {
    std::printf("Could not find an AMCC/ZOR device.\n");
    std::printf("Make sure an vr480 card is installed before running this program.\n");
    return kInitNoCard;
  }
  DeviceId = Driver.GetDID();
  if (DeviceId == kBlankBridgeId) {
    std::printf("\n\n\n********************************\n");
    std::printf("***** Found an AMCC S5335. *****\n");
    std::printf("********************************\n");
    std::printf("Building ZOR device...\n");
    std::fflush(stdout);
    Driver.make_ZOR_device();
    return kInitBlankBridge;
  }
  if (DeviceId == kConfiguredCardId) {
    int rev = Driver.GetNvRamRev();
    std::printf("\n\n\n*************************************\n");
    std::printf("***** Found a Rev. %d ZOR vr480. *****\n", rev);
    std::printf("*************************************\n");
    if ((rev < 3 && bPcm9361Board) || rev < 2) {
      std::printf("**********  Reflashing ZOR device... **********\n");
      std::fflush(stdout);
      char serial[17] = {};
      Driver.read_nvRAM_SN(serial);
      Driver.make_ZOR_device();
      Driver.write_nvRAM_SN(serial);
      return kInitReflashed;
    }
    return kInitOk;
  }
  std::printf("Warning: Unknown Device ID %d.\n", DeviceId);
  std::printf("Please notify engineering.\n");
  return kInitNoCard;
}

void CVr480Server::PutCardInKnownState() {
  Driver.SetMaxDutPeaks(250);
  Driver.EnableDMA(true);
  Driver.SetClientLed(false);
  Driver.SetReadyLed(false);
  Driver.WriteAd7329ControlRegister(0x810);
  Driver.WriteAd7329RangeRegister1(0xaa0);
  Driver.WriteAd7329RangeRegister2(0xaa0);
  MinDataRateDivider = 1;
  SetDataRateDivider(1);
  Driver.SetHwClkDivider(false);
  Driver.Set2khzMode(false);
  Driver.SetTestSyncOutDivider(0);
  Driver.SetScanAmp(0);
  Driver.SetBias(0);
  Driver.SetSOADrive(0);
  Driver.EnableSOA(true);
  Driver.SetFan1ControlTemp(30);
  Driver.SetFan2ControlTemp(40);
  Driver.SetFan1TempHysteresis(3);
  Driver.SetFan2TempHysteresis(3);
  for (uint8_t ch = 0; ch < kDetectorChannels; ++ch) {
    Driver.SetChGain(ch, 0);
    Driver.SetChThresh(ch, 0);
    Driver.SetChNoiseThreshEnabled(ch, true);
    Driver.SetChLockoutPeriod(ch, 200);
    Driver.SetChNtValidPeriod(ch, 1500);
    Driver.SetChNtvResetOnZc(ch, true);
  }
  Driver.SetExtSyncEdge(false);
  SetOperatingMode(0);
  SetTriggeringMode(0);
  Driver.SwStopTrig();
  Driver.SetTrigStartEdge(false);
  Driver.SetTrigStopEdge(false);
  Driver.SetTrigStopType(0);
  Driver.SetTrigAcqTime(0);
  Driver.SetAutoReTrig(false);
  SoaOnWvl = 0.0;
  SoaOffWvl = 0.0;
  Driver.SetSoaOnCount(0);
  Driver.SetSoaOffCount(0);
  SyncCtrlMode = 0;
  SyncHiCount = 0;
  SyncLoCount = 65536;
  SyncHiWvl = 0.0;
  SyncLoWvl = 0.0;
  Driver.SetSyncHiCount(SyncHiCount);
  Driver.SetSyncLoCount(SyncLoCount);
  SetMuxLevel(1);
  bMuxLevelChanged = false;
}

void CVr480Server::WriteIdentificationDefaults() {
  std::lock_guard<std::mutex> g(IdentityLock);
  std::snprintf(IdnText, 60, "%s", "Zorvane vr480, ");
  std::snprintf(ZorIdn, sizeof ZorIdn, "%s", "vr480");
  std::snprintf(ProductId, sizeof ProductId, "%s", "XXXXXX_XXXXXX");
}

void CVr480Server::InitAveragingStore() {
  std::printf("Wvl Avg Est Memory Requirements = %llu\n",
              static_cast<unsigned long long>(
                  WvlAvg.GetMemoryRequired(kOpticalChannels, kSensorsPerChannel, kDefaultAveragingDepth)));
  WvlAvg.Init(kOpticalChannels, kSensorsPerChannel, kDefaultAveragingDepth);
  WvlAvg.Reset();
}

// The processed-data ring alone is 138 MB; its pages are committed as the ring fills, so it
// is not cleared here. It asks for huge pages where the host offers them on request: the ring's
// first lap then takes a page fault every few hundred records instead of every record.
bool CVr480Server::AllocateRings() {
  const size_t ringBytes = static_cast<size_t>(kProcessedRingSlots) * kProcessedRecordBytes;
  ProcessedData = new (std::nothrow) uint8_t[ringBytes];
  if (ProcessedData) {
    const uintptr_t page = static_cast<uintptr_t>(::sysconf(_SC_PAGESIZE));
    const uintptr_t from = (reinterpret_cast<uintptr_t>(ProcessedData) + page - 1) & ~(page - 1);
    const uintptr_t to = (reinterpret_cast<uintptr_t>(ProcessedData) + ringBytes) & ~(page - 1);
    if (to > from) ::madvise(reinterpret_cast<void*>(from), to - from, MADV_HUGEPAGE);  // a hint only
  }
  SpectrumBuffer = new (std::nothrow) uint8_t[kSpectrumRingSlots * kSpectrumRecordBytes];
  RawSpectrumBuffer = new (std::nothrow) uint8_t[kRawSpectrumBytes]();
  return ProcessedData && SpectrumBuffer && RawSpectrumBuffer;
}

void CVr480Server::LoadDataFiles() {
  std::ifstream cfc(Host().Path("/cfc_build.dat"));
  if (cfc) {
    std::string line;
    std::getline(cfc, line);
    CfcVersion = static_cast<uint16_t>(std::atoi(line.substr(0, 100).c_str()));
  } else {
    std::printf("Error opening cfc_build file.\n");
    CfcVersion = 1;
  }
  LoadSettingsDataFiles();
}

void CVr480Server::WriteIdentificationSuffix() {
  std::lock_guard<std::mutex> g(IdentityLock);
  char previous[sizeof IdnText];
  std::memcpy(previous, IdnText, sizeof IdnText);
  std::snprintf(IdnText, 60, "%s%s-%d-%d-%d ", previous, kServerRelease, Driver.GetDriverVersion(),
                pPeaks ? pPeaks->status.fw_version : 0, CfcVersion);
}

// Replays the persisted settings through the command interpreter as the internal client.
// Each tag records itself again as it runs, so the list is copied before the replay.
void CVr480Server::ReplayTags() {
  LoadTagFile(TagManager);
  std::vector<std::string> tags;
  for (uint16_t i = 0; i < TagManager.GetNumTags(); ++i) tags.push_back(TagManager.GetTag(i));
  for (const std::string& tag : tags) {
    std::printf("CMD: %s\n", tag.c_str());
    ExecuteInternal(tag);
  }
}
