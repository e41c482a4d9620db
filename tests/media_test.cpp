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
#include "sim/ring_writer.h"
#include "sim/run.h"
#include "sim/wait_on.h"
#include "tests/media_helpers.h"

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
  RingFrame take(int limit_ms = 1000, int copy_ms = 0) {
    int index = -1;
    wait_on(*ready_, monotonic_ns() + limit_ms * kMillisecond, [&] { return (index = oldest()) >= 0; });
    if (index < 0) return {};
    set_state(index, kSlotReading);
    sleep_ms(copy_ms);
    const EncFrameSlot& slot = slots_[index];
    RingFrame frame{slot.frame_type, slot.width, slot.height, Bytes(slot.data, slot.data + slot.size)};
    set_state(index, kSlotReleased);
    wake(*released_);
    return frame;
  }
  u32 state(int slot) const { return word(slot).load(); }

 private:
  std::atomic_ref<u32> word(int slot) const {
    return std::atomic_ref<u32>(*reinterpret_cast<u32*>(&slots_[slot]));
  }
  void set_state(int slot, u32 value) { word(slot) = value; }
  int oldest() const {
    const bool ready[] = {state(0) == kSlotReady, state(1) == kSlotReady};
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

TEST_F(RingTest, StreamsAreWholeAlsoWhenTheReaderHesitates) {
  Media media;
  RingReader reader;
  for (EncoderCodec codec : {kCodecMjpeg, kCodecH264, kCodecH265}) {
    media.apply(start(settings(codec)));
    FrameChecker checker(format_of(codec), 320, 240);
    for (int i = 0; i < 24; ++i) {
      const RingFrame frame = reader.take(1000, i == 5 ? 50 : 0);
      EXPECT_EQ(frame.type, codec == kCodecMjpeg ? 3u : i == 0 ? 1u : 0u) << i;
      check(frame, checker);
      if (i == 12) sleep_ms(200);
      if (i == 18) media.apply(start(settings(codec)));
    }
    EXPECT_EQ(text(checker.report()), "frames=24") << codec;
    EXPECT_GT(checker.report().latency_ms, 0.0);
    media.apply(stop(settings(codec)));
  }
  EXPECT_EQ(media.counts().dropped, 0u);
}

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

TEST_F(RingTest, AFrameThatDoesNotFitIsLeftOut) {
  RingWriter writer;
  RingReader reader;
  const Bytes data(kEncFrameCapacity + 1, 7);
  EXPECT_FALSE(writer.publish(*writer.acquire(), {3, data}, 320, 240));
  EXPECT_TRUE(writer.publish(*writer.acquire(), {3, std::span(data).first(kEncFrameCapacity)}, 320, 240));
  EXPECT_EQ(reader.take(0).data.size(), kEncFrameCapacity);
  EXPECT_TRUE(reader.take(0).data.empty());
}

TEST_F(RingTest, FaultsComeAndGo) {
  Media media;
  RingReader reader;
  media.apply(start(settings(kCodecMjpeg)));
  for (EncoderFault fault : {EncoderFault::kSilent, EncoderFault::kDead}) {
    EXPECT_FALSE(reader.take().data.empty());
    media.set_fault(fault);
    while (!reader.take(200).data.empty()) continue;
    const auto made = media.counts().pictures;
    sleep_ms(60);
    EXPECT_EQ(media.counts().pictures, made);
    const bool left_writing = reader.state(0) == 1 || reader.state(1) == 1;
    EXPECT_EQ(left_writing, fault == EncoderFault::kDead);
    media.set_fault(EncoderFault::kNone);
  }
  EXPECT_EQ(reader.take().width, 320u);
  media.set_fault(EncoderFault::kWrongSize);
  for (int i = 0; i < 3; ++i) reader.take();
  EXPECT_EQ(reader.take().width, 160u);
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

TEST_F(VpssTest, ATakerLeftFromTheFormerStreamGetsItsPicture) {
  Media media;
  for (EncoderCodec codec : {kCodecMjpeg, kCodecH264, kCodecH265}) {
    media.apply(start(settings(codec, 1920, 1080, 30)));
    const VpssPicture picture = take();
    EXPECT_EQ(picture.width, 1920u);
    EXPECT_TRUE(luma_in_range(yuy2(picture)));
    release(picture);
    const auto before = media.counts().encoded;
    for (int i = 0; i < 200 && media.counts().encoded == before; ++i) sleep_ms(10);
    EXPECT_GT(media.counts().encoded, before);
  }
}

TEST_F(VpssTest, ErrorsInsteadOfPictures) {
  VpssPicture picture{};
  EXPECT_NE(HI_MPI_VPSS_GetChnFrame(0, 3, &picture, -1), 0);  // nothing there: no waiting
  EXPECT_EQ(HI_MPI_SYS_MmapCache(kPhysicalBase, 4096), nullptr);
  auto media = std::make_unique<Media>();
  EXPECT_NE(HI_MPI_VPSS_GetChnFrame(0, 2, &picture, -1), 0);
  EXPECT_NE(HI_MPI_VPSS_GetChnFrame(1, 3, &picture, -1), 0);
  EXPECT_NE(HI_MPI_VPSS_GetChnFrame(0, 3, &picture, 20), 0);
  std::thread ends([&] {
    sleep_ms(50);
    media.reset();
  });
  EXPECT_NE(HI_MPI_VPSS_GetChnFrame(0, 3, &picture, -1), 0);
  ends.join();
}

TEST_F(VpssTest, OnlyThePhysicalMemoryCanBeMapped) {
  const PhysicalMemory memory;
  constexpr u32 kEnd = kPhysicalBase + kPhysicalSize;
  const struct {
    u32 address, size;
    bool good;
  } cases[] = {{kPhysicalBase, 1, true},  {kPhysicalBase, kPhysicalSize, true},
               {kPhysicalBase, 0, false}, {kPhysicalBase - 1, 2, false},
               {kEnd - 1, 2, false},      {kEnd, 1, false},
               {0, 4096, false},          {Media::pool_address(), Media::pool_size(), true}};
  for (const auto& c : cases) {
    auto* start = static_cast<u8*>(HI_MPI_SYS_MmapCache(c.address, c.size));
    EXPECT_EQ(start != nullptr, c.good) << std::hex << c.address << ' ' << c.size;
    if (!start) continue;
    start[0] = 0x5A;
    start[c.size - 1] = 0xA5;
    EXPECT_EQ(*memory.at(c.address + c.size - 1), 0xA5);
    EXPECT_EQ(HI_MPI_SYS_Munmap(start, c.size), 0);
  }
  EXPECT_NE(HI_MPI_SYS_Munmap(nullptr, 4096), 0);
}

}  // namespace
}  // namespace sim
