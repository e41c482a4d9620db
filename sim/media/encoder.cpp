#include "sim/media/encoder.h"

extern "C" {
#include <libavutil/opt.h>
}

#include <algorithm>
#include <cstdio>

#include "vencbuf/enc_frame.h"

// The leak checker reads this: libx265 leaks a little with every encoder.
extern "C" const char* __lsan_default_suppressions();
extern "C" const char* __lsan_default_suppressions() { return "leak:libx265\nleak:x265_param_parse\n"; }

namespace sim {

namespace {

struct Kind {
  const char* name;
  AVPixelFormat format;
  const char* options;
};

// Rows by EncoderCodec. Each encoder has one thread, because the other core belongs to the rest of the camera
// and the host.
constexpr Kind kKinds[] = {
    {"libx264", AV_PIX_FMT_YUV420P, "preset=ultrafast:tune=zerolatency:forced-idr=1"},
    {"mjpeg", AV_PIX_FMT_YUVJ420P, "huffman=default"},
    {"libx265", AV_PIX_FMT_YUV420P,
     "preset=ultrafast:tune=zerolatency:forced-idr=1:"
     "x265-params='log-level=none:pools=none:frame-threads=1:repeat-headers=1:open-gop=0'"},
};

constexpr int kNoKeyFrameOfItsOwn = 1'000'000;

int bits(i32 kilobits) { return std::clamp(kilobits, 64, 100'000) * 1000; }
int video_scale(i32 word) { return std::clamp(word, 1, 51); }

// Returns the quantiser scale for a JPEG quality of 1 (worst) to 100.
int jpeg_scale(i32 word) {
  const int quality = std::clamp(word, 1, 100);
  const int percent = quality < 50 ? 5000 / quality : 200 - 2 * quality;
  return std::clamp(percent * 8 / 100, 2, 31);
}

RateLimits ordered(int bit_rate, int best, int worst) { return {bit_rate, best, std::max(best, worst)}; }

RateLimits jpeg_rate_limits(i32 mode, const i32* words) {
  if (mode == 2) return {0, jpeg_scale(words[0]), jpeg_scale(words[0])};
  if (mode == 1) return ordered(bits(words[0]), jpeg_scale(words[1]), jpeg_scale(words[2]));
  return {bits(words[0]), 2, 31};
}

// Returns the key-frame interval, followed by the words whose meaning depends on the mode.
const i32* video_words(const EncoderSettings& settings) {
  return settings.rc_param + (settings.codec == kCodecH264 ? 1 : 0);
}

// Mode 2 has a scale for each frame type; the one for predicted frames serves for all.
RateLimits video_rate_limits(i32 mode, const i32* words) {
  if (mode == 2) return {0, video_scale(words[2]), video_scale(words[2])};
  if (mode == 1) return ordered(bits(words[1]), video_scale(words[2]), video_scale(words[3]));
  return {bits(words[1]), 10, 51};
}

void set_rate(AVCodecContext& codec, const RateLimits& rate) {
  codec.qmin = rate.best_scale;
  codec.qmax = rate.worst_scale;
  codec.bit_rate = codec.rc_max_rate = rate.bit_rate;
  codec.rc_buffer_size = rate.bit_rate / 2;
  if (rate.bit_rate == 0) av_opt_set_int(codec.priv_data, "qp", rate.best_scale, 0);
}

}  // namespace

RateLimits rate_limits(const EncoderSettings& settings) {
  if (settings.codec == kCodecMjpeg) return jpeg_rate_limits(settings.rc_mode, settings.rc_param);
  return video_rate_limits(settings.rc_mode, video_words(settings));
}

int key_frame_interval(const EncoderSettings& settings) {
  return settings.codec == kCodecMjpeg ? 1 : std::clamp(*video_words(settings), 1, 1000);
}

// Opens an encoder for another setup. Reports a failure once for each setup.
bool Encoder::follow(const Setup& setup) {
  if (setup == setup_) return codec_ != nullptr;
  setup_ = setup;
  const Kind& kind = kKinds[setup.codec];
  const AVCodec* codec = avcodec_find_encoder_by_name(kind.name);
  codec_.reset(avcodec_alloc_context3(codec));
  codec_->width = setup.width;
  codec_->height = setup.height;
  codec_->pix_fmt = kind.format;
  codec_->time_base = {1, setup.frame_rate};
  codec_->framerate = {setup.frame_rate, 1};
  codec_->gop_size = kNoKeyFrameOfItsOwn;
  codec_->thread_count = 1;
  if (setup.codec == kCodecMjpeg) {
    codec_->flags |= AV_CODEC_FLAG_QSCALE;
    jpeg_scale_ = std::clamp(5, setup.rate.best_scale, setup.rate.worst_scale);
  } else {
    set_rate(*codec_, setup.rate);
  }
  if (av_set_options_string(codec_->priv_data, kind.options, "=", ":") >= 0 &&
      avcodec_open2(codec_.get(), codec, nullptr) >= 0)
    return true;
  std::fprintf(stderr, "%s cannot encode %d x %d\n", kind.name, setup.width, setup.height);
  codec_.reset();
  return false;
}

// Approaches the size that the bit rate allows step by step, within the quality limits.
void Encoder::steer_jpeg_scale(int frame_size) {
  const RateLimits& rate = setup_.rate;
  if (rate.bit_rate == 0) return;
  const int target = rate.bit_rate / 8 / setup_.frame_rate;
  if (frame_size > target) ++jpeg_scale_;
  if (frame_size < target / 4 * 3) --jpeg_scale_;
  jpeg_scale_ = std::clamp(jpeg_scale_, rate.best_scale, rate.worst_scale);
}

std::optional<EncodedFrame> Encoder::encode(const EncoderSettings& settings, AVFrame& picture,
                                            bool key_frame) {
  if (!follow({settings.width, settings.height, settings.frame_rate, settings.codec, rate_limits(settings)}))
    return std::nullopt;
  const int wanted = key_frame_interval(settings);
  interval_ = std::min(interval_, wanted);
  const bool force = key_frame || since_key_ >= interval_;
  picture.pict_type = force ? AV_PICTURE_TYPE_I : AV_PICTURE_TYPE_NONE;
  picture.pts = pictures_++;
  picture.quality = jpeg_scale_ * FF_QP2LAMBDA;
  if (avcodec_send_frame(codec_.get(), &picture) < 0 ||
      avcodec_receive_packet(codec_.get(), packet_.get()) < 0)
    return std::nullopt;
  const bool key = packet_->flags & AV_PKT_FLAG_KEY;
  since_key_ = key ? 1 : since_key_ + 1;
  if (key) interval_ = wanted;
  const bool jpeg = settings.codec == kCodecMjpeg;
  if (jpeg) steer_jpeg_scale(packet_->size);
  return EncodedFrame{jpeg  ? kJpegFrameType
                      : key ? 1u
                            : 0u,
                      {packet_->data, static_cast<std::size_t>(packet_->size)}};
}

}  // namespace sim
