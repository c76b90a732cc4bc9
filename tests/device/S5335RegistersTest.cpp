#include <gtest/gtest.h>

#include <string>

#include "device/S5335Registers.h"

namespace {

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

}  // namespace
