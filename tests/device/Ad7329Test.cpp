#include "device/Ad7329.h"

#include <gtest/gtest.h>

#include <vector>

// The converter's words: whole-register writes force the write bit and register select over the
// given fields; changing one field rebuilds the word from the stored others; the Init operations
// load raw fields, write bit and register select included.
TEST(Ad7329, RegisterWordsFieldsSequenceAndRanges) {
  Cad7329 adc;
  const std::vector<uint16_t> words = {
      adc.SelectInputChannel(1),  // a fresh composer starts from zero
      adc.WriteControlRegister(0x810), adc.WriteRangeRegister1(0xAA0), adc.WriteRangeRegister2(0xAA0),
      adc.WriteSequenceRegister(0xFFFF),  // only the eight channel bits survive
      adc.WriteControlRegister(0x6810),   // select bits in the value redirect nothing
      adc.SelectInputChannel(5), adc.SelectInputChannel(9),  // reference bit kept; the low three bits pick
      adc.SelectMode(0xFFFF), adc.SelectPowerMode(0x00C0), adc.SelectCoding(0x0020), adc.SelectReference(0),
      adc.SelectSequenceMode(0x000C), adc.SelectDoutState(0x0003), adc.DisableWrite(), adc.SelectInputChannel(0)};
  EXPECT_EQ(words, (std::vector<uint16_t>{0x8400, 0x8810, 0xAAA0, 0xCAA0, 0xFFE0, 0x8810, 0x9410, 0x8410, 0x8710,
                                          0x87D0, 0x87F0, 0x87E0, 0x87EC, 0x87EE, 0x07EE, 0x83EE}));
  Cad7329 seq;
  seq.SequenceRegAddCh(0);
  const std::vector<uint16_t> seqWords = {
      seq.SequenceRegAddCh(7), seq.SequenceRegAddCh(15),  // 15 & 7 = 7, already in
      seq.SequenceRegRemoveCh(0), seq.SequenceRegAddCh(3),
      seq.SelectInputChannel(2),  // the control fields are untouched by sequence work
      seq.SetChRange(0, 0xFFFF), seq.SetChRange(3, 0x0060),  // range 1, the channel's field only
      seq.SetChRange(5, 0x0600),                               // range 2, channel 5 = field 1
      seq.SetChRange(13, 0x0200),                              // 13 & 7 = 5: replaces channel 5's code
      seq.SetChRange(5, 0x0180),                               // bits outside the field are dropped
      seq.SetChRange(5, 0x0200), seq.SetChRange(12, 0x1800),
      seq.SetChRange(1, 0)};  // range 1 kept its fields while range 2 changed
  EXPECT_EQ(seqWords, (std::vector<uint16_t>{0xF020, 0xF020, 0xE020, 0xE220, 0x8800, 0xB800, 0xB860, 0xC600, 0xC200,
                                             0xC000, 0xC200, 0xDA00, 0xB860}));
  Cad7329 raw;
  raw.InitAd7329ControlReg(0x7FFF);  // write bit clear; bit 0 is no field
  const uint16_t control = raw.DisableWrite();
  raw.InitAd7329RangeReg1(0x3AA0);
  const uint16_t range1 = raw.SetChRange(0, 0x0000);
  raw.InitAd7329RangeReg2(0xFFFF);
  const uint16_t range2 = raw.SetChRange(4, 0x0000);
  raw.InitAd7329SequenceReg(0x1020);
  EXPECT_EQ((std::vector<uint16_t>{control, range1, range2, raw.SequenceRegAddCh(1)}),
            (std::vector<uint16_t>{0x7FFE, 0xA2A0, 0xC7E0, 0xF820}));
}
