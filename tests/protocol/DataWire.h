// A client's view of the measurement replies, decoded from the documented byte offsets of the
// wire format alone (little-endian, assembled byte by byte). It shares no code with the
// server's record layout, so that a layout fault on either side shows.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace data_wire {

inline uint32_t U8(const std::string& b, size_t at) { return static_cast<uint8_t>(b.at(at)); }
inline uint32_t U16(const std::string& b, size_t at) { return U8(b, at) | U8(b, at + 1) << 8; }
inline uint32_t U32(const std::string& b, size_t at) { return U16(b, at) | U16(b, at + 2) << 16; }

// The body of #GET_DATA, #GET_DATA_AND_LEVELS and their unbuffered forms.
struct SRecord {
  std::string Bytes;

  size_t Size() const { return Bytes.size(); }
  uint32_t Type() const { return U8(Bytes, 7) >> 4; }          // 1 data, 5 data and levels
  uint32_t AmplitudeChannel() const { return U8(Bytes, 3) & 0x07; }
  uint32_t Count(int ch) const { return U16(Bytes, 16 + 2 * ch); }
  uint32_t Sensors() const { return Count(0) + Count(1) + Count(2) + Count(3); }
  uint32_t Sweep() const { return U32(Bytes, 28); }
  uint32_t Status() const { return U8(Bytes, 47); }
  uint32_t FbgPosition() const { return U32(Bytes, 44) & 0x00FFFFFF; }
  uint32_t FreePercent() const { return U8(Bytes, 48); }
  uint32_t Granularity() const { return U32(Bytes, 72); }
  int32_t Value(uint32_t i) const { return static_cast<int32_t>(U32(Bytes, 88 + 4 * i)); }
  // Sensor j of DUT channel ch.
  int32_t Value(int ch, uint32_t j) const {
    uint32_t before = 0;
    for (int c = 0; c < ch; ++c) before += Count(c);
    return Value(before + j);
  }
  // Levels follow the wavelengths in the levels reply.
  size_t Levels() const { return (Size() - 88 - 4 * Sensors()) / 2; }
  uint32_t Level(uint32_t i) const { return U16(Bytes, 88 + 4 * Sensors() + 2 * i); }
  // True when the body is exactly as long as its counts say.
  bool LengthMatchesCounts() const { return Size() == 88 + 4 * Sensors(); }
  bool IsNoDataHeader() const {
    if (Size() != 88) return false;
    for (size_t i = 0; i < 88; ++i)
      if (U8(Bytes, i) != (i == 47 ? 9u : 0u)) return false;
    return true;
  }
};

}  // namespace data_wire
