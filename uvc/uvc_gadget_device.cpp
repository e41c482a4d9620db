#include "uvc/uvc_gadget_device.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <iterator>

#include "common/stream_state.h"
#include "platform/sys.h"
#include "support/print.h"
#include "uvc/uvc_gadget_signals.h"
#include "uvc/uvc_state.h"

constexpr char kPrintFile[] = "uvc_gadget.c";

namespace {

constexpr char kNode[] = "/dev/video0";
constexpr useconds_t kReopenPause = 100'000;
constexpr u32 kWantedBuffers = 3;

// The driver sizes its buffers by this format; what is streamed in them is negotiated with the host.
v4l2_format sizing_format() {
  v4l2_format format = {};
  format.type = V4L2_BUF_TYPE_VIDEO_OUTPUT;
  format.fmt.pix.width = 1280;
  format.fmt.pix.height = 720;
  format.fmt.pix.pixelformat = V4L2_PIX_FMT_YUYV;
  format.fmt.pix.field = V4L2_FIELD_INTERLACED;
  return format;
}
static_assert(V4L2_FIELD_INTERLACED == 4 && V4L2_PIX_FMT_YUYV == 0x56595559);

i32 set_format() {
  v4l2_format format = sizing_format();
  i32 result = sys::ioctl(uvc_video_fd, VIDIOC_S_FMT, &format);
  if (result < 0) {
    PRINT_INFO("VIDIOC_S_FMT failed (%d)\n", result);
    return -1;
  }
  result = sys::ioctl(uvc_video_fd, VIDIOC_G_FMT, &format);
  if (result < 0) {
    PRINT_INFO("VIDIOC_G_FMT failed (%d)\n", result);
    return -1;
  }
  return 0;
}

// Newer drivers return the granted count, so only a negative result is a failure.
i32 request_buffers() {
  v4l2_requestbuffers request = {};
  request.count = kWantedBuffers;
  request.type = V4L2_BUF_TYPE_VIDEO_OUTPUT;
  request.memory = V4L2_MEMORY_MMAP;
  if (sys::ioctl(uvc_video_fd, VIDIOC_REQBUFS, &request) < 0) return -1;
  uvc_buffer_count = std::min<u32>(request.count, std::size(uvc_buffers));
  return 0;
}

// Returns 0, or -1 and leaves the buffer unmapped. The index in the driver's answer is ignored.
i32 map_queried(u32 index, const v4l2_buffer& record) {
  void* start = sys::mmap(nullptr, record.length, PROT_READ | PROT_WRITE, MAP_SHARED, uvc_video_fd,
                          static_cast<off_t>(record.m.offset));
  if (start == MAP_FAILED) return -1;
  uvc_buffers[index] = {static_cast<u8*>(start), record.length};
  return 0;
}

void unmap_all() {
  for (u32 i = 0; i < uvc_buffer_count; ++i) {
    if (uvc_buffers[i].start) sys::munmap(uvc_buffers[i].start, uvc_buffers[i].length);
    uvc_buffers[i] = {};
  }
}

i32 queue_empty(u32 index) {
  std::memset(uvc_buffers[index].start, 0, uvc_buffers[index].length);
  v4l2_buffer record = uvc_buffer_record(index);
  record.bytesused = kEmptyPayload;
  return sys::ioctl(uvc_video_fd, VIDIOC_QBUF, &record);
}

i32 query_and_map(u32 index) {
  v4l2_buffer record = uvc_buffer_record(index);
  if (sys::ioctl(uvc_video_fd, VIDIOC_QUERYBUF, &record) < 0) return -1;
  return map_queried(index, record);
}

i32 map_and_queue_all() {
  for (u32 i = 0; i < uvc_buffer_count; ++i) {
    if (query_and_map(i) < 0) return -1;
  }
  for (u32 i = 0; i < uvc_buffer_count; ++i) {
    const i32 result = queue_empty(i);
    if (result < 0) {
      PRINT_INFO("VIDIOC_QBUF (%d) failed (%d)\n", i, result);
      return -1;
    }
  }
  return 0;
}

i32 configure() {
  v4l2_capability capability = {};
  if (sys::ioctl(uvc_video_fd, VIDIOC_QUERYCAP, &capability) < 0) return -1;
  if (set_format() < 0 || request_buffers() < 0) return -1;
  return map_and_queue_all();
}

// The number is forgotten first: once it is closed, another file may get it.
void close_node() {
  const i32 number = uvc_video_fd;
  uvc_video_fd = -1;
  sys::close(number);
}

}  // namespace

v4l2_buffer uvc_buffer_record(u32 index) {
  v4l2_buffer record = {};
  record.index = index;
  record.type = V4L2_BUF_TYPE_VIDEO_OUTPUT;
  record.memory = V4L2_MEMORY_MMAP;
  return record;
}

// Deliberate: only a failed open pauses. A node that opens and then refuses a step is tried again at once.
i32 uvc_device_open() {
  for (;;) {
    uvc_video_fd = sys::open(kNode, O_RDWR | O_NONBLOCK | O_CLOEXEC);
    if (uvc_video_fd >= 0) {
      if (configure() == 0) return 0;
      uvc_device_close();
    } else {
      sys::usleep(kReopenPause);
    }
    serve_signals();
    if (uvc_stream_state.exit_flag) return -1;
  }
}

void uvc_device_close() {
  unmap_all();
  uvc_buffer_count = 0;
  close_node();
}

void uvc_device_give_up() {
  const i32 nothing = sys::open("/dev/null", O_RDWR | O_CLOEXEC);
  if (nothing < 0) return close_node();
  dup2(nothing, uvc_video_fd);
  fcntl(uvc_video_fd, F_SETFD, FD_CLOEXEC);
  sys::close(nothing);
}

i32 uvc_device_rearm_buffer(u32 index) {
  if (query_and_map(index) < 0) return -1;
  queue_empty(index);
  return 0;
}

void uvc_device_rearm() {
  unmap_all();
  for (u32 i = 0; i < uvc_buffer_count; ++i) {
    if (uvc_device_rearm_buffer(i) < 0) PRINT_INFO("set mmap errr\n");
  }
}
