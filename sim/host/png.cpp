#include "sim/host/png.h"

#include <cstdio>

namespace sim {

namespace {

AvPtr<AVFrame> to_rgb(const AVFrame& from) {
  AvPtr<AVFrame> rgb(av_frame_alloc());
  rgb->width = from.width;
  rgb->height = from.height;
  rgb->format = AV_PIX_FMT_RGB24;
  AvPtr<SwsContext> scaler(sws_getContext(from.width, from.height, static_cast<AVPixelFormat>(from.format),
                                          from.width, from.height, AV_PIX_FMT_RGB24, SWS_BILINEAR, nullptr,
                                          nullptr, nullptr));
  if (!scaler || av_frame_get_buffer(rgb.get(), 0) < 0) return nullptr;
  sws_scale(scaler.get(), from.data, from.linesize, 0, from.height, rgb->data, rgb->linesize);
  return rgb;
}

// Returns null if the picture cannot be encoded.
AvPtr<AVPacket> to_png(const AVFrame& rgb) {
  const AVCodec* codec = avcodec_find_encoder(AV_CODEC_ID_PNG);
  AvPtr<AVCodecContext> encoder(avcodec_alloc_context3(codec));
  encoder->width = rgb.width;
  encoder->height = rgb.height;
  encoder->pix_fmt = AV_PIX_FMT_RGB24;
  encoder->time_base = {1, 1};
  encoder->compression_level = 1;  // a run writes dozens, each while the stream goes on
  AvPtr<AVPacket> png(av_packet_alloc());
  const bool done = avcodec_open2(encoder.get(), codec, nullptr) >= 0 &&
                    avcodec_send_frame(encoder.get(), &rgb) >= 0 &&
                    avcodec_receive_packet(encoder.get(), png.get()) >= 0;
  return done ? std::move(png) : nullptr;
}

}  // namespace

bool write_png(const AVFrame& picture, const std::string& path) {
  const auto rgb = to_rgb(picture);
  const auto png = rgb ? to_png(*rgb) : nullptr;
  if (!png) return false;
  std::FILE* file = std::fopen(path.c_str(), "wb");
  if (!file) return false;
  const std::size_t size = static_cast<std::size_t>(png->size);
  const bool written = std::fwrite(png->data, 1, size, file) == size;
  return std::fclose(file) == 0 && written;
}

}  // namespace sim
