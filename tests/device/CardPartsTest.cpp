// The card's parts below the driver: the bridge registers' texts, the converter's control
// words and the LED port.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "device/Ad7329.h"
#include "device/ParallelPort.h"
#include "device/S5335Registers.h"
#include "sim/SimCardProvider.h"

TEST(S5335Registers, Interpretations) {
  // The bridge registers' interpretation texts (names and the binary rendering show in the
  // register commands' suite).
  EXPECT_EQ(GetRegisterByNumber(0x02), "Unknown Register");
  EXPECT_EQ(interpret_register(0x24, 0xFFFFFFFF), "PCI controlled bus master write address = -1.");
  EXPECT_EQ(interpret_register(0x30, 1234), "PCI controlled bus master read xfer count = 1234.");
  const std::string blank = "            ";  // a clear byte and its column gap
  std::string mbef = "Mailbox empty/full register\n           byte 0      byte 1      byte 2      byte 3\n";
  mbef += "OMB1        X           " + blank + blank + blank + "\n";
  for (const char* label : {"OMB2", "OMB3", "OMB4", "IMB1", "IMB2", "IMB3", "IMB4"})
    mbef += std::string(label) + "        " + blank + blank + blank + blank + "\n";
  EXPECT_EQ(interpret_register(0x34, 0x1), mbef);
  EXPECT_EQ(interpret_register(0x3C, 0),
            "Master Control/Status Register\n\n"
            "Write vs. Read priority NOT asserted.\n"
            "Request PCI bus for writing whenever there is 1 or more words in the FIFO.\n"
            "PCI bus master write transfers disabled.\n"
            "Read vs. Write priority NOT asserted.\n"
            "Request PCI bus for reading whenever there is 1 or more cacancies in the FIFO.\n"
            "PCI bus master read transfers disabled.\n"
            "bus master memory read multiple disabled.\n");
  EXPECT_EQ(interpret_register(0x38, 0),
            "Interrupt Control/Status Register\n\n"
            "outgong mailbox interrupts disabled.\n"
            "incoming mailbox interrupts disabled.\n");
  // Byte 1 of outgoing mailbox 2, byte 1 (bits 10-11 as the texts read them) of incoming
  // mailbox 2, write-count interrupt enabled, outgoing mailbox interrupt pending.
  EXPECT_EQ(interpret_register(0x38, 0x00815515),
            "Interrupt Control/Status Register\n\n"
            "byte 1 of outgoing mailbox 2 causes interrupts\n"
            "byte 1 of incoming mailbox 2 causes interrupts\n"
            "An interrupt will be generated when the write xfer count reached zero.\n"
            "Outgoing mailbox interrupt has triggered.\n"
            "At least one interrupt has been triggered.\n");
}

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

// The port's data byte cannot be read back: every bit change is a read-modify-write of the
// shadow, only bit 0 of the value counts, and without the device the shadow still moves.
TEST(ParallelPort, BitWritesWorkOnTheShadowAndAMissingDeviceIsExplained) {
  sim::CSimCardProvider card;
  ASSERT_EQ(init_pp_driver(&card), 0);
  pp_write(4);
  pp_write_bit(3, 1), pp_write_bit(4, 3), pp_write_bit(3, 2);  // client LED on, ready on (3 & 1), client off (2 & 1)
  EXPECT_EQ(card.PpPort().Written(), (std::vector<uint8_t>{0x04, 0x0C, 0x1C, 0x14}));
  EXPECT_TRUE(card.PpPort().ReadyLed() && !card.PpPort().ClientLed());
  EXPECT_EQ(pp_read_status(), card.PpPort().Status());
  close_pp_driver();
  pp_write(0x10);
  EXPECT_EQ(pp_shadow, 0x10);
  EXPECT_EQ(card.PpPort().Written().size(), 4u);
  struct CNoDevices : CCardProvider {
    std::unique_ptr<CDeviceFile> Open(const std::string&) override { return nullptr; }
  } none;
  testing::internal::CaptureStdout();
  EXPECT_EQ(init_pp_driver(&none), -1);
  EXPECT_EQ(testing::internal::GetCapturedStdout(),
            "Error opening /dev/pp_driver [-1]\n(Did you #insmod pp_driver.o ?)\n"
            "(Did you #mknod /dev/pp_driver c 63 0 ?)\n(Did you #chmod a+w /dev/pp_driver ?)\n");
  EXPECT_EQ(pp_driver_fd, -1);
}
