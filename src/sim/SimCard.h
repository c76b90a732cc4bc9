// The simulated acquisition card: kernel driver, card and optics in one object, in process.
//
// The server reaches it only through device files (CDeviceFile: ioctl requests and mapping of
// the record buffers), exactly as it reaches the real "/dev/vr480". Tests and the workstation
// set-up reach it through the control API below: they script the world in front of the card
// (sensors, temperatures, optical knobs, trigger edges, a virtual master's divider), inject
// faults, and read back what the card applied (FPGA command log with card time and sweep
// counter, LEDs, analog outputs, sync counts, settings, counters).
//
// Construction is "power-up": the nvRAM is loaded (from <root>/vr480/sim_nvram.bin when a root
// is given) and the device ID is latched from it; then the producer starts unless the mode is
// Step. Every method is thread-safe.
#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "device/CardSeam.h"
#include "sim/SimDevice.h"
#include "sim/SimInstrument.h"
#include "sim/SimNvram.h"
#include "sim/SimProducer.h"
#include "sim/SimRing.h"
#include "sim/SimScene.h"
#include "sim/SimSynth.h"

namespace sim {

struct CSimOptions {
  std::string Root;       // host directory standing for "/"; empty: nvRAM not persisted
  std::string SceneFile;  // empty: the built-in scene
  EProducerMode Mode = EProducerMode::RealTime;
  double TimeScale = 1.0;       // real time: card seconds per wall-clock second
  size_t RecordsAhead = 8;      // free running: records kept ready for the server
  uint64_t Seed = 1;            // noise generator
  std::optional<ENvramImage> NvramImage;  // unset: the file's content, or revision 3 when new
  uint16_t DeviceIdOverride = 0;          // non-zero: an unknown card reporting this ID
  uint16_t DriverRelease = kDefaultDriverRelease;
  bool bCardAbsent = false;     // opening "/dev/vr480" fails
};

// The nvRAM file of a root directory.
std::string NvramPath(const std::string& root);

// The baseline tag lines of a simulated instrument: the laser-specific values a real
// instrument's tag file would carry (SOA drive, scan amplitude, initial bias, both loops on,
// full spectrum and location measurement enabled).
const std::vector<std::string>& BaselineTagLines();
// Writes those lines (one per line, LF) to the tag file at `hostPath` unless a file exists
// there, so that a new root starts like a real instrument. False when it cannot be written.
bool EnsureBaselineTagFile(const std::string& hostPath);

class CSimCard : public std::enable_shared_from_this<CSimCard> {
 public:
  explicit CSimCard(const CSimOptions& options = {});
  ~CSimCard();
  CSimCard(const CSimCard&) = delete;
  CSimCard& operator=(const CSimCard&) = delete;

  // A device file over this card (nullptr while the card is absent). The card must be owned
  // by a shared_ptr: files keep it alive.
  std::unique_ptr<CDeviceFile> OpenDevice();
  void SetAbsent(bool absent);

  // Non-empty when the options' scene file could not be used (the built-in scene is used).
  std::string SceneError() const;

  // --- producer --------------------------------------------------------------------------
  // Step mode: runs the card for `periods` record periods; returns the records written
  // (-1 in the other modes).
  int Step(int periods = 1);
  void Reseed(uint64_t seed);
  double SweepRate() const;  // sweeps per card second

  // --- the world in front of the card ----------------------------------------------------
  void LoadScene(const CSimScene& scene);
  bool LoadSceneFile(const std::string& path, std::string* error);
  void SetSensors(int logicalChannel, std::vector<CSimSensor> sensors);
  std::vector<CSimSensor> Sensors(int logicalChannel) const;
  void SetInternalTemperature(double degC, double degCPerSecond = 0.0);
  void SetGratingTemperature(double degC);
  double InternalTemperature() const;
  double GratingTemperature() const;
  void SetGratingLag(double seconds);
  void SetScanGain(double thzPerLsb);
  void SetCalibrationError(double combIntervals);
  void SetCombFsr(double ghz);
  void SetGroupIndex(double n);
  void SetGratingList(int list);
  void SetMasterDivider(uint16_t divider);
  void SetChannelLength(int dutChannel, double metres);
  void SetLayerLength(int layer, double metres);
  // Any other optical parameter.
  void UpdateOptics(const std::function<void(COpticsParams&)>& change);
  COpticsParams Optics() const;
  void TriggerEdge(bool rising);

  // --- faults ----------------------------------------------------------------------------
  void SetFaults(const CSimFaults& faults);
  CSimFaults Faults() const;
  void SetMailboxStall(bool stalled);
  void FailMapping(int index);  // the mapping with this index fails once
  // The client count reports `count` for the next `reads` queries (-1: always), then 1.
  void SetClientCount(uint16_t count, int reads = -1);
  void SetDriverRelease(uint16_t release);
  void SetFwVersion(uint8_t version);

  // --- read-back -------------------------------------------------------------------------
  std::vector<CCommandLogEntry> CommandLog() const;
  CAppliedSettings Applied() const;
  bool ReadyLed() const;
  bool ClientLed() const;
  std::array<uint32_t, 3> AnalogOutputs() const;  // outgoing mailboxes 2-4
  ETriggerState TriggerState() const;
  uint32_t SweepCounter() const;
  uint16_t RecordCounter() const;
  double CardSeconds() const;
  uint32_t LastAppliedWord() const;
  uint32_t StoredArgument(uint8_t code) const;
  uint32_t LostCommands() const;
  uint32_t UnknownCommands() const;
  uint32_t BufferAddressErrors() const;
  uint64_t Overruns() const;
  uint64_t RecordsWritten() const;
  uint16_t DeviceId() const;
  uint16_t DriverRelease() const;
  NvramBytes Nvram() const;
  std::vector<unsigned long> DebugWords() const;
  bool MailboxFull() const;

  // Used by the device files.
  CSimDevice& Device() { return *Dev; }
  CSimRing& Ring() { return DmaRing; }

 private:
  ESweepResult SimulateSweep();  // the producer's unit of work

  mutable std::mutex Lock;  // the card's lock: instrument and device state
  CSimRing DmaRing;         // own lock; taken after the card's lock, never before
  CSimInstrument Instrument;
  std::unique_ptr<CSimDevice> Dev;
  CSimSynthesizer Synthesizer;  // producer only
  CRecordJob Job;               // producer only
  std::string SceneLoadError;
  std::atomic<bool> bAbsent;
  std::unique_ptr<CSimProducer> Producer;  // last: stopped first
};

}  // namespace sim
