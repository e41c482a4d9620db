#include "uvc/uvc_state.h"

Word cur_format = kFormatMjpeg;
Word cur_col = 1920;
Word cur_line = 1080;
Word cur_frame_rate = 30;
Word cur_quality = 6000;
Word cfg_col = 1920;
Word cfg_line = 1080;
Word last_format;
Word config_changed;
Word still_trigger_format;
Word still_trigger;

EncoderRecord encoder_record = {
    .width = 1920,
    .height = 1080,
    .frame_rate = 30,
    .reserved = 0,
    .codec = kCodecMjpeg,
    .rc_mode = 1,
    .rc_param = {40960, 99, 60, 0, 0},
};

RateControl mjpeg_rate_control = {
    .mode = 0,
    .common = 0,
    .param = {{32768}, {40960, 99, 60}, {80}, {}},
};
RateControl h264_rate_control = {
    .mode = 0,
    .common = 1,
    .param = {{60, 12288}, {60, 12288, 10, 40}, {60, 25, 25, 25}, {60, 12288}},
};
RateControl h265_rate_control = {
    .mode = 0,
    .common = 1,
    .param = {{60, 12288}, {60, 12288, 10, 40}, {60, 25, 25}, {60, 12288}},
};
Word default_bit_rate = 30;

std::mutex stream_end_lock;

Word uvc_video_fd = -1;
UvcBuffer uvc_buffers[VIDEO_MAX_FRAME];
u32 uvc_buffer_count;

u8 uvc_resp_buf[4096];
u8 uvc_request_error_code;

std::atomic<u32*> usb_disconnect_word;
std::atomic<const CameraCache*> camera_cache;
