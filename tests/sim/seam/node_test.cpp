#include "sim/seam/node.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <thread>

#include "tests/uvc/uvc_fixture.h"

namespace {

using namespace std::chrono_literals;
using testing::HasSubstr;
using testing::IsEmpty;

constexpr u32 kFrame = 1280 * 720 * 2;

// The node as the service sets it up, with three mapped buffers, none of them queued. Its calls give 0 or the
// value of errno.
class Node : public UvcTest {
 protected:
  void SetUp() override {
    UvcTest::SetUp();
    ASSERT_EQ(stream(VIDIOC_STREAMOFF), 0);
  }
  void TearDown() override { EXPECT_EQ(host.protocol_errors().size(), expected_errors); }

  static int call(unsigned long request, void* argument) {
    return sys::ioctl(uvc_video_fd, request, argument) < 0 ? errno : 0;
  }
  static v4l2_buffer record(u32 index, u32 bytes = 0) {
    v4l2_buffer buffer{};
    buffer.index = index;
    buffer.type = V4L2_BUF_TYPE_VIDEO_OUTPUT;
    buffer.memory = V4L2_MEMORY_MMAP;
    buffer.bytesused = bytes;
    return buffer;
  }
  static int queue(u32 index, u32 bytes) {
    v4l2_buffer buffer = record(index, bytes);
    return call(VIDIOC_QBUF, &buffer);
  }
  int dequeue() {
    done = record(0);
    return call(VIDIOC_DQBUF, &done);
  }
  static int stream(unsigned long request) {
    int type = V4L2_BUF_TYPE_VIDEO_OUTPUT;
    return call(request, &type);
  }
  static v4l2_event event() {  // type 0: none
    v4l2_event event{};
    const int error = call(VIDIOC_DQEVENT, &event);
    EXPECT_EQ(error, event.type ? 0 : ENOENT);
    return event;
  }
  static int respond(i32 length, u8 first = 0) {
    UvcRequestData response{.length = length, .data = {first}};
    for (u8 i = 1; i < kUvcRequestDataSize; ++i) response.data[i] = static_cast<u8>(first + i);
    return call(UVCIOC_SEND_RESPONSE, &response);
  }
  // Answers events on a thread of its own until the end of the scope.
  template <typename Answer>
  static std::jthread answering(Answer answer) {
    return std::jthread([answer](std::stop_token end) {
      for (; !end.stop_requested(); std::this_thread::sleep_for(100us)) {
        if (const v4l2_event next = event(); next.type) answer(next);
      }
    });
  }
  bool take() { return host.take_frame(frame, 0ms); }

  std::vector<u8> frame;
  v4l2_buffer done;  // what was dequeued last
  size_t expected_errors = 0;
};

TEST_F(Node, BuffersBelongToOneSideAtATime) {
  EXPECT_EQ(dequeue(), EINVAL);  // the stream is off
  EXPECT_EQ(queue(0, 2), 0);
  EXPECT_EQ(queue(0, 2), EINVAL);
  EXPECT_EQ(queue(1, kFrame + 1), EINVAL);
  EXPECT_EQ(queue(1, 0), 0);  // all of it
  EXPECT_EQ(queue(3, 2), EINVAL);
  EXPECT_FALSE(take());
  EXPECT_EQ(stream(VIDIOC_STREAMON), 0);
  EXPECT_EQ(stream(VIDIOC_STREAMON), 0);
  v4l2_requestbuffers anew{};
  anew.type = V4L2_BUF_TYPE_VIDEO_OUTPUT;
  anew.memory = V4L2_MEMORY_MMAP;
  EXPECT_EQ(call(VIDIOC_REQBUFS, &anew), EBUSY);
  EXPECT_EQ(dequeue(), EAGAIN);

  uvc_buffers[0].start[1] = 7;
  ASSERT_TRUE(take());
  EXPECT_EQ(frame, (std::vector<u8>{0, 7}));
  EXPECT_EQ(queue(0, 2), EINVAL);  // done, but not dequeued
  ASSERT_TRUE(take());
  EXPECT_EQ(frame.size(), kFrame);
  EXPECT_FALSE(take());

  for (const u32 index : {0u, 1u}) {
    ASSERT_EQ(dequeue(), 0);
    EXPECT_EQ(done.index, index);
    EXPECT_EQ(done.bytesused, index ? kFrame : 2);
    EXPECT_EQ(done.length, kFrame);
  }
  EXPECT_EQ(dequeue(), EAGAIN);

  EXPECT_EQ(queue(1, 5), 0);
  EXPECT_EQ(stream(VIDIOC_STREAMOFF), 0);
  EXPECT_EQ(dequeue(), EINVAL);
  EXPECT_EQ(stream(VIDIOC_STREAMON), 0);
  EXPECT_FALSE(take());  // what was queued is gone
  EXPECT_EQ(queue(1, 5), 0);
  EXPECT_TRUE(take());
}

TEST_F(Node, ClassRequestsReachTheServiceAndBack) {
  usb_ctrlrequest last{};
  UvcRequestData data{};
  i32 length = 0;
  std::atomic<int> late{0}, data_events{0};
  const std::jthread service = answering([&](const v4l2_event& event) {
    if (event.type == UVC_EVENT_SETUP) {
      std::memcpy(&last, event.u.data, sizeof(last));
      if (last.wValue == 0xDEAD) std::this_thread::sleep_for(60ms);
      const int error = respond(length, 10);
      if (last.wValue == 0xDEAD) late = error;
    } else if (event.type == UVC_EVENT_DATA) {
      std::memcpy(&data, event.u.data, sizeof(data));
      ++data_events;
    }
  });
  constexpr u8 kIn = 0xA1, kOut = 0x21;
  const std::vector<u8> sent{1, 2, 3, 4};
  const struct {
    u8 type;
    u16 wanted;
    i32 length;
    size_t got;  // bytes that reach the host, or with SET the service
    bool stalled;
  } rows[] = {
      {kIn, 8, 2, 2, false},  {kIn, 2, 26, 2, false},  {kIn, 64, 255, 60, false},
      {kIn, 65, 2, 0, true},  {kIn, 2, -1, 0, true},   {kIn, 0, 0, 0, false},
      {kOut, 4, 4, 4, false}, {kOut, 2, 26, 2, false}, {kOut, 4, -5, 0, true},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(testing::Message() << int{row.type} << ' ' << row.wanted << ' ' << row.length);
    length = row.length;
    const int before = data_events;
    const bool set = row.type == kOut;
    const auto answer =
        host.control({row.type, 0x81, 0x0200, 0x0301, row.wanted}, set ? sent : std::vector<u8>{});
    EXPECT_EQ(answer.stalled, row.stalled);
    EXPECT_FALSE(answer.timed_out);
    EXPECT_EQ(answer.data.size(), set ? 0 : row.got);
    EXPECT_TRUE(answer.data.empty() || answer.data[0] == 10);
    if (!set || row.stalled) continue;
    while (data_events == before) std::this_thread::sleep_for(1ms);
    EXPECT_EQ(data.length, static_cast<i32>(row.got));
    EXPECT_TRUE(std::equal(data.data, data.data + row.got, sent.begin()));
  }
  EXPECT_EQ(last.wIndex, 0x0301);

  length = 2;
  const auto answer = host.control({kIn, 0x81, 0xDEAD, 0, 2}, {}, 5ms);
  EXPECT_TRUE(answer.stalled && answer.timed_out);
  while (late == 0) std::this_thread::sleep_for(1ms);
  EXPECT_EQ(late, EINVAL);
  EXPECT_EQ(host.control({kIn, 0x81, 0, 0, 2}).data, (std::vector<u8>{10, 11}));
}

TEST_F(Node, AnAnswerThatComesLateIsTheNewestRequests) {
  EXPECT_TRUE(host.control({0xA1, 0x81, 0, 0, 2}, {}, 20ms).timed_out);
  const std::jthread service([&] {
    while (event().u.data[6] != 1) std::this_thread::sleep_for(1ms);
    EXPECT_EQ(respond(2, 50), 0);
    EXPECT_EQ(respond(2, 10), EINVAL);
  });
  EXPECT_EQ(host.control({0xA1, 0x81, 0, 0, 1}).data, std::vector<u8>{50});
}

TEST_F(Node, AStopWhileTheHostStartsLeavesTheEndpointOff) {
  bool late_stop = true;
  const std::jthread service = answering([&](const v4l2_event& event) {
    if (event.type == UVC_EVENT_STREAMON && late_stop) stream(VIDIOC_STREAMOFF);
    if (event.type == UVC_EVENT_STREAMON) queue(0, 2), stream(VIDIOC_STREAMON);
    if (event.type == UVC_EVENT_STREAMOFF) stream(VIDIOC_STREAMOFF);
  });
  EXPECT_TRUE(host.stream_on());
  EXPECT_FALSE(take());
  EXPECT_TRUE(host.stream_off());
  late_stop = false;
  EXPECT_TRUE(host.stream_on());
  EXPECT_TRUE(take());
}

TEST_F(Node, ADisconnectCutsTheStreamOff) {
  EXPECT_EQ(queue(0, 2), 0);
  host.disconnect();  // idle: nothing happens to the queue
  EXPECT_EQ(stream(VIDIOC_STREAMON), 0);
  EXPECT_TRUE(take());
  host.disconnect();
  EXPECT_FALSE(take());
  EXPECT_EQ(dequeue(), ENODEV);
  EXPECT_EQ(queue(1, 2), ENODEV);
  EXPECT_EQ(stream(VIDIOC_STREAMOFF), 0);
  EXPECT_EQ(queue(1, 2), 0);
  EXPECT_EQ(stream(VIDIOC_STREAMON), 0);
  EXPECT_TRUE(take());
  host.disconnect();
  EXPECT_THAT(host.protocol_errors(), IsEmpty());
  EXPECT_EQ(stream(VIDIOC_STREAMON), EINVAL);
  EXPECT_THAT(host.protocol_errors(), testing::ElementsAre(HasSubstr("without VIDIOC_STREAMOFF")));
  expected_errors = 1;
}

TEST_F(Node, FaultsComeAsScripted) {
  for (const char* wrong : {"", "fail QBUF", "fail QBUF 3-2", "fail NOTHING 1", "fail QBUF 1 errno=x",
                            "grant 33", "DQBUF gives index", "QBUF gives index 1"})
    EXPECT_FALSE(host.script(wrong)) << wrong;
  ASSERT_TRUE(host.script("fail QBUF 2-3"));
  ASSERT_TRUE(host.script("fail STREAMON * errno=28"));
  for (const int error : {0, EIO, EIO, EINVAL}) EXPECT_EQ(queue(0, 2), error);
  for (int i = 0; i < 3; ++i) EXPECT_EQ(stream(VIDIOC_STREAMON), ENOSPC);
  ASSERT_TRUE(host.script("clear"));
  EXPECT_EQ(stream(VIDIOC_STREAMON), 0);
  EXPECT_EQ(stream(VIDIOC_STREAMOFF), 0);
}

}  // namespace
