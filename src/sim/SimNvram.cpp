#include "sim/SimNvram.h"

#include <cstdio>
#include <filesystem>
#include <fstream>

namespace sim {

namespace {
constexpr int kBusyPollsAfterAccess = 2;
}

NvramBytes MakeNvramImage(ENvramImage image, const std::string& serial) {
  NvramBytes nv;
  nv.fill(0xFF);
  if (image == ENvramImage::Blank) return nv;

  // The bridge's PCI configuration image as the server writes it when it builds a card.
  const uint8_t rev = image == ENvramImage::Rev3 ? 3 : image == ENvramImage::Rev2 ? 2 : 1;
  for (int a = 0x40; a <= 0x7F; ++a) nv[a] = 0x00;
  nv[0x40] = 0xE8;  // vendor ID 0x10E8, low byte first
  nv[0x41] = 0x10;
  nv[0x42] = 0x82;  // device ID 0x8882
  nv[0x43] = 0x88;
  nv[0x45] = rev == 3 ? 0x01 : 0x81;
  nv[0x48] = rev;
  nv[0x4B] = 0xFF;
  nv[0x4D] = rev == 1 ? 0x00 : 0xFF;
  nv[0x50] = 0xC1;
  nv[0x51] = 0xFF;
  nv[0x52] = 0xE8;
  nv[0x53] = 0x10;
  nv[0x7C] = 0xFF;
  nv[0x7D] = 0x01;
  nv[0x7E] = rev == 1 ? 0x00 : 0xFF;
  for (size_t i = 0; i < 16 && i < serial.size(); ++i) {
    nv[kNvramSerialAddress + i] = static_cast<uint8_t>(serial[i]);
  }
  return nv;
}

CSimNvram::CSimNvram(std::string path, ENvramImage image) : Path(std::move(path)) {
  Memory = MakeNvramImage(image);
  if (Path.empty()) return;
  std::ifstream in(Path, std::ios::binary);
  NvramBytes loaded;
  if (in && in.read(reinterpret_cast<char*>(loaded.data()), kNvramBytes) &&
      in.gcount() == kNvramBytes) {
    Memory = loaded;
  } else {
    Save();
  }
}

void CSimNvram::Load(const NvramBytes& bytes) {
  Memory = bytes;
  Save();
}

uint16_t CSimNvram::DeviceIdFromContent() const {
  const bool configured = Memory[0x40] == 0xE8 && Memory[0x41] == 0x10 && Memory[0x42] == 0x82 &&
                          Memory[0x43] == 0x88;
  return configured ? kConfiguredDeviceId : kBlankBridgeDeviceId;
}

void CSimNvram::WriteControl(uint8_t value) {
  ControlBits = value & 0x1F;
  switch (value & 0xE0) {
    case 0x80: NextDataRole = EDataRole::AddressLow; break;
    case 0xA0: NextDataRole = EDataRole::AddressHigh; break;
    case 0x00: NextDataRole = EDataRole::Data; break;
    case 0xE0:  // read
      DataLatch = Address < kNvramBytes ? Memory[Address] : 0xFF;
      NextDataRole = EDataRole::None;
      BusyPolls = kBusyPollsAfterAccess;
      break;
    case 0xC0:  // commit
      if (Address < kNvramBytes && Memory[Address] != DataLatch) {
        Memory[Address] = DataLatch;
        Save();
      }
      ++CommitCount;
      NextDataRole = EDataRole::None;
      BusyPolls = kBusyPollsAfterAccess;
      break;
    default:  // 0x20, 0x40, 0x60: operations the server never uses
      NextDataRole = EDataRole::None;
      break;
  }
}

void CSimNvram::WriteData(uint8_t value) {
  switch (NextDataRole) {
    case EDataRole::AddressLow: Address = static_cast<uint16_t>((Address & 0xFF00) | value); break;
    case EDataRole::AddressHigh:
      Address = static_cast<uint16_t>((Address & 0x00FF) | (value << 8));
      break;
    case EDataRole::Data:
    case EDataRole::None: DataLatch = value; break;
  }
  NextDataRole = EDataRole::None;
}

uint8_t CSimNvram::ReadControl() {
  const bool busy = BusyPolls > 0;
  if (busy) --BusyPolls;
  return static_cast<uint8_t>(ControlBits | (busy ? 0x80 : 0x00));
}

bool CSimNvram::Save() const {
  if (Path.empty()) return true;
  // Write a temporary file and rename it over the old one, so that a crash never leaves a
  // half-written memory behind.
  std::error_code ec;
  std::filesystem::create_directories(std::filesystem::path(Path).parent_path(), ec);
  const std::string tmp = Path + ".tmp";
  {
    std::ofstream out(tmp, std::ios::binary | std::ios::trunc);
    if (!out.write(reinterpret_cast<const char*>(Memory.data()), kNvramBytes)) return false;
  }
  return std::rename(tmp.c_str(), Path.c_str()) == 0;
}

}  // namespace sim
