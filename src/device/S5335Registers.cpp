#include "device/S5335Registers.h"

#include <cctype>
#include <cstdio>

namespace {

struct SRegister {
  uint8_t Offset;
  const char* Name;     // lower case, as reported
  const char* Heading;  // interpretation of the plain registers; the status registers have their own
};

const SRegister kRegisters[kS5335Registers] = {
    {0x00, "omb1", "Outgoing Mailbox #1\n"},
    {0x04, "omb2", "Outgoing Mailbox #2\n"},
    {0x08, "omb3", "Outgoing Mailbox #3\n"},
    {0x0C, "omb4", "Outgoing Mailbox #4\n"},
    {0x10, "imb1", "Incoming Mailbox #1\n"},
    {0x14, "imb2", "Incoming Mailbox #2\n"},
    {0x18, "imb3", "Incoming Mailbox #3\n"},
    {0x1C, "imb4", "Incoming Mailbox #4\n"},
    {0x20, "fifo", "FIFO\n"},
    {0x24, "mwar", "PCI controlled bus master write address = %d."},
    {0x28, "mwtc", "PCI controlled bus master write xfer count = %d."},
    {0x2C, "mrar", "PCI controlled bus master read address = %d."},
    {0x30, "mrtc", "PCI controlled bus master read xfer count = %d."},
    {0x34, "mbef", nullptr},
    {0x38, "intcsr", nullptr},
    {0x3C, "mcsr", nullptr},
};

const SRegister* Find(uint8_t offset) {
  for (const SRegister& r : kRegisters)
    if (r.Offset == offset) return &r;
  return nullptr;
}

bool Bit(uint32_t v, int n) { return ((v >> n) & 1u) != 0; }

std::string Format(const char* format, int value) {
  char text[128];
  std::snprintf(text, sizeof text, format, value);
  return text;
}

// One row per mailbox (outgoing 1-4, then incoming 1-4), one column per byte: "X" where the
// byte holds data the other side has not read.
std::string InterpretMailboxFlags(uint32_t v) {
  static const char* const kLabels[8] = {"OMB1", "OMB2", "OMB3", "OMB4", "IMB1", "IMB2", "IMB3", "IMB4"};
  std::string text = "Mailbox empty/full register\n";
  text += "           byte 0      byte 1      byte 2      byte 3\n";
  for (int r = 0; r < 8; ++r) {
    text += kLabels[r];
    text += "        ";
    for (int j = 0; j < 4; ++j) {
      text += Bit(v, 4 * r + j) ? "X" : " ";
      text += "           ";
    }
    text += "\n";
  }
  return text;
}

std::string InterpretInterruptControl(uint32_t v) {
  std::string text = "Interrupt Control/Status Register\n\n";
  if (!Bit(v, 4)) {
    text += "outgong mailbox interrupts disabled.\n";
  } else {
    char line[96];
    std::snprintf(line, sizeof line, "byte %d of outgoing mailbox %d causes interrupts\n",
                  static_cast<int>((v & 0xF) >> 2), static_cast<int>((v & 3) + 1));
    text += line;
  }
  if (!Bit(v, 12)) {
    text += "incoming mailbox interrupts disabled.\n";
  } else {
    char line[96];
    std::snprintf(line, sizeof line, "byte %d of incoming mailbox %d causes interrupts\n",
                  static_cast<int>((v & 0x7FF) >> 10), static_cast<int>(((v & 0x1FF) >> 8) + 1));
    text += line;
  }
  static const struct {
    int Bit;
    const char* Text;
  } kFlags[] = {
      {14, "An interrupt will be generated when the write xfer count reached zero.\n"},
      {15, "An interrupt will be generated when the read xfer count reached zero.\n"},
      {16, "Outgoing mailbox interrupt has triggered.\n"},
      {17, "Incoming mailbox interrupt has triggered.\n"},
      {18, "The write xfer complete interrupt has triggered.\n"},
      {19, "The read xfer complete interrupt has triggered.\n"},
      {20, "a PCI Master Abort condition has generated an interrupt.\n"},
      {21, "a PCI Target Abort condition has generated an interrupt.\n"},
      {23, "At least one interrupt has been triggered.\n"},
  };
  for (const auto& f : kFlags)
    if (Bit(v, f.Bit)) text += f.Text;
  return text;
}

std::string InterpretMasterControl(uint32_t v) {
  std::string text = "Master Control/Status Register\n\n";
  static const char* const kFifoState[8] = {
      "PCI to Add-on FIFO full.\n",     "PCI to Add-on FIFO 4+ spaces.\n", "PCI to Add-on FIFO empty.\n",
      "Add-on to PCI FIFO full.\n",     "Add-on to PCI FIFO 4+ words.\n",  "Add-on to PCI FIFO empty.\n",
      "PCI to Add-on xfer count = 0.\n", "Add-on to PCI xfer count = 0.\n",
  };
  for (int b = 0; b < 8; ++b)
    if (Bit(v, b)) text += kFifoState[b];
  static const struct {
    int Bit;
    const char* Set;
    const char* Clear;
  } kControls[] = {
      {8, "Write vs. Read priority asserted.\n", "Write vs. Read priority NOT asserted.\n"},
      {9, "Request PCI bus for writing when at least 4 words are in the FIFO.\n",
       "Request PCI bus for writing whenever there is 1 or more words in the FIFO.\n"},
      {10, "PCI bus master write transfers enabled.\n", "PCI bus master write transfers disabled.\n"},
      {12, "Read vs. Write priority asserted.\n", "Read vs. Write priority NOT asserted.\n"},
      {13, "Request PCI bus for reading when there are at least 4 vacancies in the FIFO.\n",
       "Request PCI bus for reading whenever there is 1 or more cacancies in the FIFO.\n"},
      {14, "PCI bus master read transfers enabled.\n", "PCI bus master read transfers disabled.\n"},
      {15, "bus master memory read multiple enabled.\n", "bus master memory read multiple disabled.\n"},
  };
  for (const auto& c : kControls) text += Bit(v, c.Bit) ? c.Set : c.Clear;
  if (Bit(v, 24)) text += "Add-on reset pin asserted.\n";
  return text;
}

}  // namespace

uint8_t GetRegisterByName(std::string name) {
  for (char& ch : name) ch = static_cast<char>(std::toupper(static_cast<unsigned char>(ch)));
  for (const SRegister& r : kRegisters) {
    std::string upper = r.Name;
    for (char& ch : upper) ch = static_cast<char>(std::toupper(static_cast<unsigned char>(ch)));
    if (upper == name) return r.Offset;
  }
  return kS5335UnknownRegister;
}

std::string GetRegisterByNumber(uint8_t offset) {
  const SRegister* r = Find(offset);
  return r ? r->Name : "Unknown Register";
}

std::string print_binary(uint32_t v) {
  std::string text;
  text.reserve(40);
  for (int bit = 31; bit >= 0; --bit) {
    if (bit % 4 == 3) text += ' ';
    text += Bit(v, bit) ? '1' : '0';
  }
  return text;
}

std::string interpret_register(uint8_t offset, uint32_t v) {
  switch (offset) {
    case 0x34: return InterpretMailboxFlags(v);
    case 0x38: return InterpretInterruptControl(v);
    case 0x3C: return InterpretMasterControl(v);
    default: break;
  }
  const SRegister* r = Find(offset);
  if (!r) return "Invalid register\n";
  // The address and count registers are shown as the signed decimal the card's tools print.
  return Format(r->Heading, static_cast<int>(v));
}
