#include "sim/SimCard.h"

#include <algorithm>
#include <optional>
#include <filesystem>
#include <fstream>

namespace sim {

namespace {

// One open of "/dev/vr480". Each file maps the ring's buffers in order from its own first
// mapping; closing it ends its waits for data.
class CSimDeviceFile : public CDeviceFile {
 public:
  explicit CSimDeviceFile(std::shared_ptr<CSimCard> card) : Card(std::move(card)) {}
  ~CSimDeviceFile() override { Close(); }

  int Ioctl(unsigned long request, uintptr_t arg) override {
    if (bClosed) return -1;
    return Card->Device().Ioctl(request, arg, bClosed);
  }

  void* Map(size_t length) override {
    if (bClosed || length > kBufferStride) return nullptr;
    return Card->Device().MapBuffer(MapCount++);
  }

  int Unmap(void* address, size_t) override {
    auto* p = static_cast<uint8_t*>(address);
    auto* base = Card->Ring().Buffer(0);
    return p >= base && p < base + kBufferStride * kDmaBuffers ? 0 : -1;
  }

  int Close() override {
    if (!bClosed.exchange(true)) Card->Ring().WakeAll();
    return 0;
  }

 private:
  std::shared_ptr<CSimCard> Card;
  std::atomic<bool> bClosed{false};
  std::atomic<int> MapCount{0};
};

}  // namespace

std::string NvramPath(const std::string& root) {
  if (root.empty()) return {};
  std::string r = root;
  while (r.size() > 1 && r.back() == '/') r.pop_back();
  return (r == "/" ? std::string() : r) + "/vr480/sim_nvram.bin";
}

const std::vector<std::string>& BaselineTagLines() {
  static const std::vector<std::string> lines = {
      "#SET_SOA_DRIVE = \"30000\"",   "#SET_SCAN_AMP = \"40000\"",
      "#SET_INITIAL_BIAS = \"28000\"", "#SET_AUTOBIAS = \"1\"",
      "#SET_AUTO_SCAN_AMP = \"1\"",    "#SET_ZOR_FS_ENABLE = \"1\"",
      "#SET_ZOR_LOC_MEAS_ENABLE = \"1\"",
  };
  return lines;
}

bool EnsureBaselineTagFile(const std::string& hostPath) {
  std::error_code ec;
  if (std::filesystem::exists(hostPath, ec)) return true;
  std::ofstream out(hostPath, std::ios::binary);
  for (const std::string& line : BaselineTagLines()) out << line << '\n';
  return static_cast<bool>(out.flush());
}

CSimCard::CSimCard(const CSimOptions& options)
    : Instrument(DmaRing), Synthesizer(options.Seed), bAbsent(options.bCardAbsent) {
  // The scene is read first: its card knobs decide what the card reports at power-up.
  std::optional<CSimScene> scene;
  if (!options.SceneFile.empty()) {
    CSceneParseResult parsed = sim::LoadSceneFile(options.SceneFile);
    if (parsed.bOk) scene = parsed.Scene;
    else SceneLoadError = parsed.Error;
  }
  uint16_t deviceId = options.DeviceIdOverride;
  uint16_t driverRelease = options.DriverRelease;
  if (scene) {
    if (scene->Hardware.bAbsent) bAbsent = true;
    if (scene->Hardware.DeviceIdOverride) deviceId = scene->Hardware.DeviceIdOverride;
    if (scene->Hardware.DriverRelease) driverRelease = scene->Hardware.DriverRelease;
  }
  auto nvram = std::make_unique<CSimNvram>(NvramPath(options.Root),
                                           options.NvramImage.value_or(ENvramImage::Rev3));
  if (options.NvramImage) nvram->Load(MakeNvramImage(*options.NvramImage));
  Dev = std::make_unique<CSimDevice>(Lock, Instrument, DmaRing, std::move(nvram), deviceId, driverRelease);
  if (scene) Instrument.LoadScene(*scene);
  Producer = std::make_unique<CSimProducer>(
      options.Mode, options.TimeScale, options.RecordsAhead, DmaRing,
      [this] { return SimulateSweep(); }, [this] { return SweepRate(); });
  Producer->Start();
}

CSimCard::~CSimCard() { Producer->Stop(); }

std::unique_ptr<CDeviceFile> CSimCard::OpenDevice() {
  if (bAbsent) return nullptr;
  return std::make_unique<CSimDeviceFile>(shared_from_this());
}

void CSimCard::SetAbsent(bool absent) { bAbsent = absent; }

std::string CSimCard::SceneError() const {
  std::lock_guard<std::mutex> g(Lock);
  return SceneLoadError;
}

ESweepResult CSimCard::SimulateSweep() {
  ESweepResult result;
  {
    std::lock_guard<std::mutex> g(Lock);
    Dev->TakeMailboxAtSweep();
    result = Instrument.AdvanceSweep(Job);
  }
  if (result == ESweepResult::Record) {
    // The reserved buffer is the producer's alone until it is published.
    Synthesizer.Fill(Job, DmaRing.Record(Job.Slot));
    DmaRing.Publish(Job.Slot);
  }
  return result;
}

int CSimCard::Step(int periods) { return Producer->Step(periods); }

void CSimCard::Reseed(uint64_t seed) {
  // Step mode only: the thread of the other modes owns the generator.
  if (Producer->Mode() == EProducerMode::Step) Synthesizer.Reseed(seed);
}

double CSimCard::SweepRate() const {
  std::lock_guard<std::mutex> g(Lock);
  return Instrument.SweepRate();
}

// --- the world ---------------------------------------------------------------------------

void CSimCard::LoadScene(const CSimScene& scene) {
  std::lock_guard<std::mutex> g(Lock);
  Instrument.LoadScene(scene);
}

bool CSimCard::LoadSceneFile(const std::string& path, std::string* error) {
  CSceneParseResult scene = sim::LoadSceneFile(path);
  if (!scene.bOk) {
    if (error) *error = scene.Error;
    return false;
  }
  LoadScene(scene.Scene);
  return true;
}

void CSimCard::SetSensors(int logicalChannel, std::vector<CSimSensor> sensors) {
  std::lock_guard<std::mutex> g(Lock);
  Instrument.SetSensors(logicalChannel, std::move(sensors));
}

std::vector<CSimSensor> CSimCard::Sensors(int logicalChannel) const {
  std::lock_guard<std::mutex> g(Lock);
  return Instrument.Sensors(logicalChannel);
}

void CSimCard::SetInternalTemperature(double degC, double degCPerSecond) {
  std::lock_guard<std::mutex> g(Lock);
  Instrument.SetInternalTemperature(degC, degCPerSecond);
}

void CSimCard::SetGratingTemperature(double degC) {
  std::lock_guard<std::mutex> g(Lock);
  Instrument.SetGratingTemperature(degC);
}

double CSimCard::InternalTemperature() const {
  std::lock_guard<std::mutex> g(Lock);
  return Instrument.InternalDegC();
}

double CSimCard::GratingTemperature() const {
  std::lock_guard<std::mutex> g(Lock);
  return Instrument.GratingDegC();
}

void CSimCard::SetGratingLag(double seconds) {
  std::lock_guard<std::mutex> g(Lock);
  Instrument.Environment().GratingLagS = std::max(seconds, 0.0);
}

void CSimCard::UpdateOptics(const std::function<void(COpticsParams&)>& change) {
  std::lock_guard<std::mutex> g(Lock);
  change(Instrument.Optics());
}

COpticsParams CSimCard::Optics() const {
  std::lock_guard<std::mutex> g(Lock);
  return Instrument.Optics();
}

void CSimCard::SetScanGain(double thzPerLsb) {
  UpdateOptics([=](COpticsParams& o) { o.ScanGainThzPerLsb = thzPerLsb; });
}

void CSimCard::SetCalibrationError(double combIntervals) {
  UpdateOptics([=](COpticsParams& o) { o.CalibrationErrorFsr = combIntervals; });
}

void CSimCard::SetCombFsr(double ghz) {
  if (ghz > 0.0) UpdateOptics([=](COpticsParams& o) { o.CombFsrGhz = ghz; });
}

void CSimCard::SetGroupIndex(double n) {
  UpdateOptics([=](COpticsParams& o) { o.GroupIndex = n; });
}

void CSimCard::SetGratingList(int list) {
  if (list == 0 || (list >= 2 && list <= 5)) UpdateOptics([=](COpticsParams& o) { o.GratingList = list; });
}

void CSimCard::SetMasterDivider(uint16_t divider) {
  std::lock_guard<std::mutex> g(Lock);
  Instrument.Environment().MasterDivider = std::max<uint16_t>(divider, 1);
}

void CSimCard::SetChannelLength(int dutChannel, double metres) {
  std::lock_guard<std::mutex> g(Lock);
  if (dutChannel >= 0 && dutChannel < 4) Instrument.Environment().ChannelLengthM[dutChannel] = metres;
}

void CSimCard::SetLayerLength(int layer, double metres) {
  std::lock_guard<std::mutex> g(Lock);
  if (layer >= 0 && layer < 4) Instrument.Environment().LayerLengthM[layer] = metres;
}

void CSimCard::TriggerEdge(bool rising) {
  std::lock_guard<std::mutex> g(Lock);
  Instrument.TriggerEdge(rising);
}

// --- faults ------------------------------------------------------------------------------

void CSimCard::SetFaults(const CSimFaults& faults) {
  std::lock_guard<std::mutex> g(Lock);
  Instrument.Faults() = faults;
}

CSimFaults CSimCard::Faults() const {
  std::lock_guard<std::mutex> g(Lock);
  return Instrument.Faults();
}

void CSimCard::SetMailboxStall(bool stalled) {
  std::lock_guard<std::mutex> g(Lock);
  Dev->SetMailboxStall(stalled);
}

void CSimCard::FailMapping(int index) {
  std::lock_guard<std::mutex> g(Lock);
  Dev->FailMapping(index);
}

void CSimCard::SetClientCount(uint16_t count, int reads) {
  std::lock_guard<std::mutex> g(Lock);
  Dev->SetClientCount(count, reads);
}

void CSimCard::SetDriverRelease(uint16_t release) {
  std::lock_guard<std::mutex> g(Lock);
  Dev->SetDriverRelease(release);
}

void CSimCard::SetFwVersion(uint8_t version) {
  std::lock_guard<std::mutex> g(Lock);
  Instrument.SetFwVersion(version);
}

// --- read-back ---------------------------------------------------------------------------

std::vector<CCommandLogEntry> CSimCard::CommandLog() const {
  std::lock_guard<std::mutex> g(Lock);
  return Instrument.CommandLog();
}

CAppliedSettings CSimCard::Applied() const {
  std::lock_guard<std::mutex> g(Lock);
  return Instrument.Applied();
}

bool CSimCard::ReadyLed() const { return Applied().bReadyLed; }
bool CSimCard::ClientLed() const { return Applied().bClientLed; }

std::array<uint32_t, 3> CSimCard::AnalogOutputs() const {
  std::lock_guard<std::mutex> g(Lock);
  return Dev->AnalogOutputs();
}

ETriggerState CSimCard::TriggerState() const {
  std::lock_guard<std::mutex> g(Lock);
  return Instrument.TriggerState();
}

uint32_t CSimCard::SweepCounter() const {
  std::lock_guard<std::mutex> g(Lock);
  return Instrument.SweepCounter();
}

uint16_t CSimCard::RecordCounter() const {
  std::lock_guard<std::mutex> g(Lock);
  return Instrument.RecordCounter();
}

double CSimCard::CardSeconds() const {
  std::lock_guard<std::mutex> g(Lock);
  return Instrument.CardSeconds();
}

uint32_t CSimCard::LastAppliedWord() const {
  std::lock_guard<std::mutex> g(Lock);
  return Instrument.LastAppliedWord();
}

uint32_t CSimCard::StoredArgument(uint8_t code) const {
  std::lock_guard<std::mutex> g(Lock);
  return Instrument.StoredArgument(code);
}

uint32_t CSimCard::LostCommands() const {
  std::lock_guard<std::mutex> g(Lock);
  return Dev->LostCommands();
}

uint32_t CSimCard::UnknownCommands() const {
  std::lock_guard<std::mutex> g(Lock);
  return Instrument.UnknownCommands();
}

uint32_t CSimCard::BufferAddressErrors() const {
  std::lock_guard<std::mutex> g(Lock);
  return Instrument.BufferAddressErrors();
}

uint64_t CSimCard::Overruns() const { return DmaRing.Overruns(); }
uint64_t CSimCard::RecordsWritten() const { return DmaRing.Written(); }

uint16_t CSimCard::DeviceId() const {
  std::lock_guard<std::mutex> g(Lock);
  return Dev->DeviceId();
}

uint16_t CSimCard::DriverRelease() const {
  std::lock_guard<std::mutex> g(Lock);
  return Dev->DriverRelease();
}

NvramBytes CSimCard::Nvram() const {
  std::lock_guard<std::mutex> g(Lock);
  return Dev->Nvram().Bytes();
}

std::vector<unsigned long> CSimCard::DebugWords() const {
  std::lock_guard<std::mutex> g(Lock);
  return Dev->DebugWords();
}

bool CSimCard::MailboxFull() const {
  std::lock_guard<std::mutex> g(Lock);
  return Dev->MailboxFull();
}

}  // namespace sim
