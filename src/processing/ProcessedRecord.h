// The processed record: one 4612-byte slot of the processed-data ring, written by the peak
// pipeline for every published sweep and sent to clients byte for byte by the data commands.
//
//   0     12 bytes   room for the data commands' reply frame (the pipeline leaves it alone)
//   12    88 bytes   the card's status header, copied from the peaks record and patched:
//   15      bit 6      comb warning: the grating sat too far between two comb teeth
//   28      4 x u16    sensors kept on DUT channels 0-3 (replaces the card's peak counts)
//   56      u32        top byte: processing status (below); low 24 bits the grating position
//   84      u32        Granularity, the integer wavelength units per nm
//   100   4T bytes   one i32 wavelength per kept sensor, channel 0's first
//   100+4T 2A bytes  one u16 amplitude per peak of the amplitude channel
//   4600  u32        88 + 4T: header and wavelengths
//   4604  u32        88 + 4T + 2A: header, wavelengths and amplitudes
//   4608  u8         in-use mark of the data commands, cleared when the slot is written
// All little-endian, as the card's header is.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "server/Limits.h"

constexpr size_t kRecHeaderOffset = 12;
constexpr size_t kRecStatus3Offset = kRecHeaderOffset + 3;
constexpr size_t kRecKeptCountsOffset = kRecHeaderOffset + 16;
constexpr size_t kRecStatusWordOffset = kRecHeaderOffset + 44;
constexpr size_t kRecStatusCodeOffset = kRecStatusWordOffset + 3;  // top byte of the little-endian word
constexpr size_t kRecGranularityOffset = kRecHeaderOffset + 72;
constexpr size_t kRecSensorsOffset = kRecHeaderOffset + 88;
constexpr size_t kRecSensorBytesOffset = 4600;
constexpr size_t kRecTotalBytesOffset = 4604;
constexpr size_t kRecInUseOffset = 4608;
constexpr uint8_t kRecScaleWarningBit = 0x40;  // in status byte 3
static_assert(kRecInUseOffset + 4 == kProcessedRecordBytes);

// Processing status of a record, in the top byte of its status word.
enum : uint8_t {
  kPeaksOk = 0,
  kPeaksNoGrating = 2,         // no grating peak: nothing to anchor the comb to
  kPeaksManyGratings = 3,      // more than one grating peak: which one is the grating is unknown
  kPeaksFewCombTeeth = 4,      // fewer than 11 comb teeth
  kPeaksGratingLeft = 5,       // grating before the 6th comb tooth
  kPeaksGratingRight = 6,      // grating after the 6th comb tooth from the end
  kPeaksRefToothOutside = 7,   // the reference tooth the grating names is not in this record's comb
  kPeaksSensorLimit = 0x81,    // processed, and the sensor count reached the switch-down limit
};

// The slot is a byte buffer sent as it is; fields are read and written by copying, so no
// field needs to be aligned.
inline void PutRecU16(uint8_t* slot, size_t offset, uint16_t v) { std::memcpy(slot + offset, &v, sizeof v); }
inline void PutRecU32(uint8_t* slot, size_t offset, uint32_t v) { std::memcpy(slot + offset, &v, sizeof v); }
inline void PutRecI32(uint8_t* slot, size_t offset, int32_t v) { std::memcpy(slot + offset, &v, sizeof v); }
inline uint16_t GetRecU16(const uint8_t* slot, size_t offset) {
  uint16_t v;
  std::memcpy(&v, slot + offset, sizeof v);
  return v;
}
inline uint32_t GetRecU32(const uint8_t* slot, size_t offset) {
  uint32_t v;
  std::memcpy(&v, slot + offset, sizeof v);
  return v;
}
inline int32_t GetRecI32(const uint8_t* slot, size_t offset) {
  int32_t v;
  std::memcpy(&v, slot + offset, sizeof v);
  return v;
}
