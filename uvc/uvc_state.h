// Every process-wide word of the USB side. docs/threads.md says who writes and who reads each.
#pragma once

#include <linux/videodev2.h>

#include <atomic>
#include <mutex>

#include "common/stream_state.h"
#include "common/word.h"
#include "ipc/sys_info.h"
#include "ipc/velto_commands.h"
#include "platform/uvc_events.h"

/// Values of cur_format and of bFormatIndex.
enum UvcFormat : i32 { kFormatMjpeg = 1, kFormatH264 = 2, kFormatYuy2 = 3, kFormatH265 = 4 };

// What the host has committed. All settings are stored before config_changed.
extern Word cur_format;      ///< UvcFormat
extern Word cur_col;         ///< pixels
extern Word cur_line;        ///< lines
extern Word cur_frame_rate;  ///< frames per second
extern Word cur_quality;     ///< wCompQuality
extern Word cfg_col;         ///< cur_col of the last applied commit
extern Word cfg_line;        ///< cur_line of the last applied commit
/// cur_format of the last applied commit; -1 from a stream's end to the next commit.
extern Word last_format;
extern Word config_changed;
extern Word still_trigger_format;
extern Word still_trigger;

/// The encoder-settings record as shared words.
struct EncoderRecord {
  Word width, height, frame_rate, reserved, codec, rc_mode, rc_param[5];
};
extern EncoderRecord encoder_record;

/// Rate-control settings of one codec, by mode. uvc_rate_control.cpp says which parameters each mode has.
struct RateControl {
  Word mode;
  Word common;  ///< H.264 and H.265: their common first parameter
  Word param[4][4];
};
extern RateControl mjpeg_rate_control;
extern RateControl h264_rate_control;
extern RateControl h265_rate_control;
extern Word default_bit_rate;

/// Held by the control thread while it ends a stream, and by the main thread from its look at the stream
/// words to the end of its VIDIOC_QBUF, so that a frame of the old stream never enters the next one.
extern std::mutex stream_end_lock;

/// The gadget node's descriptor, -1 while it is closed.
extern Word uvc_video_fd;

struct UvcBuffer {
  u8* start;   ///< null while the buffer is not mapped
  u32 length;  ///< bytes
};
/// The mapped gadget buffers by V4L2 index. Only the main thread touches them.
extern UvcBuffer uvc_buffers[VIDEO_MAX_FRAME];
extern u32 uvc_buffer_count;

/// The answer to a GET request or the data of a SET, little-endian from byte 0. Control thread only.
extern u8 uvc_resp_buf[4096];
/// The status of the last class request (UvcStatus). Control thread only.
extern u8 uvc_request_error_code;

/// Words of the parameter segment, where it is mapped now; null until start-up has found them.
extern std::atomic<u32*> usb_disconnect_word;
extern std::atomic<const CameraCache*> camera_cache;
