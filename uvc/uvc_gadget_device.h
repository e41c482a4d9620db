// The gadget node /dev/video0 as a V4L2 output device: open, configure, map, re-arm, release. For the main
// thread only, except uvc_device_give_up. The events, and the start and stop of the stream, belong to the
// control thread (uvc_class.h).
#pragma once

#include <linux/videodev2.h>

#include "common/bytes.h"

/// Opens and configures the node, maps its buffers and queues each with an empty payload; tries again until
/// that works. Returns 0 with uvc_video_fd, uvc_buffers and uvc_buffer_count set, or -1 when the service is
/// to end instead.
i32 uvc_device_open();

/// Unmaps every buffer and closes the node.
void uvc_device_close();

/// Closes the node for good, for another program, but keeps its number on /dev/null: whoever still uses the
/// number gets errors and reaches no other file. If /dev/null cannot be opened, uvc_video_fd becomes -1
/// instead. For the control thread.
void uvc_device_give_up();

/// Maps every buffer anew and queues it with an empty payload, after a stream has ended. Prints a message for
/// each buffer that cannot be mapped.
void uvc_device_rearm();

/// The same for one buffer that could not be mapped then. Returns 0, or -1 without a message.
i32 uvc_device_rearm_buffer(u32 index);

/// The record with which buffer `index` is queried, queued and dequeued.
v4l2_buffer uvc_buffer_record(u32 index);

/// Payload of a buffer that carries no picture: two zero bytes.
constexpr u32 kEmptyPayload = 2;
