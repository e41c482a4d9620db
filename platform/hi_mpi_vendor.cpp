// The calls of hi_mpi.h that take a picture, on top of the chip vendor's library. This is the only file that
// knows the vendor's records, so an adaptation to another release of that library belongs here. The mapping
// calls are the vendor's own.
#include <hi_comm_video.h>
#include <mpi_sys.h>
#include <mpi_vpss.h>

#include "platform/hi_mpi.h"

static_assert(u32{PIXEL_FORMAT_YUV_SEMIPLANAR_422} == kVpssYuv422SemiPlanar &&
              u32{PIXEL_FORMAT_YUV_SEMIPLANAR_420} == kVpssYuv420SemiPlanar);

namespace {

// The library wants its own record back. One is enough, because only the main thread takes pictures, one
// at a time.
VIDEO_FRAME_INFO_S taken;

}  // namespace

i32 HI_MPI_VPSS_GetChnFrame(i32 group, i32 channel, VpssPicture* picture, i32 timeout_ms) {
  const i32 result = HI_MPI_VPSS_GetChnFrame(group, channel, &taken, timeout_ms);
  if (result != HI_SUCCESS) return result;
  const VIDEO_FRAME_S& frame = taken.stVFrame;
  *picture = {.width = frame.u32Width,
              .height = frame.u32Height,
              .pixel_format = static_cast<u32>(frame.enPixelFormat),
              .phys_addr = {frame.u32PhyAddr[0], frame.u32PhyAddr[1]},
              .stride = {frame.u32Stride[0], frame.u32Stride[1]},
              .handle = taken.u32PoolId};
  return 0;
}

i32 HI_MPI_VPSS_ReleaseChnFrame(i32 group, i32 channel, const VpssPicture*) {
  return HI_MPI_VPSS_ReleaseChnFrame(group, channel, &taken);
}
