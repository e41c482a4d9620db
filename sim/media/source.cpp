#include "sim/media/source.h"

#include <string_view>
#include <utility>

namespace sim {

namespace {

constexpr std::string_view kTextFormat = "tty";  // libavformat draws any text as a terminal would

}  // namespace

std::unique_ptr<Source> Source::open(const std::string& path) {
  auto source = std::make_unique<Source>();
  return source->open_file(path) ? std::move(source) : nullptr;
}

bool Source::open_file(const std::string& path) {
  AVFormatContext* file = nullptr;
  if (avformat_open_input(&file, path.c_str(), nullptr, nullptr) < 0) return false;
  file_.reset(file);
  const AVCodec* codec = nullptr;
  if (file->iformat->name == kTextFormat) return false;
  if (avformat_find_stream_info(file, nullptr) < 0) return false;
  stream_ = av_find_best_stream(file, AVMEDIA_TYPE_VIDEO, -1, -1, &codec, 0);
  if (stream_ < 0) return false;
  decoder_.reset(avcodec_alloc_context3(codec));
  decoder_->thread_count = 1;
  return avcodec_parameters_to_context(decoder_.get(), file->streams[stream_]->codecpar) >= 0 &&
         avcodec_open2(decoder_.get(), codec, nullptr) >= 0 && decode();
}

// Decodes the next picture of the file into decoded_. Returns false at the end.
bool Source::decode() {
  while (avcodec_receive_frame(decoder_.get(), decoded_.get()) == AVERROR(EAGAIN)) {
    const int read = av_read_frame(file_.get(), packet_.get());
    if (read < 0) {
      avcodec_send_packet(decoder_.get(), nullptr);
    } else if (packet_->stream_index == stream_) {
      avcodec_send_packet(decoder_.get(), packet_.get());
    }
    av_packet_unref(packet_.get());
  }
  const bool found = decoded_->width > 0;
  pictures_ += found;
  return found;
}

bool Source::next(AVFrame& picture) {
  if (still_) return false;
  if (decoded_->width > 0) {
    scaler_.reset(sws_getCachedContext(scaler_.release(), decoded_->width, decoded_->height,
                                       static_cast<AVPixelFormat>(decoded_->format), picture.width,
                                       picture.height, static_cast<AVPixelFormat>(picture.format),
                                       SWS_BILINEAR, nullptr, nullptr, nullptr));
    sws_scale(scaler_.get(), decoded_->data, decoded_->linesize, 0, decoded_->height, picture.data,
              picture.linesize);
  }
  if (decode()) return true;
  still_ = pictures_ == 1;
  avcodec_flush_buffers(decoder_.get());
  av_seek_frame(file_.get(), stream_, 0, AVSEEK_FLAG_BACKWARD);
  if (!still_) decode();
  return true;
}

}  // namespace sim
