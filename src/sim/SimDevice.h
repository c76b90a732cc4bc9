// The simulated card as its kernel driver presents it: the ioctl requests of "/dev/vr480",
// the PCI bridge's operation registers, the FPGA mailbox and the mapping of the record buffers.
//
// Registers (byte offsets 0x00-0x3F, 8/16/32-bit access within one 32-bit register):
//   0x00        outgoing mailbox 1: a write is an FPGA command word; reads give the last word.
//   0x04-0x0C   outgoing mailboxes 2-4: the analog outputs; stored and exposed to tests.
//   0x10        incoming mailbox 1: a write is a test control word (below); reads give the
//               last control word taken.
//   0x14        reads the last FPGA word the card applied.
//   0x18        reads the number of lost FPGA words (stuck in a stalled mailbox, overwritten).
//   0x1C        reads the number of ring overruns.
//   0x20        bus-master FIFO port: a write queues a word (8 at most), a read takes the
//               oldest one out (0 when empty), so a careless read loses data. FifoReads() counts the reads.
//   0x34        mailbox empty/full: bits 0-3 read 0xF while outgoing mailbox 1 holds a word
//               the FPGA has not taken. The FPGA takes it right after the first read that
//               shows it full, or at the next sweep boundary, unless the stalled-mailbox fault
//               holds it: then the driver's timeout and "lost command" path run for real.
//   0x3C-0x3F   master control/status; bytes 0x3E/0x3F are the nvRAM interface (SimNvram.h).
// Incoming mailbox 1 lets a test that speaks only the server's TCP protocol reach the card
// through the register commands. Control words (code in bits 31-24, argument in 23-0):
//   0x01 external trigger edge (argument 1 rising, 0 falling)
//   0x02 stalled-mailbox fault on/off (argument 1/0)
//   0x03 make the mapping with this index fail once
//   0x04 internal temperature, signed 24-bit, 1/128 degC
//   0x05 grating temperature, signed 24-bit, 1/128 degC
//   0x06 virtual master's divider
//   0x07 calibration error, signed 24-bit, 1/1000 comb interval
//   0x08 true comb free spectral range, MHz
//   0x09 scan gain, 1e-9 THz per LSB
//   0x0A comb peak limit (0xFFFFFF: none)
//   0x0B grating peak missing on/off
//   0x0C extra grating peaks (count)
//   0x0D spurious peak on DUT channel (argument channel + 1, 0: off)
//
// Locking: Ioctl and MapBuffer take the card's lock themselves (the wait for data holds only
// the ring's lock, so it never blocks the producer); every other method expects the caller
// to hold the card's lock.
#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <vector>

#include "sim/SimInstrument.h"
#include "sim/SimNvram.h"
#include "sim/SimRing.h"

namespace sim {

// The driver's request codes.
namespace request {
constexpr unsigned long kReadReg8 = 0x80043500;
constexpr unsigned long kReadReg16 = 0x80043501;
constexpr unsigned long kReadReg32 = 0x80043502;
constexpr unsigned long kWriteReg8 = 0x40043503;
constexpr unsigned long kWriteReg16 = 0x40043504;
constexpr unsigned long kWriteReg32 = 0x40043505;
constexpr unsigned long kDeviceId = 0x80043506;
constexpr unsigned long kDriverRelease = 0x80043507;
constexpr unsigned long kStart = 0x0000350C;
constexpr unsigned long kWaitForData = 0x8004350D;
constexpr unsigned long kDataReady = 0x8004350E;
constexpr unsigned long kDebug = 0x40043510;
constexpr unsigned long kBusAddress = 0x40043512;
constexpr unsigned long kClientCount = 0x80043513;
}  // namespace request

// Argument of the register requests.
struct CRegisterAccess {
  uint32_t Reg;
  uint32_t Value;
};

constexpr uint16_t kDefaultDriverRelease = 52;

class CSimDevice {
 public:
  // `deviceIdOverride` non-zero: the bridge reports that ID whatever the nvRAM holds.
  CSimDevice(std::mutex& cardLock, CSimInstrument& instrument, CSimRing& ring,
             std::unique_ptr<CSimNvram> nvram, uint16_t deviceIdOverride, uint16_t release);

  // Driver side (take the card's lock). `closed` ends a wait for data.
  int Ioctl(unsigned long request, uintptr_t arg, const std::atomic<bool>& closed);
  void* MapBuffer(int k);  // k-th mapping of a file: buffer k mod 512

  // Producer side, at each sweep boundary.
  void TakeMailboxAtSweep();

  // Knobs and read-back (caller holds the card's lock).
  void SetMailboxStall(bool stalled);
  void FailMapping(int index) { FailMapIndex = index; }
  void SetClientCount(uint16_t count, int reads) {
    ClientCount = count;
    ClientCountReads = reads;
  }
  void SetDriverRelease(uint16_t release) { Release = release; }
  uint16_t DriverRelease() const { return Release; }
  uint16_t DeviceId() const { return LatchedDeviceId; }
  uint32_t LostCommands() const { return LostCount; }
  std::array<uint32_t, 3> AnalogOutputs() const;
  std::vector<unsigned long> DebugWords() const { return Debug; }
  const CSimNvram& Nvram() const { return *Memory; }
  CSimNvram& Nvram() { return *Memory; }
  bool MailboxFull() const { return bMailboxFull; }
  // Reads of the FIFO port so far; lock-free, so a test can check that nothing consumed it.
  uint32_t FifoReads() const { return FifoReadCount.load(); }

 private:
  int ReadRegister(uint32_t reg, int width, uint32_t* value);
  int WriteRegister(uint32_t reg, int width, uint32_t value);
  uint32_t ReadWord(uint32_t aligned, uint32_t byteMask);
  void WriteFpgaCommand(uint32_t word);
  void ControlWord(uint32_t word);
  void TakeMailbox();

  std::mutex& CardLock;
  CSimInstrument& Instrument;
  CSimRing& Ring;
  std::unique_ptr<CSimNvram> Memory;

  std::array<uint32_t, 16> Registers{};  // plain storage of the 32-bit operation registers
  std::deque<uint32_t> Fifo;             // words queued at the FIFO port, oldest first
  std::atomic<uint32_t> FifoReadCount{0};
  bool bMailboxFull = false;             // outgoing mailbox 1 holds a word not yet taken
  bool bStalled = false;                 // fault: the FPGA never takes the word
  uint32_t LostCount = 0;
  uint32_t LastControl = 0;              // last control word taken through incoming mailbox 1
  uint16_t LatchedDeviceId;              // decided at power-up
  uint16_t Release;
  uint16_t ClientCount = 1;
  int ClientCountReads = -1;             // reads left that report ClientCount (-1: all)
  int FailMapIndex = -1;
  std::vector<unsigned long> Debug;      // words of the debug request
};

}  // namespace sim
