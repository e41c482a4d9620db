#include "sim/app/web_pictures.h"

#include <utility>

namespace sim {

namespace {

constexpr int kScale = 4;  // of the quantiser: 1 is best, 31 worst

}  // namespace

class WebPictures::Encoder {
 public:
  // Returns nothing if the picture cannot be encoded.
  std::optional<Jpeg> encode(const AVFrame& picture);

 private:
  bool follow(const AVFrame& picture);

  AvPtr<AVCodecContext> codec_;
  AvPtr<SwsContext> scaler_;
  AvPtr<AVFrame> converted_;
  int width_ = 0, height_ = 0, format_ = -1;
};

bool WebPictures::Encoder::follow(const AVFrame& picture) {
  if (picture.width == width_ && picture.height == height_ && picture.format == format_) return true;
  const AVCodec* const encoder = avcodec_find_encoder(AV_CODEC_ID_MJPEG);
  codec_.reset(avcodec_alloc_context3(encoder));
  codec_->width = picture.width;
  codec_->height = picture.height;
  codec_->pix_fmt = AV_PIX_FMT_YUVJ420P;
  codec_->time_base = {1, 1};
  codec_->flags |= AV_CODEC_FLAG_QSCALE;
  codec_->global_quality = kScale * FF_QP2LAMBDA;
  codec_->thread_count = 1;
  converted_.reset(av_frame_alloc());
  converted_->width = picture.width;
  converted_->height = picture.height;
  converted_->format = codec_->pix_fmt;
  converted_->quality = codec_->global_quality;
  scaler_.reset(sws_getContext(picture.width, picture.height, static_cast<AVPixelFormat>(picture.format),
                               picture.width, picture.height, codec_->pix_fmt, SWS_FAST_BILINEAR, nullptr,
                               nullptr, nullptr));
  const bool opened = scaler_ && av_frame_get_buffer(converted_.get(), 0) >= 0 &&
                      avcodec_open2(codec_.get(), encoder, nullptr) >= 0;
  width_ = opened ? picture.width : 0;
  height_ = picture.height;
  format_ = picture.format;
  return opened;
}

std::optional<WebPictures::Jpeg> WebPictures::Encoder::encode(const AVFrame& picture) {
  const AvPtr<AVPacket> packet(av_packet_alloc());
  if (!follow(picture) || av_frame_make_writable(converted_.get()) < 0) return std::nullopt;
  sws_scale(scaler_.get(), picture.data, picture.linesize, 0, picture.height, converted_->data,
            converted_->linesize);
  if (avcodec_send_frame(codec_.get(), converted_.get()) < 0 ||
      avcodec_receive_packet(codec_.get(), packet.get()) < 0)
    return std::nullopt;
  return Jpeg(packet->data, packet->data + packet->size);
}

WebPictures::WebPictures(std::function<void(Jpeg)> show, std::function<bool()> watched)
    : show_(std::move(show)), watched_(std::move(watched)), thread_([this] { run(); }) {}

WebPictures::~WebPictures() {
  {
    const std::lock_guard guard(lock_);
    over_ = true;
  }
  changed_.notify_all();
  thread_.join();
}

void WebPictures::take(const ReceivedFrame& frame) {
  if (!watched_()) return;
  if (frame.choice.format == StreamFormat::kMjpeg) return show_({frame.payload.begin(), frame.payload.end()});
  if (!frame.picture) return;
  {
    const std::lock_guard guard(lock_);
    newest_.reset(av_frame_clone(frame.picture));
  }
  changed_.notify_all();
}

void WebPictures::run() {
  Encoder encoder;
  for (std::unique_lock guard(lock_);;) {
    changed_.wait(guard, [&] { return over_ || newest_; });
    if (over_) return;
    const AvPtr<AVFrame> picture = std::move(newest_);
    guard.unlock();
    if (auto jpeg = encoder.encode(*picture)) show_(std::move(*jpeg));
    guard.lock();
  }
}

}  // namespace sim
