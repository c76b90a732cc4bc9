#include "sim/SimSynth.h"

#include <algorithm>
#include <cmath>
#include <cstring>

namespace sim {

namespace {

constexpr double kPi = 3.14159265358979323846;
constexpr double kFourLn2 = 2.772588722239781;
constexpr double kMinSoaDrive = 5000;
constexpr int kMaxCombTeeth = 4000;  // bounds the work for absurd FSR knobs
constexpr double kSpuriousAmplitude = 8000.0;
constexpr double kExtraGratingSpacing = 700.0;  // counts between spurious grating peaks

// The SOA gates the light by count within the laser period; equal counts mean always on.
bool InSoaWindow(const CAppliedSettings& s, double x) {
  if (s.SoaOnCount == s.SoaOffCount) return true;
  const double on = s.SoaOnCount, off = s.SoaOffCount;
  return on < off ? (x >= on && x < off) : (x >= on || x < off);
}

}  // namespace

void CSimSynthesizer::Fill(const CRecordJob& job, struct_dma_peaks_data& record) {
  const CSweep sweep(job.Optics, job.Settings.Bias, job.Settings.ScanAmp, job.InternalDegC);
  Sweep = &sweep;
  bLight = job.Settings.bSoaEnabled && job.Settings.SoaDrive >= kMinSoaDrive && sweep.HasLight();

  std::memset(record.FbgPeaks, 0, sizeof(record.FbgPeaks) + sizeof(record.FfpiPeaks) + sizeof(record.DutPeaks));
  FillHeader(job, record);

  const int gratingList = job.Optics.GratingList;
  Candidates.clear();
  if (gratingList == 0) CollectGrating(job, 0, false);
  record.status.NumPeaks[0] = Detect(job, 0, kFbgListSize, record.PeakList(0));

  Candidates.clear();
  CollectComb(job);
  int combCap = kPeakListSize;
  if (job.Faults.CombPeakLimit >= 0) combCap = std::min(combCap, job.Faults.CombPeakLimit);
  record.status.NumPeaks[1] = Detect(job, 1, combCap, record.PeakList(1));

  for (int ch = 0; ch < 4; ++ch) {
    const int list = ch + 2;
    Candidates.clear();
    CollectSensors(job, ch, false);
    if (gratingList == list) CollectGrating(job, list, false);
    if (job.Faults.SpuriousDutChannel == ch) {
      Candidates.push_back({job.Faults.SpuriousPosition,
                            kSpuriousAmplitude * GainFactor(job.Settings.Gain[list])});
    }
    record.status.NumPeaks[list] = Detect(job, list, job.Settings.MaxDutPeaks, record.PeakList(list));
  }
  record.status.FbgPosition = record.status.NumPeaks[0] > 0 ? (record.FbgPeaks[0] & 0xFFFFFF) : 0;

  FillSamples(job, record);
  Sweep = nullptr;
}

void CSimSynthesizer::FillHeader(const CRecordJob& job, struct_dma_peaks_data& record) {
  auto& h = record.status;
  std::memset(&h, kHeaderMarker, sizeof(h));
  h.CurrentLayer = job.Phase;
  h.fw_version = job.FwVersion;
  h.Status3 = job.Status3;
  h.Vth = job.Vth;
  h.flags1_lo = job.Flags1Lo;
  h.flags1_hi = 0;
  h.InternalTemp = job.InternalTemp;
  h.RecordCounter = job.RecordCounter;
  h.BinningMarks = 0;
  h.SweepCounter = job.SweepCounter;
  for (int ch = 0; ch < 4; ++ch) h.Gain[ch] = job.Settings.Gain[ch + 2];
  h.DataRateDivider = job.DividerField;
  h.ClkDivider = job.ClkDividerField;
}

void CSimSynthesizer::CollectGrating(const CRecordJob& job, int list, bool forSamples) {
  if (job.Faults.bNoGrating) return;
  const auto& o = job.Optics;
  const double x = Sweep->PositionOf(job.GratingThz);
  if (x < 0.0) return;
  const double gain = GainFactor(job.Settings.Gain[list]);
  const double width = job.GratingThz * o.GratingFwhmNm / ThzToNm(o, job.GratingThz) *
                       Sweep->CountsPerThz(job.GratingThz);
  // The grating sits inside the instrument: no time of flight.
  for (int k = 0; k <= job.Faults.ExtraGratingPeaks; ++k) {
    const double xk = x + kExtraGratingSpacing * k;
    const double amp = o.GratingAmplitude * gain * (k == 0 ? 1.0 : 0.8);
    if (forSamples) {
      Lines.push_back({xk, amp, width});
    } else if (InSoaWindow(job.Settings, xk)) {
      const double p = xk + o.DetectorLatencyCounts + o.CountsPerDb * GainDb(job.Settings.Gain[list]) +
                       Random.BoundedNormal(o.PeakNoiseCounts);
      Candidates.push_back({p, amp});
    }
  }
}

void CSimSynthesizer::CollectComb(const CRecordJob& job) {
  const auto& o = job.Optics;
  const double fsr = o.CombFsrGhz * 1e-3;
  const double lo = std::max(Sweep->LowThz, Sweep->BandLowThz);
  const double hi = std::min(Sweep->HighThz, Sweep->BandHighThz);
  if (!Sweep->HasLight() || fsr <= 0.0 || hi <= lo) return;
  const double gain = GainFactor(job.Settings.Gain[1]);
  const double shift = o.DetectorLatencyCounts + o.CountsPerDb * GainDb(job.Settings.Gain[1]);
  // Highest tooth first: frequency falls as the count rises, so positions come out ascending.
  const long jHigh = static_cast<long>(std::floor((hi - o.CombRefThz) / fsr));
  const long jLow = std::max(static_cast<long>(std::ceil((lo - o.CombRefThz) / fsr)), jHigh - kMaxCombTeeth);
  for (long j = jHigh; j >= jLow; --j) {
    const double x = Sweep->PositionOf(o.CombRefThz + j * fsr);
    if (x < 0.0 || !InSoaWindow(job.Settings, x)) continue;
    Candidates.push_back({x + shift + Random.BoundedNormal(o.PeakNoiseCounts), o.CombAmplitude * gain});
  }
}

void CSimSynthesizer::CollectSensors(const CRecordJob& job, int dutChannel, bool forSamples) {
  const auto& o = job.Optics;
  const int list = dutChannel + 2;
  const int logical = job.Layer * 4 + dutChannel;
  const double gain = GainFactor(job.Settings.Gain[list]);
  const double db = GainDb(job.Settings.Gain[list]);
  const double internalLength = job.Environment.ChannelLengthM[dutChannel] +
                                job.Environment.LayerLengthM[job.Layer & 3];
  for (const CSimSensor& s : (*job.Sensors)[logical]) {
    if (!s.PresentAt(job.CardSeconds)) continue;
    const double thz = NmToThz(o, s.WavelengthAt(job.CardSeconds));
    const double x = Sweep->PositionOf(thz);
    if (x < 0.0) continue;
    // Light reaches the grating and comes back later; meanwhile the sweep has moved on.
    const double tof = TimeOfFlightCounts(o, s.DistanceM + internalLength, job.SweepRate) + job.SettleCounts;
    const double amp = s.Amplitude * gain;
    if (forSamples) {
      const double width = thz * s.FwhmNm / ThzToNm(o, thz) * Sweep->CountsPerThz(thz);
      Lines.push_back({x + tof, amp, width});
    } else if (InSoaWindow(job.Settings, x)) {
      const double p = x + o.DetectorLatencyCounts + tof + o.CountsPerDb * db + Random.BoundedNormal(o.PeakNoiseCounts);
      Candidates.push_back({p, amp});
    }
  }
}

uint16_t CSimSynthesizer::Detect(const CRecordJob& job, int list, int cap, uint32_t* out) {
  if (!bLight) return 0;
  const auto& s = job.Settings;
  std::sort(Candidates.begin(), Candidates.end(),
            [](const CCandidate& a, const CCandidate& b) { return a.Position < b.Position; });
  const double threshold = s.NoiseThresholdEnabled[list] ? ThresholdAmplitude(s.Threshold[list]) : -1.0;
  uint16_t n = 0;
  long last = -1;
  for (const CCandidate& c : Candidates) {
    if (n >= cap) break;
    const long p = std::lround(c.Position);
    if (p < 1 || p > 65535) continue;
    if (threshold >= 0.0 && c.Amplitude <= threshold) continue;
    if (last >= 0 && p - last <= s.Lockout[list]) continue;
    out[n++] = static_cast<uint32_t>(p);
    last = p;
  }
  return n;
}

void CSimSynthesizer::FillSamples(const CRecordJob& job, struct_dma_peaks_data& record) {
  const auto& s = job.Settings;
  const auto& o = job.Optics;
  const int p = job.Phase;
  if (s.bAlignPattern) {
    for (int i = 0; i < kFsSamplesPerRecord; ++i) {
      record.FsSamples[i] = (kSampleMarker << 16) | static_cast<uint32_t>(128 * i + p);
    }
    return;
  }

  const int c = s.AmpChannel;
  Lines.clear();
  if (c == o.GratingList) CollectGrating(job, c, true);
  if (c >= 2 && c <= 5) CollectSensors(job, c - 2, true);
  const bool comb = c == 1;
  const double combAmp = o.CombAmplitude * GainFactor(s.Gain[1]);
  const double fsr = o.CombFsrGhz * 1e-3;
  const double airyF = std::pow(2.0 * o.CombFinesse / kPi, 2.0);

  for (int i = 0; i < kFsSamplesPerRecord; ++i) {
    const double x = 256.0 * i + 2.0 * p;
    double signal = 0.0;
    if (bLight && InSoaWindow(s, x) && Sweep->InBand(Sweep->FrequencyAt(x))) {
      if (comb) {
        const double sn = std::sin(kPi * (Sweep->FrequencyAt(x) - o.CombRefThz) / fsr);
        signal = combAmp / (1.0 + airyF * sn * sn);
      }
      for (const CLine& l : Lines) {
        const double u = (x - l.X) / l.Width;
        if (u > -5.0 && u < 5.0) signal += l.Amplitude * std::exp(-kFourLn2 * u * u);
      }
    }
    const double v = std::round(o.SampleBaseline + signal + Random.Normal(o.SampleNoise));
    const uint32_t sample = static_cast<uint32_t>(std::clamp(v, 0.0, 32767.0));
    record.FsSamples[i] = (kSampleMarker << 16) | sample;
  }
}

}  // namespace sim
