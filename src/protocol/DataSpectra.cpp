// The card's own record and the spectra for clients.
//
// Besides the peak lists, every sweep carries 256 samples of the reflected light along the
// sweep. The full-spectrum engine interleaves 128 sweeps of them into a raw spectrum of 32768
// points and resamples each finished one onto a grid linear in wavelength (the calibrated
// spectra, a ring of 16); #GET_SPECTRUM serves those, #GET_RAW_SPECTRUM the raw one,
// #GET_HIGH_SPEED_FS the 256 samples of the latest sweep inside the calibrated window.
//
// Each reply is copied into a buffer of the client's own before it is patched and sent: the
// spectrum thread and the acquisition thread keep writing their buffers while a slow client is
// still being sent to.
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <mutex>

#include "processing/ProcessedRecord.h"
#include "protocol/CommandTable.h"
#include "protocol/DataCommands.h"
#include "server/Globals.h"
#include "server/Vr480Server.h"

namespace data_commands {
namespace {

using namespace std::chrono_literals;

constexpr size_t kSpectrumLengthOffset = kSpectrumRecordBytes - 4;  // u32 body length at record offset 65636
constexpr uint32_t kMaxSpectrumBody = kSpectrumLengthOffset - kRecHeaderOffset;  // 88 + 65536

uint32_t SpectrumBodyLength(const uint8_t* rec) {
  const uint32_t length = GetRecU32(rec, kSpectrumLengthOffset);
  return length <= kMaxSpectrumBody ? length : 0;  // a slot never filled holds no length
}

void SetType(uint8_t* rec, uint8_t type) {
  uint8_t& b = rec[kRecHeaderOffset + kBodyTypeByte];
  b = static_cast<uint8_t>((b & 0x0F) | (type << 4));
}

// The card's record of the latest sweep, as the card delivered it: while sensor binning is on
// the record the pipeline works on is the binned rebuild, and the card's is kept apart.
const struct_dma_peaks_data* CardRecord(CVr480Server& s) {
  if (s.bEnableSensorBins) {
    if (const auto* raw = std::atomic_ref<struct_dma_peaks_data*>(s.pRawPeaks).load()) return raw;
  }
  if (const auto* last = s.pLastPeaks.load()) return last;
  return std::atomic_ref<struct_dma_peaks_data*>(s.pPeaks).load();  // before the loop's first record
}

// Spectra exist only with full-spectrum acquisition on, and only a card that sweeps its own
// laser (master or stand-alone) has a sweep to calibrate them against.
bool SpectraAvailable(CVr480Server& s) {
  const uint16_t mode = s.Driver.GetOperatingMode();
  return s.bFsEnable && s.SpectrumBuffer && (mode == 0 || mode == 1);
}

// Waits until the spectrum thread publishes past slot `readIndex`. The wait wakes every second
// to notice the client leaving, the server stopping or spectra being switched off, and goes
// back to waiting otherwise. Holds only SpectrumMutex, released by the wait. True when slot
// `readIndex` can now be read.
bool WaitForSpectrum(CVr480Server& s, int row, uint16_t readIndex) {
  std::unique_lock<std::mutex> lock(s.SpectrumMutex);
  for (;;) {
    if (readIndex != s.SpectrumWriteIndex) return true;
    if (s.bClientDisconnect[row] || s.bClosingSessions || bStopSignalled || !SpectraAvailable(s)) return false;
    s.SpectrumCond.wait_for(lock, 1s);
  }
}

int EmptyReply(CCommandContext& c, const uint8_t* buffer, int code) {
  c.SetBody(reinterpret_cast<const char*>(buffer), 0);
  return code;
}

}  // namespace

int GetRawData(CCommandContext& c) {
  CVr480Server& s = c.Server;
  uint8_t* out = s.RawDataCopy[c.Row];
  const struct_dma_peaks_data* rec = CardRecord(s);
  if (c.Row < kClientSlots) s.bNewRecord[c.Row] = false;
  if (!rec) return EmptyReply(c, out, kReplyConstant);
  std::memcpy(out, rec, kPeaksRecordBytes);
  // The record has no spare bytes in front: the frame digits go out in a write of their own.
  c.SetBody(reinterpret_cast<const char*>(out), kPeaksRecordBytes);
  return kReplyConstant;
}

int GetHighSpeedFs(CCommandContext& c) {
  CVr480Server& s = c.Server;
  uint16_t* out = s.HighSpeedFsBuffer[c.Row];
  if (c.Row < kClientSlots) s.bNewRecord[c.Row] = false;
  if (!s.bFsEnable) return EmptyReply(c, reinterpret_cast<const uint8_t*>(out), kReplyConstant);
  // The window is kept on the spectrum's 0-32767 scale; samples are 128 of its points apart.
  const int first = s.HighSpeedFsStartCount / 128;
  const int end = s.HighSpeedFsEndCount / 128;
  const struct_dma_peaks_data* rec = CardRecord(s);
  for (int i = 0; i < kFsSamples; ++i)
    out[i] = (rec && first < i && i < end) ? static_cast<uint16_t>(rec->FsSamples[i] & 0xFFFF) : 0;
  c.SetBody(reinterpret_cast<const char*>(out), kFsSamples * sizeof(uint16_t));
  return kReplyConstant;
}

int GetSpectrum(CCommandContext& c) {
  CVr480Server& s = c.Server;
  const int row = c.Row;
  uint8_t* copy = s.ClientSpectrumCopy[row];
  uint16_t readIndex = s.SpectrumReadIndex[row];
  auto advance = [&] {
    s.SpectrumReadIndex[row] = readIndex >= kSpectrumRingSlots - 1 ? 0 : static_cast<uint16_t>(readIndex + 1);
    if (row < kClientSlots) s.bNewSpectrum[row] = false;
  };
  const uint16_t mode = s.Driver.GetOperatingMode();
  if (!SpectraAvailable(s)) {
    if (s.bFsEnable && mode != 0 && mode != 1) std::printf("********** Not Master or Stand-Alone\n");
    advance();
    return EmptyReply(c, copy + kRecHeaderOffset, kReplyText);
  }

  bool waited = false;
  if (readIndex == s.SpectrumWriteIndex) {
    waited = true;
    // Spectra stopped, or the client or the server is going: nothing to send, the position stays.
    if (!WaitForSpectrum(s, row, readIndex)) return EmptyReply(c, copy + kRecHeaderOffset, kReplyText);
  }
  const int write = s.SpectrumWriteIndex;
  const uint8_t* slot = s.SpectrumBuffer + static_cast<size_t>(readIndex) * kSpectrumRecordBytes;
  std::memcpy(copy, slot, kSpectrumRecordBytes);
  // The spectrum thread fills only the slot at its index; if it reached this one during the
  // copy (a client 16 spectra behind), the copy may be mixed and is not sent.
  std::atomic_thread_fence(std::memory_order_acquire);
  const int after = s.SpectrumWriteIndex;
  const int ahead = (readIndex - write + kSpectrumRingSlots) % kSpectrumRingSlots;
  const int moved = (after - write + kSpectrumRingSlots) % kSpectrumRingSlots;
  uint32_t length = SpectrumBodyLength(copy);
  if (ahead <= moved) length = 0;

  const int r = readIndex;
  const double freePercent = waited ? 100.0 : (r > write ? (r - write) * 100.0 / 16.0 : (r - write + 16) * 100.0 / 16.0);
  copy[kRecHeaderOffset + kBodyFreePercent] = static_cast<uint8_t>(freePercent);
  SetType(copy, kTypeSpectrum);
  advance();
  c.SetBody(reinterpret_cast<const char*>(copy + kRecHeaderOffset), length);
  return kReplyText;
}

int GetRawSpectrum(CCommandContext& c) {
  CVr480Server& s = c.Server;
  uint8_t* copy = s.ClientSpectrumCopy[c.Row];
  if (!s.RawSpectrumBuffer || !SpectraAvailable(s)) return EmptyReply(c, copy + kRecHeaderOffset, kReplyText);
  // Always a spectrum newer than the request: wait for the next one to be published.
  if (!WaitForSpectrum(s, c.Row, s.SpectrumWriteIndex)) return EmptyReply(c, copy + kRecHeaderOffset, kReplyText);
  {
    // The acquisition thread replaces the raw spectrum under this lock when a cycle completes.
    std::lock_guard<std::mutex> g(s.FsCalMutex);
    std::memcpy(copy, s.RawSpectrumBuffer, kRawSpectrumBytes);
  }
  SetType(copy, kTypeRawSpectrum);
  // The raw spectrum lies on sweep points, not on a wavelength grid: its scale words say one
  // unit per point, from point 0 to point 32767.
  PutRecU32(copy, kRecHeaderOffset + 72, 1);
  PutRecU32(copy, kRecHeaderOffset + 80, 0);
  PutRecU32(copy, kRecHeaderOffset + 84, 32767);
  c.SetBody(reinterpret_cast<const char*>(copy + kRecHeaderOffset), SpectrumBodyLength(copy));
  return kReplyText;
}

}  // namespace data_commands
