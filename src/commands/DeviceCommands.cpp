// Service commands of the card itself: the operation registers of its S5335 PCI bridge (list,
// read, write, dump, explain) and the bridge's configuration memory (nvRAM), which holds the
// PCI identity the bridge loads at power-up and the instrument's serial number. None of these
// is a setting: nothing here is recorded as a tag.
//
// These commands reach the bridge directly, outside the FPGA mailbox, for a service engineer
// who knows what a register write does; they check only that the register exists.
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>

#include "commands/Families.h"
#include "device/S5335Registers.h"
#include "protocol/CommandTable.h"
#include "server/Vr480Server.h"

namespace {

constexpr int kSerialChars = 16;      // the serial number's field in the nvRAM
constexpr int kSerialTextChars = 15;  // what a client may put there: the field keeps a terminator

// ---- Bridge registers ----------------------------------------------------------------------------

int ListRegisters(CCommandContext& c) {
  return c.Reply("OMB1, OMB2, OMB3, OMB4, IMB1, IMB2, IMB3, IMB4 FIFO, MWAR, MWTC, MRAR, MRTC, MBEF, INTCSR, MCSR\n");
}

int UnknownRegister(CCommandContext& c) { return c.Reply("!Unknown Register %s.\n", c.Col(1).c_str()); }

// An unknown name is explained as such without touching the card.
int InterpretRegister(CCommandContext& c) {
  const uint8_t r = GetRegisterByName(c.Col(1));
  const uint32_t v = r == kS5335UnknownRegister ? 0 : c.Server.Driver.ReadReg32(r);
  return c.Reply("%s", interpret_register(r, v).c_str());
}

// Every register except the FIFO port: reading it would take a word out of the FIFO.
int DumpRegisters(CCommandContext& c) {
  std::string text;
  for (int i = 0; i < kS5335Registers; ++i) {
    const auto r = static_cast<uint8_t>(4 * i);
    if (r == kS5335Fifo) {
      text += "fifo ...Skipped\n";
      continue;
    }
    const uint32_t v = c.Server.Driver.ReadReg32(r);
    char line[128];
    std::snprintf(line, sizeof line, "%s = %u {%s}\n", GetRegisterByNumber(r).c_str(), v, print_binary(v).c_str());
    text += line;
  }
  return c.Reply("%s", text.c_str());
}

int ReadRegister(CCommandContext& c) {
  const uint8_t r = GetRegisterByName(c.Col(1));
  if (r == kS5335UnknownRegister) return UnknownRegister(c);
  return c.Reply("%d", static_cast<int>(c.Server.Driver.ReadReg32(r)));
}

int WriteRegister(CCommandContext& c) {
  const uint8_t r = GetRegisterByName(c.Col(1));
  if (r == kS5335UnknownRegister) return UnknownRegister(c);
  const auto v = static_cast<uint32_t>(c.Int(2));
  c.Server.Driver.WriteReg32(r, v);
  return c.Reply("Writing %d to S5335 register %s\n", static_cast<int>(v), c.Col(1).c_str());
}

// ---- Configuration memory -------------------------------------------------------------------------

// Without a revision the driver picks the one its release calls for.
int BuildZorDevice(CCommandContext& c) {
  auto& d = c.Server.Driver;
  if (c.NumArgs() == 1) d.make_ZOR_device(static_cast<int>(c.Int(1)));
  else d.make_ZOR_device();
  return c.Reply("ZOR Device built.\n");
}

int ClearZorDevice(CCommandContext& c) {
  c.Server.Driver.clear_device();
  return c.Reply("ZOR Device cleared.\n");
}

// The serial number is the argument text as typed (words and their spacing), cut to fit.
int SetNvramSn(CCommandContext& c) {
  char serial[kSerialChars + 1] = {};
  std::strncpy(serial, c.ArgText.c_str(), kSerialTextChars);
  c.Server.Driver.write_nvRAM_SN(serial);
  return c.Reply("Setting NvRAM S/N to '%s'.\n", serial);
}

int GetNvramSn(CCommandContext& c) {
  char serial[kSerialChars + 1] = {};
  c.Server.Driver.read_nvRAM_SN(serial);
  serial[kSerialChars] = '\0';
  return c.Reply("%s", serial);
}

int ReadNvramByte(CCommandContext& c) {
  const auto a = static_cast<uint16_t>(c.Int(1));
  return c.Reply("NvRAM offset %d reads %d.\n", a, c.Server.Driver.nvRAM_read(a));
}

const SCommandRow kRows[] = {
    // Bridge registers
    {"#LIST_S5335_REGISTERS", 0, 0, kNone, ListRegisters},
    {"#INTERPRET_S5335_REGISTER", 1, 1, kNone, InterpretRegister},
    {"#DUMP_S5335_REGISTERS", 0, 0, kNone, DumpRegisters},
    {"#READ_S5335_REGISTER", 1, 1, kNone, ReadRegister},
    {"#WRITE_S5335_REGISTER", 2, 2, kNone, WriteRegister},
    // Configuration memory
    {"#BUILD_ZOR_DEVICE", 0, 1, kNone, BuildZorDevice},
    {"#CLEAR_ZOR_DEVICE", 0, 0, kNone, ClearZorDevice},
    {"#SET_NVRAM_SN", 0, 16, kNone, SetNvramSn},
    {"#GET_NVRAM_SN", 0, 0, kNone, GetNvramSn},
    {"#READ_NVRAM_BYTE", 1, 1, kNone, ReadNvramByte},
};

}  // namespace

void RegisterDeviceCommands(CCommandTable& table) { table.Add(kRows); }
