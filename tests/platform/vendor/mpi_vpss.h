#pragma once

#include "hi_comm_video.h"

extern "C" {
int HI_MPI_VPSS_GetChnFrame(int VpssGrp, int VpssChn, VIDEO_FRAME_INFO_S* pstVideoFrame, int s32MilliSec);
int HI_MPI_VPSS_ReleaseChnFrame(int VpssGrp, int VpssChn, VIDEO_FRAME_INFO_S* pstVideoFrame);
}
