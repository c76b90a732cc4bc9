// The card's peaks data record: one per reported laser sweep, written by DMA into one of the
// driver's 512 buffers. It holds the sweep positions (counts 0-65535) of every reflection peak
// found on the reference grating (FBG, list 0), the Fabry-Perot comb (FFPI, list 1) and the four
// sensor channels (DUT, lists 2-5), an 88-byte status header, and 256 full-spectrum samples.
// Little-endian, 6176 bytes, no padding. A position of 0 marks an empty slot.
//
// The header's first 88 bytes are copied into every processed record sent to clients, so its
// layout is part of the protocol as well as of the card.
#pragma once

#include <cstddef>
#include <cstdint>

constexpr int kFbgListSize = 16;     // FBG positions the record holds
constexpr int kPeakListSize = 250;   // comb and DUT positions per list
constexpr int kNumPeakLists = 6;     // FBG, FFPI, DUT 0-3
constexpr int kFsSamplesPerRecord = 256;
constexpr int kDmaBuffers = 512;     // the driver's DMA ring

struct struct_dma_peaks_status {
  uint8_t Reserved0;       //  0
  uint8_t CurrentLayer;    //  1 full-spectrum sampling phase 0-127 (advances one per sweep)
  uint8_t fw_version;      //  2 FPGA synthesis release
  uint8_t Status3;         //  3 bits 0-2 amplitude channel, 5 publish, 6 comb warning (server), 7 in trigger window
  int16_t Vth;             //  4 reference grating thermistor reading
  uint8_t flags1_lo;       //  6 bits 0-1 layer, 2-3 mux level - 1, 4 triggered acquisition
  uint8_t flags1_hi;       //  7 high nibble written by the data replies
  uint16_t Reserved8;      //  8
  int16_t InternalTemp;    // 10 transmitter temperature, 1/128 degC
  uint16_t NumPeaks[kNumPeakLists];  // 12 peaks per list: FBG, FFPI, DUT 0-3
  uint16_t RecordCounter;  // 24 the card's record counter
  uint16_t BinningMarks;   // 26 bit 0 rebuilt by binning, bit 8+ch bin fault on DUT channel ch
  uint32_t SweepCounter;   // 28 counts every sweep, also dropped ones
  uint8_t Reserved32[12];  // 32
  uint32_t FbgPosition;    // 44 low 24 bits first FBG position; top byte processing status
  uint8_t Byte48;          // 48 written by the data replies
  uint8_t Byte49;          // 49 set to 3 in every fetched record
  uint16_t Reserved50;     // 50
  uint16_t Gain[4];        // 52 gain code of DUT channels 0-3
  uint8_t Reserved60[8];   // 60
  uint16_t DataRateDivider;  // 68 divider applied by the card
  uint16_t ClkDivider;     // 70 hardware clock divider state
  uint32_t Granularity;    // 72 replaced by the server's granularity in published copies
  uint8_t Reserved76[12];  // 76
  double InternalTempC() const { return InternalTemp / 128.0; }
};

struct struct_dma_peaks_data {
  struct_dma_peaks_status status;                // 0
  uint32_t FbgPeaks[kFbgListSize];               // 88   list 0
  uint32_t FfpiPeaks[kPeakListSize];             // 152  list 1, ascending
  uint32_t DutPeaks[4][kPeakListSize];           // 1152 lists 2-5
  uint32_t FsSamples[kFsSamplesPerRecord];       // 5152 low 16 bits are the sample

  // Peak list c: 0 = FBG, 1 = FFPI, 2-5 = DUT channels 0-3. Lists 1-5 are contiguous, so
  // peak i of list c >= 1 sits at byte 4 x (250c + i) - 848.
  // Each list is taken from its own array: indexing FfpiPeaks past its end, though the same
  // address, is undefined behaviour.
  uint32_t* PeakList(int c) { return c == 0 ? FbgPeaks : c == 1 ? FfpiPeaks : DutPeaks[c - 2]; }
  const uint32_t* PeakList(int c) const { return c == 0 ? FbgPeaks : c == 1 ? FfpiPeaks : DutPeaks[c - 2]; }

  // The multiplexer layer of this sweep (bits 0-1 of flags1_lo), after the server's conversion.
  int Layer() const { return status.flags1_lo & 0x03; }
  // Multiplexer level - 1 as applied by the card (bits 2-3).
  int AppliedLevelBits() const { return (status.flags1_lo >> 2) & 0x03; }
  bool TriggeredAcquisition() const { return (status.flags1_lo & 0x10) != 0; }
  bool InTriggerWindow() const { return (status.Status3 & 0x80) != 0; }
  int AmplitudeChannel() const { return status.Status3 & 0x07; }
  double InternalTempC() const { return status.InternalTempC(); }
};

#define GET_SW_POSITION(status) ((status).flags1_lo & 0x03)

// The card numbers layers 1 and 2 the other way round; the server swaps them in every fetched
// record before anything else reads it.
inline uint8_t ConvertLayerBits(uint8_t flags1_lo) {
  uint8_t layer = flags1_lo & 0x03;
  if (layer == 1) layer = 2;
  else if (layer == 2) layer = 1;
  return static_cast<uint8_t>((flags1_lo & ~0x03) | layer);
}

constexpr size_t kPeaksRecordBytes = 6176;
static_assert(sizeof(struct_dma_peaks_status) == 88);
static_assert(sizeof(struct_dma_peaks_data) == kPeaksRecordBytes);
static_assert(offsetof(struct_dma_peaks_status, Vth) == 4);
static_assert(offsetof(struct_dma_peaks_status, flags1_lo) == 6);
static_assert(offsetof(struct_dma_peaks_status, InternalTemp) == 10);
static_assert(offsetof(struct_dma_peaks_status, NumPeaks) == 12);
static_assert(offsetof(struct_dma_peaks_status, RecordCounter) == 24);
static_assert(offsetof(struct_dma_peaks_status, BinningMarks) == 26);
static_assert(offsetof(struct_dma_peaks_status, SweepCounter) == 28);
static_assert(offsetof(struct_dma_peaks_status, FbgPosition) == 44);
static_assert(offsetof(struct_dma_peaks_status, Byte49) == 49);
static_assert(offsetof(struct_dma_peaks_status, Gain) == 52);
static_assert(offsetof(struct_dma_peaks_status, DataRateDivider) == 68);
static_assert(offsetof(struct_dma_peaks_status, ClkDivider) == 70);
static_assert(offsetof(struct_dma_peaks_status, Granularity) == 72);
static_assert(offsetof(struct_dma_peaks_data, FbgPeaks) == 88);
static_assert(offsetof(struct_dma_peaks_data, FfpiPeaks) == 152);
static_assert(offsetof(struct_dma_peaks_data, DutPeaks) == 1152);
static_assert(offsetof(struct_dma_peaks_data, FsSamples) == 5152);
