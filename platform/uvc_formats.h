// The frame sizes of each format, in the order of bFrameIndex from 1 on, for the service, the simulated host
// and its descriptors. It is plain C as well, since the kernel module of rigs/linux reads it; there u16 is
// the kernel's own.
#pragma once

#ifdef __cplusplus
#include "common/bytes.h"
#define FRAME_SIZES(name) constexpr FrameSize name[]
#else
#define FRAME_SIZES(name) static const struct FrameSize name[]
#endif

struct FrameSize {
  u16 width, height;
#ifdef __cplusplus
  bool operator==(const FrameSize&) const = default;
#endif
};

// clang-format off
FRAME_SIZES(kMjpegSizes) = {
    {1920, 1080}, {1280, 720}, {720, 576}, {640, 480}, {320, 240}, {1024, 576}, {960, 540}, {640, 360}, {352, 288},
};
FRAME_SIZES(kH264Sizes) = {
    {1920, 1080}, {1280, 720}, {720, 576}, {640, 480}, {320, 240}, {1024, 576}, {960, 540}, {640, 360}, {352, 288},
};
FRAME_SIZES(kYuy2Sizes) = {
    {320, 240}, {640, 480},
};
FRAME_SIZES(kH265Sizes) = {
    {1920, 1080}, {1280, 720}, {720, 576}, {640, 480}, {320, 240}, {1600, 1200},
};
// clang-format on
