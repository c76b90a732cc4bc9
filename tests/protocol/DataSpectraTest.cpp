// Spectra, the card's raw record, the high-speed samples and the web status line, against a
// server object without a card. The spectrum ring and the raw spectrum are filled by hand in
// the layout the full-spectrum engine publishes (12 spare bytes, the 88-byte header, 32768
// points, the u32 body length), and published the way its thread does.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <string>
#include <thread>

#include "DataWire.h"
#include "processing/ProcessingFixture.h"
#include "protocol/CommandTable.h"
#include "system/NetworkGlobals.h"

using namespace std::chrono_literals;
using data_wire::U16;
using data_wire::U32;
using data_wire::U8;
using Clock = std::chrono::steady_clock;

namespace {

constexpr size_t kSpectrumBytes = 65640;
constexpr uint32_t kSpectrumBody = 65624;  // 88 + 32768 x 2

struct SReply {
  int Code = 0;
  std::string Body;
};

class CSpectrumHarness {
 public:
  CSpectrumHarness() {
    S->bFsEnable = true;
    S->SpectrumWriteIndex = 0;
    for (int c = 0; c < 11; ++c) S->SpectrumReadIndex[c] = 15;  // as connect leaves it: the newest slot
  }

  SReply Command(int client, const char* line) {
    char* body = nullptr;
    unsigned length = 0;
    SReply reply;
    reply.Code = S->ProcessCmd(static_cast<short>(client), line, &body, &length);
    reply.Body.assign(body, length);
    return reply;
  }

  // Fills a ring slot with a recognisable spectrum: header bytes and points from `seed`.
  void FillSlot(int slot, uint8_t seed) {
    uint8_t* rec = S->SpectrumBuffer + static_cast<size_t>(slot) * kSpectrumBytes;
    for (size_t i = 12; i < kSpectrumBytes - 4; ++i) rec[i] = static_cast<uint8_t>(seed + i * 13);
    rec[12] = 15;
    rec[12 + 7] = 0x03;  // low nibble kept by the reply, high nibble replaced
    const uint32_t length = kSpectrumBody;
    std::memcpy(rec + kSpectrumBytes - 4, &length, 4);
  }
  std::string SlotBody(int slot) const {
    return std::string(reinterpret_cast<const char*>(S->SpectrumBuffer) + slot * kSpectrumBytes + 12, kSpectrumBody);
  }
  // Publishes the slot at the write index, as the calibration thread does.
  void Publish(uint8_t seed) {
    FillSlot(S->SpectrumWriteIndex, seed);
    std::lock_guard<std::mutex> g(S->SpectrumMutex);
    S->SpectrumWriteIndex = static_cast<uint16_t>((S->SpectrumWriteIndex + 1) % 16);
    S->SpectrumCond.notify_all();
  }

  std::unique_ptr<CVr480Server> S = proc_test::MakeServer();
};

// The body with the two bytes a spectrum reply patches put back as they were in the ring.
std::string Unpatched(std::string body, const std::string& ring) {
  body[7] = ring[7];
  body[48] = ring[48];
  return body;
}

}  // namespace

TEST(DataSpectra, SpectraComeFromTheRingInOrderWithTypeAndFillLevel) {
  CSpectrumHarness h;
  h.Publish(1);  // slot 0
  h.Publish(2);  // slot 1
  h.S->SpectrumReadIndex[0] = 0;
  h.S->bNewSpectrum[0] = true;

  SReply reply = h.Command(0, "#GET_SPECTRUM");
  EXPECT_EQ(reply.Code, kReplyText);
  ASSERT_EQ(reply.Body.size(), kSpectrumBody);
  EXPECT_EQ(U8(reply.Body, 0), 15u);
  EXPECT_EQ(U8(reply.Body, 7), 0x23u);  // type 2, low nibble kept
  EXPECT_EQ(U8(reply.Body, 48), 87u);   // read 0, write 2: (0 - 2 + 16) x 100 / 16 = 87.5
  EXPECT_EQ(Unpatched(reply.Body, h.SlotBody(0)), h.SlotBody(0));
  EXPECT_FALSE(h.S->bNewSpectrum[0]);
  EXPECT_EQ(h.S->SpectrumReadIndex[0], 1);

  reply = h.Command(0, "#GET_SPECTRUM");
  EXPECT_EQ(U8(reply.Body, 48), 93u);  // read 1, write 2: 93.75
  EXPECT_EQ(Unpatched(reply.Body, h.SlotBody(1)), h.SlotBody(1));

  // Caught up: the request waits for the next spectrum and reports 100.
  std::thread later([&] {
    std::this_thread::sleep_for(100ms);
    h.Publish(3);
  });
  reply = h.Command(0, "#GET_SPECTRUM");
  later.join();
  EXPECT_EQ(U8(reply.Body, 48), 100u);
  EXPECT_EQ(Unpatched(reply.Body, h.SlotBody(2)), h.SlotBody(2));

  // Caught up, the request waits past its one-second wakes; full-spectrum acquisition switched
  // off meanwhile ends it with an empty body, and the position stays.
  std::thread off([&] {
    std::this_thread::sleep_for(1500ms);
    h.S->bFsEnable = false;
  });
  reply = h.Command(0, "#GET_SPECTRUM");
  off.join();
  h.S->bFsEnable = true;
  EXPECT_EQ(reply.Body.size(), 0u);
  EXPECT_EQ(h.S->SpectrumReadIndex[0], 3);

  // The write index ahead of the read index after a wrap: (15 - 3) x 100 / 16 = 75.
  h.S->SpectrumReadIndex[0] = 15;
  h.FillSlot(15, 9);
  EXPECT_EQ(U8(h.Command(0, "#GET_SPECTRUM").Body, 48), 75u);
  EXPECT_EQ(h.S->SpectrumReadIndex[0], 0);

  // Without full-spectrum acquisition the reply is empty at once; in a slave mode too, with a
  // console line.
  h.S->SpectrumReadIndex[0] = 0;
  h.S->bFsEnable = false;
  const auto t0 = Clock::now();
  EXPECT_EQ(h.Command(0, "#GET_SPECTRUM").Body, "");
  EXPECT_LT(Clock::now() - t0, 200ms);
  h.S->bFsEnable = true;
  h.S->Driver.SetOperatingMode(2);
  const std::string console = proc_test::Console([&] { reply = h.Command(0, "#GET_SPECTRUM"); });
  EXPECT_EQ(reply.Body, "");
  EXPECT_NE(console.find("********** Not Master or Stand-Alone\n"), std::string::npos);
  h.S->Driver.SetOperatingMode(1);
  EXPECT_EQ(h.Command(0, "#GET_SPECTRUM").Body.size(), kSpectrumBody);
}

TEST(DataSpectra, RawSpectrumIsTheNextOneWithItsPointScale) {
  CSpectrumHarness h;
  uint8_t* raw = h.S->RawSpectrumBuffer;
  for (size_t i = 12; i < kSpectrumBytes - 4; ++i) raw[i] = static_cast<uint8_t>(i * 7);
  const uint32_t length = kSpectrumBody;
  std::memcpy(raw + kSpectrumBytes - 4, &length, 4);
  const std::string before(reinterpret_cast<const char*>(raw) + 12, kSpectrumBody);

  std::thread later([&] {
    std::this_thread::sleep_for(150ms);
    h.Publish(4);
  });
  const auto t0 = Clock::now();
  const SReply reply = h.Command(2, "#GET_RAW_SPECTRUM");
  later.join();
  EXPECT_GE(Clock::now() - t0, 100ms);  // always a spectrum newer than the request
  EXPECT_EQ(reply.Code, kReplyText);
  ASSERT_EQ(reply.Body.size(), kSpectrumBody);
  EXPECT_EQ(U8(reply.Body, 7) >> 4, 6u);
  EXPECT_EQ(U32(reply.Body, 72), 1u);
  EXPECT_EQ(U32(reply.Body, 80), 0u);
  EXPECT_EQ(U32(reply.Body, 84), 32767u);
  std::string expected = before;  // all but the type nibble and the point scale as they were
  expected[7] = static_cast<char>((before[7] & 0x0F) | 0x60);
  expected.replace(72, 4, reply.Body.substr(72, 4));
  expected.replace(80, 8, reply.Body.substr(80, 8));
  EXPECT_EQ(reply.Body, expected);
}

TEST(DataSpectra, RawDataIsTheCardsRecordAndHighSpeedSamplesItsWindow) {
  CSpectrumHarness h;
  auto r = proc_test::MakeSweep();
  for (int i = 0; i < 256; ++i) r.FsSamples[i] = 0xA5000000u | static_cast<uint32_t>(1000 + i);
  h.S->pPeaks = &r;
  h.S->pLastPeaks = &r;
  h.S->bNewRecord[1] = true;

  SReply reply = h.Command(1, "#GET_RAW_DATA");
  EXPECT_EQ(reply.Code, kReplyConstant);
  ASSERT_EQ(reply.Body.size(), 6176u);
  EXPECT_EQ(0, std::memcmp(reply.Body.data(), &r, 6176));
  EXPECT_FALSE(h.S->bNewRecord[1]);

  h.S->HighSpeedFsStartCount = 10 * 128 + 5;  // sample 10: not inside
  h.S->HighSpeedFsEndCount = 20 * 128;        // sample 20: not inside
  h.S->bNewRecord[1] = true;
  reply = h.Command(1, "#GET_HIGH_SPEED_FS");
  EXPECT_EQ(reply.Code, kReplyConstant);
  ASSERT_EQ(reply.Body.size(), 512u);
  for (uint32_t i = 0; i < 256; ++i) EXPECT_EQ(U16(reply.Body, 2 * i), (i > 10 && i < 20) ? 1000 + i : 0u) << i;
  EXPECT_FALSE(h.S->bNewRecord[1]);

  h.S->bFsEnable = false;
  reply = h.Command(1, "#GET_HIGH_SPEED_FS");
  EXPECT_EQ(reply.Code, kReplyConstant);
  EXPECT_EQ(reply.Body.size(), 0u);
}

TEST(DataSpectra, WebStatusIsOneLineOfTwentyOneFields) {
  CSpectrumHarness h;
  auto r = proc_test::MakeSweep();
  r.status.InternalTemp = 35 * 128 + 64;  // 35.5 degC
  h.S->pLastPeaks = &r;
  const int config = CurrentNetworkConfig;
  const bool dhcp = bUseDhcp[config];

  // Before the front panel's first refresh its texts are empty and its numbers 0.
  bUseDhcp[config] = false;
  EXPECT_EQ(h.Command(0, "#WEB_STATUS").Body, "No S/N$$0$0$2.0h$0$$$Disabled$0$35.50$$System Clock$$$$1$$$$");

  {
    std::lock_guard<std::mutex> g(h.S->PanelTextsLock);
    auto& p = h.S->PanelTexts;
    p.SweepRate = "1000.0 Hz";
    p.DriverVersion = 52;
    p.FirmwareVersion = 101;
    p.IpAddress = "10.0.0.122";
    p.Netmask = "255.255.255.0";
    p.TimeSource = "NTP";
    p.DateTime = "Wed Nov 18 14:35:48 2026";
    p.OperatingMode = "Stand-Alone";
    p.TriggerMode = "Untriggered";
    p.TriggerState = "N/A";
    p.SensorCounts[0] = "3\t3\t3\t3\t";
  }
  std::strcpy(h.S->SerialNumber, "VR-0042");
  h.S->CfcVersion = 14;
  h.S->MuxLevel = 2;
  bUseDhcp[config] = true;
  EXPECT_EQ(h.Command(0, "#WEB_STATUS").Body,
            "VR-0042$1000.0 Hz$14$52$2.0h$101$10.0.0.122$255.255.255.0$Enabled$0$35.50$Wed Nov 18 14:35:48 2026$NTP$"
            "Stand-Alone$Untriggered$N/A$2$3\t3\t3\t3\t$$$");
  bUseDhcp[config] = dhcp;
}
