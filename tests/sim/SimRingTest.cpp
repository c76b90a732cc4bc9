// The DMA ring as the driver sees it: mapping order, sequential delivery, lapping, and the
// buffers a release-50 driver must program first.
#include <gtest/gtest.h>

#include <cstring>
#include <thread>

#include "SimTestDriver.h"

using namespace simtest;

TEST(SimRing, DeliversConsecutiveRecordsInMappedBuffers) {
  CTestDriver d;
  d.Start();
  d.LaserOn();
  d.Card().Step(10);
  uint16_t lastCounter = 0;
  uint32_t lastSweep = 0;
  for (int i = 0; i < 10; ++i) {
    auto& r = d.Next();
    // The k-th mapping is buffer k: the record sits where the returned index says.
    EXPECT_EQ(reinterpret_cast<uint8_t*>(&r), d.Card().Ring().Buffer(d.LastIndex));
    if (i > 0) {
      EXPECT_EQ(r.status.RecordCounter, static_cast<uint16_t>(lastCounter + 1));
      EXPECT_EQ(r.status.SweepCounter, lastSweep + 1);
    }
    lastCounter = r.status.RecordCounter;
    lastSweep = r.status.SweepCounter;
  }
  EXPECT_EQ(d.Get16(0x8004350E), 0);
}

TEST(SimRing, LappingKeepsNewestAndSparesTheHeldBuffer) {
  CTestDriver d;
  d.Start();
  d.LaserOn();
  d.Card().Step(1);
  auto& held = d.Next();
  const int heldIndex = d.LastIndex;
  held.status.Byte49 = 3;  // the server patches the record it holds in place
  std::vector<uint8_t> snapshot(reinterpret_cast<uint8_t*>(&held),
                                reinterpret_cast<uint8_t*>(&held) + kPeaksRecordBytes);

  d.Card().Step(511);  // fills every other buffer: 511 undelivered
  EXPECT_EQ(d.Card().Overruns(), 0u);
  EXPECT_EQ(d.Card().Ring().Undelivered(), 511u);
  d.Card().Step(1);  // laps
  EXPECT_EQ(d.Card().Overruns(), 1u);
  EXPECT_EQ(d.Read(4, 0x1C), 1u) << "incoming mailbox 4: overruns";
  EXPECT_EQ(std::memcmp(snapshot.data(), &held, kPeaksRecordBytes), 0) << "held buffer untouched";

  // The server resumes at the present: the newest record before the lap, then the new one.
  auto& a = d.Next();
  EXPECT_NE(d.LastIndex, heldIndex);
  const uint32_t sweepA = a.status.SweepCounter;
  auto& b = d.Next();
  EXPECT_EQ(b.status.SweepCounter, sweepA + 1);
  EXPECT_EQ(sweepA, 511u);
}

TEST(SimRing, Release50FillsOnlyProgrammedBuffers) {
  CTestDriver d;
  ASSERT_EQ(d.Dev().Ioctl(0x350C, 0), 0);
  for (int k = 0; k < kDmaBuffers; ++k) d.Buffers[k] = static_cast<struct_dma_peaks_data*>(d.Dev().Map(6176));
  d.ProgramAddress(3);
  d.ProgramAddress(7);
  d.Command(0x38, 0x1234);  // a wrong address for buffer 9
  d.Command(0x39, 0x0001);
  d.Command(0x3A, 9);
  d.Command(cmd::kDma, 1);
  d.LaserOn();
  d.Card().Step(2);
  EXPECT_EQ(d.Card().BufferAddressErrors(), 1u);
  d.Next();
  EXPECT_EQ(d.LastIndex, 3);
  d.Next();
  EXPECT_EQ(d.LastIndex, 7);

  CTestDriver none;  // never programmed: nothing is written
  none.Start(false);
  none.LaserOn();
  EXPECT_EQ(none.Card().Step(5), 0);

  CSimOptions old = StepOptions();
  old.DriverRelease = 48;  // older drivers program nothing, every buffer is used
  CTestDriver d48(old);
  d48.Start();
  d48.LaserOn();
  EXPECT_EQ(d48.Card().Step(5), 5);
}

TEST(SimRing, MappingFaultAndBlockingWait) {
  CTestDriver d;
  d.Card().FailMapping(4);
  for (int k = 0; k < 8; ++k) {
    void* p = d.Dev().Map(6176);
    EXPECT_EQ(p == nullptr, k == 4) << k;
  }
  EXPECT_EQ(d.Dev().Map(6176 * 2), nullptr) << "a mapping is one buffer";

  // Wait for data blocks until a record arrives, and a close ends it.
  CTestDriver w;
  w.Start();
  w.LaserOn();
  uint16_t index = 0xFFFF;
  int result = 0;
  std::thread waiter([&] { result = w.Dev().Ioctl(0x8004350D, reinterpret_cast<uintptr_t>(&index)); });
  std::this_thread::sleep_for(std::chrono::milliseconds(20));
  w.Card().Step(1);
  waiter.join();
  EXPECT_EQ(result, 0);
  EXPECT_LT(index, kDmaBuffers);

  std::thread closed([&] { result = w.Dev().Ioctl(0x8004350D, reinterpret_cast<uintptr_t>(&index)); });
  std::this_thread::sleep_for(std::chrono::milliseconds(20));
  w.Dev().Close();
  closed.join();
  EXPECT_EQ(result, -1);
}
