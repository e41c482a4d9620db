// The video processing subsystem: picture records of any geometry, in every layout.
#include "platform/hi_mpi.h"
#include "support/print.h"
#include "tests/fuzz/fuzz.h"
#include "uvc/uvc_gadget_fill.h"
#include "uvc/uvc_gadget_yuv.h"
#include "uvc/uvc_state.h"

namespace {

using fuzz::check;

constexpr u32 kMost = 1 << 17;  // larger planes cannot be mapped
constexpr u8 kUntouched = 0xEE;

struct Library {
  fuzz::Guarded planes[2]{fuzz::Guarded(kMost), fuzz::Guarded(kMost)};
  VpssPicture picture = {};
  u8 luma = 0;
  i32 result = 0;
  int mapped = 0, kept = 0;
};
Library& library() {
  static Library the_only;
  return the_only;
}

}  // namespace

i32 HI_MPI_VPSS_GetChnFrame(i32, i32, VpssPicture* picture, i32) {
  *picture = library().picture;
  if (library().result == 0) ++library().kept;
  return library().result;
}
i32 HI_MPI_VPSS_ReleaseChnFrame(i32, i32, const VpssPicture*) { return library().kept--, 0; }
void* HI_MPI_SYS_Mmap(u32 address, u32 size) {
  if (size == 0 || size > kMost) return nullptr;
  ++library().mapped;
  const auto plane = library().planes[address].lend(size);
  std::fill(plane.begin(), plane.end(), library().luma);
  return plane.data();
}
void* HI_MPI_SYS_MmapCache(u32, u32) { return nullptr; }
i32 HI_MPI_SYS_Munmap(void*, u32) { return library().mapped--, 0; }

extern "C" int LLVMFuzzerTestOneInput(const u8* bytes, std::size_t size) {
  static const fuzz::Guarded memory(kMost);
  fuzz::Input input(bytes, size);
  print_level = 4;
  while (!input.empty()) {
    const u8 kind = input.take<u8>();
    const u32 layout = kind / 2 % 6;
    VpssPicture& picture = library().picture;
    library().luma = input.take<u8>();
    library().result = kind & 0x80 ? input.take<u8>() : 0;
    const u32 width = input.number(), height = input.number();
    const u32 strides[] = {width + input.number() - 2, width + input.number() - 2};
    picture = {.width = width,
               .height = height,
               .pixel_format = 21 + kind / 16 % 4u,
               .phys_addr = {0, 1},
               .stride = {strides[0], strides[1]},
               .handle = 0};
    const u64 needed = yuv_bytes_needed(layout, width, height);
    const auto room = static_cast<u32>(std::min<u64>((kind & 1 ? needed : 0) + input.number(), kMost));
    const auto to = memory.lend(std::max(room, 2u));
    std::fill(to.begin(), to.end(), kUntouched);

    const i32 result = frame_get_yuv(to.data(), room, layout);
    check(result <= i64{room}, "no more is reported than there is room");
    const std::size_t written = result < 0 ? 0 : static_cast<std::size_t>(needed);
    check(std::count(to.begin() + static_cast<long>(written), to.end(), kUntouched) ==
              static_cast<long>(to.size() - written),
          "nothing is written beyond the picture");

    v4l2_buffer buffer = {};
    uvc_buffers[0] = {to.data(), static_cast<u32>(to.size())};
    cur_format = kFormatYuy2;
    uvc_stream_state.stream_on = 1;
    encoder_record.width = static_cast<i32>(input.number());
    encoder_record.height = static_cast<i32>(input.number());
    uvc_video_fill_buffer(0, &buffer);
    check(buffer.bytesused >= 2 && buffer.bytesused <= to.size(), "a payload is inside its buffer");
    // A picture in an unknown pixel format is not given back.
    const bool known =
        picture.pixel_format == kVpssYuv420SemiPlanar || picture.pixel_format == kVpssYuv422SemiPlanar;
    check(library().mapped == 0 && (library().kept == 0 || !known), "a picture is unmapped and given back");
    library().kept = 0;
  }
  return 0;
}
