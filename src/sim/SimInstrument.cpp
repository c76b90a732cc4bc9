#include "sim/SimInstrument.h"

#include <algorithm>
#include <cmath>

namespace sim {

namespace {

constexpr size_t kCommandLogLimit = 200000;  // oldest entries go first beyond this

// Codes of the driver's command table; any other code is counted as unknown.
bool KnownCode(uint8_t code) {
  switch (code) {
    case 0x01: case 0x03: case 0x04: case 0x06: case 0x07: case 0x08: case 0x09: case 0x0A:
    case 0x0B: case 0x0C: case 0x0D: case 0x0E: case 0x0F: case 0x10: case 0x11: case 0x12:
    case 0x14: case 0x16: case 0x17: case 0x18: case 0x19: case 0x1A: case 0x1B: case 0x1D:
    case 0x1E: case 0x20: case 0x21: case 0x22: case 0x23: case 0x24: case 0x25: case 0x26:
    case 0x27: case 0x28: case 0x29: case 0x2A: case 0x2B: case 0x2C: case 0x2D: case 0x2E:
    case 0x2F: case 0x30: case 0x31: case 0x32: case 0x36: case 0x37: case 0x38: case 0x39:
    case 0x3A: case 0x3B:
      return true;
    default:
      return false;
  }
}

// Per-channel words carry the detector channel either as ch or as 0x30 + ch in bits 23-16.
int ChannelOf(uint32_t arg, bool offset30) {
  const int raw = static_cast<int>((arg >> 16) & 0xFF);
  const int ch = offset30 ? raw - 0x30 : raw;
  return ch >= 0 && ch < 6 ? ch : -1;
}

int MuxLevelOf(bool optoA, bool optoB) {
  if (optoA && optoB) return 4;
  if (!optoA && optoB) return 2;
  return 1;
}

}  // namespace

CSimInstrument::CSimInstrument(CSimRing& ring) : Ring(ring) { LoadScene(DefaultScene()); }

void CSimInstrument::LoadScene(const CSimScene& scene) {
  SensorTables = std::make_shared<const CSensorTables>(scene.Sensors);
  OpticsParams = scene.Optics;
  Env = scene.Environment;
  InternalTarget = Env.InternalDegC;
  InternalRate = 0.0;
  GratingTemp = Env.InternalDegC + Env.GratingOffsetDegC;
}

void CSimInstrument::SetSensors(int logicalChannel, std::vector<CSimSensor> sensors) {
  if (logicalChannel < 0 || logicalChannel >= kLogicalChannels) return;
  if (sensors.size() > static_cast<size_t>(kMaxSensorsPerChannel)) sensors.resize(kMaxSensorsPerChannel);
  auto tables = std::make_shared<CSensorTables>(*SensorTables);
  (*tables)[logicalChannel] = std::move(sensors);
  SensorTables = std::move(tables);  // records in flight keep the old tables
}

std::vector<CSimSensor> CSimInstrument::Sensors(int logicalChannel) const {
  if (logicalChannel < 0 || logicalChannel >= kLogicalChannels) return {};
  return (*SensorTables)[logicalChannel];
}

void CSimInstrument::SetInternalTemperature(double degC, double degCPerSecond) {
  InternalTarget = degC;
  InternalRate = std::fabs(degCPerSecond);
  if (InternalRate == 0.0) Env.InternalDegC = degC;
}

void CSimInstrument::SetGratingTemperature(double degC) {
  GratingTemp = degC;
  Env.GratingOffsetDegC = degC - Env.InternalDegC;
}

void CSimInstrument::LogCommand(uint32_t word) {
  if (Log.size() >= kCommandLogLimit) Log.pop_front();
  Log.push_back({word, Seconds, Sweeps, std::chrono::steady_clock::now()});
}

void CSimInstrument::Accept(uint32_t word) { Taken.push_back(word); }

void CSimInstrument::TriggerEdge(bool rising) {
  // An edge is a start when it matches the start edge, a stop when it matches the stop edge;
  // the state machine looks at them at the next record boundary.
  if (rising != Settings.bTrigStartFalling) bExtStart = true;
  if (rising != Settings.bTrigStopFalling) bExtStop = true;
}

double CSimInstrument::SweepRate() const {
  const double r = Settings.b2kHzMode ? 2000.0 : 1000.0;
  return Settings.bClockDivider ? r / 2.0 : r;
}

uint16_t CSimInstrument::EffectiveDivider() const {
  // In operating modes 2 and 3 a master instrument sets the pace.
  if (Settings.OperatingMode >= 2) return std::max<uint16_t>(Env.MasterDivider, 1);
  return std::max<uint16_t>(Settings.DataRateDivider, 1);
}

void CSimInstrument::Apply(uint32_t word) {
  const uint8_t code = static_cast<uint8_t>(word >> 24);
  const uint32_t arg = word & 0xFFFFFF;
  const uint16_t value = static_cast<uint16_t>(arg & 0xFFFF);
  const bool flag = (arg & 1) != 0;
  LastArgument[code] = arg;
  LastApplied = word;
  if (!KnownCode(code)) ++UnknownCount;

  auto& s = Settings;
  switch (code) {
    case 0x01: s.bDmaEnabled = flag; break;
    case 0x03: s.Bias = value; break;
    case 0x04: s.ScanAmp = value; break;
    case 0x06: if (int ch = ChannelOf(arg, true); ch >= 0) s.Gain[ch] = value; break;
    case 0x07: s.bReadyLed = flag; break;
    case 0x08: s.bClientLed = flag; break;
    case 0x0C: Delayed.push_back({kClockDividerDelayRecords, word}); break;
    case 0x0D: if (int ch = ChannelOf(arg, true); ch >= 0) s.Threshold[ch] = value; break;
    case 0x0E: if (int ch = ChannelOf(arg, false); ch >= 0) s.Lockout[ch] = value; break;
    case 0x0F: if (int ch = ChannelOf(arg, false); ch >= 0) s.NoiseThresholdEnabled[ch] = flag; break;
    case 0x12:
      // Converter register words: only a written control-register word selects the input.
      if ((arg & 0x8000) && (arg & 0x6000) == 0) Delayed.push_back({kAmpChannelDelayRecords, word});
      break;
    case 0x17: s.DataRateDivider = value == 0 ? 1 : value; break;
    case 0x18: s.SoaDrive = value; break;
    case 0x19: s.bSoaEnabled = flag; break;
    case 0x1E: s.bAlignPattern = flag; break;
    case 0x20: s.OperatingMode = static_cast<uint8_t>(arg & 3); break;
    case 0x21: Delayed.push_back({kTriggerEnableDelayRecords, word}); break;
    case 0x22: s.TrigSource = static_cast<uint8_t>(arg & 1); break;
    case 0x23: bSwStart = true; break;
    case 0x24: bSwStop = true; break;
    case 0x25: s.TrigStopType = arg ? 1 : 0; break;
    case 0x26: s.bTrigStartFalling = flag; break;
    case 0x27: s.bTrigStopFalling = flag; break;
    case 0x28: s.TrigAcqCount = arg; break;
    case 0x29: s.bAutoReTrig = flag; break;
    case 0x2A: s.bOptoA = flag; bMuxChangePending = true; break;
    case 0x2B: s.bOptoB = flag; bMuxChangePending = true; break;
    case 0x2D: s.SoaOnCount = arg & 0x1FFFF; break;
    case 0x2E: s.SoaOffCount = arg & 0x1FFFF; break;
    case 0x2F: s.MaxDutPeaks = std::min<uint16_t>(value, kPeakListSize); break;
    case 0x30: s.b2kHzMode = flag; break;
    case 0x31: s.SyncHiCount = arg & 0x1FFFF; break;
    case 0x32: s.SyncLoCount = arg & 0x1FFFF; break;
    case 0x38: case 0x39: case 0x3A: ProgramBufferAddress(code, arg); break;
    default: break;  // stored only
  }
}

void CSimInstrument::ApplyDelayed(uint32_t word) {
  const uint32_t arg = word & 0xFFFFFF;
  switch (word >> 24) {
    case 0x0C:
      if (Settings.bClockDivider != ((arg & 1) != 0)) ClockSettleLeft = kClockSettleSweeps;
      Settings.bClockDivider = (arg & 1) != 0;
      break;
    case 0x12: Settings.AmpChannel = static_cast<uint8_t>((arg >> 10) & 7); break;
    case 0x21:
      Settings.bTrigEnable = (arg & 1) != 0;
      if (!Settings.bTrigEnable) {
        TrigState = ETriggerState::Off;
      } else if (TrigState == ETriggerState::Off || TrigState == ETriggerState::Done) {
        TrigState = ETriggerState::Armed;
      }
      break;
    default: break;
  }
}

void CSimInstrument::ProgramBufferAddress(uint8_t code, uint32_t arg) {
  // The server tells the card each buffer's bus address in three words: low half, high half,
  // buffer index. Anything out of order or not matching the driver's address is an error.
  const int expected = code - 0x38;
  if (expected != MwarStep) {
    ++MwarErrors;
    MwarStep = 0;
    if (code != 0x38) return;
  }
  switch (code) {
    case 0x38: MwarAddress = arg & 0xFFFF; MwarStep = 1; break;
    case 0x39: MwarAddress |= (arg & 0xFFFF) << 16; MwarStep = 2; break;
    case 0x3A: {
      const int index = static_cast<int>(arg & 0xFFFF);
      if (index < kDmaBuffers && MwarAddress == CSimRing::BusAddress(index)) {
        Ring.SetProgrammed(index);
      } else {
        ++MwarErrors;
      }
      MwarStep = 0;
      break;
    }
  }
}

void CSimInstrument::UpdateTemperatures(double dt) {
  if (InternalRate > 0.0) {
    const double step = InternalRate * dt;
    const double diff = InternalTarget - Env.InternalDegC;
    Env.InternalDegC = std::fabs(diff) <= step ? InternalTarget : Env.InternalDegC + std::copysign(step, diff);
    if (Env.InternalDegC == InternalTarget) InternalRate = 0.0;
  }
  // The grating sits in its own enclosure and follows the transmitter with a first-order lag.
  const double target = Env.InternalDegC + Env.GratingOffsetDegC;
  const double k = Env.GratingLagS > 0.0 ? std::min(1.0, dt / Env.GratingLagS) : 1.0;
  GratingTemp += (target - GratingTemp) * k;
}

void CSimInstrument::RecordBoundary() {
  for (size_t i = 0; i < Delayed.size();) {
    if (Delayed[i].RecordsLeft == 0) {
      ApplyDelayed(Delayed[i].Word);
      Delayed.erase(Delayed.begin() + static_cast<long>(i));
    } else {
      --Delayed[i].RecordsLeft;
      ++i;
    }
  }

  // The multiplexer switches only where a cycle of every level begins, so no layer is cut.
  if (bMuxChangePending && Sweeps % 4 == 0) {
    bMuxChangePending = false;
    const int level = MuxLevelOf(Settings.bOptoA, Settings.bOptoB);
    if (level != Settings.MuxLevel) {
      Settings.MuxLevel = level;
      const int layer = static_cast<int>(Sweeps % static_cast<uint32_t>(level));
      Phase = static_cast<uint8_t>((Phase + (layer - Phase % level + level) % level) & 127);
    }
  }

  // Trigger events: a stop ends a window before this record, a start opens one with it.
  const auto& s = Settings;
  if (TrigState == ETriggerState::Window &&
      (bSwStop || (s.TrigStopType == 1 && s.TrigSource == 1 && bExtStop))) {
    TrigState = s.bAutoReTrig ? ETriggerState::Armed : ETriggerState::Done;
  }
  if (TrigState == ETriggerState::Armed &&
      ((s.TrigSource == 0 && bSwStart) || (s.TrigSource == 1 && bExtStart))) {
    TrigState = ETriggerState::Window;
    WindowRecords = 0;
  }
  bSwStart = bSwStop = bExtStart = bExtStop = false;
}

void CSimInstrument::FillHeader(CRecordJob& job) const {
  const auto& s = Settings;
  const int level = s.MuxLevel;
  job.Layer = static_cast<int>(Sweeps % static_cast<uint32_t>(level));
  job.Phase = Phase;
  job.Status3 = static_cast<uint8_t>((s.AmpChannel & 7) | 0x20 |
                                     (TrigState == ETriggerState::Window ? 0x80 : 0));
  job.Flags1Lo = static_cast<uint8_t>(EncodeLayerBits(job.Layer) | ((level - 1) << 2) |
                                      (TrigState != ETriggerState::Off ? 0x10 : 0));
  job.FwVersion = FwVersion;
  job.Vth = static_cast<int16_t>(ThermistorReading(GratingTemp));
  job.InternalTemp = static_cast<int16_t>(std::clamp(std::lround(Env.InternalDegC * 128.0), -32768L, 32767L));
  job.RecordCounter = Records;
  job.SweepCounter = Sweeps;
  job.DividerField = EffectiveDivider();
  job.ClkDividerField = s.bClockDivider ? 1 : 0;
  job.SweepRate = SweepRate();
  job.SettleCounts = kClockSettleCounts * ClockSettleLeft / kClockSettleSweeps;
  job.CardSeconds = Seconds;
  job.GratingThz = TrueGratingThz(OpticsParams, GratingTemp);
  job.InternalDegC = Env.InternalDegC;
  job.Settings = s;
  job.Optics = OpticsParams;
  job.Environment = Env;
  job.Faults = FaultSet;
  job.Sensors = SensorTables;
}

ESweepResult CSimInstrument::AdvanceSweep(CRecordJob& job) {
  for (uint32_t w : Taken) Apply(w);
  Taken.clear();

  const double dt = 1.0 / SweepRate();
  Seconds += dt;
  if (ClockSettleLeft > 0) --ClockSettleLeft;
  UpdateTemperatures(dt);

  ESweepResult result = ESweepResult::Dropped;
  if (++SweepsSinceRecord >= EffectiveDivider()) {
    result = ESweepResult::Idle;
    SweepsSinceRecord = 0;
    RecordBoundary();
    if (Settings.bDmaEnabled) {
      job.Slot = Ring.Reserve();
      if (job.Slot >= 0) {
        FillHeader(job);
        ++Records;
        Phase = static_cast<uint8_t>((Phase + 1) & 127);
        result = ESweepResult::Record;
      }
    }
    if (TrigState == ETriggerState::Window) {
      ++WindowRecords;
      if (Settings.TrigStopType == 0 && Settings.TrigAcqCount > 0 &&
          WindowRecords >= Settings.TrigAcqCount) {
        TrigState = Settings.bAutoReTrig ? ETriggerState::Armed : ETriggerState::Done;
      }
    }
  }
  ++Sweeps;
  return result;
}

}  // namespace sim
