#include "sim/host/frame_check.h"

#include <algorithm>
#include <utility>

#include "sim/media/frame_counter.h"
#include "sim/media/made_frames.h"
#include "sim/seam/wait_on.h"

namespace sim {

namespace {

constexpr i64 kOldestFirstFrame = 1000 * kMillisecond;

AVCodecID codec_id(StreamFormat format) {
  switch (format) {
    case StreamFormat::kMjpeg:
      return AV_CODEC_ID_MJPEG;
    case StreamFormat::kH264:
      return AV_CODEC_ID_H264;
    case StreamFormat::kYuy2:
      return AV_CODEC_ID_RAWVIDEO;
    case StreamFormat::kH265:
      return AV_CODEC_ID_HEVC;
  }
  return AV_CODEC_ID_NONE;
}

}  // namespace

struct FrameChecker::Impl {
  Impl(StreamFormat stream_format, u32 stream_width, u32 stream_height, i64 stream_start);
  bool decode(std::span<const u8> payload);
  std::optional<u32> counter_in_ring(u32 checksum);
  std::optional<u32> whole_counter(std::span<const u8> payload, u32 checksum);
  void classify(u32 counter, std::size_t size, i64 now);
  void note_latency(u32 counter, i64 now);

  const StreamFormat format;
  const u32 width, height;
  const i64 start;
  AvPtr<AVCodecContext> decoder;
  AvPtr<AVPacket> packet{av_packet_alloc()};
  AvPtr<AVFrame> picture{av_frame_alloc()};
  AvPtr<AVFrame> last_whole{av_frame_alloc()};
  std::optional<u32> last;           // counter of the last whole frame
  std::optional<u32> last_checksum;  // of the last payload
  unsigned long timed = 0;
  double latency_sum_ms = 0;
  StreamReport report;
};

FrameChecker::Impl::Impl(StreamFormat stream_format, u32 stream_width, u32 stream_height, i64 stream_start)
    : format(stream_format), width(stream_width), height(stream_height), start(stream_start) {
  const AVCodec* codec = avcodec_find_decoder(codec_id(format));
  decoder.reset(avcodec_alloc_context3(codec));
  decoder->thread_count = 1;
  decoder->flags |= AV_CODEC_FLAG_LOW_DELAY;
  decoder->err_recognition = AV_EF_EXPLODE | AV_EF_BITSTREAM | AV_EF_BUFFER;
  if (format == StreamFormat::kYuy2) {
    decoder->width = static_cast<int>(width);
    decoder->height = static_cast<int>(height);
    decoder->pix_fmt = AV_PIX_FMT_YUYV422;
  }
  avcodec_open2(decoder.get(), codec, nullptr);
}

// Decodes a payload into `picture`. Returns false if it is damaged or not of the stream's size.
bool FrameChecker::Impl::decode(std::span<const u8> payload) {
  if (format == StreamFormat::kYuy2 && payload.size() != std::size_t{2} * width * height) return false;
  av_packet_unref(packet.get());
  if (av_new_packet(packet.get(), static_cast<int>(payload.size())) < 0) return false;
  std::copy(payload.begin(), payload.end(), packet->data);
  return avcodec_send_packet(decoder.get(), packet.get()) >= 0 &&
         avcodec_receive_frame(decoder.get(), picture.get()) >= 0 && picture->decode_error_flags == 0 &&
         !(picture->flags & AV_FRAME_FLAG_CORRUPT) && picture->width == static_cast<int>(width) &&
         picture->height == static_cast<int>(height);
}

// The number of the frame in the ring. A decodable frame that nobody saw there is taken for whole.
std::optional<u32> FrameChecker::Impl::counter_in_ring(u32 checksum) {
  const auto counter = counter_of(checksum, last);
  if (counter || !last) return counter;
  const auto unseen = counter_of_unseen(*last);
  report.unseen += unseen.has_value();
  return unseen;
}

// Returns the counter of a payload that is one whole frame, of the scene or of an encoder of the user's own.
std::optional<u32> FrameChecker::Impl::whole_counter(std::span<const u8> payload, u32 checksum) {
  if (!decode(payload)) return std::nullopt;
  if (!report.counted) return counter_in_ring(checksum);
  const LumaView luma{picture->data[0], width, height, static_cast<u32>(picture->linesize[0]),
                      format == StreamFormat::kYuy2 ? 2u : 1u};
  const auto counter = read_counter(luma, Strip::kTop);
  if (!counter || counter != read_counter(luma, Strip::kBottom)) return std::nullopt;
  const auto expected = expected_checksum(*counter);
  if (expected && *expected != checksum) return std::nullopt;
  return counter;
}

void FrameChecker::Impl::note_latency(u32 counter, i64 now) {
  const i64 made = scene_time(counter);
  if (made == 0) return;
  const double latency_ms = static_cast<double>(std::max(now - made, i64{0})) / kMillisecond;
  latency_sum_ms += latency_ms;
  report.latency_ms = latency_sum_ms / static_cast<double>(++timed);
  report.latency_max_ms = std::max(report.latency_max_ms, latency_ms);
}

void FrameChecker::Impl::classify(u32 counter, std::size_t size, i64 now) {
  const i32 step = last ? static_cast<i32>(counter - *last) : 1;
  if (step == 0) {
    ++report.repeated;
    return;
  }
  const i64 made = scene_time(counter);
  const bool from_before = !last && made != 0 && made < start - kOldestFirstFrame;
  if (step < 0 || from_before) ++report.stale;
  if (step < 0) return;
  report.lost += static_cast<unsigned long>(step - 1);
  report.bytes += size;
  ++report.frames;
  last = counter;
  note_latency(counter, now);
  av_frame_unref(last_whole.get());
  av_frame_ref(last_whole.get(), picture.get());
  last_whole->pts = made;
}

FrameChecker::FrameChecker(StreamFormat format, u32 width, u32 height, i64 start) {
  av_log_set_level(AV_LOG_QUIET);
  impl_ = std::make_unique<Impl>(format, width, height, start ? start : monotonic_ns());
  impl_->report.counted = format == StreamFormat::kYuy2 || !frames_are_known_by_their_bytes();
}

FrameChecker::~FrameChecker() = default;

void FrameChecker::feed(std::span<const u8> payload, i64 arrived) {
  const i64 now = arrived ? arrived : monotonic_ns();
  StreamReport& report = impl_->report;
  if (payload.size() <= kEmptyPayload) {
    ++(impl_->last ? report.empty : report.leading);
    return;
  }
  const u32 checksum = payload_checksum(payload);
  const bool again = std::exchange(impl_->last_checksum, checksum) == checksum;
  if (again && report.counted) {
    ++report.repeated;
  } else if (const auto counter = impl_->whole_counter(payload, checksum)) {
    impl_->classify(*counter, payload.size(), now);
  } else {
    ++report.torn;
  }
}

const StreamReport& FrameChecker::report() const { return impl_->report; }

const AVFrame* FrameChecker::picture() const { return impl_->last ? impl_->last_whole.get() : nullptr; }

}  // namespace sim
