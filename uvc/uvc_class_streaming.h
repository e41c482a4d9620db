// Negotiation on the video-streaming interface: probe, commit, still image, and the frame sizes of each
// format. For the control thread only.
#pragma once

#include <cstddef>

#include "uvc/uvc_class_row.h"

enum UvcStreamingSelector : u8 {
  VS_PROBE_CONTROL = 1,
  VS_COMMIT_CONTROL = 2,
  VS_STILL_PROBE_CONTROL = 3,
  VS_STILL_COMMIT_CONTROL = 4,
  VS_STILL_IMAGE_TRIGGER_CONTROL = 5,
};

/// The UVC 1.0 probe and commit block, as it crosses the bus (little-endian, packed).
struct [[gnu::packed]] VsProbeCommit {
  u16 bmHint;
  u8 bFormatIndex;
  u8 bFrameIndex;       ///< from 1 on
  u32 dwFrameInterval;  ///< 100 ns units
  u16 wKeyFrameRate;
  u16 wPFrameRate;
  u16 wCompQuality;
  u16 wCompWindowSize;
  u16 wDelay;
  u32 dwMaxVideoFrameSize;       ///< bytes; the device's own, as is what follows
  u32 dwMaxPayloadTransferSize;  ///< bytes
};
static_assert(sizeof(VsProbeCommit) == 26 && offsetof(VsProbeCommit, dwMaxVideoFrameSize) == 18);

/// The still image probe and commit block (little-endian, packed).
struct [[gnu::packed]] VsStillProbeCommit {
  u8 bFormatIndex;
  u8 bFrameIndex;
  u8 bCompressionIndex;
  u32 dwMaxVideoFrameSize;
  u32 dwMaxPayloadTransferSize;  ///< the device's own
};
static_assert(sizeof(VsStillProbeCommit) == 11);

/// Every entity of the video-streaming interface.
extern const Unit uvc_streaming_interface;
