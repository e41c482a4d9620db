// One frame into one buffer: from the ring with any header a writer may leave there, and from pictures of a
// media library that the tests play themselves.
#include "uvc/uvc_gadget_fill.h"

#include <gmock/gmock.h>
#include <sys/shm.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <cstring>
#include <thread>
#include <vector>

#include "platform/hi_mpi.h"
#include "sim/seam/run.h"
#include "support/print.h"
#include "tests/printed_by.h"
#include "uvc/uvc_gadget_signals.h"
#include "uvc/uvc_gadget_yuv.h"
#include "uvc/uvc_state.h"
#include "vencbuf/vencbuf_get.h"

using testing::HasSubstr;

namespace {

// The media library of this test: one picture in ordinary memory, "physical" addresses count from its start.
struct FakeLibrary {
  i32 get_result = 0;
  VpssPicture picture = {};
  std::vector<u8> memory;
  bool map_fails = false;
  int taken = 0, released = 0, mapped = 0, unmapped = 0;
} library;

}  // namespace

i32 HI_MPI_VPSS_GetChnFrame(i32 group, i32 channel, VpssPicture* picture, i32 timeout_ms) {
  EXPECT_TRUE(group == 0 && channel == 3 && timeout_ms == -1);
  if (library.get_result == 0) ++library.taken;
  *picture = library.picture;
  return library.get_result;
}
i32 HI_MPI_VPSS_ReleaseChnFrame(i32, i32, const VpssPicture*) { return library.released++, 0; }
void* HI_MPI_SYS_Mmap(u32 phys_addr, u32 size) {
  if (library.map_fails) return nullptr;
  EXPECT_LE(u64{phys_addr} + size, library.memory.size());
  ++library.mapped;
  return library.memory.data() + phys_addr;
}
void* HI_MPI_SYS_MmapCache(u32, u32) { return nullptr; }
i32 HI_MPI_SYS_Munmap(void*, u32) { return library.unmapped++, 0; }

namespace {

class FillTest : public testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(vencbuf_get_init(), 0);
    slots = static_cast<EncFrameSlot*>(shmat(shmget(sim::run_key(VENC_RING_KEY), 0, 0), nullptr, 0));
    uvc_stream_state.stream_on = 1;
    give_buffer(1000);
  }

  void give_buffer(u32 length) {
    memory.assign(length, 0xBB);
    uvc_buffers[1] = {memory.data(), length};
    buffer.index = 1;
  }

  void commit(i32 format, i32 width, i32 height) {
    cur_format = format;
    encoder_record.width = width;
    encoder_record.height = height;
  }

  void publish(int slot, u32 seq, u32 type, u16 width, u16 height, u32 size) {
    slots[slot].seq = seq;
    slots[slot].frame_type = type;
    slots[slot].width = width;
    slots[slot].height = height;
    slots[slot].size = size;
    std::memset(slots[slot].data, static_cast<int>(0x10 + seq), 2000);
    std::atomic_ref<u32>(*reinterpret_cast<u32*>(&slots[slot])).store(kSlotReady);
  }

  std::string fill() {
    return printed_by([this] { uvc_video_fill_buffer(0, &buffer); });
  }

  // A picture whose luma is `luma` everywhere, with V 0x20 and U 0x30.
  void show(u32 format, u32 width, u32 height, u32 stride, u8 luma = 0x40) {
    const u32 rows = format == kVpssYuv422SemiPlanar ? height : height / 2;
    library.memory.assign(u64{stride} * (height + rows), luma);
    for (u64 i = u64{stride} * height; i < library.memory.size(); ++i) {
      library.memory[i] = (i - u64{stride} * height) % stride % 2 ? 0x30 : 0x20;
    }
    library.picture = {width, height, format, {0, stride * height}, {stride, stride}, 0};
  }

  bool balanced() const { return library.taken == library.released && library.mapped == library.unmapped; }

  sim::Run run;
  EncFrameSlot* slots = nullptr;
  std::vector<u8> memory;
  v4l2_buffer buffer = {};
};

struct FrameRow {
  const char* name;
  i32 format;
  u32 type;
  u16 width;
  bool taken;
};

TEST_F(FillTest, TakesOnlyFramesThatFitTheCommit) {
  const FrameRow rows[] = {
      {"MJPEG", kFormatMjpeg, 3, 320, true},         {"video in MJPEG", kFormatMjpeg, 1, 320, false},
      {"H.264", kFormatH264, 0, 320, true},          {"H.265, last video type", kFormatH265, 2, 320, true},
      {"JPEG in H.264", kFormatH264, 3, 320, false}, {"other size", kFormatH264, 1, 322, false},
      {"absurd type", kFormatH265, 99, 320, false},
  };
  for (const FrameRow& row : rows) {
    SCOPED_TRACE(row.name);
    commit(row.format, 320, 240);
    publish(0, 1, row.type, row.width, 240, 100);
    publish(1, 2, row.format == kFormatMjpeg ? 3 : 1, 320, 240, 50);
    const std::string text = fill();
    EXPECT_EQ(buffer.bytesused, row.taken ? 100u : 50u);
    EXPECT_EQ(memory[49], row.taken ? 0x11 : 0x12);
    EXPECT_EQ(
        text,
        row.taken ? "" : "stream col[" + std::to_string(row.width) + "] line[240], UVC col[320] line[240]\n");
    EXPECT_EQ(slots[0].state, kSlotReleased);
    slots[1].state = kSlotEmpty;
  }
}

struct SizeRow {
  u32 size;
  u32 used;
  const char* text;
};

TEST_F(FillTest, AbsurdSizesCopyOnlyWhatFits) {
  commit(kFormatMjpeg, 320, 240);
  const SizeRow rows[] = {
      {1000, 1000, ""},
      {1001, 1000, "Image size Err 1001 max=1000\n"},
      {0x7FFFFFFF, 1000, "Image size Err 2147483647 max=1000\n"},
      {0, 2, "Image size Err 0 max=1000\n"},
      {0x80000000, 2, "Image size Err -2147483648 max=1000\n"},
  };
  for (const SizeRow& row : rows) {
    publish(0, 1, 3, 320, 240, row.size);
    EXPECT_EQ(fill(), row.text);
    EXPECT_EQ(buffer.bytesused, row.used);
  }
  give_buffer(kEncFrameCapacity + 4096);
  publish(1, 1, 3, 320, 240, kEncFrameCapacity + 1);
  fill();
  EXPECT_EQ(buffer.bytesused, kEncFrameCapacity);
}

TEST_F(FillTest, NothingToSendGivesTwoZeroBytes) {
  commit(kFormatMjpeg, 320, 240);
  uvc_stream_state.stream_on = 0;
  EXPECT_EQ(fill(), "Byte Used IS 0\n");
  EXPECT_EQ(buffer.bytesused, 2u);
  EXPECT_EQ(memory[0] | memory[1], 0);
  uvc_stream_state.stream_on = 1;
  commit(77, 320, 240);
  EXPECT_EQ(fill(), "Byte Used IS 0\n");
  commit(kFormatMjpeg, 320, 240);
  uvc_stream_state.exit_flag = 1;
  EXPECT_THAT(fill(), HasSubstr("vencbuf_get Error\n"));
  EXPECT_EQ(buffer.bytesused, 2u);
}

TEST_F(FillTest, LevelFileIsReadAgainWhileTheRingIsEmpty) {
  run.write_file("/opt/params/print.conf", "uvc_gadget=warn\n");
  install_reload_handler();
  commit(kFormatMjpeg, 320, 240);
  i32 level = 0;
  std::thread user([&level] {
    std::this_thread::sleep_for(std::chrono::milliseconds(30));
    kill(getpid(), SIGUSR1);
    for (int i = 0; i < 200 && print_level != 2; ++i)  // fill() gives up after 2.5 s
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    level = print_level;
    uvc_stream_state.stream_on = 0;
  });
  fill();
  user.join();
  EXPECT_EQ(level, 2);
}

struct EndRow {
  const char* name;
  Word* word;
  i32 value;
};

TEST_F(FillTest, WaitForAFrameEndsWithTheStreamOrTheService) {
  const EndRow rows[] = {{"stream", &uvc_stream_state.stream_on, 0},
                         {"stream, begun anew", &uvc_stream_state.stream_starts, 1},
                         {"service", &uvc_stream_state.exit_flag, 1}};
  commit(kFormatMjpeg, 320, 240);
  for (const EndRow& row : rows) {
    SCOPED_TRACE(row.name);
    uvc_stream_state.stream_on = 1;
    uvc_stream_state.stream_starts = 0;
    std::thread ender([&row] {
      std::this_thread::sleep_for(std::chrono::milliseconds(50));
      *row.word = row.value;
    });
    const auto start = std::chrono::steady_clock::now();
    EXPECT_THAT(fill(), HasSubstr("get buffer timeout!\n"));
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(2)) << "2.5 s otherwise";
    EXPECT_EQ(buffer.bytesused, 2u);
    ender.join();
  }
}

TEST_F(FillTest, FramesThatNeverFitDoNotHoldUpTheEnd) {
  commit(kFormatMjpeg, 320, 240);
  const std::jthread writer([this](std::stop_token end) {
    for (u32 seq = 0; !end.stop_requested(); ++seq) {
      if (slots[seq % 2].state != kSlotReading) publish(static_cast<int>(seq % 2), seq, 3, 640, 480, 10);
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
      if (seq == 100) uvc_stream_state.exit_flag = 1;
    }
  });
  const auto start = std::chrono::steady_clock::now();
  fill();
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(1));
  EXPECT_EQ(buffer.bytesused, 2u);
}

struct PictureRow {
  const char* name;
  u32 format, width, height, stride;
  i32 committed_width, committed_height;
  u32 used;
  const char* text;
};

TEST_F(FillTest, ConvertsPicturesThatFit) {
  const PictureRow rows[] = {
      {"4:2:0", kVpssYuv420SemiPlanar, 16, 8, 16, 16, 8, 256, ""},
      {"4:2:2", kVpssYuv422SemiPlanar, 16, 8, 16, 16, 8, 256, ""},
      {"odd stride", kVpssYuv420SemiPlanar, 16, 8, 21, 16, 8, 256, ""},
      {"smaller than committed", kVpssYuv420SemiPlanar, 8, 8, 8, 16, 8, 128, ""},
      {"larger than committed", kVpssYuv420SemiPlanar, 32, 8, 32, 16, 8, 2, "Insufficient memory space."},
      {"larger than the buffer", kVpssYuv420SemiPlanar, 64, 32, 64, 1920, 1080, 2,
       "Insufficient memory space."},
      {"absurd commit", kVpssYuv420SemiPlanar, 64, 32, 64, -1, -1, 2, "Insufficient memory space."},
      {"commit beyond 32 bits", kVpssYuv420SemiPlanar, 16, 8, 16, 65536, 65536, 256, ""},
      {"stride below the width", kVpssYuv420SemiPlanar, 16, 8, 15, 16, 8, 2, "cannot be mapped\n"},
      {"no lines", kVpssYuv422SemiPlanar, 16, 0, 16, 16, 8, 2, "cannot be mapped\n"},
  };
  for (const PictureRow& row : rows) {
    SCOPED_TRACE(row.name);
    commit(kFormatYuy2, row.committed_width, row.committed_height);
    show(row.format, row.width, row.height, row.stride);
    EXPECT_THAT(fill(), HasSubstr(row.text));
    EXPECT_EQ(buffer.bytesused, row.used);
    if (row.used > 2) {
      EXPECT_EQ(memory[0], 0x40);
      EXPECT_EQ(memory[1], 0x30);
      EXPECT_EQ(memory[row.used - 1], 0x20);
    }
    EXPECT_TRUE(balanced());
  }
}

TEST_F(FillTest, PicturesThatCannotBeHad) {
  commit(kFormatYuy2, 16, 8);
  show(kVpssYuv420SemiPlanar, 16, 8, 16);
  library.get_result = 0x1234;
  EXPECT_EQ(fill(), "HI_MPI_VPSS_GetChnFrame Error! 1234\n");
  library.get_result = 0;
  library.map_fails = true;
  EXPECT_THAT(fill(), HasSubstr("cannot be mapped\n"));
  EXPECT_TRUE(balanced());
  library.map_fails = false;
  library.picture.pixel_format = 24;
  EXPECT_EQ(fill(), "Unsupport Pixel format!\n");
  EXPECT_EQ(library.taken, library.released + 1) << "such a picture is not given back";
  EXPECT_EQ(buffer.bytesused, 2u);
}

TEST_F(FillTest, LumaOutsideItsRangeIsSaidOncePerPicture) {
  commit(kFormatYuy2, 16, 8);
  for (const int luma : {16, 235, 15, 236, 255}) {
    show(kVpssYuv420SemiPlanar, 16, 8, 16, static_cast<u8>(luma));
    testing::internal::CaptureStdout();
    fill();
    EXPECT_EQ(testing::internal::GetCapturedStdout(), luma < 16 || luma > 235 ? "Check.\n" : "") << luma;
  }
}

}  // namespace
