#include "sim/media/lent_encoder.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

extern "C" {
#include <libavutil/imgutils.h>
}

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>

#include "sim/seam/wait_on.h"
#include "vencbuf/enc_frame.h"

namespace sim {

namespace {

constexpr std::size_t kMostPicture = 6u << 20;
constexpr useconds_t kPollUs = 200;
constexpr i64 kPatienceWithLender = 1000 * kMillisecond;

}  // namespace

struct LentEncoderMemory {
  std::atomic<u32> asked, answered;  // numbers of the last picture and of the last answer
  EncoderSettings settings;
  u32 key_frame;
  u32 failed;
  u32 type, size;  // of the frame
  u8 data[kEncFrameCapacity];
  u8 picture[kMostPicture];  // planar 4:2:0, rows packed
};

const std::size_t kLentEncoderSize = 16u << 20;
static_assert(sizeof(LentEncoderMemory) <= 16u << 20);

namespace {

LentEncoderMemory& map(const std::string& path) {
  const int fd = open(path.c_str(), O_RDWR | O_CLOEXEC);
  void* start =
      fd < 0 ? MAP_FAILED : mmap(nullptr, kLentEncoderSize, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
  if (start == MAP_FAILED) {
    std::perror(path.c_str());
    std::exit(2);
  }
  close(fd);
  return *static_cast<LentEncoderMemory*>(start);
}

AVPixelFormat format_of(const EncoderSettings& settings) {
  return settings.codec == kCodecMjpeg ? AV_PIX_FMT_YUVJ420P : AV_PIX_FMT_YUV420P;
}

}  // namespace

LentEncoder::LentEncoder(const std::string& path) : memory_(map(path)) {}
LentEncoder::~LentEncoder() { munmap(&memory_, kLentEncoderSize); }

std::optional<EncodedFrame> LentEncoder::encode(const EncoderSettings& settings, const AVFrame& picture,
                                                bool key_frame) {
  if (av_image_copy_to_buffer(memory_.picture, kMostPicture, picture.data, picture.linesize,
                              format_of(settings), picture.width, picture.height, 1) < 0)
    return std::nullopt;
  memory_.settings = settings;
  memory_.key_frame = key_frame;
  const u32 number = ++memory_.asked;
  for (const i64 end = monotonic_ns() + kPatienceWithLender; memory_.answered != number; usleep(kPollUs)) {
    if (monotonic_ns() > end) return std::nullopt;
  }
  if (memory_.failed) return std::nullopt;
  return EncodedFrame{memory_.type, {memory_.data, memory_.size}};
}

namespace {

// Returns a copy of the memory's picture, which the encoder may keep.
AvPtr<AVFrame> picture_of(const LentEncoderMemory& memory) {
  AvPtr<AVFrame> picture(av_frame_alloc());
  picture->width = memory.settings.width;
  picture->height = memory.settings.height;
  picture->format = format_of(memory.settings);
  picture->color_range = memory.settings.codec == kCodecMjpeg ? AVCOL_RANGE_JPEG : AVCOL_RANGE_MPEG;
  u8* planes[4];
  int strides[4];
  if (av_frame_get_buffer(picture.get(), 0) < 0 ||
      av_image_fill_arrays(planes, strides, memory.picture, format_of(memory.settings), picture->width,
                           picture->height, 1) < 0)
    return nullptr;
  av_image_copy(picture->data, picture->linesize, const_cast<const u8**>(planes), strides,
                format_of(memory.settings), picture->width, picture->height);
  return picture;
}

void answer(LentEncoderMemory& memory, Encoder& encoder) {
  const AvPtr<AVFrame> picture = picture_of(memory);
  const auto frame = picture ? encoder.encode(memory.settings, *picture, memory.key_frame) : std::nullopt;
  memory.failed = !frame || frame->data.size() > sizeof(memory.data);
  if (memory.failed) return;
  memory.type = frame->type;
  memory.size = static_cast<u32>(frame->data.size());
  std::ranges::copy(frame->data, memory.data);
}

}  // namespace

void lend_encoder(const std::string& path, const std::atomic<bool>& end) {
  LentEncoderMemory& memory = map(path);
  Encoder encoder;
  for (; !end; usleep(kPollUs)) {
    const u32 number = memory.asked;
    if (number == memory.answered) continue;
    answer(memory, encoder);
    memory.answered = number;
  }
}

}  // namespace sim
