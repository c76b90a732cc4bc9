#include "device/Ad7329.h"

uint16_t Cad7329::ControlWord() const {
  return static_cast<uint16_t>(Write | RegSelect | ChannelAddress | Mode | PowerMode | Coding |
                               Reference | SequenceMode | DoutState);
}

uint16_t Cad7329::SequenceWord() const {
  uint16_t w = Write | RegSelect;
  for (uint16_t ch : SeqCh) w |= ch;
  return w;
}

uint16_t Cad7329::RangeWord1() const {
  uint16_t w = Write | RegSelect;
  for (uint16_t r : Range1Ch) w |= r;
  return w;
}

uint16_t Cad7329::RangeWord2() const {
  uint16_t w = Write | RegSelect;
  for (uint16_t r : Range2Ch) w |= r;
  return w;
}

void Cad7329::Address(uint16_t regSelect) {
  Write = kWriteMask;
  RegSelect = regSelect;
}

uint16_t Cad7329::SelectInputChannel(uint8_t ch) {
  Address(kControlReg);
  ChannelAddress = static_cast<uint16_t>((ch & 7) * 0x400);
  return ControlWord();
}

uint16_t Cad7329::SelectMode(uint16_t v) {
  Address(kControlReg);
  Mode = v & kModeMask;
  return ControlWord();
}

uint16_t Cad7329::SelectPowerMode(uint16_t v) {
  Address(kControlReg);
  PowerMode = v & kPowerModeMask;
  return ControlWord();
}

uint16_t Cad7329::SelectCoding(uint16_t v) {
  Address(kControlReg);
  Coding = v & kCodingMask;
  return ControlWord();
}

uint16_t Cad7329::SelectReference(uint16_t v) {
  Address(kControlReg);
  Reference = v & kReferenceMask;
  return ControlWord();
}

uint16_t Cad7329::SelectSequenceMode(uint16_t v) {
  Address(kControlReg);
  SequenceMode = v & kSequenceModeMask;
  return ControlWord();
}

uint16_t Cad7329::SelectDoutState(uint16_t v) {
  Address(kControlReg);
  DoutState = v & kDoutStateMask;
  return ControlWord();
}

uint16_t Cad7329::DisableWrite() {
  Write = 0;
  return ControlWord();
}

uint16_t Cad7329::SequenceRegAddCh(uint8_t ch) {
  Address(kSequenceReg);
  SeqCh[ch & 7] = kSeqChMask[ch & 7];
  return SequenceWord();
}

uint16_t Cad7329::SequenceRegRemoveCh(uint8_t ch) {
  Address(kSequenceReg);
  SeqCh[ch & 7] = 0;
  return SequenceWord();
}

uint16_t Cad7329::SetChRange(uint8_t ch, uint16_t v) {
  Write = kWriteMask;
  int c = ch & 7;
  if (c < 4) {
    RegSelect = kRange1Reg;
    Range1Ch[c] = v & kRangeChMask[c];
    return RangeWord1();
  }
  RegSelect = kRange2Reg;
  Range2Ch[c - 4] = v & kRangeChMask[c - 4];
  return RangeWord2();
}

uint16_t Cad7329::WriteControlRegister(uint16_t v) {
  InitAd7329ControlReg(v);
  Address(kControlReg);
  return ControlWord();
}

uint16_t Cad7329::WriteSequenceRegister(uint16_t v) {
  Address(kSequenceReg);
  for (int k = 0; k < 8; ++k) SeqCh[k] = v & kSeqChMask[k];
  return SequenceWord();
}

uint16_t Cad7329::WriteRangeRegister1(uint16_t v) {
  Address(kRange1Reg);
  for (int k = 0; k < 4; ++k) Range1Ch[k] = v & kRangeChMask[k];
  return RangeWord1();
}

uint16_t Cad7329::WriteRangeRegister2(uint16_t v) {
  Address(kRange2Reg);
  for (int k = 0; k < 4; ++k) Range2Ch[k] = v & kRangeChMask[k];
  return RangeWord2();
}

void Cad7329::InitAd7329ControlReg(uint16_t v) {
  Write = v & kWriteMask;
  RegSelect = v & kRegSelectMask;
  ChannelAddress = v & kChannelAddressMask;
  Mode = v & kModeMask;
  PowerMode = v & kPowerModeMask;
  Coding = v & kCodingMask;
  Reference = v & kReferenceMask;
  SequenceMode = v & kSequenceModeMask;
  DoutState = v & kDoutStateMask;
}

void Cad7329::InitAd7329RangeReg1(uint16_t v) {
  Write = v & kWriteMask;
  RegSelect = v & kRegSelectMask;
  for (int k = 0; k < 4; ++k) Range1Ch[k] = v & kRangeChMask[k];
}

void Cad7329::InitAd7329RangeReg2(uint16_t v) {
  Write = v & kWriteMask;
  RegSelect = v & kRegSelectMask;
  for (int k = 0; k < 4; ++k) Range2Ch[k] = v & kRangeChMask[k];
}

void Cad7329::InitAd7329SequenceReg(uint16_t v) {
  Write = v & kWriteMask;
  RegSelect = v & kRegSelectMask;
  for (int k = 0; k < 8; ++k) SeqCh[k] = v & kSeqChMask[k];
}
