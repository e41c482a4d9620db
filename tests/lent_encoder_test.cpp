#include "sim/lent_encoder.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <string>
#include <thread>

#include "sim/scene.h"

namespace {

constexpr EncoderSettings kQuality80 = {320, 240, 30, 0, kCodecMjpeg, 2, {80}};

struct LentEncoderTest : testing::Test {
  LentEncoderTest() { EXPECT_EQ(truncate(path.c_str(), sim::kLentEncoderSize), 0); }
  ~LentEncoderTest() override { unlink(path.c_str()); }

  const std::string path = [] {
    std::string name = "/dev/shm/lent-encoder-XXXXXX";
    close(mkstemp(name.data()));
    return name;
  }();
  sim::Scene scene{"", 320, 240, true};
};

TEST_F(LentEncoderTest, FramesAreThoseOfAnEncoderOfOnesOwn) {
  std::atomic<bool> end = false;
  std::thread lender([&] { sim::lend_encoder(path, end); });
  sim::LentEncoder lent(path);
  sim::Encoder own;
  for (u32 counter = 1; counter <= 3; ++counter) {
    AVFrame& picture = scene.picture(counter, {});
    const auto frame = lent.encode(kQuality80, picture, true);
    const auto expected = own.encode(kQuality80, picture, true);
    ASSERT_TRUE(frame && expected);
    EXPECT_EQ(frame->type, expected->type);
    EXPECT_TRUE(std::ranges::equal(frame->data, expected->data)) << counter;
  }
  end = true;
  lender.join();
}

TEST_F(LentEncoderTest, GivesUpWhenNobodyLends) {
  sim::LentEncoder lent(path);
  EXPECT_FALSE(lent.encode(kQuality80, scene.picture(1, {}), true));
}

}  // namespace
