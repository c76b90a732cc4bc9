// C480_DriverInterface: the server's only path to the acquisition card.
//
// The card is an FPGA behind an S5335 PCI bridge. The kernel driver exposes it as "/dev/vr480":
// ioctl requests read and write the bridge's operation registers and its configuration memory
// (nvRAM), and 512 mmap calls map the driver's ring of DMA record buffers. FPGA settings travel
// as 32-bit command words through the bridge's outgoing mailbox 1 (register 0x00): bits 31-24
// the command code, bits 23-0 the argument.
//
// What a caller needs to know:
// - Shadows. The FPGA settings cannot be read back. Every setter stores its value (masked or
//   clamped as the card takes it) in a shadow member first and then sends it; every getter
//   returns that shadow: the value last sent, never a read-back. When the mailbox drops a
//   command the shadow keeps the new value although the card never received it.
// - Results. Setters return 0, or -1 when the channel is above 5 or the command was lost.
//   Per-channel getters return 0 for a channel above 5 (GetAnalogVout: above 7).
// - Detector channels 0-5: 0 = reference grating (FBG), 1 = comb (FFPI), 2-5 = DUT 0-3, the
//   peak list numbers of the peaks record.
// - The mailbox lock. Commands come from the acquisition thread, the client threads and the
//   calibration thread; one class-wide mutex serialises them across every instance, from the
//   wait for an empty mailbox to the register write. Register reads and writes outside the
//   mailbox (analog outputs, diagnostics) are not serialised; nor are the shadows.
// - The seam. The device file is opened through a CCardProvider: the process-wide Card()
//   unless one is given to the constructor or SetCardProvider (tests pass their own). The same
//   provider opens "/dev/pp_driver" for the front LEDs. The driver does not own the provider;
//   it must outlive the open device.
// - Sleeps. The client-count wait (1 s steps) and every nvRAM write (10 ms for the EEPROM to
//   program) sleep through a replaceable hook, so tests can run them without waiting.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>

#include "device/Ad7329.h"
#include "server/Relaxed.h"
#include "device/CardSeam.h"
#include "device/PeaksData.h"

// Requests of "/dev/vr480". Register requests take a pointer to a VrRegisterAccess.
constexpr unsigned long kVrReadReg8 = 0x80043500;
constexpr unsigned long kVrReadReg16 = 0x80043501;
constexpr unsigned long kVrReadReg32 = 0x80043502;
constexpr unsigned long kVrWriteReg8 = 0x40043503;
constexpr unsigned long kVrWriteReg16 = 0x40043504;
constexpr unsigned long kVrWriteReg32 = 0x40043505;
constexpr unsigned long kVrGetDid = 0x80043506;            // pointer to u16
constexpr unsigned long kVrGetDriverVersion = 0x80043507;  // pointer to u16
constexpr unsigned long kVrStart = 0x0000350C;             // no argument: arm the DMA ring
constexpr unsigned long kVrWaitForData = 0x8004350D;       // pointer to u16: buffer index
constexpr unsigned long kVrDataReady = 0x8004350E;         // pointer to u16: non-zero if ready
constexpr unsigned long kVrDebug = 0x40043510;             // value itself
constexpr unsigned long kVrGetMwar = 0x40043512;           // pointer to u32: index in, address out
constexpr unsigned long kVrClientCount = 0x80043513;       // pointer to u16

struct VrRegisterAccess {
  uint32_t reg;    // byte offset in the bridge's operation register space
  uint32_t value;  // written, or filled in by a read
};

// Bridge operation registers the driver uses.
constexpr uint8_t kRegOmb1 = 0x00;        // outgoing mailbox 1: FPGA command words
constexpr uint8_t kRegMbef = 0x34;        // mailbox empty/full; bits 0-3 = OMB1 bytes still full
constexpr uint8_t kRegNvData = 0x3E;      // MCSR byte 2: nvRAM address / data byte
constexpr uint8_t kRegNvControl = 0x3F;   // MCSR byte 3: nvRAM access control, bit 7 busy

constexpr size_t kNvRamBytes = 256;
constexpr uint16_t kNvRamRevisionAddr = 0x48;  // configuration revision (1, 2 or 3)
constexpr uint16_t kNvRamSerialAddr = 0x80;    // 16-character instrument serial number
constexpr int kSerialNumberLength = 16;

class C480_DriverInterface {
 public:
  // Sleeps the given number of microseconds; the default really sleeps.
  using SleepHook = std::function<void(unsigned long us)>;

  explicit C480_DriverInterface(CCardProvider* provider = nullptr);
  virtual ~C480_DriverInterface();
  C480_DriverInterface(const C480_DriverInterface&) = delete;
  C480_DriverInterface& operator=(const C480_DriverInterface&) = delete;

  // nullptr selects the process-wide Card(). Takes effect at the next init_vr480.
  void SetCardProvider(CCardProvider* provider) { Provider = provider; }
  // An empty hook restores real sleeping.
  void SetSleepHook(SleepHook hook);
  // GetData keeps waiting for a record until this says the server is stopping (checked when a
  // wait returns without one). Unset: it waits for ever, as the instrument always has.
  void SetStopPredicate(std::function<bool()> stopping) { StopRequested = std::move(stopping); }

  // Opens the device, waits for other clients of the driver to leave (driver release >= 50)
  // and tells the FPGA where the buffers are, arms the ring, maps the 512 buffers and opens
  // the LED port with both LEDs off. 0; -1 when the device cannot be opened or stays in use;
  // -2 when a buffer cannot be mapped.
  virtual int init_vr480();
  virtual int close_vr480();
  virtual uint16_t GetDID();            // PCI device ID: 0x8882 configured, 0x4750 blank bridge
  virtual uint16_t GetDriverVersion();  // kernel driver release number

  // Bridge operation registers; reads return the low 8, 16 or 32 bits (0 if the request fails).
  virtual uint8_t ReadReg8(uint8_t reg);
  virtual uint16_t ReadReg16(uint8_t reg);
  virtual uint32_t ReadReg32(uint8_t reg);
  virtual int WriteReg8(uint8_t reg, uint8_t value);
  virtual int WriteReg16(uint8_t reg, uint16_t value);
  virtual int WriteReg32(uint8_t reg, uint32_t value);

  // Configuration memory, one byte at a time through MCSR bytes 2 and 3.
  virtual uint8_t nvRAM_read(uint16_t addr);
  virtual int nvRAM_write(uint16_t addr, uint8_t value);
  virtual uint8_t GetNvRamRev();
  // The buffers hold kSerialNumberLength characters (no terminator is read or written).
  virtual int write_nvRAM_SN(char* sn);
  virtual int read_nvRAM_SN(char* sn);

  virtual int EnableDMA(bool b);
  // Blocks until the card completes a record and points *out at its buffer (in place: the
  // record stays in the driver's ring). -1 if the device is not open.
  virtual int GetData(struct_dma_peaks_data** out);
  virtual int EnableSOA(bool b);
  virtual int SetAnalogVout(uint8_t ch, uint16_t v);  // no effect: outputs go via mailboxes 2-4
  virtual int SetHwClkDivider(bool b);
  virtual int SetDataRateDivider(uint16_t v);
  virtual int SetPztSyncOffset(uint16_t v);
  virtual int SetExtSyncEdge(bool b);
  virtual int SetSOADrive(uint16_t v);
  virtual int SetScanAmp(uint16_t v);
  virtual int SetBias(uint16_t v);
  virtual int SetChGain(uint8_t ch, uint16_t v);
  virtual int SetChThresh(uint8_t ch, uint16_t v);
  virtual int SetAmpCh(uint8_t ch);  // converter input whose amplitude the record carries
  virtual int SetClientLed(bool b);
  virtual int SetReadyLed(bool b);
  virtual int SetChLockoutPeriod(uint8_t ch, uint16_t v);
  virtual int SetChNtValidPeriod(uint8_t ch, uint16_t v);
  virtual int SetChNtvResetOnZc(uint8_t ch, bool b);
  virtual int SetFpgaDebug(uint32_t v);  // 24 bits
  virtual int SetLayer0IndexOffset(uint8_t v);
  virtual int SetFsAlignPatternEnable(bool b);
  virtual int SetOperatingMode(uint16_t m);  // m & 3
  virtual int SetTrigEnable(bool b);
  virtual int SetTrigSource(uint8_t s);  // s & 1
  virtual int SwStartTrig();
  virtual int SwStopTrig();
  virtual int SetTrigStartEdge(bool b);
  virtual int SetTrigStopEdge(bool b);
  virtual int SetTrigStopType(uint8_t t);  // stored as given, sent as 0 or 1
  virtual int SetTrigAcqTime(uint32_t t);  // 24 bits
  virtual int SetAutoReTrig(bool b);
  virtual int SetEnableOptoA(bool b);
  virtual int SetEnableOptoB(bool b);
  virtual int SetSwapP68P155(bool b);
  virtual int SetSoaOnCount(uint32_t n);  // 17 bits
  virtual int SetSoaOffCount(uint32_t n);
  virtual int SetMaxDutPeaks(uint16_t n);
  virtual int Set2khzMode(bool b);
  virtual int SetSyncHiCount(uint32_t n);  // 17 bits
  virtual int SetSyncLoCount(uint32_t n);
  virtual int SetDisablePztLPF(bool b);

  virtual uint16_t GetAnalogVout(uint8_t ch);
  virtual bool GetHwClkDivider_();
  virtual uint16_t GetDataRateDivider();
  virtual uint16_t GetPztSyncOffset();
  virtual bool GetExtSyncEdge();
  virtual uint16_t GetSOADrive();
  virtual uint16_t GetScanAmp();
  virtual uint16_t GetBias();
  virtual uint16_t GetChGain(uint8_t ch);
  virtual uint16_t GetChThresh(uint8_t ch);
  virtual uint8_t GetAmpCh();
  virtual bool GetClientLed();
  virtual bool GetReadyLed();
  virtual uint16_t GetChLockoutPeriod(uint8_t ch);
  virtual uint16_t GetChNtValidPeriod(uint8_t ch);
  virtual int SetChNoiseThreshEnabled(uint8_t ch, bool b);
  virtual bool GetChNoiseThreshEnabled(uint8_t ch);
  virtual bool GetChNtvResetOnZc(uint8_t ch);
  virtual uint32_t GetFpgaDebug();
  virtual uint8_t GetLayer0IndexOffset();
  virtual bool GetFsAlignPatternEnable();
  virtual uint16_t GetOperatingMode();
  virtual uint8_t GetTrigEnable();
  virtual uint8_t GetTrigSource();
  virtual uint8_t GetTrigStartEdge();
  virtual uint8_t GetTrigStopEdge();
  virtual uint8_t GetTrigStopType();
  virtual uint32_t GetTrigAcqTime();
  virtual bool GetAutoReTrig();
  virtual bool GetEnableOptoA();
  virtual bool GetEnableOptoB();
  virtual bool GetSwapP68P155();
  virtual uint32_t GetSoaOnCount();
  virtual uint32_t GetSoaOffCount();
  virtual uint16_t GetMaxDutPeaks();
  virtual bool Get2khzMode();
  virtual uint32_t GetSyncHiCount();
  virtual uint32_t GetSyncLoCount();
  virtual bool GetDisablePztLPF();

  virtual int SetTestSyncOutDivider(uint16_t v);
  virtual uint16_t GetTestSyncOutDivider();

  // Whole converter registers (start-up values), sent with command 0x12.
  virtual int WriteAd7329ControlRegister(uint16_t v);
  virtual int WriteAd7329SequenceRegister(uint16_t v);
  virtual int WriteAd7329RangeRegister1(uint16_t v);
  virtual int WriteAd7329RangeRegister2(uint16_t v);

  // Fans switch on above the control temperature and off below it minus the hysteresis (degC).
  virtual int SetFan1ControlTemp(uint8_t t);  // clamped to 1-150
  virtual int SetFan2ControlTemp(uint8_t t);  // clamped to 1-150
  virtual uint8_t GetFan1ControlTemp();
  virtual uint8_t GetFan2ControlTemp();
  virtual int SetFan1TempHysteresis(uint8_t h);
  virtual int SetFan2TempHysteresis(uint8_t h);
  virtual uint8_t GetFan1TempHysteresis();
  virtual uint8_t GetFan2TempHysteresis();

  virtual uint16_t DataReady();  // non-zero when a record is waiting; does not block
  // Tells the FPGA the bus address of ring buffer `index` (three commands: low half, high
  // half, index). SetMWARs does it for the whole ring with the addresses the driver reports.
  virtual int SetMWAR(int index, uint32_t address);
  virtual int SetMWARs();
  virtual uint32_t GetMWAR(uint32_t index);  // bus address of a ring buffer (0 on failure)
  virtual int SetIntIntlvPwr(uint8_t v);
  virtual uint8_t GetIntIntlvPwr();
  // Polls the nvRAM busy bit; 0 when clear, -1 (and "MCSR not ready") after 100000 reads.
  virtual int wait_for_mcsr_ready();

  // Sends one command word through outgoing mailbox 1 under the mailbox lock. The result of
  // the register write, or -1 when the mailbox stayed full and the command was dropped.
  int FPGA_CMD(uint32_t word);
  // Waits until the FPGA has taken the previous word: 0; -1 after `timeoutUs` microseconds.
  int WaitForOMBX1(unsigned long timeoutUs);
  // Blocks until the driver completes a record: the index 0-511 of its buffer, or -1 when the
  // request fails or names a buffer outside the ring (the index is never used unchecked).
  int WaitForData();
  int Vr480Debug(unsigned long v);
  // Erases the first half of the configuration memory (the bridge's image) to 0xFF.
  int clear_device();
  // Writes the bridge's configuration image for revision `rid` (1, 2, anything else = 3).
  // This also erases the serial number; callers save and restore it around a reflash.
  int make_ZOR_device(int rid);
  // Revision 3 on driver releases >= 50, else revision 2, with a warning.
  int make_ZOR_device();

  // The mapped record buffers, in ring order; null until init_vr480 maps them.
  struct_dma_peaks_data* PeaksData[kDmaBuffers] = {};

 protected:
  // A request on the open device; -1 when it is not open.
  int Request(unsigned long request, uintptr_t arg);
  int SendCommand(uint8_t code, uint32_t arg) {
    return FPGA_CMD((static_cast<uint32_t>(code) << 24) | (arg & 0xFFFFFF));
  }
  int SendChannelCommand(uint8_t code, uint8_t ch, uint16_t v) {
    return SendCommand(code, (static_cast<uint32_t>(ch) << 16) + v);
  }
  void Sleep(unsigned long us) const { Sleeper(us); }
  int WaitForDriverClients();
  void LatchNvRamAddress(uint16_t addr);

  CCardProvider* Provider = nullptr;      // not owned; nullptr = the process-wide Card()
  std::unique_ptr<CDeviceFile> Device;    // "/dev/vr480" while open
  SleepHook Sleeper;
  std::function<bool()> StopRequested;  // set before the acquisition starts
  std::atomic<unsigned> RejectedIndices{0};  // buffer indices outside the ring from WaitForData

  // Shadows of what was last sent to the card. Written by the setters on whichever thread
  // calls them, read without a lock by any other (the acquisition loop reads the rate and
  // mode flags on every record): each is a relaxed atomic.
  Relaxed<uint16_t> TestSyncOutDivider = 0;  // test sync output divider
  int32_t fd = -1;                  // 0 while the device is open (the seam has no number), else -1
  Relaxed<uint16_t> AnalogVout[8];      // never written: the analog outputs bypass the shadow
  Relaxed<bool> bHwClkDivider = false;       // hardware clock divider halves the sweep rate
  Relaxed<uint16_t> DataRateDivider = 1;     // card reports one record per this many sweeps
  Relaxed<uint16_t> PztSyncOffset = 0;
  Relaxed<uint16_t> SOADrive = 0;            // optical amplifier drive
  Relaxed<uint16_t> ScanAmp = 0;             // laser scan amplitude
  Relaxed<uint16_t> Bias = 0;                // laser bias
  Relaxed<uint16_t> ChGain[6];          // detector gain per channel
  Relaxed<uint16_t> ChThresh[6];        // peak detection threshold per channel
  Relaxed<bool> ChNoiseThreshEnabled[6];
  Relaxed<uint16_t> ChLockoutPeriod[6];  // counts after a peak before the next may start
  Relaxed<uint16_t> ChNtValidPeriod[6];
  Relaxed<bool> ChNtvResetOnZc[6] = {true, true, true, true, true, true};
  Relaxed<bool> ExtSyncEdge = false;         // active edge of the external sync input
  Relaxed<uint8_t> AmpCh = 0;                // converter input channel digitised into the record
  Relaxed<bool> ClientLed = false;           // front LEDs
  Relaxed<bool> ReadyLed = false;
  Relaxed<uint8_t> Fan1ControlTemp = 0;      // degC
  Relaxed<uint8_t> Fan2ControlTemp = 0;
  Relaxed<uint8_t> Fan1TempHysteresis = 0;   // degC
  Relaxed<uint8_t> Fan2TempHysteresis = 0;
  Relaxed<uint32_t> FpgaDebug = 0;           // 24-bit debug word
  Relaxed<uint8_t> Layer0IndexOffset = 0;
  Relaxed<bool> FsAlignPatternEnable = false;  // full-spectrum alignment test pattern
  Relaxed<uint16_t> OperatingMode = 0;       // 0-3
  Relaxed<uint8_t> TrigEnable = 0;
  Relaxed<uint8_t> TrigSource = 0;           // 0 or 1
  Relaxed<uint8_t> TrigStartEdge = 0;
  Relaxed<uint8_t> TrigStopEdge = 0;
  Relaxed<uint8_t> TrigStopType = 0;         // as given; the card only sees zero / non-zero
  Relaxed<uint32_t> TrigAcqTime = 0;         // 24 bits
  Relaxed<bool> AutoReTrig = false;
  Relaxed<bool> EnableOptoA = false;         // optical multiplexer outputs
  Relaxed<bool> EnableOptoB = false;
  Relaxed<uint32_t> SoaOnCount = 0;          // 17-bit sweep counts
  Relaxed<uint32_t> SoaOffCount = 0;
  Relaxed<uint16_t> MaxDutPeaks = 250;       // peaks per DUT list the card reports
  Relaxed<bool> b2khzMode = true;            // 2 kHz sweep rate (else 1 kHz)
  Relaxed<uint32_t> SyncHiCount = 0;         // 17-bit sweep counts of the sync output
  Relaxed<uint32_t> SyncLoCount = 0;
  Relaxed<bool> DisablePztLPF = false;
  Relaxed<bool> SwapP68P155 = false;
  Cad7329 Ad7329;                   // composes the converter's register words
  uint8_t IntIntlvPwr = 0;

  // The class-wide mailbox lock (one for every instance): held from the wait for an empty
  // mailbox to the write of the word, so commands from different threads never overwrite
  // each other in the single-word mailbox.
  static std::mutex bCmdLocked;
};
