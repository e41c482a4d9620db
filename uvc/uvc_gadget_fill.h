// Puts one frame into one dequeued gadget buffer: YUY2 from a picture of the video processing subsystem, or
// an encoded frame from the ring. Main thread only.
#pragma once

#include <linux/videodev2.h>

#include "common/bytes.h"

/// Fills the memory of buffer->index and sets buffer->bytesused. Every failure leaves a payload of 2 bytes,
/// so that the host always gets its buffer back. The first argument is not used; pass 0.
void uvc_video_fill_buffer(i32 reserved, v4l2_buffer* buffer);

/// Takes one picture from VPSS group 0, channel 3, for which it waits without limit, and writes it to
/// `destination`, of `dst_size` bytes, in a layout of uvc_gadget_yuv.h (YuvLayout). Returns the layout's byte
/// count, or prints a message and returns -1; for an unknown layout it prints none. Prints "Check." on
/// standard output when a luma byte is outside 16..235.
i32 frame_get_yuv(u8* destination, u32 dst_size, u32 layout);
