// The encoder-settings record: rate control of every codec and mode, and the system side's entry points.
#include "uvc/uvc_class_encoder.h"

#include <atomic>
#include <cstdio>
#include <sstream>
#include <thread>

#include "tests/uvc/uvc_fixture.h"

namespace {

struct ModeRow {
  const char* name;
  i32 format;
  RateControl* settings;
  i32 mode;
  i32 rate;
  const char* sent;
};

TEST_F(UvcTest, UnknownModesAndFastStreamsFallBack) {
  const ModeRow rows[] = {
      {"MJPEG unknown", kFormatMjpeg, &mjpeg_rate_control, 3, 30, "2 1 8 4 30 0 1 1 20480 99 60 0 0\n"},
      {"MJPEG fast", kFormatMjpeg, &mjpeg_rate_control, 2, 31, "2 1 8 4 31 0 1 0 32768 0 0 0 0\n"},
      {"H.264 unknown", kFormatH264, &h264_rate_control, 4, 30, "2 1 8 4 30 0 0 0 1 30 2048 0 0\n"},
      {"H.265 unknown", kFormatH265, &h265_rate_control, -1, 30, "2 1 8 4 30 0 2 0 30 2048 0 0 0\n"},
      {"YUY2", kFormatYuy2, &h264_rate_control, 0, 60, "2 1 8 4 60 0 3 9 0 0 0 0 0\n"},
  };
  for (const ModeRow& row : rows) {
    SCOPED_TRACE(row.name);
    encoder_record.rc_mode = 9;
    for (Word& parameter : encoder_record.rc_param) parameter = 0;
    row.settings->mode = row.mode;
    apply_encoder_settings(8, 4, row.format, row.rate);
    EXPECT_EQ(sent_settings(), row.sent);
  }
}

TEST_F(UvcTest, KeyFrameIntervalGoesIntoEveryMode) {
  cur_format = kFormatH265;
  apply_encoder_settings(1920, 1080, kFormatH265, 30);
  sent_settings();
  h265_rate_control.mode = 2;
  h265_rate_control.param[2][0] = 50;
  EXPECT_EQ(get_key_frame_interval(), 50);
  set_key_frame_interval(1);
  EXPECT_EQ(sent_settings(), "2 1 1920 1080 30 0 2 2 1 25 25 0 0\n");
  for (int mode = 0; mode < 4; ++mode) {
    EXPECT_EQ(h264_rate_control.param[mode][0], 1);
    EXPECT_EQ(h265_rate_control.param[mode][0], 1);
  }
}

TEST_F(UvcTest, RecordIsOfOneCommitWhenTheKeyFrameIntervalChangesMeanwhile) {
  constexpr int kRounds = 3000;
  const struct {
    i32 format, columns, codec;
  } commits[] = {{kFormatH264, 640, kCodecH264}, {kFormatMjpeg, 1280, kCodecMjpeg}};
  apply_encoder_settings(1280, 480, kFormatMjpeg, 30);
  sent_settings();
  std::atomic<int> round = 0, done = 0;
  std::thread main_thread([&] {
    for (int i = 1; i <= kRounds; ++i) {
      while (round < i) continue;
      set_key_frame_interval(i);
      done = i;
    }
  });
  int mixed = 0, outdated = 0;
  for (int i = 1; i <= kRounds; ++i) {
    const auto& commit = commits[i % 2];
    round = i;
    cur_format = commit.format;
    apply_encoder_settings(commit.columns, 480, commit.format, 30);
    while (done < i) continue;
    std::istringstream lines(sent_settings());
    int columns = 0, codec = 0, interval = 0;
    for (std::string line; std::getline(lines, line);) {
      std::sscanf(line.c_str(), "2 1 %d 480 30 0 %d 0 %*d %d", &columns, &codec, &interval);
      mixed += (columns == 640) != (codec == kCodecH264);
    }
    outdated += columns != commit.columns || (codec == kCodecH264 && interval != i);
  }
  main_thread.join();
  EXPECT_EQ(mixed, 0);
  EXPECT_EQ(outdated, 0) << "the last one that leaves is the newest";
}

TEST_F(UvcTest, QualityScalesBitRatesAndQuantisers) {
  cur_format = kFormatH264;
  h264_rate_control.mode = 1;
  i32 last_rate = -1, last_low = 52, last_high = 52;
  for (i32 quality = 1; quality <= 10000; quality += 101) {
    change_quality(quality);
    EXPECT_GE(encoder_record.rc_param[2], last_rate);
    EXPECT_LE(encoder_record.rc_param[3], last_low);
    EXPECT_LE(encoder_record.rc_param[4], last_high);
    last_rate = encoder_record.rc_param[2];
    last_low = encoder_record.rc_param[3];
    last_high = encoder_record.rc_param[4];
    EXPECT_TRUE(last_low >= 0 && last_high <= 51) << quality;
  }
  sent_settings();
  change_quality(5000);
  EXPECT_EQ(sent_settings(), "2 1 1920 1080 30 0 0 1 1 60 10240 30 45\n");
  for (const i32 best : {10000, 0, 10001, -5}) {
    change_quality(best);
    EXPECT_EQ(sent_settings(), "2 1 1920 1080 30 0 0 1 1 60 20480 10 40\n");
  }
  encoder_record.width = 1280;
  encoder_record.height = 720;
  cur_format = kFormatH265;
  h265_rate_control.mode = 0;
  change_quality(10000);
  EXPECT_EQ(encoder_record.rc_param[1], 9102);
}

TEST_F(UvcTest, QualityOfMjpegAndOtherFormats) {
  cur_format = kFormatMjpeg;
  encoder_record.frame_rate = 30;
  const struct {
    i32 mode, quality;
    const char* sent;
  } rows[] = {{0, 5000, "2 1 1920 1080 30 0 1 0 20480 99 60 0 0\n"},
              {1, 10000, "2 1 1920 1080 30 0 1 1 40960 99 60 0 0\n"},
              {1, 5000, "2 1 1920 1080 30 0 1 1 20480 99 30 0 0\n"},
              {2, 5000, "2 1 1920 1080 30 0 1 2 40 99 30 0 0\n"}};
  for (const auto& row : rows) {
    mjpeg_rate_control.mode = row.mode;
    change_quality(row.quality);
    EXPECT_EQ(sent_settings(), row.sent);
  }
  cur_format = kFormatYuy2;
  change_quality(5000);
  EXPECT_EQ(sent_settings(), "");
  set_frame_rate(12);
  EXPECT_EQ(sent_settings(), "2 1 1920 1080 12 0 1 2 40 99 30 0 0\n");
}

}  // namespace
