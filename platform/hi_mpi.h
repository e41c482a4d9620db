// The few calls of the chip's media library (HI_MPI_*) that the service makes, and the picture record that
// they share. Without the vendor's library, the simulator's stand-in provides them all. The vendor's library
// has the same functions, but a picture record of its own; hi_mpi_vendor.cpp translates.
#pragma once

#include "common/bytes.h"

/// Semi-planar pixel formats of a VPSS picture; in both, the chroma plane interleaves V then U.
enum VpssPixelFormat : u32 {
  kVpssYuv422SemiPlanar = 22,
  kVpssYuv420SemiPlanar = 23,
};

/// One picture of the video processing subsystem, in physical memory. Plane 0 is luma, plane 1 chroma.
struct VpssPicture {
  u32 width;         ///< pixels
  u32 height;        ///< lines
  u32 pixel_format;  ///< VpssPixelFormat, or another value that the service refuses
  u32 phys_addr[2];  ///< physical address of each plane
  u32 stride[2];     ///< bytes from one row of the plane to the next
  u32 handle;        ///< the library's own: identifies the picture to be released
};
static_assert(sizeof(VpssPicture) == 32);

// Not extern "C": they are overloads of the vendor's functions of the same names, which take another record.

/// Takes the next picture of a channel. If timeout_ms is -1, waits without limit. Returns 0 or an error code.
i32 HI_MPI_VPSS_GetChnFrame(i32 group, i32 channel, VpssPicture* picture, i32 timeout_ms);
/// Gives back a picture that HI_MPI_VPSS_GetChnFrame took. Returns 0 or an error code.
i32 HI_MPI_VPSS_ReleaseChnFrame(i32 group, i32 channel, const VpssPicture* picture);

extern "C" {

/// Map a physical range without or with caching. Return null on failure; a size of 0 is refused.
void* HI_MPI_SYS_Mmap(u32 phys_addr, u32 size);
void* HI_MPI_SYS_MmapCache(u32 phys_addr, u32 size);
/// Unmaps the pages that cover [address, address + size). Returns 0 or an error code.
i32 HI_MPI_SYS_Munmap(void* address, u32 size);

}  // extern "C"
