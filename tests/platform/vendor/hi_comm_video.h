// The vendor's picture record as far as the adapter uses it, with other fields between as a real release has.
#pragma once

#define HI_SUCCESS 0

typedef enum {
  PIXEL_FORMAT_YUV_SEMIPLANAR_422 = 22,
  PIXEL_FORMAT_YUV_SEMIPLANAR_420 = 23,
} PIXEL_FORMAT_E;

typedef struct {
  unsigned int u32Width;
  unsigned int u32Height;
  unsigned int u32Field;
  PIXEL_FORMAT_E enPixelFormat;
  unsigned int u32PhyAddr[3];
  void* pVirAddr[3];
  unsigned int u32Stride[3];
  unsigned long long u64pts;
} VIDEO_FRAME_S;

typedef struct {
  VIDEO_FRAME_S stVFrame;
  unsigned int u32PoolId;
} VIDEO_FRAME_INFO_S;
