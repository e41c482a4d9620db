// The calls of hi_mpi.h that take a picture, over the chip vendor's library. The only file that knows the
// vendor's records: another release of that library is met here. The mapping calls are the vendor's own, as
// they are.
#include <hi_comm_video.h>
#include <mpi_sys.h>
#include <mpi_vpss.h>

#include "platform/hi_mpi.h"

static_assert(u32{PIXEL_FORMAT_YUV_SEMIPLANAR_422} == kVpssYuv422SemiPlanar &&
              u32{PIXEL_FORMAT_YUV_SEMIPLANAR_420} == kVpssYuv420SemiPlanar);

// The library wants its own record back. One is enough: the main thread takes a picture at a time.
static VIDEO_FRAME_INFO_S taken;

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
