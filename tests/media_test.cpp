// The media process against readers that follow the ring's and the media library's rules.
#include "sim/media.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <semaphore.h>
#include <sys/shm.h>
#include <unistd.h>

#include <atomic>
#include <thread>

#include "platform/hi_mpi.h"
#include "sim/frame_counter.h"
#include "sim/physical_memory.h"
#include "sim/run.h"
#include "sim/wait_on.h"
#include "tests/media_helpers.h"
#include "vencbuf/enc_frame.h"

namespace sim {
namespace {

struct RingFrame {
  u32 type, width, height;
  Bytes data;
};

/// The ring's reader.
class RingReader {
 public:
  RingReader() {
    const int id = shmget(run_key(VENC_RING_KEY), kRingSize, IPC_CREAT | 0666);
    slots_ = static_cast<EncFrameSlot*>(shmat(id, nullptr, 0));
    ready_ = sem_open(run_semaphore(kFrameReadySemaphore).c_str(), O_CREAT, 0644, 1);
    released_ = sem_open(run_semaphore(kSlotReleasedSemaphore).c_str(), O_CREAT, 0644, 1);
    for (int i : {0, 1}) set_state(i, kSlotEmpty);
  }
  ~RingReader() {
    sem_close(ready_);
    sem_close(released_);
    shmdt(slots_);
  }

  /// The oldest ready frame; empty when none came in time.
  RingFrame take(int limit_ms = 1000) {
    int index = -1;
    wait_on(*ready_, monotonic_ns() + limit_ms * kMillisecond, [&] { return (index = oldest()) >= 0; });
    if (index < 0) return {};
    set_state(index, kSlotReading);
    const EncFrameSlot& slot = slots_[index];
    RingFrame frame{slot.frame_type, slot.width, slot.height, Bytes(slot.data, slot.data + slot.size)};
    set_state(index, kSlotReleased);
    wake(*released_);
    return frame;
  }

 private:
  std::atomic_ref<u32> word(int slot) const {
    return std::atomic_ref<u32>(*reinterpret_cast<u32*>(&slots_[slot]));
  }
  void set_state(int slot, u32 value) { word(slot) = value; }
  int oldest() const {
    const bool ready[] = {word(0) == kSlotReady, word(1) == kSlotReady};
    if (ready[0] && ready[1]) return static_cast<i32>(slots_[1].seq - slots_[0].seq) < 0;
    return ready[0] ? 0 : ready[1] ? 1 : -1;
  }

  EncFrameSlot* slots_;
  sem_t *ready_, *released_;
};

class RingTest : public testing::Test {
 protected:
  void check(const RingFrame& frame, FrameChecker& checker, u32 width = 320, u32 height = 240) {
    EXPECT_EQ(frame.width, width);
    EXPECT_EQ(frame.height, height);
    checker.feed(frame.data);
  }

  sim::Run run_;
};

TEST_F(RingTest, TheKeyFrameIntervalIsFollowedWithoutABreak) {
  for (EncoderCodec codec : {kCodecH264, kCodecH265}) {
    Media media;
    RingReader reader;
    EncoderSettings wanted = settings(codec);
    i32& interval = wanted.rc_param[codec == kCodecH264 ? 1 : 0];
    FrameChecker checker(format_of(codec), 320, 240);
    std::string types;
    for (i32 value : {1, 5, 60}) {
      interval = value;
      media.apply(start(wanted));
      for (int i = 0; i < 12; ++i) {
        const RingFrame frame = reader.take();
        check(frame, checker);
        types += static_cast<char>('0' + frame.type);
      }
    }
    EXPECT_EQ(types.substr(0, 12), "111111111111");
    EXPECT_NE(types.substr(12, 12).find("10000100"), types.npos) << types;
    EXPECT_EQ(types.substr(29), "0000000") << types;
    EXPECT_EQ(text(checker.report()), "frames=36");
  }
}

TEST_F(RingTest, AStreamBeginsWithNewFramesAndAKeyFrame) {
  Media media;
  RingReader reader;
  const EncoderSettings small = settings(kCodecH264), large = settings(kCodecH264, 352, 288);
  media.apply(start(small));
  EXPECT_EQ(reader.take().type, 1u);
  sleep_ms(100);  // two unread frames lie in the ring
  media.apply(stop(small));
  EXPECT_TRUE(reader.take(100).data.empty());

  for (const EncoderSettings& wanted : {small, large}) {  // the second one without a stop before it
    sleep_ms(wanted.width == 352 ? 60 : 0);
    media.apply(start(wanted));
    sleep_ms(60);
    const RingFrame first = reader.take();
    FrameChecker checker(StreamFormat::kH264, wanted.width, wanted.height);
    check(first, checker, wanted.width, wanted.height);
    EXPECT_EQ(first.type, 1u);
    EXPECT_EQ(text(checker.report()), "frames=1");
  }
}

TEST_F(RingTest, WithoutAReaderTheRingStaysFreshAndDecodable) {
  Media media;
  RingReader reader;
  media.apply(start(settings(kCodecH264)));
  for (int round = 0; round < 2; ++round) {
    sleep_ms(700);
    FrameChecker checker(StreamFormat::kH264, 320, 240);
    for (int i = 0; i < 6; ++i) check(reader.take(), checker);
    EXPECT_EQ(text(checker.report()), "frames=6");
    EXPECT_LT(checker.report().latency_max_ms, 500);
  }
  EXPECT_GT(media.counts().dropped, 0u);
}

class VpssTest : public testing::Test {
 protected:
  static VpssPicture take(int limit_ms = 2000) {
    VpssPicture picture{};
    EXPECT_EQ(HI_MPI_VPSS_GetChnFrame(0, 3, &picture, limit_ms), 0);
    return picture;
  }
  static void release(const VpssPicture& picture) { HI_MPI_VPSS_ReleaseChnFrame(0, 3, &picture); }

  static Bytes plane(const VpssPicture& picture, int index, u32 rows) {
    const u32 size = picture.stride[index] * rows;
    auto* start = static_cast<u8*>(HI_MPI_SYS_Mmap(picture.phys_addr[index], size));
    if (!start) return {};
    Bytes bytes(start, start + size);
    EXPECT_EQ(HI_MPI_SYS_Munmap(start, size), 0);
    return bytes;
  }

  static Bytes yuy2(const VpssPicture& p) {
    const u32 divisor = p.pixel_format == kVpssYuv422SemiPlanar ? 1 : 2;
    const Bytes luma = plane(p, 0, p.height), chroma = plane(p, 1, p.height / divisor);
    Bytes packed;
    for (u32 row = 0; row < p.height; ++row) {
      const u8* y = &luma[row * p.stride[0]];
      const u8* vu = &chroma[row / divisor * p.stride[1]];
      for (u32 i = 0; i < p.width; i += 2) packed.insert(packed.end(), {y[i], vu[i + 1], y[i + 1], vu[i]});
    }
    return packed;
  }

  sim::Run run_;
};

bool luma_in_range(const Bytes& yuy2) {
  for (std::size_t i = 0; i < yuy2.size(); i += 2)
    if (yuy2[i] < 16 || yuy2[i] > 235) return false;
  return true;
}

TEST_F(VpssTest, PicturesOfBothFormatsAreExactAtAnyStride) {
  for (bool yuv422 : {false, true}) {
    for (u32 extra : {0u, 13u}) {
      Media media({.source = "", .yuv422 = yuv422, .extra_stride = extra});
      media.apply(start(settings(kCodecYuy2)));
      FrameChecker checker(StreamFormat::kYuy2, 320, 240);
      for (int i = 0; i < 8; ++i) {
        const VpssPicture picture = take();
        EXPECT_EQ(picture.pixel_format, yuv422 ? 22u : 23u);
        EXPECT_EQ(picture.stride[0], 320 + extra);
        Bytes packed = yuy2(picture);
        release(picture);
        EXPECT_TRUE(luma_in_range(packed));
        checker.feed(packed);
        if (i == 4) sleep_ms(200);
      }
      EXPECT_EQ(text(checker.report()), "frames=8") << yuv422 << ' ' << extra;
      Bytes damaged = yuy2(take());
      damaged[damaged.size() / 2] ^= 1;
      checker.feed(damaged);
      EXPECT_EQ(checker.report().torn, 1u);
    }
  }
}

TEST_F(VpssTest, AHeldPictureStaysAndANeverReleasedOneIsReclaimed) {
  Media media;
  media.apply(start(settings(kCodecYuy2)));
  const VpssPicture held = take();
  const Bytes before = yuy2(held);
  for (u32 i = 0; i < 2 * kVpssPictures; ++i) release(take());
  EXPECT_EQ(yuy2(held), before);
  for (u32 i = 0; i < 2 * kVpssPictures; ++i) take();
  EXPECT_NE(yuy2(held), before);
  EXPECT_NE(HI_MPI_VPSS_ReleaseChnFrame(0, 3, &held), 0);
  const VpssPicture last = take();
  EXPECT_EQ(HI_MPI_VPSS_ReleaseChnFrame(0, 3, &last), 0);
  EXPECT_NE(HI_MPI_VPSS_ReleaseChnFrame(0, 3, &last), 0);
}

}  // namespace
}  // namespace sim
