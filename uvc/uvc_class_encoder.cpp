#include "uvc/uvc_class_encoder.h"

#include <algorithm>
#include <mutex>

#include "ipc/VeltoDrvMsg.h"
#include "support/print.h"
#include "uvc/uvc_rate_control.h"
#include "uvc/uvc_state.h"

constexpr char kPrintFile[] = "uvc_class.c";

namespace {

constexpr i32 kHeader = 2;
constexpr i32 kMjpegTopRate = 30;  // frames per second; above it MJPEG runs in mode 0, whatever was set

// Held while the record is changed or copied, but not while it is sent, which may wait for the server.
std::mutex record_lock;
u32 record_changes;  // under the lock

i32 wanted_mode(const CodecRow& row) {
  const bool too_fast = row.format == kFormatMjpeg && encoder_record.frame_rate > kMjpegTopRate;
  return too_fast ? 0 : i32(row.settings->mode);
}

void store_fallback(const CodecRow& row) {
  encoder_record.rc_mode = row.fallback_mode;
  for (i32 i = 0; i < row.fallback_count; ++i) {
    encoder_record.rc_param[i] = i == row.fallback_default ? i32(default_bit_rate) : row.fallback[i];
  }
}

void store_rate_control(const CodecRow& row) {
  const i32 mode = wanted_mode(row);
  const i32 count = row.parameters(mode);
  if (count == 0) return store_fallback(row);
  encoder_record.rc_mode = mode;
  i32 at = 0;
  if (row.has_common) encoder_record.rc_param[at++] = row.settings->common;
  for (i32 i = 0; i < count; ++i) encoder_record.rc_param[at++] = row.settings->param[mode][i];
}

// Stores the codec and its rate control; record_lock is held.
void store_codec(const CodecRow& row) {
  ++record_changes;
  encoder_record.codec = row.codec;
  if (row.settings) store_rate_control(row);
}

// Copies the record as it is, and returns the number of its last change.
u32 copy_record(EncoderSettings& settings) {
  const std::lock_guard lock(record_lock);
  settings = {
      .width = encoder_record.width,
      .height = encoder_record.height,
      .frame_rate = encoder_record.frame_rate,
      .reserved = encoder_record.reserved,
      .codec = encoder_record.codec,
      .rc_mode = encoder_record.rc_mode,
      .rc_param = {},
  };
  std::copy(std::begin(encoder_record.rc_param), std::end(encoder_record.rc_param), settings.rc_param);
  return record_changes;
}

bool changed_since(u32 change) {
  const std::lock_guard lock(record_lock);
  return record_changes != change;
}

// Both threads may send at once: the one that finds the record changed since its copy sends it again, so that
// the last message to leave is the newest.
void send_record(i32 running) {
  EncoderSettingsMessage message = {kHeader, running, {}};
  u32 change;
  do {
    change = copy_record(message.settings);
    SendEncoderSettings(message);
  } while (changed_since(change));
}

// The bit rates and quantisers below are those of the best quality.
constexpr i32 kBestQuality = 10000;
constexpr i64 kVideoBitRate = 20480;  // kbit/s at 1920x1080
constexpr i32 kMjpegBitRate = 40960;
constexpr i32 kMostLoss = 120;
constexpr i32 kTopQuantiser = 51;

i32 scaled(i32 value, i32 quality) { return value * quality / kBestQuality; }

i32 video_bit_rate(i32 quality) {
  const i64 pixels = i64{encoder_record.width} * encoder_record.height;
  return static_cast<i32>(kVideoBitRate * quality * pixels / (i64{kBestQuality} * 1920 * 1080));
}

// `base` at no loss, rising evenly to the top quantiser at full loss.
i32 quantiser(i32 base, i32 quality) {
  const i32 loss = (kBestQuality - quality) * kMostLoss / kBestQuality;
  return base + loss * (kTopQuantiser - base) / kMostLoss;
}

void scale_video(RateControl& settings, i32 quality) {
  const i32 bit_rate = video_bit_rate(quality);
  for (i32 mode : {0, 1, 3}) settings.param[mode][1] = bit_rate;
  settings.param[1][2] = quantiser(10, quality);
  settings.param[1][3] = quantiser(40, quality);
  for (i32 i : {1, 2, 3}) settings.param[2][i] = quantiser(25, quality);
}

void scale_mjpeg(i32 quality) {
  switch (mjpeg_rate_control.mode) {
    case 0:
      mjpeg_rate_control.param[0][0] = scaled(kMjpegBitRate, quality);
      break;
    case 1:
      mjpeg_rate_control.param[1][0] = scaled(kMjpegBitRate, quality);
      mjpeg_rate_control.param[1][2] = scaled(60, quality);
      break;
    case 2:
      mjpeg_rate_control.param[2][0] = scaled(80, quality);
      break;
  }
}

}  // namespace

void notify_stream_start() { send_record(1); }

void notify_stream_stop() { send_record(0); }

void refresh_encoder_settings() {
  const CodecRow* row = row_of_format(cur_format);
  if (!row) return;
  {
    const std::lock_guard lock(record_lock);
    store_codec(*row);
  }
  notify_stream_start();
}

void apply_encoder_settings(i32 columns, i32 lines, i32 format, i32 rate) {
  const CodecRow* row = row_of_format(format);
  {
    const std::lock_guard lock(record_lock);
    ++record_changes;
    encoder_record.width = columns;
    encoder_record.height = lines;
    encoder_record.frame_rate = rate;
    if (row) store_codec(*row);
  }
  if (row) notify_stream_start();
}

i32 get_key_frame_interval() {
  const RateControl& settings = cur_format == kFormatH265 ? h265_rate_control : h264_rate_control;
  const i32 mode = settings.mode;
  return settings.param[mode >= 0 && mode < kRateModes ? mode : 0][0];
}

void store_key_frame_interval(i32 frames) {
  for (i32 mode = 0; mode < kRateModes; ++mode) {
    h265_rate_control.param[mode][0] = frames;
    h264_rate_control.param[mode][0] = frames;
  }
}

// A commit may come at any moment: the codec is the record's own, not that of cur_format.
void set_key_frame_interval(i32 frames) {
  store_key_frame_interval(frames);
  {
    const std::lock_guard lock(record_lock);
    if (const CodecRow* row = row_of_codec(encoder_record.codec)) store_codec(*row);
  }
  notify_stream_start();
}

void change_quality(i32 quality) {
  PRINT_INFO("quality %d\n", quality);
  if (quality < 1 || quality > kBestQuality) quality = kBestQuality;
  switch (cur_format) {
    case kFormatMjpeg:
      scale_mjpeg(quality);
      break;
    case kFormatH264:
      scale_video(h264_rate_control, quality);
      break;
    case kFormatH265:
      scale_video(h265_rate_control, quality);
      break;
    default:
      return;
  }
  refresh_encoder_settings();
}

void set_frame_rate(i32 rate) {
  PRINT_INFO("cur_frame_rate = %d\n", rate);
  {
    const std::lock_guard lock(record_lock);
    ++record_changes;
    encoder_record.frame_rate = rate;
  }
  notify_stream_start();
}
