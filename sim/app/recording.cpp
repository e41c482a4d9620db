#include "sim/app/recording.h"

#include <algorithm>
#include <cstring>

namespace sim {

namespace {

constexpr AVRational kMilliseconds = {1, 1000};
constexpr i64 kNanosecondsEach = 1'000'000;

struct Kind {
  StreamFormat format;
  AVCodecID codec;
  const char *container, *ending;
};
constexpr Kind kKinds[] = {
    {StreamFormat::kMjpeg, AV_CODEC_ID_MJPEG, "matroska", ".mkv"},
    {StreamFormat::kH264, AV_CODEC_ID_H264, "matroska", ".mkv"},
    {StreamFormat::kYuy2, AV_CODEC_ID_RAWVIDEO, "avi", ".avi"},
    {StreamFormat::kH265, AV_CODEC_ID_HEVC, "matroska", ".mkv"},
};

const Kind& kind_of(StreamFormat format) { return *std::ranges::find(kKinds, format, &Kind::format); }

// Returns whether one of the NAL units is a parameter set, which each key frame of the camera begins with.
bool has_parameter_set(std::span<const u8> payload, u8 mask, int shift, u8 type) {
  for (std::size_t i = 0; i + 3 < payload.size(); ++i) {
    const bool starts = payload[i] == 0 && payload[i + 1] == 0 && payload[i + 2] == 1;
    if (starts && (payload[i + 3] >> shift & mask) == type) return true;
  }
  return false;
}

bool is_key_frame(StreamFormat format, std::span<const u8> payload) {
  if (format == StreamFormat::kH264) return has_parameter_set(payload, 0x1F, 0, 7);
  if (format == StreamFormat::kH265) return has_parameter_set(payload, 0x3F, 1, 33);
  return true;
}

}  // namespace

void Recording::CloseFile::operator()(AVFormatContext* file) const {
  if (file->pb) {
    av_write_trailer(file);
    avio_closep(&file->pb);
  }
  avformat_free_context(file);
}

void Recording::start() {
  const std::lock_guard guard(lock_);
  file_.reset();
  status_ = {.running = true};
}

bool Recording::stop() {
  const std::lock_guard guard(lock_);
  if (status_.running) end("");
  return status_.frames > 0;
}

void Recording::end(const std::string& why) {
  file_.reset();
  status_.running = false;
  status_.ended = why;
}

Recording::Status Recording::status() const {
  const std::lock_guard guard(lock_);
  return status_;
}

void Recording::take(const ReceivedFrame& frame) {
  const std::lock_guard guard(lock_);
  if (!status_.running) return;
  if (!file_) {
    if (!is_key_frame(frame.choice.format, frame.payload)) return;
    if (!open(frame)) return end("the file cannot be written");
  }
  if (frame.choice.format != choice_.format || !(frame.choice.size == choice_.size))
    return end("the stream has changed");
  if (status_.bytes + std::ssize(frame.payload) > kMostBytes) return end("the file is full");
  if (!write(frame)) end("the file cannot be written");
}

bool Recording::open(const ReceivedFrame& frame) {
  const Kind& kind = kind_of(frame.choice.format);
  status_.file = stem_ + std::to_string(++number_) + kind.ending;
  AVFormatContext* file = nullptr;
  avformat_alloc_output_context2(&file, nullptr, kind.container, status_.file.c_str());
  if (!file) return false;
  file_.reset(file);
  AVStream& stream = *avformat_new_stream(file, nullptr);
  AVCodecParameters& codec = *stream.codecpar;
  codec.codec_type = AVMEDIA_TYPE_VIDEO;
  codec.codec_id = kind.codec;
  codec.width = frame.choice.size.width;
  codec.height = frame.choice.size.height;
  stream.time_base = kMilliseconds;
  stream.avg_frame_rate = {static_cast<int>(frame.choice.rate), 1};
  if (kind.codec == AV_CODEC_ID_RAWVIDEO) {
    codec.format = AV_PIX_FMT_YUYV422;
    codec.codec_tag = MKTAG('Y', 'U', 'Y', '2');
    codec.bits_per_coded_sample = 16;
    stream.time_base = {1, static_cast<int>(frame.choice.rate)};
  } else if (kind.codec != AV_CODEC_ID_MJPEG) {
    codec.extradata = static_cast<u8*>(av_mallocz(frame.payload.size() + AV_INPUT_BUFFER_PADDING_SIZE));
    codec.extradata_size = static_cast<int>(frame.payload.size());
    std::ranges::copy(frame.payload, codec.extradata);
  }
  choice_ = frame.choice;
  first_ = frame.arrived;
  last_time_ = -1;
  return avio_open(&file->pb, status_.file.c_str(), AVIO_FLAG_WRITE) >= 0 &&
         avformat_write_header(file, nullptr) >= 0;
}

bool Recording::write(const ReceivedFrame& frame) {
  const AVStream& stream = *file_->streams[0];
  const AvPtr<AVPacket> packet(av_packet_alloc());
  if (av_new_packet(packet.get(), static_cast<int>(frame.payload.size())) < 0) return false;
  std::ranges::copy(frame.payload, packet->data);
  const i64 passed = (frame.arrived - first_) / kNanosecondsEach;
  last_time_ = std::max(av_rescale_q(passed, kMilliseconds, stream.time_base), last_time_ + 1);
  packet->pts = packet->dts = last_time_;
  if (is_key_frame(frame.choice.format, frame.payload)) packet->flags |= AV_PKT_FLAG_KEY;
  if (av_write_frame(file_.get(), packet.get()) < 0) return false;
  status_.bytes += std::ssize(frame.payload);
  ++status_.frames;
  status_.seconds = static_cast<double>(passed) / 1000;
  return true;
}

}  // namespace sim
