// The acquisition loop: every record the card delivers is fetched and patched, handed to the
// full-spectrum build and the peak pipeline, and ten times a second the slow control tasks
// run. The mode setters that change how the card acquires live here too: they are called by
// command handlers on client threads while the loop runs.
#include <sys/time.h>

#include <chrono>
#include <cmath>
#include <cstdio>
#include <thread>

#include "server/Globals.h"
#include "server/Vr480Server.h"
#include "system/ServiceNotify.h"

bool CVr480Server::GetData() {
  if (bEnableSensorBins) {
    if (Driver.GetData(&pRawPeaks) != 0) return false;
    pRawPeaks->status.flags1_lo = ConvertLayerBits(pRawPeaks->status.flags1_lo);
    BinAcquiredData();
    BinnedPeaks.status.BinningMarks |= 0x0001;
    pPeaks = &BinnedPeaks;
  } else {
    if (Driver.GetData(&pPeaks) != 0) return false;
    pPeaks->status.flags1_lo = ConvertLayerBits(pPeaks->status.flags1_lo);
  }
  struct_dma_peaks_data* rec = pPeaks;
  const int layer = rec->Layer();
  for (int ch = 0; ch < kOpticalChannels; ++ch)
    if (!ChEnable[layer * kOpticalChannels + ch]) rec->status.NumPeaks[2 + ch] = 0;

  const uint16_t mode = Driver.GetOperatingMode();
  if (mode == 2 || mode == 3) {
    DataRateDivider = rec->status.DataRateDivider;
    bUpdateGui = true;
  }
  FpgaWatchDog = 0;
  rec->status.Byte49 = 3;
  pLastPeaks = rec;
  LatestStatus.Set(rec->status);

  // The reference grating may be wired to another detector: take up to 16 of that list's
  // peaks as the grating's.
  if (const uint16_t c = FbgChannel; c != 0 && c < kNumPeakLists) {
    const int n = rec->status.NumPeaks[c] <= kFbgListSize ? rec->status.NumPeaks[c] : kFbgListSize;
    const uint32_t* list = rec->PeakList(c);
    for (int i = 0; i < n; ++i) rec->FbgPeaks[i] = list[i];
    rec->status.NumPeaks[0] = static_cast<uint16_t>(n);
    rec->status.FbgPosition = (rec->status.FbgPosition & 0xFF000000u) | (rec->FbgPeaks[0] & 0x00FFFFFFu);
  }
  return true;
}

void CVr480Server::AcquisitionPass() {
  NotifyServiceAcquisition(bReady);
  if (!GetData()) return;  // stopping, and the card delivers nothing
  if (bMuxLevelChanged.exchange(false)) RebuildAveragingForMuxLevel();
  if (!bRun) return;

  const struct_dma_peaks_data* last = pLastPeaks;
  bTriggeredModeEntered = last->TriggeredAcquisition() && !last->InTriggerWindow();
  if (bTriggeredModeEntered) {
    std::lock_guard<std::mutex> g(DataMutex);
    ++DataModeChanges;
    DataCond.notify_all();
  }
  for (int i = 0; i < kClientSlots; ++i) bNewRecord[i] = true;

  BuildRawFSBuffer();
  ProcessPeaksData();
  if ((bSoaOnWvlPending || bSoaOffWvlPending) && ScaleKnown()) ApplyPendingSoaWindow();

  const int period = SweepRate() / 10;
  if (period > 0 && pLastPeaks.load()->status.RecordCounter % period == 0) {
    AutoBias();
    AutoScanAmp();
    TemperatureMonitor();
    if (SyncCtrlMode == 1) {
      Driver.SetSyncHiCount(static_cast<uint32_t>(std::lround(Wvl2Counts(SyncHiWvl))));
      Driver.SetSyncLoCount(static_cast<uint32_t>(std::lround(Wvl2Counts(SyncLoWvl))));
    }
  }
  BuildSpectrum();

  if (bAutoBiasStepRequested) {
    AutoBiasStepResult = AutoBias();
    bAutoBiasStepRequested = false;
  }
  if (bLocMeasGeneratePlot) {
    const auto& a = LocMeasPlotArgs;
    LocMeasResult = DistMeas_GeneratePlot(a.bFlag, a.Values[0], a.Values[1], a.Values[2], a.Ints[0], a.Ints[1]);
    bLocMeasGeneratePlot = false;
  }
  if (bMeasureLocations) {
    LocMeasResult = MeasureSensorDistances();
    bMeasureLocations = false;
    if (LocMeasResult != 0)
      for (auto& channel : MeasuredLocation)
        for (auto& location : channel) location = 0.0;
  }
}

// A new multiplexer level changes the number of logical channels: the averaging store is
// rebuilt for it, the stored depths re-applied, and records are skipped until the card
// reports the new level.
void CVr480Server::RebuildAveragingForMuxLevel() {
  std::unique_lock<std::mutex> lock(AveragingLock);
  const int level = MuxLevel;
  std::printf("MuxLevel changed to %d.  Releasing WvlAvg buffers...", level);
  std::printf(WvlAvg.Close() == 0 ? "OK.\n" : "Failed.\n");
  if (WvlAvg.Init(static_cast<uint8_t>(level * kOpticalChannels), kSensorsPerChannel,
                  static_cast<uint16_t>(kDefaultAveragingDepth / level)) != 0) {
    std::printf("WvlAvg Memory Allocation Failed.\n");
    std::fflush(stdout);
    bRun = false;  // nothing can be averaged: take the ordinary stop path
    return;
  }
  lock.unlock();  // the depths are re-applied through the setter, which takes the lock itself
  for (int ch = 0; ch < level * kOpticalChannels; ++ch)
    for (int s = 0; s < kSensorsPerChannel; ++s)
      SetNumAverages(static_cast<uint8_t>(ch), static_cast<uint16_t>(s),
                     GetNumAverages(static_cast<uint8_t>(ch), static_cast<uint16_t>(s)));
  bAveragingDepthsChanged = false;
  ApplyAveragingDepths();
  WvlAvg.Reset();
  while (bRun && pPeaks->AppliedLevelBits() != level - 1)
    if (!GetData()) return;
  std::printf("New Mux Level ----->%d\n", pPeaks->AppliedLevelBits());
  std::fflush(stdout);
}

int CVr480Server::SetOperatingMode(uint8_t mode) {
  if (MinDataRateDivider > 1) return -1;
  if (mode != 0) SetTriggeringMode(0);
  Driver.SetOperatingMode(mode);
  bUpdateGui = true;
  return 0;
}

int CVr480Server::SetTriggeringMode(uint8_t mode, bool waitForCard) {
  const uint8_t m = mode & 3;
  if (m != 0) SetOperatingMode(0);
  Driver.SetTrigEnable(m & 1);
  Driver.SetTrigSource(m >> 1);
  if (Driver.GetTrigEnable()) {
    // Only the acquisition loop sets the flag, so this wait must never run on its thread.
    if (waitForCard) {
      const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(1);
      while (!bTriggeredModeEntered && std::chrono::steady_clock::now() < deadline) std::this_thread::yield();
      if (!bTriggeredModeEntered)
        std::printf("Failed to enter triggered mode after %d micro-seconds.\n", 1000000);
    }
    const uint16_t write = ProcessedWriteIndex;
    for (int i = 0; i < kClientSlots; ++i) ProcessedReadIndex[i] = write;
  }
  {
    std::lock_guard<std::mutex> g(DataMutex);
    ++DataModeChanges;
    DataCond.notify_all();
  }
  bUpdateGui = true;
  return 0;
}

uint16_t CVr480Server::GetTriggeringMode() {
  return static_cast<uint16_t>(Driver.GetTrigSource() * 2 + Driver.GetTrigEnable());
}

int CVr480Server::SetMuxLevel(int level) {
  if (MinDataRateDivider > 1) return -1;
  if (DataRateDivider != 1) SetDataRateDivider(1);
  const int previous = MuxLevel;
  if (level == 2) {
    MuxLevel = 2;
    Driver.SetEnableOptoA(false);
    Driver.SetEnableOptoB(true);
  } else if (level == 4) {
    MuxLevel = 4;
    Driver.SetEnableOptoA(true);
    Driver.SetEnableOptoB(true);
  } else {
    MuxLevel = 1;
    Driver.SetEnableOptoA(false);
    Driver.SetEnableOptoB(false);
  }
  if (MuxLevel != previous) bMuxLevelChanged = true;
  bUpdateGui = true;
  return 0;
}

// The card cannot thin its records while it cycles a multiplexer, so the divider only acts
// at level 1.
void CVr480Server::SetDataRateDivider(uint16_t divider) {
  if (MuxLevel != 1) return;
  if (divider == 0) divider = 1;
  if (divider > 1000) divider = 1000;
  DataRateDivider = static_cast<uint16_t>(divider * MinDataRateDivider);
  Driver.SetDataRateDivider(DataRateDivider);
  bUpdateGui = true;
}

// Logs each new extreme of the transmitter temperature: above the highest seen so far
// (starting at 50 degC) or below the lowest (starting at 0 degC).
int CVr480Server::TemperatureMonitor() {
  const struct_dma_peaks_data* last = pLastPeaks;
  if (!last) return 0;
  const float t = static_cast<float>(last->status.InternalTemp / 128.0);
  float mark;
  if (t > MaxInternalTempC) {
    MaxInternalTempC = t;
    mark = t;
  } else if (t < MinInternalTempC) {
    MinInternalTempC = t;
    mark = t;
  } else {
    return 0;
  }
  char line[128];
  std::snprintf(line, sizeof line, "#LOG_ENTRY Warning: Internal operating temperature is %f C.", mark);
  ExecuteInternal(line);
  return 0;
}

int CVr480Server::RunAutoBiasOnAcquisitionThread(std::chrono::milliseconds wait) {
  bAutoBiasStepRequested = true;
  const auto deadline = std::chrono::steady_clock::now() + wait;
  while (bAutoBiasStepRequested && std::chrono::steady_clock::now() < deadline)
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  if (bAutoBiasStepRequested.exchange(false)) return -1;  // the card delivered nothing meanwhile
  return AutoBiasStepResult;
}
