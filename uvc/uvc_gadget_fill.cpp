#include "uvc/uvc_gadget_fill.h"

#include <unistd.h>

#include <algorithm>
#include <cstring>

#include "platform/hi_mpi.h"
#include "platform/output.h"
#include "support/print.h"
#include "uvc/uvc_gadget_device.h"
#include "uvc/uvc_gadget_signals.h"
#include "uvc/uvc_gadget_stream.h"
#include "uvc/uvc_gadget_yuv.h"
#include "uvc/uvc_state.h"
#include "vencbuf/vencbuf_get.h"

constexpr char kPrintFile[] = "uvc_gadget.c";

namespace {

constexpr i32 kVpssGroup = 0;
constexpr i32 kVpssChannel = 3;
constexpr i32 kNoTimeLimit = -1;

// A VPSS picture that was taken. Maps both planes; the destructor unmaps them and releases the picture.
class MappedPicture {
 public:
  explicit MappedPicture(const VpssPicture& picture) : source_(picture) {
    planes.luma_stride = picture.stride[0];
    planes.chroma_stride = picture.stride[1];
    planes.width = picture.width;
    planes.height = picture.height;
    planes.chroma_422 = picture.pixel_format == kVpssYuv422SemiPlanar;
    if (!picture_valid(planes)) return;
    luma_ = HI_MPI_SYS_Mmap(picture.phys_addr[0], luma_size());
    chroma_ = HI_MPI_SYS_Mmap(picture.phys_addr[1], chroma_size());
    planes.luma = static_cast<const u8*>(luma_);
    planes.chroma = static_cast<const u8*>(chroma_);
  }
  ~MappedPicture() {
    if (luma_) HI_MPI_SYS_Munmap(luma_, luma_size());
    if (chroma_) HI_MPI_SYS_Munmap(chroma_, chroma_size());
    HI_MPI_VPSS_ReleaseChnFrame(kVpssGroup, kVpssChannel, &source_);
  }
  MappedPicture(const MappedPicture&) = delete;

  bool usable() const { return luma_ && chroma_; }

  SemiPlanarPicture planes = {};

 private:
  u32 luma_size() const { return static_cast<u32>(planes.luma_bytes()); }
  u32 chroma_size() const { return static_cast<u32>(planes.chroma_bytes()); }

  const VpssPicture& source_;
  void* luma_ = nullptr;
  void* chroma_ = nullptr;
};

// Deliberate: a picture in any other pixel format is not given back.
i32 take_picture(VpssPicture* picture) {
  const i32 result = HI_MPI_VPSS_GetChnFrame(kVpssGroup, kVpssChannel, picture, kNoTimeLimit);
  if (result != 0) {
    PRINT_INFO("HI_MPI_VPSS_GetChnFrame Error! %x\n", result);
    return -1;
  }
  if (picture->pixel_format != kVpssYuv420SemiPlanar && picture->pixel_format != kVpssYuv422SemiPlanar) {
    PRINT_INFO("Unsupport Pixel format!\n");
    return -1;
  }
  return 0;
}

u8* memory_of(const v4l2_buffer& buffer) { return uvc_buffers[buffer.index].start; }

u32 capacity_of(const v4l2_buffer& buffer) { return uvc_buffers[buffer.index].length; }

void put_empty_payload(v4l2_buffer& buffer) {
  buffer.bytesused = kEmptyPayload;
  std::memset(memory_of(buffer), 0, kEmptyPayload);
}

void fill_from_vpss(v4l2_buffer& buffer) {
  const u64 committed =
      u64{static_cast<u32>(encoder_record.width)} * static_cast<u32>(encoder_record.height) * 2;
  const u32 room = static_cast<u32>(std::min<u64>(committed, capacity_of(buffer)));
  const i32 result = frame_get_yuv(memory_of(buffer), room, kPackedYuy2);
  buffer.bytesused = result >= 1 ? static_cast<u32>(result) : kEmptyPayload;
}

// What is used of a slot's header, read once: the writer is another process.
struct FrameHeader {
  u32 type;
  i32 width;
  i32 height;
  i32 size;
};

FrameHeader read_header(const EncFrameSlot& slot) {
  volatile const EncFrameSlot& shared = slot;
  return {shared.frame_type, shared.width, shared.height, static_cast<i32>(shared.size)};
}

bool fits_commit(const FrameHeader& frame) {
  if (frame.width != encoder_record.width || frame.height != encoder_record.height) return false;
  return cur_format == kFormatMjpeg ? frame.type == kJpegFrameType : frame.type <= kLastVideoFrameType;
}

bool comes_from_ring(i32 format) {
  return format == kFormatMjpeg || format == kFormatH264 || format == kFormatH265;
}

void copy_frame(v4l2_buffer& buffer, const EncFrameSlot& slot, i32 size) {
  const u32 capacity = capacity_of(buffer);
  if (size <= 0 || static_cast<u32>(size) > capacity) {
    PRINT_INFO("Image size Err %d max=%d\n", size, static_cast<i32>(capacity));
  }
  if (size <= 0) return put_empty_payload(buffer);
  buffer.bytesused = std::min({static_cast<u32>(size), capacity, kEncFrameCapacity});
  std::memcpy(memory_of(buffer), slot.data, buffer.bytesused);
}

// Drops frames until one fits. Returns 0, or -1 when the stream or the service ends before that.
i32 fill_from_ring(v4l2_buffer& buffer) {
  do {
    serve_signals();
    EncFrameSlot* slot = vencbuf_get(stream_goes_on, serve_signals);
    if (!slot) {
      PRINT_ERROR_IN("uvc_video_fill_buffer", "vencbuf_get Error\n");
      put_empty_payload(buffer);
      return 0;
    }
    const FrameHeader frame = read_header(*slot);
    const bool fits = fits_commit(frame);
    if (fits) {
      copy_frame(buffer, *slot, frame.size);
    } else {
      PRINT_INFO("stream col[%d] line[%d], UVC col[%d] line[%d]\n", frame.width, frame.height,
                 i32(encoder_record.width), i32(encoder_record.height));
    }
    vencbuf_release(slot);
    if (fits) return 0;
  } while (stream_goes_on());
  return -1;
}

}  // namespace

i32 frame_get_yuv(u8* destination, u32 dst_size, u32 layout) {
  VpssPicture picture = {};
  if (take_picture(&picture) < 0) return -1;
  const MappedPicture mapped(picture);
  if (!mapped.usable()) {
    PRINT_INFO("VPSS picture %ux%u with strides %u, %u cannot be mapped\n", picture.width, picture.height,
               picture.stride[0], picture.stride[1]);
    return -1;
  }
  const YuvResult result = yuv_convert(mapped.planes, layout, destination, dst_size);
  if (result.luma_out_of_range) output(STDOUT_FILENO, "Check.\n");
  if (yuv_bytes_needed(layout, picture.width, picture.height) > dst_size) {
    PRINT_ERROR("Insufficient memory space.");
  }
  return static_cast<i32>(result.bytes);
}

void uvc_video_fill_buffer(i32, v4l2_buffer* buffer) {
  buffer->bytesused = 0;
  const i32 format = cur_format;
  if (uvc_stream_state.stream_on && format == kFormatYuy2) return fill_from_vpss(*buffer);
  if (uvc_stream_state.stream_on && comes_from_ring(format) && fill_from_ring(*buffer) == 0) return;
  PRINT_INFO("Byte Used IS 0\n");
  put_empty_payload(*buffer);
}
