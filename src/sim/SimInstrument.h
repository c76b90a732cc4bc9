// The simulated instrument behind the card: what the FPGA has applied, how the laser sweeps,
// and which record each reported sweep yields.
//
// FPGA command words (code in bits 31-24, argument in 23-0) arrive through the bridge's
// mailbox on any thread; the FPGA acts on them at the next sweep boundary. Some settings take
// effect only a few records later, as on the real card: the amplitude channel after 3 records,
// the trigger enable after 2, the clock divider after 5 (the records in between still show
// the old state), and a multiplexer level at the next multiplexer cycle boundary (at most 4
// records). Every word is logged with the card time and sweep counter.
//
// Counters: the sweep counter counts every sweep, also those the data-rate divider drops, so
// it advances by the divider per record; the record counter and the full-spectrum sampling
// phase (0-127) advance by one per record written. With a multiplexer level m > 1 the layer of
// a sweep is the sweep counter mod m, and the phase is re-aligned at a level change so that
// phase mod m equals the layer.
//
// Triggering: Off -> (enable) Armed -> (software start with source 0, external start edge with
// source 1) Window -> (acquisition count reached with stop type 0, stop edge with stop type 1,
// or software stop) Armed again with auto re-trigger, else Done. Records flow in every state;
// the header tells the state (flags bit 4: triggered acquisition; status bit 7: in a window).
//
// Not thread-safe by itself: the card calls it under its lock. A record is built in two
// steps: AdvanceSweep (under the lock) settles the sweep and takes a snapshot, the
// synthesizer (SimSynth.h) fills the buffer from the snapshot outside the lock.
#pragma once

#include <array>
#include <chrono>
#include <cstdint>
#include <deque>
#include <memory>
#include <vector>

#include "sim/SimOptics.h"
#include "sim/SimProducer.h"
#include "sim/SimRing.h"
#include "sim/SimScene.h"

namespace sim {

constexpr uint8_t kDefaultFwVersion = 101;
constexpr int kAmpChannelDelayRecords = 3;
constexpr int kTriggerEnableDelayRecords = 2;
constexpr int kClockDividerDelayRecords = 5;
// After the sweep clock changes the laser takes a few sweeps to settle: the sensors' echoes
// arrive up to kClockSettleCounts late, decaying to nothing over kClockSettleSweeps sweeps.
constexpr int kClockSettleSweeps = 15;
constexpr double kClockSettleCounts = 40.0;

// The FPGA's settings as applied (not as sent: a lost or delayed word is not here yet).
struct CAppliedSettings {
  bool bDmaEnabled = false;
  uint16_t Bias = 0;
  uint16_t ScanAmp = 0;
  std::array<uint16_t, 6> Gain{};       // per detector channel (peak list) 0-5
  std::array<uint16_t, 6> Threshold{};  // register value; 0 = none
  std::array<uint16_t, 6> Lockout{};    // counts after a peak in which no other is reported
  std::array<bool, 6> NoiseThresholdEnabled{};
  uint8_t AmpChannel = 0;               // peak list whose detector feeds the samples
  bool bClockDivider = false;           // halves the sweep rate
  uint16_t DataRateDivider = 1;         // report every n-th sweep
  uint16_t SoaDrive = 0;
  bool bSoaEnabled = false;
  uint32_t SoaOnCount = 0;              // light only between these counts when they differ
  uint32_t SoaOffCount = 0;
  bool bAlignPattern = false;           // samples carry a ramp instead of light
  uint8_t OperatingMode = 0;
  bool bTrigEnable = false;
  uint8_t TrigSource = 0;               // 0 software, 1 external edges
  bool bTrigStartFalling = false;       // start edge: false rising, true falling
  bool bTrigStopFalling = false;
  uint8_t TrigStopType = 0;             // 0 after the acquisition count, 1 on the stop edge
  uint32_t TrigAcqCount = 0;            // records per window, 0 = until stopped
  bool bAutoReTrig = false;
  bool bOptoA = false;                  // multiplexer select outputs
  bool bOptoB = false;
  int MuxLevel = 1;                     // 1, 2 or 4
  uint16_t MaxDutPeaks = 250;
  bool b2kHzMode = false;
  uint32_t SyncHiCount = 0;
  uint32_t SyncLoCount = 0;
  bool bReadyLed = false;
  bool bClientLed = false;
};

enum class ETriggerState { Off, Armed, Window, Done };

// Faults of the optics and detectors, for tests of the server's record checks.
struct CSimFaults {
  bool bNoGrating = false;          // the grating peak goes missing
  int ExtraGratingPeaks = 0;        // spurious peaks beside the grating
  int CombPeakLimit = -1;           // at most this many comb peaks (-1: no limit)
  int SpuriousDutChannel = -1;      // DUT channel 0-3 with one extra peak (-1: none)
  double SpuriousPosition = 50000;  // its position, counts
};

struct CCommandLogEntry {
  uint32_t Word;
  double CardSeconds;       // card time when the word reached the mailbox
  uint32_t SweepCounter;    // the sweep in progress then
  std::chrono::steady_clock::time_point When;
};

// Everything the synthesizer needs for one record, taken under the card's lock.
struct CRecordJob {
  int Slot = -1;  // ring buffer to fill
  // Header fields.
  uint8_t Phase = 0;
  uint8_t Status3 = 0;
  uint8_t Flags1Lo = 0;
  uint8_t FwVersion = kDefaultFwVersion;
  int16_t Vth = 0;
  int16_t InternalTemp = 0;  // 1/128 degC
  uint16_t RecordCounter = 0;
  uint32_t SweepCounter = 0;
  uint16_t DividerField = 1;
  uint16_t ClkDividerField = 0;
  // Physics.
  int Layer = 0;            // multiplexer layer of this sweep (the server's numbering)
  double SweepRate = 1000;  // sweeps per second
  double SettleCounts = 0;  // extra delay of the sensors' echoes while the sweep clock settles
  double CardSeconds = 0;
  double GratingThz = 0;    // true grating frequency
  double InternalDegC = 35;
  CAppliedSettings Settings;
  COpticsParams Optics;
  CSimEnvironment Environment;
  CSimFaults Faults;
  std::shared_ptr<const CSensorTables> Sensors;
};

class CSimInstrument {
 public:
  explicit CSimInstrument(CSimRing& ring);

  // --- world -----------------------------------------------------------------------------
  void LoadScene(const CSimScene& scene);
  void SetSensors(int logicalChannel, std::vector<CSimSensor> sensors);
  std::vector<CSimSensor> Sensors(int logicalChannel) const;
  COpticsParams& Optics() { return OpticsParams; }
  const COpticsParams& Optics() const { return OpticsParams; }
  CSimEnvironment& Environment() { return Env; }
  CSimFaults& Faults() { return FaultSet; }
  const CSimFaults& Faults() const { return FaultSet; }
  // Internal temperature: jumps when `degCPerSecond` is 0, else ramps there. The grating
  // follows with its lag, keeping its offset.
  void SetInternalTemperature(double degC, double degCPerSecond);
  void SetGratingTemperature(double degC);  // now; it then keeps this offset from internal
  double InternalDegC() const { return Env.InternalDegC; }
  double GratingDegC() const { return GratingTemp; }
  void SetFwVersion(uint8_t v) { FwVersion = v; }

  // --- commands --------------------------------------------------------------------------
  void LogCommand(uint32_t word);
  void Accept(uint32_t word);  // the FPGA took the word; acts at the next sweep boundary
  void TriggerEdge(bool rising);

  // --- sweeps ----------------------------------------------------------------------------
  // Runs one sweep. When it yields a record, `job` holds its snapshot and a reserved ring
  // buffer, which the caller fills and publishes.
  ESweepResult AdvanceSweep(CRecordJob& job);
  double SweepRate() const;  // sweeps per second now

  // --- read-back -------------------------------------------------------------------------
  const CAppliedSettings& Applied() const { return Settings; }
  ETriggerState TriggerState() const { return TrigState; }
  uint32_t SweepCounter() const { return Sweeps; }
  uint16_t RecordCounter() const { return Records; }
  double CardSeconds() const { return Seconds; }
  uint32_t LastAppliedWord() const { return LastApplied; }
  uint32_t StoredArgument(uint8_t code) const { return LastArgument[code]; }
  uint32_t UnknownCommands() const { return UnknownCount; }
  uint32_t BufferAddressErrors() const { return MwarErrors; }
  std::vector<CCommandLogEntry> CommandLog() const { return {Log.begin(), Log.end()}; }

 private:
  struct CDelayedEffect {
    int RecordsLeft;
    uint32_t Word;
  };

  void Apply(uint32_t word);        // at a sweep boundary
  void ApplyDelayed(uint32_t word);  // when its delay has run out
  void ProgramBufferAddress(uint8_t code, uint32_t arg);
  void UpdateTemperatures(double dt);
  void RecordBoundary();
  void FillHeader(CRecordJob& job) const;
  uint16_t EffectiveDivider() const;

  CSimRing& Ring;

  // World.
  std::shared_ptr<const CSensorTables> SensorTables;  // replaced, never changed in place
  COpticsParams OpticsParams;
  CSimEnvironment Env;
  CSimFaults FaultSet;
  double InternalTarget = 35.0;   // ramp target, degC
  double InternalRate = 0.0;      // degC per second, 0 = no ramp
  double GratingTemp = 35.0;      // the grating's present temperature, degC
  uint8_t FwVersion = kDefaultFwVersion;

  // FPGA.
  CAppliedSettings Settings;
  std::vector<uint32_t> Taken;              // words taken since the last sweep boundary
  std::vector<CDelayedEffect> Delayed;
  bool bMuxChangePending = false;           // opto outputs changed; apply at a cycle boundary
  int MwarStep = 0;                         // 0 expects the low address word, 1 high, 2 index
  uint32_t MwarAddress = 0;
  uint32_t MwarErrors = 0;                  // address words out of order or not matching
  std::array<uint32_t, 256> LastArgument{}; // every code's last argument
  uint32_t LastApplied = 0;
  uint32_t UnknownCount = 0;
  std::deque<CCommandLogEntry> Log;

  // Triggering.
  ETriggerState TrigState = ETriggerState::Off;
  bool bSwStart = false, bSwStop = false, bExtStart = false, bExtStop = false;
  uint32_t WindowRecords = 0;

  // Counters and time.
  uint32_t Sweeps = 0;             // sweep counter of the sweep in progress
  uint16_t Records = 0;            // record counter of the next record
  uint8_t Phase = 0;               // sampling phase of the next record
  uint32_t SweepsSinceRecord = 0;
  int ClockSettleLeft = 0;         // sweeps until the laser has settled after a clock change
  double Seconds = 0.0;            // card time
};

// Raw layer bits of the header: the card numbers layers 1 and 2 the other way round.
inline uint8_t EncodeLayerBits(int layer) {
  return static_cast<uint8_t>(layer == 1 ? 2 : layer == 2 ? 1 : layer);
}

}  // namespace sim
