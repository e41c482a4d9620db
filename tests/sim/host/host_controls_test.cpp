#include "sim/host/host_controls.h"

#include <gmock/gmock.h>

#include "tests/uvc/uvc_fixture.h"

namespace {

using HostControlsOfTheServiceTest = UvcTest;
TEST_F(HostControlsOfTheServiceTest, HaveTheLengthsThatTheServiceReports) {
  for (const sim::HostControl& control : sim::host_controls()) {
    const auto get = [&](u8 request, u16 length) {
      return setup(request, control.selector, control.entity, sim::kVideoControlInterface, length);
    };
    const bool component =  // the service tells 2 of these: hosts know better
        control.entity == kProcessingUnit && (control.selector == 12 || control.selector == 13);
    EXPECT_THAT(get(UVC_GET_LEN, 2), testing::ElementsAre(component ? 2 : control.length, 0)) << control.name;
    EXPECT_THAT(get(UVC_GET_INFO, 1), testing::ElementsAre(3)) << control.name;
  }
}

}  // namespace
