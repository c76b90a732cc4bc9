#include "server/Vr480Server.h"

#include <algorithm>
#include <sys/stat.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <type_traits>
#include <iostream>
#include <new>

#include "host/Host.h"
#include "server/Globals.h"

namespace {

alignas(CVr480Server) unsigned char ServerStorage[sizeof(CVr480Server)];

bool FileExists(const std::string& path) {
  struct stat st {};
  return ::stat(path.c_str(), &st) == 0;
}

// The constructor cannot go on without its tables: report which one and end the process.
[[noreturn]] void AllocationFailed(const std::string& text) {
  std::cout << text << std::flush;
  std::exit(1);
}

template <class T>
T* AllocateArray(size_t count, const std::string& failureText) {
  T* p = new (std::nothrow) T[count]();
  if (!p) AllocationFailed(failureText);
  return p;
}

}  // namespace

CVr480Server& Vr480Server = *reinterpret_cast<CVr480Server*>(ServerStorage);

void ConstructServer() { new (ServerStorage) CVr480Server(); }

CVr480Server::CVr480Server() : bPcm9361Board(FileExists(Host().Path("/vr480.9361.id"))) {
  for (int i = 0; i < kClientEntries; ++i) {
    bUseStreamTokens[i] = true;
    ClientRecordInUse[i] = -1;
  }
  for (int l = 0; l < kLogicalChannels; ++l) {
    IndexOfRefraction[l] = 1.46;
    ChEnable[l] = true;
    LocMeasChOffsetMeters[l] = 0.0;
    ZorLocMeasChOffsetMeters[l] = 0.0;
  }
  for (int ch = 0; ch < kOpticalChannels; ++ch) {
    MaxDutChGain[ch] = 65535;
    MinChPwrLevel[ch] = 0;
    MaxChPwrLevel[ch] = 0;
  }
  for (int i = 0; i < kUserVars; ++i) {
    UserVar[i] = 0;
    ZorVar[i] = 0;
  }
  for (int i = 0; i < kAnalogOutputs; ++i) {
    AvoChannel[i] = 0;
    AvoSensor[i] = static_cast<uint16_t>(i);
    AvoReference[i] = 0.0;
    AvoReferenceVout[i] = 0.5;
    AvoScalingFactor[i] = 100.0;
  }
  // The header-only reply served when a client asks for data and there is none: 12 bytes of
  // headroom for the frame, the 88-byte header (zeros), and its length.
  uint32_t headerLength = sizeof(struct_dma_peaks_status);
  std::memcpy(ErrorDataRecord + 12 + sizeof(struct_dma_peaks_status), &headerLength, sizeof headerLength);
  for (auto& layer : PeakAmpDirty)
    for (int i = 0; i < 128; ++i) layer[i] = true;
  SetMaxSensorSlewRate(200);
  msg.Set("Ready.");

  AllocateTables();
}

void CVr480Server::AllocateTables() {
  for (int i = 0; i < kClientEntries; ++i) {
    ResponseBuffer[i] = AllocateArray<char>(kResponseBufferBytes,
                                            "failed to allocate " + std::to_string(kResponseBufferBytes) +
                                                " chars for ResponseBuffer[" + std::to_string(i) +
                                                "] in CVr480Server constructor.\n");
    ResponseText[i] = ResponseBuffer[i] + 10;
  }
  Vth2Thz = AllocateArray<Relaxed<double>>(65536, "failed to allocate 65536 doubles for Vth2Thz in CVr480Server constructor.\n");
  auto perChannel = [](auto** table, int channels, size_t count, const char* name) {
    using T = std::remove_pointer_t<std::remove_reference_t<decltype(*table)>>;
    for (int ch = 0; ch < channels; ++ch)
      table[ch] = AllocateArray<T>(count, std::string("failed to allocate ") + name + "[" + std::to_string(ch) +
                                              "] in CVr480Server constructor.\n");
  };
  perChannel(GainWvlOffset, kOpticalChannels, kGainCodes, "GainWvlOffset");
  perChannel(SensorDistances, kLogicalChannels, kSensorsPerChannel, "SensorDistances");
  perChannel(TimeOfFlightInCounts, kLogicalChannels, kSensorsPerChannel, "TimeOfFlightInCounts");
  perChannel(SensorReferences, kLogicalChannels, kSensorsPerChannel, "SensorReferences");
  perChannel(SensorAverages, kLogicalChannels, kSensorsPerChannel, "SensorAverages");
  for (int layer = 0; layer < kMaxMuxLevel; ++layer)
    for (int slot = 0; slot < kFsHistoryDepth; ++slot)
      FS_RawHistoryBuffer[layer][slot] = AllocateArray<uint16_t>(
          kFsSamples, "failed to allocate FS_RawHistoryBuffer[" + std::to_string(layer) + "][" +
                          std::to_string(slot) + "] in CVr480Server constructor.\n");

  for (int l = 0; l < kLogicalChannels; ++l)
    for (int s = 0; s < kSensorsPerChannel; ++s) SensorAverages[l][s] = MinNumAverages;
  // The switch-down table is computed once, from the driver's flags at construction (2 kHz
  // mode on, clock divider off), and is not recomputed when the rate changes later.
  int rate = Driver.Get2khzMode() ? 2000 : 1000;
  if (Driver.GetHwClkDivider_()) rate /= 2;
  SwitchdownLimit[0] = 0;
  for (int i = 1; i < kSwitchdownEntries; ++i) SwitchdownLimit[i] = static_cast<uint16_t>(i * 1000000 / rate);
}

CVr480Server::~CVr480Server() {
  for (auto& p : ResponseBuffer) delete[] p;
  delete[] Vth2Thz;
  for (auto& p : GainWvlOffset) delete[] p;
  for (auto& p : SensorDistances) delete[] p;
  for (auto& p : TimeOfFlightInCounts) delete[] p;
  for (auto& p : SensorReferences) delete[] p;
  for (auto& p : SensorAverages) delete[] p;
  for (auto& layer : FS_RawHistoryBuffer)
    for (auto& p : layer) delete[] p;
  delete[] ProcessedData;
  delete[] SpectrumBuffer;
  delete[] RawSpectrumBuffer;
}

void CVr480Server::SetStatusText(const std::string& text) {
  std::lock_guard<std::mutex> g(StatusTextLock);
  StatusText = text;
}

std::string CVr480Server::GetStatusText() const {
  std::lock_guard<std::mutex> g(StatusTextLock);
  return StatusText;
}

uint16_t CVr480Server::Switchdown(uint16_t divider) const {
  if (divider == 0) return SwitchdownLimit[1];
  if (divider > 9) return SwitchdownLimit[9];
  return SwitchdownLimit[divider];
}

int CVr480Server::SweepRate() {
  int rate = Driver.Get2khzMode() ? 2000 : 1000;
  return Driver.GetHwClkDivider_() ? rate / 2 : rate;
}

// Handlers record depths; the acquisition thread alone changes the store's rings, so the
// per-record averaging needs no lock. The lock keeps a depth change apart from a rebuild of
// the store for a new multiplexer level, and the store's own channel count (not the level just
// requested) decides whether the sensor is in use.
int CVr480Server::SetNumAverages(uint8_t channel, uint16_t sensor, uint16_t n) {
  if (channel >= kLogicalChannels || sensor >= kSensorsPerChannel) return -1;
  std::lock_guard<std::mutex> g(AveragingLock);
  if (channel < WvlAvg.GetNumChannels() && channel < MuxLevel * kOpticalChannels) {
    if (n == 0) n = 1;                         // the store keeps at least one value
    if (n > WvlAvg.GetCapacity()) return 0;    // beyond the rings: the depth stays
    SensorAverages[channel][sensor] = n;
    bAveragingDepthsChanged = true;
    return 0;
  }
  SensorAverages[channel][sensor] = n;  // a layer not in use yet: kept for when it is
  return 0;
}

void CVr480Server::ApplyAveragingDepths() {
  std::lock_guard<std::mutex> g(AveragingLock);
  const int channels = std::min<int>(WvlAvg.GetNumChannels(), MuxLevel * kOpticalChannels);
  for (int ch = 0; ch < channels; ++ch)
    for (int s = 0; s < kSensorsPerChannel; ++s) {
      const auto c8 = static_cast<uint8_t>(ch);
      const auto s16 = static_cast<uint16_t>(s);
      const uint16_t want = SensorAverages[ch][s];
      if (WvlAvg.GetTargetNumAvg(c8, s16) != want) WvlAvg.SetTargetNumAvg(c8, s16, want);
    }
}

uint16_t CVr480Server::GetNumAverages(uint8_t channel, uint16_t sensor) {
  if (channel < kLogicalChannels && sensor < kSensorsPerChannel) return SensorAverages[channel][sensor];
  std::printf("Illegal parameters to GetNumAverages(): ch= %d  and sensor= %d.\n", int(channel), int(sensor));
  return 0;
}
