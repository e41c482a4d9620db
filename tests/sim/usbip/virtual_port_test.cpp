#include "sim/usbip/virtual_port.h"

#include <gtest/gtest.h>

namespace {

TEST(VirtualPortTest, PortsAsLinuxListsThem) {
  const auto ports = sim::parse_port_status(
      "hub port sta spd dev      sockfd local_busid\n"
      "hs  0000 006 003 00010002 000005 3-1\n"
      "hs  0001 004 000 00000000 000000 0-0\n"
      "ss  0008 004 000 00000000 000000 0-0\n"
      "hs  00");
  ASSERT_EQ(ports.size(), 3u);
  EXPECT_EQ(ports[0].device, "3-1");
  EXPECT_EQ(ports[0].state, 6u);
  EXPECT_TRUE(ports[1].high_speed);
  EXPECT_EQ(ports[1].state, sim::kPortFree);
  EXPECT_EQ(ports[2].port, 8u);
  EXPECT_FALSE(ports[2].high_speed);
}

}  // namespace
