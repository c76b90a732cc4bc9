// The card's eight-channel analog-to-digital converter digitises the peak amplitudes. The
// server never talks to it directly: it composes the converter's 16-bit register words and the
// driver interface hands each word to the FPGA (mailbox command 0x12), which shifts it into the
// converter. The converter's registers cannot be read back, so Cad7329 remembers every field of
// its four writable registers (control, range 1, range 2, sequence) and rebuilds the whole
// register word from the stored fields whenever one field changes: changing one field never
// disturbs the others.
//
// Word layout: bit 15 write enable, bits 14-13 register select, bits 12-0 the register's
// fields. Every field is kept already masked and in place, so a word is the OR of its fields.
// Operations that take a field value expect it in place too (SelectMode(0x100), not (1)).
#pragma once

#include <cstdint>

class Cad7329 {
 public:
  // Register select values (bits 14-13).
  static constexpr uint16_t kControlReg = 0x0000;
  static constexpr uint16_t kRange1Reg = 0x2000;
  static constexpr uint16_t kRange2Reg = 0x4000;
  static constexpr uint16_t kSequenceReg = 0x6000;

  virtual ~Cad7329() = default;

  // Control register fields; each returns the complete control word with the write bit set.
  virtual uint16_t SelectInputChannel(uint8_t ch);  // ch & 7
  virtual uint16_t SelectMode(uint16_t v);
  virtual uint16_t SelectPowerMode(uint16_t v);
  virtual uint16_t SelectCoding(uint16_t v);
  virtual uint16_t SelectReference(uint16_t v);
  virtual uint16_t SelectSequenceMode(uint16_t v);
  virtual uint16_t SelectDoutState(uint16_t v);
  // Clears the write bit only; the register select stays what it was.
  virtual uint16_t DisableWrite();

  // Sequence register: which channels the converter's sequencer visits (ch & 7).
  virtual uint16_t SequenceRegAddCh(uint8_t ch);
  virtual uint16_t SequenceRegRemoveCh(uint8_t ch);

  // Range code of channel ch & 7 (channels 0-3 live in range register 1, 4-7 in range
  // register 2); v is in place for that channel. Returns the range word that holds it.
  virtual uint16_t SetChRange(uint8_t ch, uint16_t v);

  // Whole-register writes: the fields are taken from v, the write bit and register select are
  // forced. These are what the server sends at start-up.
  virtual uint16_t WriteControlRegister(uint16_t v);
  virtual uint16_t WriteSequenceRegister(uint16_t v);
  virtual uint16_t WriteRangeRegister1(uint16_t v);
  virtual uint16_t WriteRangeRegister2(uint16_t v);

  // Load the stored fields (write bit and register select included) from v; no word results.
  virtual void InitAd7329ControlReg(uint16_t v);
  virtual void InitAd7329RangeReg1(uint16_t v);
  virtual void InitAd7329RangeReg2(uint16_t v);
  virtual void InitAd7329SequenceReg(uint16_t v);

 protected:
  static constexpr uint16_t kWriteMask = 0x8000;
  static constexpr uint16_t kRegSelectMask = 0x6000;
  static constexpr uint16_t kChannelAddressMask = 0x1C00;
  static constexpr uint16_t kModeMask = 0x0300;
  static constexpr uint16_t kPowerModeMask = 0x00C0;
  static constexpr uint16_t kCodingMask = 0x0020;
  static constexpr uint16_t kReferenceMask = 0x0010;
  static constexpr uint16_t kSequenceModeMask = 0x000C;
  static constexpr uint16_t kDoutStateMask = 0x0002;
  static constexpr uint16_t kSeqChMask[8] = {0x1000, 0x0800, 0x0400, 0x0200,
                                             0x0100, 0x0080, 0x0040, 0x0020};
  static constexpr uint16_t kRangeChMask[4] = {0x1800, 0x0600, 0x0180, 0x0060};

  uint16_t ControlWord() const;
  uint16_t SequenceWord() const;
  uint16_t RangeWord1() const;
  uint16_t RangeWord2() const;
  // Write bit set and the given register selected: the prologue of every composing operation.
  void Address(uint16_t regSelect);

  uint16_t Write = 0;           // write enable; 0x8000 or 0
  uint16_t RegSelect = 0;       // register the next word addresses
  uint16_t ChannelAddress = 0;  // control: input channel x 0x400
  uint16_t Mode = 0;            // control: single-ended / differential / pseudo-differential
  uint16_t PowerMode = 0;       // control: normal, autostandby, autoshutdown, full shutdown
  uint16_t Coding = 0;          // control: two's complement or straight binary output
  uint16_t Reference = 0;       // control: internal or external reference
  uint16_t SequenceMode = 0;    // control: sequencer off, programmed sequence, consecutive
  uint16_t DoutState = 0;       // control: DOUT three-state or driven between conversions
  uint16_t SeqCh[8] = {};       // sequence: channel k included (its mask) or not (0)
  uint16_t Range1Ch[4] = {};    // range 1: input range code of channels 0-3
  uint16_t Range2Ch[4] = {};    // range 2: input range code of channels 4-7
};
