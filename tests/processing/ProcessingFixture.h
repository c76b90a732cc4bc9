// The processing tests' server (rings, averaging store, grating table), a hand-built sweep and
// readers of the processed record. The sweep: 101 comb teeth 512 counts apart from count 4000,
// 100 GHz apart; tooth 50 is the reference at 194.0 THz (frequency falls as the count rises);
// the grating lies halfway between teeth 60 and 61 (192.95 THz) and reads kGratingVth.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>

#include "processing/ProcessedRecord.h"
#include "server/Vr480Server.h"

struct ProcessingAccess {
  static int Process(CVr480Server& s) { return s.ProcessPeaksData(); }
  static void BuildGratingTable(CVr480Server& s) { s.build_FBG_Vth2Thz_LUT(); }
  static double Wvl2Counts(CVr480Server& s, double nm) { return s.Wvl2Counts(nm); }
  static void BinCurrentRecord(CVr480Server& s) { s.BinAcquiredData(); }
};

namespace proc_test {

constexpr int kTeeth = 101;
constexpr uint32_t kFirstTooth = 4000;
constexpr uint32_t kToothSpacing = 512;
constexpr int kRefTooth = 50;
constexpr int kGratingTooth = 60;  // the grating lies between this tooth and the next
constexpr int16_t kGratingVth = 1000;
constexpr uint8_t kPublish = 0x20;

inline uint32_t ToothCount(int j) { return kFirstTooth + kToothSpacing * static_cast<uint32_t>(j); }
inline double ToothThz(int j) { return 194.0 + (kRefTooth - j) * 0.1; }
inline double Nm(double thz) { return 299792.458 / thz; }
// Wavelength at a fraction of the way from tooth j to tooth j + 1.
inline double NmBetween(int j, double fraction) { return Nm(ToothThz(j) - fraction * 0.1); }
inline uint32_t CountBetween(int j, double fraction) { return ToothCount(j) + static_cast<uint32_t>(fraction * kToothSpacing); }
inline double Fm(double nm) { return nm * 1e6; }  // record units at the default granularity

// A published sweep with a healthy comb and grating and no sensors.
inline struct_dma_peaks_data MakeSweep() {
  struct_dma_peaks_data r;
  std::memset(&r, 0, sizeof r);
  r.status.Status3 = kPublish;
  r.status.Vth = kGratingVth;
  r.status.fw_version = 101;
  r.status.SweepCounter = 123456;
  r.status.RecordCounter = 77;
  r.status.NumPeaks[0] = 1;
  r.FbgPeaks[0] = CountBetween(kGratingTooth, 0.5);
  r.status.FbgPosition = 0x00FFFFFF & r.FbgPeaks[0];
  r.status.NumPeaks[1] = kTeeth;
  for (int j = 0; j < kTeeth; ++j) r.FfpiPeaks[j] = ToothCount(j);
  return r;
}

inline void AddSensor(struct_dma_peaks_data& r, int ch, uint32_t count) {
  r.DutPeaks[ch][r.status.NumPeaks[2 + ch]++] = count;
}

inline std::unique_ptr<CVr480Server> MakeServer() {
  auto s = std::make_unique<CVr480Server>();
  EXPECT_TRUE(s->AllocateRings());
  s->WvlAvg.Init(16, kSensorsPerChannel, 64);
  s->DataRateDivider = 1;
  s->MinDataRateDivider = 1;
  s->FbgRefVth = static_cast<uint16_t>(kGratingVth);
  s->FbgRefWvlNm = NmBetween(kGratingTooth, 0.5);
  ProcessingAccess::BuildGratingTable(*s);
  return s;
}

inline const uint8_t* Slot(const CVr480Server& s, int index) {
  return s.ProcessedData + static_cast<size_t>(index) * kProcessedRecordBytes;
}

struct Published {
  const uint8_t* Bytes;
  uint8_t Status() const { return Bytes[kRecStatusCodeOffset]; }
  uint32_t StatusLow24() const { return GetRecU32(Bytes, kRecStatusWordOffset) & 0x00FFFFFF; }
  bool ScaleWarning() const { return (Bytes[kRecStatus3Offset] & kRecScaleWarningBit) != 0; }
  uint16_t Kept(int ch) const { return GetRecU16(Bytes, kRecKeptCountsOffset + 2 * ch); }
  uint32_t Sensors() const { return (GetRecU32(Bytes, kRecSensorBytesOffset) - 88) / 4; }
  uint32_t Amplitudes() const { return (GetRecU32(Bytes, kRecTotalBytesOffset) - GetRecU32(Bytes, kRecSensorBytesOffset)) / 2; }
  int32_t Value(uint32_t i) const { return GetRecI32(Bytes, kRecSensorsOffset + 4 * i); }
  // Sensor s of DUT channel ch.
  int32_t Value(int ch, int s) const {
    uint32_t before = 0;
    for (int c = 0; c < ch; ++c) before += Kept(c);
    return Value(before + s);
  }
  uint32_t Granularity() const { return GetRecU32(Bytes, kRecGranularityOffset); }
  const struct_dma_peaks_status& Header() const { return *reinterpret_cast<const struct_dma_peaks_status*>(Bytes + kRecHeaderOffset); }
};
inline Published LastRecord(const CVr480Server& s) {
  const int w = s.ProcessedWriteIndex;
  return Published{Slot(s, w == 0 ? kProcessedRingSlots - 1 : w - 1)};
}

// Hands a record to the pipeline as the acquisition loop does; the record published last.
inline Published Feed(CVr480Server& s, struct_dma_peaks_data& r) {
  s.pPeaks = &r;
  s.pLastPeaks = &r;
  ProcessingAccess::Process(s);
  return LastRecord(s);
}

template <class F>
std::string Console(F&& f) {
  std::fflush(stdout);
  testing::internal::CaptureStdout();
  f();
  std::fflush(stdout);
  return testing::internal::GetCapturedStdout();
}

}  // namespace proc_test
