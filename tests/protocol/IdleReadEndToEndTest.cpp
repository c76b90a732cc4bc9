// An idle card end to end: the real vr480d on the simulated card with the card's DMA switched
// off, so that sweeps go on but no record reaches the server. A client waiting for data must
// then get nothing at all (no header-only reply each second) until the card records again, and
// a streaming client must still be able to end its stream.
#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <memory>
#include <string>
#include <thread>

#include "DataWire.h"
#include "support/SceneServer.h"
#include "support/TestClient.h"

using namespace std::chrono_literals;
using data_wire::SRecord;

namespace {

// Two gratings on each of the first two DUT channels.
constexpr const char* kScene =
    "# channel  wavelength  distance  amplitude\n"
    "1 1530.0 0 12000\n1 1550.0 0 12000\n2 1535.0 0 12000\n2 1555.0 0 12000\n";

bool IsRecordWithSensors(const SRecord& rec) {
  return rec.Size() > 88 && !rec.IsNoDataHeader() && rec.LengthMatchesCounts() && rec.Sensors() > 0;
}

// Waits until the card stops delivering: this client's unread count stays put for half a
// second (records arrive every few milliseconds while the card records).
bool WaitForQuiet(CTestClient& c) {
  c.Command("#FLUSH_BUFFER");
  std::string last = c.Command("#GET_BUFFER_COUNT");
  for (int i = 0; i < 60; ++i) {
    std::this_thread::sleep_for(500ms);
    const std::string now = c.Command("#GET_BUFFER_COUNT");
    if (now == last) return true;
    last = now;
  }
  return false;
}

}  // namespace

TEST(IdleReadEndToEnd, WaitingReadersGetNothingUntilTheCardRecordsAgain) {
  CSceneServer rig(kScene);
  CServerProcess* server = rig.Process();
  ASSERT_TRUE(rig.Started()) << server->Output().substr(0, 4000);

  CTestClient a(server->Port());
  ASSERT_TRUE(a.Connected());
  SRecord before;
  for (int i = 0; i < 300 && !IsRecordWithSensors(before); ++i) {
    before = SRecord{a.Command("#GET_UNBUFFERED_DATA")};
    if (!IsRecordWithSensors(before)) std::this_thread::sleep_for(100ms);
  }
  ASSERT_TRUE(IsRecordWithSensors(before)) << "no record with the scene's sensors";

  // Whatever fails below, the card records again before the server is stopped.
  struct SRestore {
    CTestClient& C;
    ~SRestore() { C.Command("#ENABLE_DMA 1"); }
  } restore{a};

  // A buffered reader on the idle card waits in silence, and gets the first new record.
  ASSERT_EQ(a.Command("#ENABLE_DMA 0"), "DMA Disabled.\n");
  ASSERT_TRUE(WaitForQuiet(a)) << "records kept coming with DMA off";
  CTestClient b(server->Port());
  ASSERT_TRUE(b.Connected());
  ASSERT_EQ(b.Command("#FLUSH_BUFFER").substr(0, 7), "Client ");
  EXPECT_EQ(b.Command("#GET_BUFFER_COUNT"), "0");
  ASSERT_TRUE(b.Send("#GET_DATA"));
  EXPECT_TRUE(b.Silent(5s)) << "a reply reached the client of an idle card";
  ASSERT_EQ(a.Command("#ENABLE_DMA 1"), "DMA Enabled.\n");
  bool ok = false;
  const SRecord first{b.ReadFrame(&ok, 30s)};
  ASSERT_TRUE(ok) << "no reply once the card recorded again";
  EXPECT_FALSE(first.IsNoDataHeader());
  EXPECT_TRUE(IsRecordWithSensors(first)) << first.Size() << " bytes, status " << (first.Size() >= 88 ? first.Status() : 0);
  EXPECT_GT(first.Sweep(), before.Sweep());

  // A streaming client on the idle card receives no frames, and can still end its stream.
  ASSERT_EQ(a.Command("#ENABLE_DMA 0"), "DMA Disabled.\n");
  ASSERT_TRUE(WaitForQuiet(a)) << "records kept coming with DMA off";
  CTestClient s(server->Port());
  ASSERT_TRUE(s.Connected());
  ASSERT_EQ(s.Command("#SET_USE_STREAM_TOKENS 1"), "Streaming tokens enabled.\n");
  ASSERT_EQ(s.Command("#FLUSH_BUFFER").substr(0, 7), "Client ");
  ASSERT_TRUE(s.Send("#SET_STREAMING_DATA 1"));
  std::string bytes;
  ASSERT_TRUE(s.ReadExact(34, &bytes));
  EXPECT_EQ(bytes, "0000000024Streaming data enabled.\n");
  EXPECT_TRUE(s.Silent(2s)) << "a frame reached the streaming client of an idle card";
  ASSERT_TRUE(s.Send("#SET_STREAMING_DATA 0"));
  // No record frame is open for the token to complete, so it comes in a frame of its own.
  ASSERT_TRUE(s.ReadExact(18, &bytes, 10s)) << "the stream did not end while the card was idle";
  EXPECT_EQ(bytes, "0000000008ZZZZZZZZ");
  EXPECT_EQ(s.Command("#GET_STREAMING_DATA"), "0");
  EXPECT_EQ(s.Command("#GET_USE_STREAM_TOKENS"), "1");

  ASSERT_EQ(a.Command("#ENABLE_DMA 1"), "DMA Enabled.\n");
  EXPECT_TRUE(IsRecordWithSensors(SRecord{s.Command("#GET_DATA", 30s)}));
  // The server neither stopped nor restarted itself over the idle spells.
  EXPECT_EQ(server->WaitExit(10ms), -1) << server->Output();
  const std::string console = server->Output();
  EXPECT_EQ(console.find("**FsCountOffset = "), console.rfind("**FsCountOffset = ")) << console;
}
