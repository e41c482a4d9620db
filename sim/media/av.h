// Owning pointers to the libav objects that the media process and the frame checker use.
#pragma once

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libswscale/swscale.h>
}

#include <memory>

namespace sim {

struct AvDelete {
  void operator()(AVFrame* frame) const { av_frame_free(&frame); }
  void operator()(AVPacket* packet) const { av_packet_free(&packet); }
  void operator()(AVCodecContext* codec) const { avcodec_free_context(&codec); }
  void operator()(AVFormatContext* file) const { avformat_close_input(&file); }
  void operator()(SwsContext* scaler) const { sws_freeContext(scaler); }
};

template <typename T>
using AvPtr = std::unique_ptr<T, AvDelete>;

}  // namespace sim
