// The laser's two slow control loops, run by the acquisition loop ten times a second.
//
// The laser sweeps its optical frequency across the band once per sweep; where that sweep sits
// is set by the laser bias (its centre) and the scan amplitude (its width), two 16-bit
// settings of the card. Both drift with temperature and age, and the measurement needs both to
// stay put:
//  - The bias loop keeps the reference grating at a chosen place in the sweep (by default the
//    middle). The grating's wavelength is known from its thermistor, so wherever the sweep
//    puts it tells how far the laser centre has wandered.
//  - The scan-amplitude loop keeps a fixed stretch of the Fabry-Perot comb (a number of teeth
//    either side of the reference tooth, a fixed optical interval) spread over a chosen
//    fraction of the sweep. A wider sweep squeezes the stretch into fewer counts. While the
//    stretch is where it should be, the instrument is ready: the ready LED is lit and
//    "#READY?" answers 1.
// Both are proportional controllers with a dead band; between calls they keep no state but
// the card's settings and the scan loop's count of calls since it was last satisfied.
#include <cmath>
#include <cstdio>
#include <cstdlib>

#include "server/Globals.h"
#include "server/Vr480Server.h"

namespace {

// The bias must stay inside this range; a loop that drives it to either end has lost the
// grating (another comb tooth or nothing at all) and restarts from the fall-back bias.
constexpr uint16_t kBiasLowerRail = 5000;
constexpr uint16_t kBiasUpperRail = 60000;
// When the comb cannot be measured the sweep is widened by this much per call, so that a
// sweep too narrow to show the comb stretch grows until it does.
constexpr uint16_t kScanAmpSearchStep = 100;
// Calls without reaching the dead band after which the scan loop gives up on this bias.
constexpr int32_t kMaxScanAmpCalls = 200;
// Shift of the fall-back bias when the scan loop gives up: far enough to find the grating in
// another part of the laser's range.
constexpr uint16_t kEscapeBiasShift = 20000;
constexpr double kSweepCounts = 65536.0;

// Truncation toward zero that saturates instead of overflowing; NaN reads 0.
int32_t SaturatingTruncate(double v) {
  if (!(v == v)) return 0;
  if (v >= 2147483647.0) return 2147483647;
  if (v <= -2147483648.0) return -2147483647 - 1;
  return static_cast<int32_t>(v);
}

}  // namespace

int CVr480Server::SetScanAmpTargetSpan(double fraction) {
  AutoScanSpan = fraction;
  AutoScanTargetCounts = SaturatingTruncate(fraction * kSweepCounts);
  return 0;
}

// Returns the grating's position error (counts, positive when it lies right of its target),
// or 0 when the loop is off or the grating is inside the dead band.
int CVr480Server::AutoBias() {
  if (!bAutoBias) return 0;
  const struct_dma_peaks_data* rec = pPeaks;
  if (!rec) return 0;

  // A record without a grating reports position 0, which reads as a large error to the left.
  const int32_t position = static_cast<int32_t>(rec->status.FbgPosition & 0x00FFFFFFu);
  const int32_t e = position - GratingTargetLocationCounts;
  if (std::abs(static_cast<long>(e)) < static_cast<long>(MaxBiasError)) return 0;

  const uint16_t b = Driver.GetBias();
  if (b <= kBiasLowerRail || b >= kBiasUpperRail) {
    const uint16_t restart = Bias;
    std::printf("%s%u\r", b <= kBiasLowerRail ? "Hit Lower Rail...Setting Bias to " : "Hit Upper Rail...Setting Bias to ",
                static_cast<unsigned>(restart));
    Driver.SetBias(restart);
  } else if (rec->status.NumPeaks[0] == 0) {
    // No grating in the sweep: walk the sweep down the band until it shows up (or a rail
    // sends the bias back to its fall-back value). The subtraction wraps as the 16-bit
    // setting does.
    const uint16_t next = static_cast<uint16_t>(b - static_cast<uint16_t>(MaxBiasStep));
    Driver.SetBias(next);
    std::printf("No Grating...setting bias to %u\r", static_cast<unsigned>(next));
  } else {
    // The grating moves about one count per bias step: lowering the bias moves it left.
    const double d = b - e * static_cast<double>(BiasFeedbackGain);
    uint16_t next;
    if (d > kBiasUpperRail) next = kBiasUpperRail;
    else if (d < kBiasLowerRail) next = kBiasLowerRail;
    else if (d == d) next = static_cast<uint16_t>(d);
    else next = b;  // a NaN gain leaves the laser where it is
    Driver.SetBias(next);
  }
  std::fflush(stdout);
  return e;
}

// Status of the scan loop, as the front panel and "#READY?" see it. The ready LED is switched
// only when its state changes: the loop runs ten times a second, and every switch is a word
// through the card's single mailbox that the other threads' commands wait behind.
namespace {

void ShowInitializing(C480_DriverInterface& driver, std::atomic<bool>& ready) {
  msg.Set("[AS] Initializing ....");
  bUpdateGui = true;
  if (driver.GetReadyLed()) driver.SetReadyLed(false);
  ready = false;
}

// Widens the sweep by one search step and returns the new amplitude.
uint16_t WidenSweep(C480_DriverInterface& driver) {
  const uint16_t amp = static_cast<uint16_t>(driver.GetScanAmp() + kScanAmpSearchStep);
  driver.SetScanAmp(amp);
  return amp;
}

void PrintWidened(C480_DriverInterface& driver, uint16_t amp) {
  std::printf("Setting ScanAmp to %u [Bias @ %u]\n", static_cast<unsigned>(amp), static_cast<unsigned>(driver.GetBias()));
}

}  // namespace

// Returns the width error of the comb stretch (counts, positive when narrower than wanted),
// 0 when the loop is off, or a negative code when the stretch could not be measured:
// -1 too few teeth on one side of the reference tooth, -2 too few teeth in all, -3 no comb
// placement on this record, -4 the loop gave up after 200 calls and moved the bias.
int CVr480Server::AutoScanAmp() {
  if (!bAutoScanAmp) {
    if (Driver.GetReadyLed()) Driver.SetReadyLed(false);
    bReady = false;
    return 0;
  }

  // Step 1: the record must have had its comb placed (grating and reference tooth found).
  if (!bScaleValid) {
    std::printf("No data for scan amp from DataProc()\n");
    ShowInitializing(Driver, bReady);
    WidenSweep(Driver);
    std::fflush(stdout);
    return -3;
  }

  // Step 2: a loop that cannot settle at this bias is probably locked onto the wrong part of
  // the laser's range; move the fall-back bias so that the bias loop restarts elsewhere.
  if (++AutoScanCalls > kMaxScanAmpCalls - 1) {
    Bias = static_cast<uint16_t>(Bias + kEscapeBiasShift);
    std::printf("\n**** Max Calls to AutoScanAmp() reached (%d calls).  Shifting bias to %u. ****\n", kMaxScanAmpCalls,
                static_cast<unsigned>(Bias));
    Driver.SetBias(Bias);
    AutoScanCalls = 0;
    std::fflush(stdout);
    return -4;
  }

  // Step 3: enough teeth either side of the reference tooth to measure the stretch.
  const struct_dma_peaks_data* rec = pPeaks;
  const int64_t n = rec ? rec->status.NumPeaks[1] : 0;
  const int64_t r = ScaleRefPeakIndex;
  const int64_t left = AutoScanLeftPeaks, right = AutoScanRightPeaks;
  if (n < right - left) {
    const uint16_t amp = WidenSweep(Driver);
    std::printf("\nASA: Not enough FFPI peaks\n");
    PrintWidened(Driver, amp);
    ShowInitializing(Driver, bReady);
    std::fflush(stdout);
    return -2;
  }
  // Both ends of the stretch must be teeth of this record's comb; a stretch that would end
  // just past the last tooth counts as too few teeth on the right.
  const int64_t count = n < kPeakListSize ? n : kPeakListSize;
  const int64_t first = r - left, last = r + right;
  const bool leftShort = r < left;
  const bool rightShort = !leftShort && (n - r < right || first < 0 || first >= count || last < 0 || last >= count);
  if (leftShort || rightShort) {
    const uint16_t amp = WidenSweep(Driver);
    if (leftShort) {
      std::printf("AutoScanAmp() Error: only %lld FFPI peaks found to the left of the reference peak.\n",
                  static_cast<long long>(r - 1));
    } else {
      std::printf("AutoScanAmp() Error: only %lld FFPI peaks found to the right of the reference peak.\n",
                  static_cast<long long>(n - r));
    }
    std::printf("FFPI_Ref_Index_4_auto_scan_amp = %lld\n", static_cast<long long>(r));
    PrintWidened(Driver, amp);
    if (leftShort) std::printf("ScanAmpLeftPeaks is set to %d\n", static_cast<int>(left));
    else std::printf("ScanAmpRightPeaks is set to %d\n", static_cast<int>(right));
    ShowInitializing(Driver, bReady);
    std::fflush(stdout);
    return -1;
  }

  // Step 4: compare the stretch's width with the target. A narrower stretch (err > 0) needs a
  // narrower sweep, which spreads the same optical interval over more counts.
  const int64_t width = static_cast<int64_t>(rec->FfpiPeaks[last]) - static_cast<int64_t>(rec->FfpiPeaks[first]);
  const int32_t err = SaturatingTruncate(static_cast<double>(AutoScanTargetCounts - width));
  const int32_t maxError = AutoScanMaxError;
  if (std::llabs(err) > maxError) {
    const double maxStep = AutoScanMaxStep;
    double step = err * static_cast<double>(AutoScanFeedbackGain);
    if (step > maxStep) step = maxStep;
    else if (step < -maxStep) step = -maxStep;
    const int32_t s = SaturatingTruncate(step);
    Driver.SetScanAmp(static_cast<uint16_t>(Driver.GetScanAmp() - s));
    // Far outside the dead band the instrument is no longer ready; just outside it, the ready
    // state is left as it was so that noise at the edge does not make it flicker.
    if (std::llabs(err) > 10LL * maxError) {
      msg.Set("[AS] Initializing ....");
      std::printf("[AS] Err = %d\n", err);
      bUpdateGui = true;
      if (Driver.GetReadyLed()) Driver.SetReadyLed(false);
      bReady = false;
    }
  } else {
    msg.Set("Ready.");
    bUpdateGui = true;
    if (!Driver.GetReadyLed()) Driver.SetReadyLed(true);
    bReady = true;
    AutoScanCalls = 0;
  }
  ScaleRefPeakIndex = 0;  // consumed: the next placed record sets it again
  std::fflush(stdout);
  return err;
}
