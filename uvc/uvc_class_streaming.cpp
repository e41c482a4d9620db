#include "uvc/uvc_class_streaming.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <iterator>

#include "platform/uvc_formats.h"
#include "support/print.h"
#include "uvc/uvc_class_encoder.h"
#include "uvc/uvc_state.h"

constexpr char kPrintFile[] = "uvc_class.c";

namespace {

constexpr VsProbeCommit kInitialBlock = {
    .bmHint = 0x0009,
    .bFormatIndex = kFormatMjpeg,
    .bFrameIndex = 1,
    .dwFrameInterval = 333078,
    .wKeyFrameRate = 0,
    .wPFrameRate = 0,
    .wCompQuality = 0,
    .wCompWindowSize = 0,
    .wDelay = 0,
    .dwMaxVideoFrameSize = 4194304,
    .dwMaxPayloadTransferSize = 1024,
};

VsProbeCommit vs_probe_and_commit_control = kInitialBlock;

VsStillProbeCommit still_block = {
    .bFormatIndex = 2,
    .bFrameIndex = 1,
    .bCompressionIndex = 1,
    .dwMaxVideoFrameSize = 7962624,
    .dwMaxPayloadTransferSize = 1024,
};

// How many bytes of each block the host may set; what follows is the device's own.
constexpr std::size_t kHostBytes = offsetof(VsProbeCommit, dwMaxVideoFrameSize);
constexpr std::size_t kStillHostBytes = offsetof(VsStillProbeCommit, dwMaxPayloadTransferSize);

struct FormatRow {
  i32 format;
  std::span<const FrameSize> sizes;  // the frame indices that a probe accepts
  u8 bytes_per_pixel;
  const char* name;  // in the message of a commit
};

constexpr FormatRow kFormats[] = {
    {kFormatMjpeg, kMjpegSizes, 1, "MJPEG"},
    {kFormatH264, kH264Sizes, 1, "H264"},
    {kFormatYuy2, kYuy2Sizes, 2, "YUY2"},
    {kFormatH265, kH265Sizes, 1, "H265"},
};

// The number of frame sizes in all rows before `end`.
constexpr std::size_t sizes_before(const FormatRow* end) {
  std::size_t count = 0;
  for (const FormatRow* row = kFormats; row != end; ++row) count += row->sizes.size();
  return count;
}

// Deliberate: one flat run that begins with an empty size, because frame index 0 reads the entry before its
// format's first one, and a commit of an index past its format's last one reads the next format's sizes.
constexpr auto kFrameSizes = [] {
  std::array<FrameSize, 1 + sizes_before(std::end(kFormats))> run = {};
  auto to = run.begin() + 1;
  for (const FormatRow& row : kFormats) to = std::ranges::copy(row.sizes, to).out;
  return run;
}();

const FormatRow* format_row(u8 format_index) {
  for (const FormatRow& row : kFormats) {
    if (row.format == format_index) return &row;
  }
  return nullptr;
}

FrameSize frame_size(const FormatRow& row, u8 frame_index) {
  const std::size_t at = sizes_before(&row) + frame_index;
  return at < std::size(kFrameSizes) ? kFrameSizes[at] : FrameSize{0, 0};
}

u32 max_video_frame_size(u8 format_index, u8 frame_index) {
  const FormatRow* row = format_row(format_index);
  if (!row || frame_index > row->sizes.size()) return 0;
  const FrameSize size = frame_size(*row, frame_index);
  return u32{size.width} * size.height * row->bytes_per_pixel;
}

void refresh_max_video_frame_size() {
  VsProbeCommit& block = vs_probe_and_commit_control;
  block.dwMaxVideoFrameSize = max_video_frame_size(block.bFormatIndex, block.bFrameIndex);
}

UvcStatus get_block(const Control&) {
  refresh_max_video_frame_size();
  std::memcpy(uvc_resp_buf, &vs_probe_and_commit_control, sizeof(VsProbeCommit));
  return kNoError;
}

UvcStatus set_probe(const Control&) {
  std::memcpy(&vs_probe_and_commit_control, uvc_resp_buf, kHostBytes);
  return kNoError;
}

void adopt_format(const FormatRow& row, u8 frame_index) {
  const FrameSize size = frame_size(row, frame_index);
  cur_format = row.format;
  PRINT_INFO(" cur_format == %s last_format %d\n", row.name, i32(last_format));
  cur_line = size.height;
  cur_col = size.width;
}

UvcStatus set_commit(const Control& control) {
  set_probe(control);
  const VsProbeCommit& block = vs_probe_and_commit_control;
  PRINT_INFO("vs_probe_and_commit_control.bFormatIndex %d\n", block.bFormatIndex);
  if (const FormatRow* row = format_row(block.bFormatIndex)) adopt_format(*row, block.bFrameIndex);
  refresh_max_video_frame_size();
  const u32 interval = block.dwFrameInterval;
  cur_frame_rate = interval ? static_cast<i32>(10'000'000 / interval) : 0;
  cur_quality = block.wCompQuality;
  PRINT_INFO("cur_frame_rate %d\n", i32(cur_frame_rate));
  PRINT_INFO("need to config frame resolution\n");
  PRINT_INFO("cur_col %d cur_line %d, cur_frame_rate = %d\n", i32(cur_col), i32(cur_line),
             i32(cur_frame_rate));
  cfg_line = cur_line;
  cfg_col = cur_col;
  last_format = cur_format;
  config_changed = 1;
  // Deliberate: not cur_format, which an unknown format leaves as it was: nothing is sent to the encoder.
  apply_encoder_settings(cur_col, cur_line, block.bFormatIndex, cur_frame_rate);
  return kNoError;
}

UvcStatus set_still(const Control&) {
  std::memcpy(&still_block, uvc_resp_buf, kStillHostBytes);
  return kNoError;
}

UvcStatus set_trigger(const Control&) {
  still_trigger_format = still_block.bFormatIndex;
  still_trigger = still_block.bFormatIndex;
  return kNoError;
}

constexpr Reply kInitial = reply_live(&kInitialBlock, sizeof(kInitialBlock));
constexpr Reply kCurrent = reply_live(&vs_probe_and_commit_control, sizeof(VsProbeCommit));
constexpr Reply kStill = reply_live(&still_block, sizeof(still_block));
constexpr Reply kInfo = reply_bytes({kInfoGetSet});
constexpr Reply kTrigger = reply_message("get VS_STILL_IMAGE_TRIGGER_CONTROL\n");

constexpr Control block_control(u8 selector, ControlFunction set_cur) {
  return {
      .selector = selector,
      .len = reply_word(sizeof(VsProbeCommit)),
      .info = kInfo,
      .min = kInitial,
      .max = kInitial,
      .res = kCurrent,
      .def = kCurrent,
      .get_cur = get_block,
      .set_cur = set_cur,
  };
}

constexpr Control kControls[] = {
    block_control(VS_PROBE_CONTROL, set_probe),
    block_control(VS_COMMIT_CONTROL, set_commit),
    {
        .selector = VS_STILL_PROBE_CONTROL,
        .len = reply_bytes({sizeof(VsStillProbeCommit)}),  // Deliberate: the low byte only
        .info = kInfo,
        .min = kStill,
        .max = kStill,
        .res = kStill,
        .def = kStill,
        .cur = kStill,
        .set_cur = set_still,
    },
    {
        .selector = VS_STILL_COMMIT_CONTROL,
        .set_cur = set_still,
    },
    {
        .selector = VS_STILL_IMAGE_TRIGGER_CONTROL,
        .len = kTrigger,
        .info = kTrigger,
        .cur = kTrigger,
        .set_cur = set_trigger,
    },
};

}  // namespace

constexpr Unit uvc_streaming_interface = {kVideoStreamingInterface, kAnyEntity, kControls, {}};
