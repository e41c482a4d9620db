// Frames cut into payloads, and put together as a host does.
#include "sim/usbip/payloads.h"

#include <gmock/gmock.h>
#include <linux/usb/video.h>

#include <array>
#include <numeric>

namespace {

using testing::ElementsAre;

TEST(PayloadsTest, FramesArriveWithTheirHeaders) {
  std::vector<u8> frame(7000);
  std::iota(frame.begin(), frame.end(), u8{0});
  sim::PayloadCutter cutter;
  std::array<u8, 3072> packet;
  EXPECT_EQ(cutter.cut(packet, 0), 0u);
  for (const unsigned id : {0, 1, 0}) {
    cutter.begin(frame, 2'000'000);
    std::vector<u8> together;
    std::vector<unsigned> flags, headers;
    while (!cutter.done()) {
      const std::size_t size = cutter.cut(packet, 5'000'000);
      flags.push_back(packet[1]);
      headers.push_back(packet[0]);
      together.insert(together.end(), packet.begin() + packet[0], packet.begin() + size);
      EXPECT_EQ(get_le32(&packet[packet[0] - 6]), 5000u * 48) << "source clock";
      if (headers.size() == 1) {
        EXPECT_EQ(get_le32(&packet[2]), 2000u * 48) << "presentation time";
      }
    }
    const unsigned all = UVC_STREAM_EOH | UVC_STREAM_SCR | id;
    EXPECT_THAT(flags, ElementsAre(all | UVC_STREAM_PTS, all, all | UVC_STREAM_EOF));
    EXPECT_THAT(headers, ElementsAre(12, 8, 8));
    EXPECT_EQ(together, frame);
  }
}

TEST(PayloadsTest, PacketsWithoutRoomAndFramesThatAreLeft) {
  sim::PayloadCutter cutter;
  std::array<u8, 20> packet;
  cutter.begin(std::vector<u8>(9, 1), 1);
  EXPECT_EQ(cutter.cut(std::span(packet).first(12), 1), 0u);
  EXPECT_EQ(cutter.cut(packet, 1), 20u);
  EXPECT_FALSE(cutter.done());
  cutter.reset();
  EXPECT_EQ(cutter.cut(packet, 1), 0u);
  cutter.begin(std::vector<u8>(2, 1), 1);
  EXPECT_EQ(cutter.cut(packet, 1), 14u);
  EXPECT_EQ(packet[1] & (UVC_STREAM_EOF | UVC_STREAM_FID), UVC_STREAM_EOF)
      << "in place of the one that was left";
}

}  // namespace
