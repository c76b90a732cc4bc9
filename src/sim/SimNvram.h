// The simulated card's configuration memory (nvRAM) and the bridge's serial access to it.
//
// The PCI bridge loads its configuration (vendor and device ID, class, revision) from a
// 256-byte serial memory at power-up; the instrument also keeps its serial number there. The
// server reads and rewrites this memory through two bytes of the bridge's master control
// register: byte 0x3F selects an operation, byte 0x3E carries an address or data byte:
//   0x3F <- 0x80: the next 0x3E write is the address low byte; 0xA0: the high byte;
//   0x3F <- 0xE0: read, 0x3E <- nv[address];  0x3F <- 0x00: the next 0x3E write is data;
//   0x3F <- 0xC0: commit the data byte to nv[address].
// After a read or commit, bit 7 of 0x3F reads busy for the next two polls, as the real
// part is slow; the server waits for it to clear.
//
// The memory can live in a file so that a rewrite survives a "power cycle" (a new card object
// on the same file). The device ID the bridge reports is decided at power-up from bytes
// 0x40-0x43, so a reflash only shows at the next start. Not thread-safe: the device model
// calls it under the card's lock.
#pragma once

#include <array>
#include <cstdint>
#include <string>

namespace sim {

// Contents the simulated card can start with.
enum class ENvramImage {
  Rev3,   // configured card: device ID 0x8882, configuration revision 3, serial number
  Rev2,   // older configuration (revision 2)
  Rev1,   // oldest configuration (revision 1)
  Blank,  // all 0xFF: the bridge reports its own device ID 0x4750
};

constexpr uint16_t kConfiguredDeviceId = 0x8882;
constexpr uint16_t kBlankBridgeDeviceId = 0x4750;
constexpr int kNvramBytes = 256;
constexpr int kNvramRevisionAddress = 0x48;
constexpr int kNvramSerialAddress = 0x80;  // 16 characters

using NvramBytes = std::array<uint8_t, kNvramBytes>;

// The byte image a card of that kind carries; `serial` (at most 16 characters) is written at
// 0x80 for the configured images.
NvramBytes MakeNvramImage(ENvramImage image, const std::string& serial = "VR480SIM00000001");

class CSimNvram {
 public:
  // `path` empty: the memory is not persisted. Otherwise it is loaded from the file when the
  // file holds 256 bytes, else initialised with `image` and written.
  CSimNvram(std::string path, ENvramImage image);

  // Replaces the whole memory (and the file) with an image.
  void Load(const NvramBytes& bytes);
  const NvramBytes& Bytes() const { return Memory; }
  uint8_t At(int address) const { return Memory[address & 0xFF]; }

  // The device ID the bridge derives from the memory (what it reports after power-up).
  uint16_t DeviceIdFromContent() const;

  // Bridge side: writes of register bytes 0x3F (control) and 0x3E (address/data), reads of them.
  void WriteControl(uint8_t value);
  void WriteData(uint8_t value);
  uint8_t ReadControl();
  uint8_t ReadData() const { return DataLatch; }

  int Commits() const { return CommitCount; }  // committed writes since construction

 private:
  enum class EDataRole { None, AddressLow, AddressHigh, Data };

  bool Save() const;

  NvramBytes Memory;
  std::string Path;        // file holding the memory, empty when not persisted
  EDataRole NextDataRole = EDataRole::None;  // what the next 0x3E write means
  uint16_t Address = 0;    // latched address
  uint8_t DataLatch = 0xFF;  // 0x3E: last data written or read
  uint8_t ControlBits = 0;   // last control byte's low bits (reads back beside the busy bit)
  int BusyPolls = 0;       // reads of 0x3F that still report busy
  int CommitCount = 0;
};

}  // namespace sim
