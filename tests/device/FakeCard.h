// A recording stand-in for "/dev/vr480" and "/dev/pp_driver" for the driver interface's unit
// tests: bridge registers, the mailbox busy bits, the nvRAM state machine, ring addresses,
// client count and the 512 record buffers, with switches for the faults the driver must
// survive. Everything it received is kept for the test to read back.
#pragma once

#include <atomic>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "device/CardSeam.h"
#include "device/PeaksData.h"

struct FakeCardState {
  std::mutex Lock;

  // Configuration.
  bool Absent = false;            // opening "/dev/vr480" fails
  uint16_t DeviceId = 0x8882;
  uint16_t DriverRelease = 52;
  std::deque<uint16_t> ClientCounts;  // successive client-count answers; the last one repeats
  bool MailboxStalled = false;    // the FPGA never empties outgoing mailbox 1
  int MailboxBusyReads = 1;       // reads of 0x34 that show the mailbox full after a command
  std::atomic<int> MailboxReadPauseUs{0};  // pause after every mailbox status read
  bool NvRamStuckBusy = false;    // the nvRAM busy bit never clears
  int FailMapAt = -1;             // this mapping fails
  std::deque<int> WaitIndices;    // answers of the wait-for-data request

  // What the card received.
  std::vector<unsigned long> Requests;  // every ioctl request, in order
  std::vector<uint32_t> Commands;       // words written to outgoing mailbox 1
  int WritesWhileFull = 0;              // mailbox writes the FPGA had not made room for
  std::vector<size_t> MapLengths;
  int Unmaps = 0;
  bool Closed = false;                  // "/dev/vr480" closed
  bool PpClosed = false;                // "/dev/pp_driver" closed
  std::vector<uint8_t> PpBytes;         // data bytes written to the parallel port

  // Card memory.
  std::map<uint32_t, uint32_t> Registers;
  uint8_t NvRam[256];
  std::vector<struct_dma_peaks_data> Buffers = std::vector<struct_dma_peaks_data>(kDmaBuffers);
  static constexpr uint32_t kBusBase = 0x1F000000;  // bus address of buffer 0; 8192 apart

  FakeCardState();
  // Position of the first occurrence of a request in the log, -1 if never sent.
  int FirstRequest(unsigned long request);
  std::vector<uint32_t> CommandsWithCode(uint8_t code);

  // Device side (called by the fake device files).
  int Ioctl(unsigned long request, uintptr_t arg);
  void* Map(int k, size_t length);  // the k-th mapping of an open

 private:
  uint32_t ReadRegister(uint32_t reg);
  void WriteRegister(uint32_t reg, uint32_t value);

  int MailboxFullReads = 0;  // remaining reads of 0x34 that show the mailbox full
  uint8_t NvMode = 0;        // last access code written to 0x3F
  uint16_t NvAddr = 0;
  uint8_t NvDataLatch = 0;
  uint8_t NvReadData = 0;
  int NvBusyPolls = 0;
};

class FakeCardProvider : public CCardProvider {
 public:
  FakeCardProvider() : State(std::make_shared<FakeCardState>()) {}
  std::unique_ptr<CDeviceFile> Open(const std::string& devicePath) override;
  FakeCardState& Card() { return *State; }

 private:
  std::shared_ptr<FakeCardState> State;
};
