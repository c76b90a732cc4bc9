#include "device/Ad7329.h"

#include <gtest/gtest.h>

// The converter's words: whole-register writes force the write bit and register select over the
// given fields; changing one field rebuilds the word from the stored others.
TEST(Ad7329, WholeRegisterWritesAndControlFields) {
  Cad7329 adc;
  EXPECT_EQ(adc.SelectInputChannel(1), 0x8400);  // a fresh composer starts from zero
  EXPECT_EQ(adc.WriteControlRegister(0x810), 0x8810);
  EXPECT_EQ(adc.WriteRangeRegister1(0xAA0), 0xAAA0);
  EXPECT_EQ(adc.WriteRangeRegister2(0xAA0), 0xCAA0);
  EXPECT_EQ(adc.WriteSequenceRegister(0xFFFF), 0xFFE0);  // only the eight channel bits survive
  EXPECT_EQ(adc.WriteControlRegister(0x6810), 0x8810);   // select bits in the value redirect nothing

  const uint16_t words[] = {adc.SelectInputChannel(5),  adc.SelectInputChannel(9),     adc.SelectMode(0xFFFF),
                            adc.SelectPowerMode(0x00C0), adc.SelectCoding(0x0020),     adc.SelectReference(0),
                            adc.SelectSequenceMode(0x000C), adc.SelectDoutState(0x0003), adc.DisableWrite(),
                            adc.SelectInputChannel(0)};
  // Reference bit kept; only the low three bits pick the channel; ...; any select writes again.
  const uint16_t expected[] = {0x9410, 0x8410, 0x8710, 0x87D0, 0x87F0, 0x87E0, 0x87EC, 0x87EE, 0x07EE, 0x83EE};
  for (int i = 0; i < 10; ++i) EXPECT_EQ(words[i], expected[i]) << i;
}

TEST(Ad7329, SequenceChannelsAndRanges) {
  Cad7329 adc;
  adc.SequenceRegAddCh(0);
  EXPECT_EQ(adc.SequenceRegAddCh(7), 0xF020);
  EXPECT_EQ(adc.SequenceRegAddCh(15), 0xF020);  // 15 & 7 = 7, already in
  EXPECT_EQ(adc.SequenceRegRemoveCh(0), 0xE020);
  EXPECT_EQ(adc.SequenceRegAddCh(3), 0xE220);
  EXPECT_EQ(adc.SelectInputChannel(2), 0x8800);  // the control fields are untouched by sequence work

  EXPECT_EQ(adc.SetChRange(0, 0xFFFF), 0xB800);  // range 1, channel 0 field only
  EXPECT_EQ(adc.SetChRange(3, 0x0060), 0xB860);
  EXPECT_EQ(adc.SetChRange(5, 0x0600), 0xC600);   // range 2, channel 5 = field 1
  EXPECT_EQ(adc.SetChRange(13, 0x0200), 0xC200);  // 13 & 7 = 5: replaces channel 5's code
  EXPECT_EQ(adc.SetChRange(5, 0x0180), 0xC000);   // bits outside the channel's field are dropped
  adc.SetChRange(5, 0x0200);
  EXPECT_EQ(adc.SetChRange(12, 0x1800), 0xDA00);
  EXPECT_EQ(adc.SetChRange(1, 0), 0xB860);  // range 1 kept its fields while range 2 changed
}

// The Init operations load raw fields, write bit and register select included, and return
// nothing; the next composed word shows them.
TEST(Ad7329, InitLoadsFieldsVerbatim) {
  Cad7329 adc;
  adc.InitAd7329ControlReg(0x7FFF);  // write bit clear
  EXPECT_EQ(adc.DisableWrite(), 0x7FFE);  // bit 0 is no field
  adc.InitAd7329RangeReg1(0x3AA0);
  EXPECT_EQ(adc.SetChRange(0, 0x0000), 0xA2A0);
  adc.InitAd7329RangeReg2(0xFFFF);
  EXPECT_EQ(adc.SetChRange(4, 0x0000), 0xC7E0);
  adc.InitAd7329SequenceReg(0x1020);
  EXPECT_EQ(adc.SequenceRegAddCh(1), 0xF820);
}
