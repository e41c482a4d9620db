// The burnt-in counter, the encoder and the scene behind it, and the frame checker against known damage.
#include "sim/host/frame_check.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <optional>
#include <thread>

#include "sim/host/usb_host.h"
#include "sim/media/encoder.h"
#include "sim/media/frame_counter.h"
#include "sim/media/made_frames.h"
#include "sim/media/ring_watcher.h"
#include "sim/media/ring_writer.h"
#include "sim/media/scene.h"
#include "sim/media/vpss_model.h"
#include "sim/seam/run.h"

namespace sim {
namespace {

using Bytes = std::vector<u8>;

EncoderSettings settings(EncoderCodec codec, i32 width = 320, i32 height = 240, i32 rate = 60) {
  switch (codec) {
    case kCodecMjpeg:
      return {width, height, rate, 0, codec, 1, {40960, 99, 60}};
    case kCodecH264:
      return {width, height, rate, 0, codec, 0, {1, 60, 12288}};
    default:
      return {width, height, rate, 0, codec, 0, {60, 12288}};
  }
}

StreamFormat format_of(i32 codec) {
  constexpr StreamFormat kFormats[] = {StreamFormat::kH264, StreamFormat::kMjpeg, StreamFormat::kH265,
                                       StreamFormat::kYuy2};
  return kFormats[codec];
}

// What a report counts besides the bytes, such as "frames=3 lost=1".
std::string text(const StreamReport& r) {
  std::string line;
  for (auto [name, value] : {std::pair{"frames", r.frames},
                             {"empty", r.empty},
                             {"leading", r.leading},
                             {"lost", r.lost},
                             {"torn", r.torn},
                             {"repeated", r.repeated},
                             {"stale", r.stale},
                             {"unseen", r.unseen}}) {
    if (value) line += std::string(line.empty() ? "" : " ") + name + "=" + std::to_string(value);
  }
  return line;
}

TEST(Counter, SurvivesEveryCodecAtEverySize) {
  for (EncoderCodec codec : {kCodecMjpeg, kCodecH264, kCodecH265}) {
    for (auto [width, height] : host_format(format_of(codec)).sizes) {
      EncoderSettings wanted = settings(codec, width, height, 30);
      for (i32& word : wanted.rc_param)
        if (word > 10000) word = 2048;  // kbit/s: the least that a record ever asks for
      Scene scene("", width, height, codec == kCodecMjpeg);
      Encoder encoder;
      FrameChecker checker(format_of(codec), width, height);
      for (u32 counter : {0xFFFFFFFEu, 0xFFFFFFFFu, 0u})
        checker.feed(encoder.encode(wanted, scene.picture(counter, {}), false)->data);
      EXPECT_EQ(text(checker.report()), "frames=3") << width << " x " << height << " codec " << codec;
    }
  }
}

TEST(Counter, IsRefusedWhereThereIsNone) {
  Scene scene("", 640, 480, false);
  const AVFrame& picture = scene.picture(77, {});
  const u32 stride = picture.linesize[0];
  EXPECT_EQ(read_counter({picture.data[0], 640, 480, stride}, Strip::kBottom), 77u);
  EXPECT_FALSE(read_counter({picture.data[0] + 100 * stride, 640, 300, stride}, Strip::kTop));
  EXPECT_FALSE(read_counter({picture.data[0], 60, 480, stride}, Strip::kTop));
  for (u8 level : {u8{0}, u8{16}, u8{235}, u8{255}}) {
    const Bytes flat(std::size_t{640} * 480, level);
    EXPECT_FALSE(read_counter({flat.data(), 640, 480, 640}, Strip::kTop)) << int{level};
  }
}

// Ten payloads with counters in a row, none of which a media process has used.
std::vector<Bytes> payloads(EncoderCodec codec) {
  Scene scene("", 320, 240, codec == kCodecMjpeg);
  Encoder encoder;
  EncoderSettings wanted = settings(codec);
  if (codec == kCodecH264) wanted.rc_param[1] = 1;
  if (codec == kCodecH265) wanted.rc_param[0] = 1;
  std::vector<Bytes> all;
  for (u32 counter = 0; counter < 10; ++counter) {
    AVFrame& picture = scene.picture(0x40000000 + counter, {});
    if (codec == kCodecYuy2) {
      all.push_back(yuy2_payload(picture));
    } else {
      const auto data = encoder.encode(wanted, picture, false)->data;
      all.emplace_back(data.begin(), data.end());
    }
  }
  return all;
}

TEST(Checker, ReportsEveryKindOfDamage) {
  const struct {
    const char* fed;  // digits: that payload; e: empty; t: torn between 4 and 5; c: cut short
    const char* report;
  } cases[] = {
      {"0123456789", "frames=10"},         {"ee012", "frames=3 leading=2"},
      {"01e2", "frames=3 empty=1"},        {"0125", "frames=4 lost=2"},
      {"01123", "frames=4 repeated=1"},    {"01213", "frames=4 stale=1"},
      {"34t67", "frames=4 lost=1 torn=1"}, {"t6", "frames=1 torn=1"},
      {"01c3", "frames=3 lost=1 torn=1"},  {"", ""},
  };
  for (EncoderCodec codec : {kCodecMjpeg, kCodecH264, kCodecH265, kCodecYuy2}) {
    const std::vector<Bytes> all = payloads(codec);
    const auto payload = [&](char what) -> Bytes {
      if (what == 'e') return {0, 0};
      if (what == 'c') return {all[2].begin(), all[2].end() - static_cast<long>(all[2].size() / 3)};
      if (what != 't') return all[what - '0'];
      Bytes torn = all[5];
      const auto half = static_cast<long>(std::min(all[4].size(), all[5].size()) / 2);
      std::copy_n(all[4].begin(), half, torn.begin());
      return torn;
    };
    for (const auto& c : cases) {
      FrameChecker checker(format_of(codec), 320, 240);
      for (const char* what = c.fed; *what; ++what) checker.feed(payload(*what));
      EXPECT_EQ(text(checker.report()), c.report) << codec << ": " << c.fed;
    }
    FrameChecker other_size(format_of(codec), 352, 288);
    other_size.feed(all[0]);
    EXPECT_EQ(text(other_size.report()), "torn=1");
  }
}

// An encoder of the user's own need not show a counter; a picture that stands still is the same bytes again.
TEST(Checker, KnowsFramesOfAnotherEncoderByTheirBytes) {
  const sim::Run run;
  RingWriter writer;
  std::optional<RingWatcher> watcher(std::in_place);
  const std::vector<Bytes> all = payloads(kCodecMjpeg);
  const auto report = [&](const char* written, const char* fed) {  // '-': nothing at that time
    FrameChecker checker(StreamFormat::kMjpeg, 320, 240);
    for (; *written; ++written, ++fed) {
      if (EncFrameSlot* slot = *written == '-' ? nullptr : writer.acquire())
        writer.publish(*slot, {kJpegFrameType, all[*written - '0']}, 320, 240);
      std::this_thread::sleep_for(std::chrono::milliseconds(50));  // the watcher looks every millisecond
      if (*fed != '-') checker.feed(all[*fed - '0']);
    }
    return text(checker.report());
  };
  EXPECT_EQ(report("4444", "4444"), "frames=4");
  EXPECT_EQ(report("0123", "0--3"), "frames=2 lost=2");
  EXPECT_EQ(report("01--", "0189"), "frames=2 torn=2") << "never written";
  EXPECT_EQ(report("01-2", "0112"), "frames=3 repeated=1");
  watcher.reset();
  know_frames_by_their_bytes(true);
  FrameChecker checker(StreamFormat::kMjpeg, 320, 240);
  for (const u32 number : {0, 2}) {  // a watcher that runs late misses the frame between them
    note_scene(0x50000000 + number);
    note_payload(0x50000000 + number, all[number]);
    checker.feed(all[number / 2]);
  }
  checker.feed(all[2]);
  EXPECT_EQ(text(checker.report()), "frames=3 unseen=1");
}

}  // namespace
}  // namespace sim
