#include "sim/seam/node.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <functional>
#include <thread>

#include "platform/sys.h"
#include "sim/seam/run.h"

namespace {

// 0 or errno.
int outcome(int result) { return result < 0 ? errno : 0; }

// A small program in the service's place: an open node and three mapped buffers. Calls give 0 or errno.
struct Gadget {
  int fd = -1;
  std::vector<u8*> buffers;

  int call(unsigned long request, void* argument) const { return outcome(sys::ioctl(fd, request, argument)); }
  bool open() { return (fd = sys::open("/dev/video0", O_RDWR | O_NONBLOCK | O_CLOEXEC)) >= 0; }
  int set_format() const {
    v4l2_format format{.type = V4L2_BUF_TYPE_VIDEO_OUTPUT, .fmt = {}};
    format.fmt.pix.width = 640;
    format.fmt.pix.height = 480;
    format.fmt.pix.pixelformat = V4L2_PIX_FMT_YUYV;
    format.fmt.pix.field = V4L2_FIELD_INTERLACED;
    return call(VIDIOC_S_FMT, &format);
  }
  // VIDIOC_REQBUFS; the result as it is: some drivers give the count.
  int request(u32 count) const {
    v4l2_requestbuffers request{};
    request.count = count;
    request.type = V4L2_BUF_TYPE_VIDEO_OUTPUT;
    request.memory = V4L2_MEMORY_MMAP;
    return sys::ioctl(fd, VIDIOC_REQBUFS, &request);
  }
  bool map() {
    v4l2_buffer buffer = record(0);
    for (u32 i = 0; i < 3; buffer = record(++i)) {
      if (call(VIDIOC_QUERYBUF, &buffer)) return false;
      void* memory =
          sys::mmap(nullptr, buffer.length, PROT_READ | PROT_WRITE, MAP_SHARED, fd, buffer.m.offset);
      if (memory == MAP_FAILED) return false;
      buffers.push_back(static_cast<u8*>(memory));
    }
    return true;
  }
  bool start() {
    for (u32 type = UVC_EVENT_CONNECT; type <= UVC_EVENT_DATA; ++type)
      if (fd < 0 || subscribe(type)) return false;
    return !set_format() && request(3) == 0 && map();
  }
  static v4l2_buffer record(u32 index) {
    v4l2_buffer buffer{};
    buffer.index = index;
    buffer.type = V4L2_BUF_TYPE_VIDEO_OUTPUT;
    buffer.memory = V4L2_MEMORY_MMAP;
    return buffer;
  }
  int queue(u32 index, u32 bytes) const {
    v4l2_buffer buffer = record(index);
    buffer.bytesused = bytes;
    return call(VIDIOC_QBUF, &buffer);
  }
  int dequeue(v4l2_buffer& buffer) const {
    buffer = record(0);
    return call(VIDIOC_DQBUF, &buffer);
  }
  int dequeue() const {
    v4l2_buffer buffer;
    return dequeue(buffer);
  }
  int stream(unsigned long request) const {
    int type = V4L2_BUF_TYPE_VIDEO_OUTPUT;
    return call(request, &type);
  }
  int subscribe(u32 type) const {
    v4l2_event_subscription subscription{};
    subscription.type = type;
    return call(VIDIOC_SUBSCRIBE_EVENT, &subscription);
  }
  v4l2_event event() const {  // type 0: none
    v4l2_event event{};
    const int error = call(VIDIOC_DQEVENT, &event);
    EXPECT_EQ(error, event.type ? 0 : ENOENT);
    return event;
  }
  int respond(i32 length, u8 first = 0) const {
    UvcRequestData response{.length = length, .data = {first}};
    for (u8 i = 1; i < kUvcRequestDataSize; ++i) response.data[i] = static_cast<u8>(first + i);
    return call(UVCIOC_SEND_RESPONSE, &response);
  }
};

// Answers events on a thread of its own until the end of the scope.
class Answering {
 public:
  Answering(const Gadget& gadget, std::function<void(const v4l2_event&)> answer)
      : thread_([this, gadget, answer = std::move(answer)] {
          while (!end_) {
            const v4l2_event event = gadget.event();
            if (event.type)
              answer(event);
            else
              std::this_thread::sleep_for(std::chrono::microseconds(100));
          }
        }) {}
  ~Answering() {
    end_ = true;
    thread_.join();
  }

 private:
  std::atomic<bool> end_{false};
  std::thread thread_;
};

using namespace std::chrono_literals;
using testing::HasSubstr;
using testing::IsEmpty;

constexpr u32 kFrame = 640 * 480 * 2;
constexpr auto kSoon = 5s;     // for what must come
constexpr auto kNever = 20ms;  // for what must not

class Node : public testing::Test {
 protected:
  Node() { EXPECT_EQ(sys::system("insmod /opt/vcam/ko/extdrv/g_webcam.ko"), 0); }
  ~Node() override { EXPECT_EQ(host.protocol_errors().size(), expected_errors); }

  bool start() { return gadget.open() && gadget.start(); }
  bool take() { return host.take_frame(frame, 0ms); }

  sim::Run run;
  sim::NodeHost host;
  Gadget gadget;
  std::vector<u8> frame;
  size_t expected_errors = 0;
};

TEST_F(Node, BuffersBelongToOneSideAtATime) {
  ASSERT_TRUE(start());
  EXPECT_EQ(gadget.dequeue(), EINVAL);  // the stream is off
  EXPECT_EQ(gadget.queue(0, 2), 0);
  EXPECT_EQ(gadget.queue(0, 2), EINVAL);
  EXPECT_EQ(gadget.queue(1, kFrame + 1), EINVAL);
  EXPECT_EQ(gadget.queue(1, 0), 0);  // all of it
  EXPECT_EQ(gadget.queue(3, 2), EINVAL);
  EXPECT_FALSE(take());
  EXPECT_EQ(gadget.stream(VIDIOC_STREAMON), 0);
  EXPECT_EQ(gadget.stream(VIDIOC_STREAMON), 0);
  EXPECT_EQ(gadget.request(3), -1);
  EXPECT_EQ(gadget.dequeue(), EAGAIN);

  gadget.buffers[0][1] = 7;
  ASSERT_TRUE(take());
  EXPECT_EQ(frame, (std::vector<u8>{0, 7}));
  EXPECT_EQ(gadget.queue(0, 2), EINVAL);  // done, but not dequeued
  ASSERT_TRUE(take());
  EXPECT_EQ(frame.size(), kFrame);
  EXPECT_FALSE(take());

  v4l2_buffer buffer;
  for (const u32 index : {0u, 1u}) {
    ASSERT_EQ(gadget.dequeue(buffer), 0);
    EXPECT_EQ(buffer.index, index);
    EXPECT_EQ(buffer.bytesused, index ? kFrame : 2);
    EXPECT_EQ(buffer.length, kFrame);
  }
  EXPECT_EQ(gadget.dequeue(), EAGAIN);

  EXPECT_EQ(gadget.queue(1, 5), 0);
  EXPECT_EQ(gadget.stream(VIDIOC_STREAMOFF), 0);
  EXPECT_EQ(gadget.dequeue(), EINVAL);
  EXPECT_EQ(gadget.stream(VIDIOC_STREAMON), 0);
  EXPECT_FALSE(take());  // what was queued is gone
  EXPECT_EQ(gadget.queue(1, 5), 0);
  EXPECT_TRUE(take());
}

TEST_F(Node, ClassRequestsReachTheServiceAndBack) {
  ASSERT_TRUE(start());
  usb_ctrlrequest last{};
  UvcRequestData data{};
  i32 length = 0;
  std::atomic<int> late{0}, data_events{0};
  const Answering service(gadget, [&](const v4l2_event& event) {
    if (event.type == UVC_EVENT_SETUP) {
      std::memcpy(&last, event.u.data, sizeof(last));
      if (last.wValue == 0xDEAD) std::this_thread::sleep_for(60ms);
      const int error = gadget.respond(length, 10);
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
  ASSERT_TRUE(start());
  EXPECT_TRUE(host.control({0xA1, 0x81, 0, 0, 2}, {}, kNever).timed_out);
  std::thread service([&] {
    while (gadget.event().u.data[6] != 1) std::this_thread::sleep_for(1ms);
    EXPECT_EQ(gadget.respond(2, 50), 0);
    EXPECT_EQ(gadget.respond(2, 10), EINVAL);
  });
  EXPECT_EQ(host.control({0xA1, 0x81, 0, 0, 1}).data, std::vector<u8>{50});
  service.join();
}

TEST_F(Node, AStopWhileTheHostStartsLeavesTheEndpointOff) {
  bool late_stop = true;
  ASSERT_TRUE(start());
  const Answering service(gadget, [&](const v4l2_event& event) {
    if (event.type == UVC_EVENT_STREAMON && late_stop) gadget.stream(VIDIOC_STREAMOFF);
    if (event.type == UVC_EVENT_STREAMON) gadget.queue(0, 2), gadget.stream(VIDIOC_STREAMON);
    if (event.type == UVC_EVENT_STREAMOFF) gadget.stream(VIDIOC_STREAMOFF);
  });
  EXPECT_TRUE(host.stream_on());
  EXPECT_FALSE(take());
  EXPECT_TRUE(host.stream_off());
  late_stop = false;
  EXPECT_TRUE(host.stream_on());
  EXPECT_TRUE(take());
}

TEST_F(Node, ADisconnectCutsTheStreamOff) {
  ASSERT_TRUE(start());
  EXPECT_EQ(gadget.queue(0, 2), 0);
  host.disconnect();  // idle: nothing happens to the queue
  EXPECT_EQ(gadget.stream(VIDIOC_STREAMON), 0);
  EXPECT_TRUE(take());
  host.disconnect();
  EXPECT_FALSE(take());
  EXPECT_EQ(gadget.dequeue(), ENODEV);
  EXPECT_EQ(gadget.queue(1, 2), ENODEV);
  EXPECT_EQ(gadget.stream(VIDIOC_STREAMOFF), 0);
  EXPECT_EQ(gadget.queue(1, 2), 0);
  EXPECT_EQ(gadget.stream(VIDIOC_STREAMON), 0);
  EXPECT_TRUE(take());
  host.disconnect();
  EXPECT_THAT(host.protocol_errors(), IsEmpty());
  EXPECT_EQ(gadget.stream(VIDIOC_STREAMON), EINVAL);
  EXPECT_THAT(host.protocol_errors(), testing::ElementsAre(HasSubstr("without VIDIOC_STREAMOFF")));
  expected_errors = 1;
}

TEST_F(Node, FaultsComeAsScripted) {
  ASSERT_TRUE(gadget.open());
  for (const char* wrong : {"", "fail QBUF", "fail QBUF 3-2", "fail NOTHING 1", "fail QBUF 1 errno=x",
                            "grant 33", "DQBUF gives index", "QBUF gives index 1"})
    EXPECT_FALSE(host.script(wrong)) << wrong;
  ASSERT_TRUE(host.script("grant 2"));
  ASSERT_TRUE(host.script("reqbufs returns count"));
  EXPECT_EQ(gadget.request(3), 2);
  ASSERT_TRUE(host.script("fail QBUF 2-3"));
  ASSERT_TRUE(host.script("fail STREAMON * errno=28"));
  for (const int error : {0, EIO, EIO, EINVAL}) EXPECT_EQ(gadget.queue(0, 2), error);
  for (int i = 0; i < 3; ++i) EXPECT_EQ(gadget.stream(VIDIOC_STREAMON), ENOSPC);
  ASSERT_TRUE(host.script("clear"));
  EXPECT_EQ(gadget.stream(VIDIOC_STREAMON), 0);
  EXPECT_EQ(gadget.stream(VIDIOC_STREAMOFF), 0);
  EXPECT_EQ(gadget.request(3), 0);
}

}  // namespace
