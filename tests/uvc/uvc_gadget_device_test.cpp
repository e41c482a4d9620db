// The gadget node's set-up: the calls in order, and a way back from every step that fails.
#include "uvc/uvc_gadget_device.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/resource.h>

#include <csignal>
#include <cstring>
#include <fstream>
#include <thread>

#include "platform/sys.h"
#include "sim/seam/node.h"
#include "sim/seam/run.h"
#include "support/print.h"
#include "tests/printed_by.h"
#include "uvc/uvc_gadget_signals.h"
#include "uvc/uvc_state.h"

using testing::HasSubstr;

namespace {

class DeviceTest : public testing::Test {
 protected:
  DeviceTest() { sys::system("insmod /opt/vcam/ko/extdrv/g_webcam.ko"); }

  static long node_mappings() {
    std::ifstream maps("/proc/self/maps");
    long count = 0;
    for (std::string line; std::getline(maps, line);) count += line.find("/dev/video0") != std::string::npos;
    return count;
  }

  sim::Run run;
  sim::NodeHost host;
};

TEST_F(DeviceTest, ConfiguresMapsAndQueuesThreeEmptyBuffers) {
  ASSERT_EQ(uvc_device_open(), 0);
  EXPECT_EQ(fcntl(uvc_video_fd, F_GETFD) & FD_CLOEXEC, FD_CLOEXEC);
  EXPECT_EQ(uvc_buffer_count, 3u);
  EXPECT_EQ(uvc_buffers[2].length, 1280u * 720 * 2);
  EXPECT_THAT(host.call_log(), HasSubstr("QBUF index=0 bytesused=2 -> 0\nQBUF index=1 bytesused=2 -> 0\n"
                                         "QBUF index=2 bytesused=2 -> 0\n"));
  uvc_device_close();
  EXPECT_EQ(uvc_video_fd, -1);
}

TEST_F(DeviceTest, EveryFailingStepIsTriedAgainUntilItWorks) {
  const struct {
    const char *fault, *text;
  } rows[] = {
      {"fail OPEN 1", ""},
      {"fail QUERYCAP 1", ""},
      {"fail S_FMT 1", "VIDIOC_S_FMT failed (-1)\n"},
      {"fail G_FMT 1", "VIDIOC_G_FMT failed (-1)\n"},
      {"fail REQBUFS 1", ""},
      {"fail QUERYBUF 2", ""},
      {"fail MMAP 3", ""},
      {"fail QBUF 2", "VIDIOC_QBUF (1) failed (-1)\n"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.fault);
    ASSERT_TRUE(host.script("clear") && host.script(row.fault));
    EXPECT_EQ(printed_by([] { EXPECT_EQ(uvc_device_open(), 0); }), row.text);
    EXPECT_EQ(uvc_buffer_count, 3u);
    EXPECT_EQ(node_mappings(), 3) << "those of the failed try are undone";
    uvc_device_close();
  }
}

TEST_F(DeviceTest, TakesWhatTheDriverGrants) {
  ASSERT_TRUE(host.script("grant 2") && host.script("reqbufs returns count"));
  ASSERT_EQ(uvc_device_open(), 0);
  EXPECT_EQ(uvc_buffer_count, 2u);
  uvc_device_close();
  ASSERT_TRUE(host.script("QUERYBUF gives index 4294967295"));
  ASSERT_EQ(uvc_device_open(), 0);
  EXPECT_TRUE(uvc_buffers[0].start && uvc_buffers[1].start) << "the buffers that were asked for";
  uvc_device_close();
  ASSERT_TRUE(host.script("grant 0"));
  ASSERT_EQ(uvc_device_open(), 0);
  EXPECT_EQ(uvc_buffer_count, 0u);
}

TEST_F(DeviceTest, ReopeningEndsWithTheService) {
  ASSERT_TRUE(host.script("fail OPEN *"));
  const std::jthread ender([] {
    sys::usleep(150'000);
    uvc_stream_state.exit_flag = 1;
  });
  EXPECT_EQ(uvc_device_open(), -1);
}

TEST_F(DeviceTest, RearmClearsBuffersAndLeavesOutWhatCannotBeMapped) {
  ASSERT_EQ(uvc_device_open(), 0);
  std::memset(uvc_buffers[2].start, 0xEE, 100);
  ASSERT_TRUE(host.script("fail MMAP 2") && host.script("fail MMAP 4"));
  EXPECT_EQ(printed_by(uvc_device_rearm), "set mmap errr\n");
  EXPECT_EQ(printed_by([] { EXPECT_EQ(uvc_device_rearm_buffer(1), -1); }), "");
  EXPECT_EQ(uvc_buffers[1].start, nullptr);
  ASSERT_NE(uvc_buffers[2].start, nullptr);
  EXPECT_EQ(uvc_buffers[2].start[0] + uvc_buffers[2].start[99], 0);
  EXPECT_EQ(uvc_device_rearm_buffer(1), 0);
  EXPECT_NE(uvc_buffers[1].start, nullptr);
}

TEST_F(DeviceTest, GivesTheNodeUpWithoutAFreeDescriptorToo) {
  ASSERT_EQ(uvc_device_open(), 0);
  const i32 number = uvc_video_fd;
  rlimit usual;
  ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &usual), 0);
  const rlimit few = {64, usual.rlim_max};
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &few), 0);
  while (open("/dev/null", O_RDONLY | O_CLOEXEC) >= 0) {
  }
  uvc_device_give_up();
  setrlimit(RLIMIT_NOFILE, &usual);
  EXPECT_EQ(fcntl(number, F_GETFD), -1);
  EXPECT_THAT(host.call_log(), testing::EndsWith("CLOSE -> 0\n"));
  EXPECT_EQ(uvc_video_fd, -1) << "the number may become another file's";
}

TEST_F(DeviceTest, LevelFileIsReadAgainWhileTheNodeCannotBeHad) {
  run.write_file("/opt/params/print.conf", "uvc_gadget=warn\n");
  install_reload_handler();
  ASSERT_TRUE(host.script("fail OPEN 1"));
  raise(SIGUSR1);
  ASSERT_EQ(uvc_device_open(), 0);
  EXPECT_EQ(print_level, 2);
  print_level = 4;
  serve_signals();
  EXPECT_EQ(print_level, 4) << "once a signal";
}

}  // namespace
