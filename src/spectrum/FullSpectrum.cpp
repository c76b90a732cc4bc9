// Full-spectrum acquisition: the card digitises the reflected light of one detector (the
// amplitude channel) 256 times along each sweep, one sample every 256 counts, and shifts the
// sampling instant by two counts from one sweep to the next. 128 consecutive sweeps therefore
// interleave into one spectrum of 32768 points, one every two counts of the sweep.
//
// On the acquisition thread, every record:
//  - its samples go into a short history per multiplexer layer, from which each peak gets its
//    amplitude (PeakAmplitude.cpp);
//  - its samples take their places in the spectrum being assembled; when the sampling phase
//    comes back to where the cycle began, the spectrum is complete and is handed to the
//    calibration thread together with the comb teeth of that record, which give it a scale.
// On the calibration thread, every complete spectrum is resampled onto a grid linear in
// wavelength (SpectrumCalibration.h) and published into the 16-slot ring that #GET_SPECTRUM
// reads.
//
// Peak positions and spectrum points are not aligned: the peak detector reports a peak later
// than the light arrives (its processing latency), the samples do not. FsCountOffset, measured
// at start-up on the reference grating, is that latency in spectrum points (half counts); the
// comb teeth are moved by it before they scale a spectrum.
#include <pthread.h>
#include <sched.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <memory>
#include <new>
#include <thread>

#include "server/Globals.h"
#include "server/Vr480Server.h"
#include "spectrum/SpectrumCalibration.h"
#include "server/RepeatingMessage.h"

namespace {

using namespace std::chrono_literals;

constexpr int kPhases = 128;  // sampling phases of one cycle: sweeps per full spectrum

// The raw spectrum record (RawSpectrumBuffer) has the layout of a calibrated one.
constexpr size_t kRawHeaderOffset = 12;
constexpr size_t kRawHeaderBytes = sizeof(struct_dma_peaks_status);
constexpr size_t kRawPointsOffset = 100;
constexpr size_t kRawLengthOffset = kRawPointsOffset + 2 * CVr480Server::kFsPoints;
constexpr uint32_t kRawBodyLength = kRawHeaderBytes + 2 * CVr480Server::kFsPoints;

// The offset calibration.
constexpr int kMaxChannelSettleRecords = 512;  // records to wait for the card to switch to the grating
constexpr int kExtraSettleRecords = 50;        // and a few more, so that its detector has settled
constexpr int kCalibrationRecords = kPhases;   // one full cycle of phases
constexpr int kPeakSearchHalfWidth = 100;      // spectrum points searched either side of the grating

int16_t Sample(const struct_dma_peaks_data& rec, int i) { return static_cast<int16_t>(rec.FsSamples[i] & 0xFFFF); }

void PutU32(uint8_t* at, uint32_t v) { std::memcpy(at, &v, sizeof v); }

// A record whose offset lies past two spectra cannot come from a card in a sane state; it is
// described on the console for whoever services the instrument.
void PrintPlacementDiagnostic(const struct_dma_peaks_data& rec, int level, int offset) {
  std::printf("peaks_data->status.flags1_lo: %d\n", rec.status.flags1_lo);
  std::printf("(peaks_data->status.flags1_lo)&0x03: %d\n", rec.status.flags1_lo & 0x03);
  std::printf("GET_SW_POSITION(peaks_data->status): %d\n", GET_SW_POSITION(rec.status));
  std::printf("NUM_FS_DATA_POINTS: %d\n", CVr480Server::kFsPoints);
  std::printf("status->CurrentLayer: %d\n", rec.status.CurrentLayer);
  std::printf("MuxLevel: %d\n", level);
  std::printf("offset: %d\n", offset);
  std::fflush(stdout);
}

void PinToCpu0() {
  const long tid = ::syscall(SYS_gettid);
  std::printf("Setting FS thread [PID: %ld] CPU affinity to CPU %d\n", tid, 0);
  std::fflush(stdout);
  cpu_set_t set;
  CPU_ZERO(&set);
  CPU_SET(0, &set);
  if (const int err = pthread_setaffinity_np(pthread_self(), sizeof set, &set); err != 0) {
    errno = err;
    std::perror("pthread_setaffinity_np() failed.");
  }
}

// The calibration thread's own copy of a finished spectrum and its working space. The copy is
// taken under FsCalMutex; everything after runs without a lock while the acquisition thread
// assembles the next spectrum.
class CSpectrumCalibrator {
 public:
  explicit CSpectrumCalibrator(CVr480Server& server)
      : S(server),
        Raw(new (std::nothrow) int16_t[fs::kPoints]),
        Out(new (std::nothrow) int16_t[fs::kPoints]),
        Lambda(new (std::nothrow) double[fs::kPoints]) {}

  bool Allocated() const { return Raw && Out && Lambda; }

  // Under FsCalMutex, right after a hand-over.
  void Take() {
    bHasSpectrum = S.RawSpectrumBuffer != nullptr;
    if (bHasSpectrum) {
      std::memcpy(Header, S.RawSpectrumBuffer + kRawHeaderOffset, kRawHeaderBytes);
      std::memcpy(Raw.get(), S.RawSpectrumBuffer + kRawPointsOffset, 2 * fs::kPoints);
    }
    Count = std::clamp<int32_t>(S.FsFfpiCount, 0, kSensorsPerChannel);
    std::copy_n(S.FsFfpiPoints, Count, Points);
    std::copy_n(S.FsFfpiThz, Count, Thz);
    RefIndex = S.FsFfpiRefIndex;
  }

  // Resamples the spectrum and publishes it unless it is one to drop. Waiters on SpectrumCond
  // are woken when a spectrum is published: a client that changed the amplitude channel thus
  // waits until the change has gone through the dropped spectra into a published one.
  void Process() {
    const fs::CCombScale comb{Count, Points, Thz, RefIndex};
    bool publish = false;
    if (bHasSpectrum && S.SpectrumBuffer && fs::CombIsUsable(comb)) {
      fs::CCalibrationSettings settings;
      settings.LowerNm = S.LowerWvlLimit;
      settings.UpperNm = S.UpperWvlLimit;
      settings.SpeedOfLight = S.SpeedOfLight;
      settings.MuxLevel = MuxLevelOfHeader();
      settings.LeftPeaks = S.AutoScanLeftPeaks;
      settings.RightPeaks = S.AutoScanRightPeaks;
      const fs::CSweepWindow window = fs::Calibrate(Raw.get(), comb, settings, Lambda.get(), Out.get());
      if (window.bValid) {
        S.HighSpeedFsStartWvl = window.StartWvl;
        S.HighSpeedFsEndWvl = window.EndWvl;
        S.HighSpeedFsStartCount = window.StartCount;
        S.HighSpeedFsEndCount = window.EndCount;
      }
      if (const int32_t skip = S.FsSkipCount; skip > 0) {
        S.FsSkipCount = skip - 1;
      } else {
        const uint16_t slot = S.SpectrumWriteIndex;
        fs::FillSpectrumRecord(S.SpectrumBuffer + static_cast<size_t>(slot) * kSpectrumRecordBytes, Header,
                               static_cast<uint32_t>(static_cast<int32_t>(S.Granularity)), settings.LowerNm,
                               settings.UpperNm, Out.get());
        publish = true;
      }
    }

    if (!publish) return;
    std::lock_guard<std::mutex> g(S.SpectrumMutex);
    const uint16_t slot = S.SpectrumWriteIndex;
    S.SpectrumWriteIndex = slot >= kSpectrumRingSlots - 1 ? 0 : static_cast<uint16_t>(slot + 1);
    for (int c = 0; c < kClientSlots; ++c) S.bNewSpectrum[c] = true;
    S.SpectrumCond.notify_all();
  }

 private:
  // The grating's and the comb's detectors are not multiplexed: their spectra are one sweep.
  int MuxLevelOfHeader() const {
    struct_dma_peaks_status h;
    std::memcpy(&h, Header, sizeof h);
    if ((h.Status3 & 0x07) <= 1) return 1;
    return ((h.flags1_lo >> 2) & 0x03) + 1;
  }

  CVr480Server& S;
  std::unique_ptr<int16_t[]> Raw, Out;
  std::unique_ptr<double[]> Lambda;
  uint8_t Header[kRawHeaderBytes] = {};
  bool bHasSpectrum = false;
  int32_t Count = 0;
  int32_t Points[kSensorsPerChannel] = {};
  double Thz[kSensorsPerChannel] = {};
  int RefIndex = 0;
};

}  // namespace

// The record's samples join the history of its layer. A full pass through the history makes
// every cached amplitude stale.
void CVr480Server::BuildRawFSBuffer() {
  const struct_dma_peaks_data* rec = pPeaks;
  if (!rec) return;
  const int layer = rec->Layer();
  const int depth = std::clamp<int32_t>(PeakAmpBufDepth, 1, kFsHistoryDepth);
  uint16_t& index = FsHistoryIndex[layer];
  if (index >= kFsHistoryDepth) index = 0;
  uint16_t* history = FS_RawHistoryBuffer[layer][index];
  for (int i = 0; i < kFsSamples; ++i) history[i] = static_cast<uint16_t>(rec->FsSamples[i] & 0xFFFF);
  // A depth lowered below the index wraps it here, at the next record.
  if (++index >= depth) {
    index = 0;
    for (auto& row : PeakAmpDirty)
      for (bool& dirty : row) dirty = true;
  }
}

// Places the record's samples and, when its phase closes the cycle, hands the spectrum over.
//
// The grating and comb detectors see the light of every sweep: sample i of phase p is point
// 128 i + p. A DUT detector behind a multiplexer of level m sees layer s only every m-th sweep,
// so each layer gets its own 32768/m points: layer s fills the s-th part of the spectrum at a
// resolution m times coarser.
void CVr480Server::BuildSpectrum() {
  const struct_dma_peaks_data* rec = pPeaks;
  if (!rec) return;
  const int phase = rec->status.CurrentLayer % kPhases;
  if (rec->AmplitudeChannel() <= 1) {
    for (int i = 0; i < kFsSamples; ++i) FsAssembly[i * kPhases + phase] = Sample(*rec, i);
  } else {
    const int level = rec->AppliedLevelBits() + 1;
    const int offset = (rec->Layer() * kFsPoints + phase) / level;
    const int stride = kPhases / level;
    if (offset > 65535) PrintPlacementDiagnostic(*rec, level, offset);
    // A layer the record's own level does not have would land past the spectrum: such a
    // record adds nothing (the cycle still counts its phase).
    if ((kFsSamples - 1) * stride + offset < kFsPoints)
      for (int i = 0; i < kFsSamples; ++i) FsAssembly[i * stride + offset] = Sample(*rec, i);
  }

  if (bFsRestart) {
    FsPhaseStart = static_cast<uint16_t>(phase);
    bFsRestart = false;
    return;
  }
  if (phase != FsPhaseStart) return;

  // The cycle is complete. The comb teeth move by the detector latency onto spectrum points;
  // their frequencies are the ones the wavelength scale gave this record's teeth. A record the
  // scale could not place carries no comb, and its spectrum is not calibrated.
  const int teeth = bScaleValid ? std::min<int>(rec->status.NumPeaks[1], kPeakListSize) : 0;
  const int reference = FfpiRefPeakIndex;
  const double refThz = FfpiRefPeakThz;
  const double fsrThz = FfpiFsrGhz / 1000.0;
  const int offsetPoints = FsCountOffset;
  {
    std::lock_guard<std::mutex> g(FsCalMutex);
    if (RawSpectrumBuffer) {
      std::memcpy(RawSpectrumBuffer + kRawHeaderOffset, &rec->status, kRawHeaderBytes);
      std::memcpy(RawSpectrumBuffer + kRawPointsOffset, FsAssembly, sizeof FsAssembly);
      PutU32(RawSpectrumBuffer + kRawLengthOffset, kRawBodyLength);
    }
    for (int j = 0; j < teeth; ++j) {
      const int point = static_cast<int>(rec->FfpiPeaks[j] / 2) - offsetPoints;
      FsFfpiPoints[j] = std::clamp(point, 0, kFsPoints - 1);
      FsFfpiThz[j] = refThz + (reference - j) * fsrThz;
    }
    FsFfpiCount = teeth;
    FsFfpiRefIndex = reference;
    ++FsCalGeneration;
  }
  FsCalCond.notify_all();
}

// Measures FsCountOffset on the reference grating: with the grating's detector feeding the
// samples, one cycle of sweeps gives a spectrum in which the grating's line should sit at half
// its reported position; the line's actual place says how late the peak detector reports.
//
// The amplitude channel put back afterwards is the one the card reports on its records: start-up
// selects it by writing the converter's whole control register, which the driver's remembered
// channel does not see. The calibration then waits for the card to be back on it, so that the
// next calibration (start-up runs thirty in a row) finds the right channel on its first record.
// A stop meanwhile ends it with -1, settings put back: one record may be a minute away at a
// high data-rate divider, and the whole calibration takes 180 of them.
int CVr480Server::CalibrateFsOffset() {
  const uint8_t savedTrigger = Driver.GetTrigEnable();
  const uint16_t savedMode = Driver.GetOperatingMode();
  const uint8_t savedChannel = pPeaks ? static_cast<uint8_t>(pPeaks->AmplitudeChannel()) : Driver.GetAmpCh();
  const int16_t savedOffset = FsCountOffset;
  bool stopping = false;  // the server is stopping: no more records are taken
  auto fetch = [&] {
    if (!stopping && (!bRun || !GetData())) stopping = true;
    return !stopping;
  };
  auto restore = [&] {
    Driver.SetAmpCh(savedChannel);
    Driver.SetOperatingMode(savedMode);
    Driver.SetTrigEnable(savedTrigger != 0);
    for (int n = 0; n < kMaxChannelSettleRecords && pPeaks->AmplitudeChannel() != savedChannel && fetch(); ++n) {
    }
  };
  auto fail = [&](int code) {
    FsCountOffset = savedOffset;
    restore();
    return code;
  };

  FsCountOffset = 0;
  Driver.SetOperatingMode(0);
  Driver.SetTrigEnable(false);
  Driver.SetAmpCh(0);

  // The card switches its converter a few sweeps after the command.
  if (!fetch()) return fail(-1);
  for (int n = 0; n < kMaxChannelSettleRecords && pPeaks->AmplitudeChannel() != 0; ++n)
    if (!fetch()) return fail(-1);
  for (int n = 0; n < kExtraSettleRecords; ++n)
    if (!fetch()) return fail(-1);
  if (pPeaks->AmplitudeChannel() != 0) {
    static CRepeatingMessage noChannel;
    noChannel.Print("CalibrateFsOffset() failed: Failed to set selected amp channel to grating channel\n");
    std::fflush(stdout);
    return fail(-1);
  }

  long sum = 0;
  for (int n = 0; n < kCalibrationRecords; ++n) {
    if (!fetch()) return fail(-1);
    pPeaks->status.NumPeaks[1] = 0;  // no comb: this cycle's spectrum is not one to calibrate
    const int gratings = pPeaks->status.NumPeaks[0];
    if (gratings != 1) {
      static CRepeatingMessage noGrating;
      noGrating.Print("CalibrateFsOffset() failed: %d grating peaks were found.\n", gratings);
      std::fflush(stdout);
      return fail(-2);
    }
    sum += pPeaks->status.FbgPosition & 0x00FFFFFF;
    BuildSpectrum();
  }

  const int centre = static_cast<int>(sum / kCalibrationRecords) / 2;
  const int from = std::max(centre - kPeakSearchHalfWidth, 0);
  const int to = std::min(centre + kPeakSearchHalfWidth, kFsPoints);
  int best = from;
  for (int i = from; i < to; ++i)
    if (FsAssembly[i] > FsAssembly[best]) best = i;
  FsCountOffset = static_cast<int16_t>(centre - best);
  restore();
  return 0;
}

// The thread ends when bFsCalCancel is set: the stop path sets it and wakes the thread, and the
// wait below also wakes once a second. Asynchronous cancellation is not used: it could strike
// while the thread holds a lock or is inside the allocator.
void* CVr480Server::CalibrateSpectrumThread(void* arg) {
  auto* server = static_cast<CVr480Server*>(arg);
  if (server->bPcm9361Board) PinToCpu0();
  std::printf("Entering FS Calibration thread...\n");
  std::fflush(stdout);

  CSpectrumCalibrator calibrator(*server);
  if (!calibrator.Allocated()) std::printf("Failed to allocate the FS calibration buffers.\n");
  uint32_t seen;
  {
    std::lock_guard<std::mutex> g(server->FsCalMutex);
    seen = server->FsCalGeneration;
  }
  for (;;) {
    {
      std::unique_lock<std::mutex> lock(server->FsCalMutex);
      while (!server->bFsCalCancel && server->FsCalGeneration == seen) server->FsCalCond.wait_for(lock, 1s);
      if (server->bFsCalCancel) break;
      seen = server->FsCalGeneration;
      if (calibrator.Allocated()) calibrator.Take();
    }
    if (calibrator.Allocated()) calibrator.Process();
  }
  server->bFsCalRunning = false;  // the last touch of the server: the stop path may go on from here
  return nullptr;
}

bool CVr480Server::StartCalibrationThread() {
  bFsCalCancel = false;
  bFsCalRunning = true;
  if (pthread_create(&FsCalThread, nullptr, &CVr480Server::CalibrateSpectrumThread, this) != 0) {
    bFsCalRunning = false;
    return false;
  }
  pthread_detach(FsCalThread);
  return true;
}

// Cancels the calibration thread: it ends at its next wake-up, within a second (a pass over a
// spectrum takes milliseconds). Gives it two seconds.
bool CVr480Server::StopCalibrationThread() {
  {
    std::lock_guard<std::mutex> g(FsCalMutex);
    bFsCalCancel = true;
  }
  FsCalCond.notify_all();
  for (int i = 0; i < 200 && bFsCalRunning; ++i) std::this_thread::sleep_for(10ms);
  return !bFsCalRunning;
}
