#include "device/ParallelPort.h"

#include <gtest/gtest.h>

#include "sim/SimCardProvider.h"

// The port's data byte cannot be read back: every bit change is a read-modify-write of the
// shadow, only bit 0 of the value counts, and without the device the shadow still moves.
TEST(ParallelPort, BitWritesWorkOnTheShadowAndAMissingDeviceIsExplained) {
  sim::CSimCardProvider card;
  ASSERT_EQ(init_pp_driver(&card), 0);
  pp_write(4);
  pp_write_bit(3, 1);  // client LED on
  pp_write_bit(4, 3);  // ready LED on (bit 0 of 3 is set)
  pp_write_bit(3, 2);  // bit 0 of 2 is clear: client LED off
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
