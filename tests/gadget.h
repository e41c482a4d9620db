// The service's end of the gadget node in a few lines, for tests of the simulator.
#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <functional>
#include <thread>
#include <utility>
#include <vector>

#include "platform/sys.h"
#include "platform/uvc_events.h"

/// 0 or errno.
inline int outcome(int result) { return result < 0 ? errno : 0; }

/// A small program in the service's place: an open node and three mapped buffers. Calls give 0 or errno.
struct Gadget {
  int fd = -1;
  std::vector<u8*> buffers;

  int call(unsigned long request, void* argument) const { return outcome(sys::ioctl(fd, request, argument)); }
  bool open() { return (fd = sys::open("/dev/video0", O_RDWR | O_NONBLOCK | O_CLOEXEC)) >= 0; }
  static v4l2_format yuyv(u32 width, u32 height) {
    v4l2_format format{.type = V4L2_BUF_TYPE_VIDEO_OUTPUT, .fmt = {}};
    format.fmt.pix.width = width;
    format.fmt.pix.height = height;
    format.fmt.pix.pixelformat = V4L2_PIX_FMT_YUYV;
    format.fmt.pix.field = V4L2_FIELD_INTERLACED;
    return format;
  }
  int set_format(u32 width = 640, u32 height = 480) const {
    v4l2_format format = yuyv(width, height);
    return call(VIDIOC_S_FMT, &format);
  }
  /// VIDIOC_REQBUFS; the result as it is: some drivers give the count.
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

/// Answers events on a thread of its own until the end of the scope.
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
