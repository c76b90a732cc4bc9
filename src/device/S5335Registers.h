// Service diagnostics of the card's S5335 PCI bridge: the sixteen 32-bit operation registers
// by name, a value in binary, and a value explained in plain words. The register commands of
// the text protocol (src/commands/DeviceCommands.cpp) are built on these; nothing here
// touches the card.
//
// Registers (byte offsets in the bridge's operation register space):
//   0x00-0x0C omb1-omb4   outgoing mailboxes (0x00 carries the FPGA commands)
//   0x10-0x1C imb1-imb4   incoming mailboxes
//   0x20      fifo        bus-master FIFO port: reading it takes a word out of the FIFO
//   0x24-0x30 mwar, mwtc, mrar, mrtc   bus-master write/read address and transfer count
//   0x34      mbef        mailbox empty/full flags
//   0x38      intcsr      interrupt control/status
//   0x3C      mcsr        master control/status (bytes 2-3 are the nvRAM interface)
#pragma once

#include <cstdint>
#include <string>

constexpr uint8_t kS5335UnknownRegister = 0xFF;
constexpr uint8_t kS5335Fifo = 0x20;
constexpr int kS5335Registers = 16;

// Offset of a register name, whatever its case ("mcsr", "MCSR"); 0xFF for an unknown name.
uint8_t GetRegisterByName(std::string name);
// Lower-case name of a register offset; "Unknown Register" for any other offset.
std::string GetRegisterByNumber(uint8_t offset);
// The 32 bits from bit 31 down, in eight groups of four, each group preceded by a space
// (40 characters).
std::string print_binary(uint32_t v);
// What value v of the register at `offset` means; "Invalid register\n" outside the table.
std::string interpret_register(uint8_t offset, uint32_t v);
