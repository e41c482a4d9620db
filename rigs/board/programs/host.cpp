// The USB host on the emulated board. Arguments: FOURCC WIDTH HEIGHT FRAMES. It takes pictures from the
// kernel's uvcvideo and compares every byte.
#include <fcntl.h>
#include <linux/videodev2.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "common/bytes.h"
#include "rigs/board/programs/pictures.h"

namespace {

int failed;

void fail(const std::string& what) {
  std::printf("host: %s: %s\n", what.c_str(), std::strerror(errno));
  ++failed;
}

// The capture node with buffers queued and the stream on.
class Capture {
 public:
  Capture(const char* fourcc, u32 width, u32 height) {
    v4l2_format format{};
    format.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    format.fmt.pix.width = width;
    format.fmt.pix.height = height;
    format.fmt.pix.pixelformat = v4l2_fourcc(fourcc[0], fourcc[1], fourcc[2], fourcc[3]);
    const v4l2_format wanted = format;
    call(VIDIOC_S_FMT, &format);
    if (format.fmt.pix.width != width || format.fmt.pix.pixelformat != wanted.fmt.pix.pixelformat) {
      fail("another format was given");
    }
    v4l2_requestbuffers request{};
    request.count = kBuffers;
    request.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    request.memory = V4L2_MEMORY_MMAP;
    call(VIDIOC_REQBUFS, &request);
    for (u32 i = 0; i < kBuffers; ++i) {
      v4l2_buffer buffer = record(i);
      call(VIDIOC_QUERYBUF, &buffer);
      start_[i] = static_cast<u8*>(mmap(nullptr, buffer.length, PROT_READ, MAP_SHARED, fd_, buffer.m.offset));
      call(VIDIOC_QBUF, &buffer);
    }
    int type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    call(VIDIOC_STREAMON, &type);
  }
  ~Capture() { close(fd_); }

  // Returns the next payload, empty after 10 s.
  std::vector<u8> take() {
    pollfd ready{fd_, POLLIN, 0};
    if (poll(&ready, 1, 10'000) <= 0) return {};
    v4l2_buffer buffer = record(0);
    call(VIDIOC_DQBUF, &buffer);
    const u8* start = start_[buffer.index];
    std::vector<u8> payload(start, start + buffer.bytesused);
    call(VIDIOC_QBUF, &buffer);
    return payload;
  }

 private:
  static constexpr u32 kBuffers = 4;

  static v4l2_buffer record(u32 index) {
    v4l2_buffer buffer{};
    buffer.index = index;
    buffer.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    buffer.memory = V4L2_MEMORY_MMAP;
    return buffer;
  }
  void call(unsigned long request, void* argument) const {
    if (ioctl(fd_, request, argument) < 0) fail("video node, request " + std::to_string(request));
  }

  const int fd_ = open("/dev/video1", O_RDWR | O_CLOEXEC);
  u8* start_[kBuffers] = {};
};

double seconds() {
  timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) / 1e9;
}

// Checks that every picture is whole and in order; counts those for which the bus was too slow.
void stream(const char* fourcc, u32 width, u32 height, unsigned long frames) {
  const bool yuy2 = std::strcmp(fourcc, "YUYV") == 0;
  Capture capture(fourcc, width, height);
  unsigned long taken = 0, leading = 0, bytes = 0;
  u32 first = 0, last = 0;
  double begin = 0;
  while (taken < frames && !failed) {
    const std::vector<u8> payload = capture.take();
    if (payload.empty()) return fail("no picture for 10 s after " + std::to_string(taken));
    if (payload.size() < 100) {  // at a stream's start
      if (taken || ++leading > 8) fail("empty picture after " + std::to_string(taken));
      continue;
    }
    const u32 number = yuy2 ? board::yuy2_number(payload.data()) : board::jpeg_number(payload.data());
    errno = 0;
    if (taken && static_cast<i32>(number - last) <= 0) fail("pictures out of order");
    if (payload != (yuy2 ? board::yuy2_picture(number, width, height) : board::jpeg_picture(number))) {
      fail("picture " + std::to_string(number) + " is not what was made");
    }
    if (taken++ == 0) first = number, begin = seconds();
    last = number;
    bytes += payload.size();
  }
  std::printf("= stream_%s %lu of %lux%lu, %lu bytes each, %.1f/s, %lu left out\n", fourcc, taken,
              static_cast<unsigned long>(width), static_cast<unsigned long>(height), bytes / taken,
              static_cast<double>(taken - 1) / (seconds() - begin), last - first + 1 - taken);
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 5) return 2;
  stream(argv[1], std::atoi(argv[2]), std::atoi(argv[3]), std::atoi(argv[4]));
  return failed ? 1 : 0;
}
