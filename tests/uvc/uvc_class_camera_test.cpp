// Camera terminal and processing unit: what the host reads, which frames its settings become, and what a
// server that answers late, short, long, wrongly or not at all can do to a reading.
#include "uvc/uvc_class_camera.h"

#include <sys/shm.h>

#include <algorithm>
#include <climits>
#include <mutex>
#include <optional>
#include <thread>
#include <utility>

#include "ipc/sys_msg_drv.h"
#include "support/print.h"
#include "tests/ipc/ipc_peer.h"
#include "tests/uvc/uvc_fixture.h"

namespace {

constexpr u8 kCamera = 1, kImage = 2;

// What the server does with one frame: the bytes that it puts into the slot, and the length that it tells.
struct Answer {
  std::vector<u8> bytes;
  i32 length = static_cast<i32>(bytes.size());
  std::chrono::milliseconds delay{0};
};

// The system server's end of the system-message channel, on a thread of its own.
class FrameServer {
 public:
  FrameServer() : thread_([this] { run(); }) {}
  ~FrameServer() {
    peer_.send({.dest = kServerMsgType, .cmd = kStop, .src = 0, .length = 0, .offset = 0});
    thread_.join();
    shmdt(segment_);
  }

  // Answers the next frame with this; those without an answer are refused.
  void answer(Answer answer) {
    const std::lock_guard lock(mutex_);
    next_ = std::move(answer);
  }
  // The frames since the last call, with " | " between them. Sending waits for the answer, so that none
  // can be missing.
  std::string frames() {
    const std::lock_guard lock(mutex_);
    return std::exchange(frames_, {});
  }
  // Puts an answer into the queue that nobody asked for.
  void send_stale(i32 length) { peer_.send({kSysMsgProcess, 39, kSysMsgProcess, length, 0}); }

 private:
  static constexpr i32 kStop = -1;

  void run() {
    for (SysMsgBuf record = peer_.take(); record.cmd != kStop; record = peer_.take()) {
      record.length = serve(record);
      record.dest = record.src;
      peer_.send(record);
    }
  }

  i32 serve(const SysMsgBuf& record) {
    const std::lock_guard lock(mutex_);
    EXPECT_EQ(record.cmd, 39);
    EXPECT_EQ(record.src, kSysMsgProcess);
    frames_ += (frames_.empty() ? "" : " | ") + hex({segment_ + record.offset, std::size_t(record.length)});
    if (!next_) return -1;
    const Answer answer = *std::exchange(next_, {});
    std::this_thread::sleep_for(answer.delay);
    std::copy(answer.bytes.begin(), answer.bytes.end(), segment_ + record.offset);
    return answer.length;
  }

  const SysPeer peer_{kSysMsgKey};
  u8* const segment_ = static_cast<u8*>(
      shmat(shmget(sim::run_key(kSysMsgKey), kSysSegmentSize, IPC_CREAT | 0660), nullptr, 0));
  std::mutex mutex_;
  std::optional<Answer> next_;
  std::string frames_;
  std::thread thread_;
};

// How many bytes a text such as "0f 00" shows.
u16 bytes_in(std::string_view text) { return static_cast<u16>((text.size() + 1) / 3); }

class CameraControlTest : public UvcTest {
 protected:
  void SetUp() override {
    UvcTest::SetUp();
    ASSERT_EQ(InitSysMsgDrv(kSysMsgProcess), 0);
    print_level = 2;
  }

  void set(u8 entity, u8 selector, std::span<const u8> bytes) {
    setup(UVC_SET_CUR, selector, entity, 0, static_cast<u16>(bytes.size()));
    data(bytes);
  }
  std::string get(u8 request, u8 entity, u8 selector, u16 length) {
    std::memset(uvc_resp_buf, 0xCC, sizeof(uvc_resp_buf));
    uvc_request_error_code = 77;
    return hex(setup(request, selector, entity, 0, length));
  }

  u32 number(u8 request, u8 entity, u8 selector, u16 length) {
    get(request, entity, selector, length);
    return length == 4 ? get_le32(uvc_resp_buf) : length == 2 ? get_le16(uvc_resp_buf) : uvc_resp_buf[0];
  }
  struct Limits {
    u32 min, max;
  };
  Limits limits(u8 entity, u8 selector, u16 length) {
    return {number(UVC_GET_MIN, entity, selector, length), number(UVC_GET_MAX, entity, selector, length)};
  }

  FrameServer server;
};

struct Range {
  const char* name;
  u8 entity, selector;
  const char *len, *info, *min, *max, *res, *def;  // cc: not written
};

// The page of controls holds every range; here are the widths that do not go with the told length.
TEST_F(CameraControlTest, TellsARangeAndNoByteMore) {
  const char none2[] = "cc cc";
  const Range ranges[] = {
      {"brightness", kImage, 2, "02 00", "03", "00 00", "0f 00", "01 00", "08 00"},
      {"component", kImage, 12, "02 00", "03", "00 00 00 00", "50 50 00 00", "01 00 00 00", "10 10 00 00"},
      {"component auto", kImage, 13, "02 00", "03", none2, none2, none2, "01 00"},
      {"no image control", kImage, 15, "02 00", "cc", none2, none2, none2, none2},
      {"exposure", kCamera, 4, "04 00", "03", "01 00 00 00", "10 27 00 00", "01 00 00 00", "64 00 00 00"},
      {"focus relative", kCamera, 7, "02 00", "00", none2, none2, none2, none2},
      {"zoom relative", kCamera, 12, "03 00", "03", "00 00 00", "ff 00 04", "00 00 01", "cc cc cc"},
      {"no camera control", kCamera, 16, "02 00", "00", none2, none2, none2, none2},
  };
  for (const Range& range : ranges) {
    SCOPED_TRACE(range.name);
    const struct {
      u8 request;
      const char* answer;
    } requests[] = {{UVC_GET_LEN, range.len}, {UVC_GET_INFO, range.info}, {UVC_GET_MIN, range.min},
                    {UVC_GET_MAX, range.max}, {UVC_GET_RES, range.res},   {UVC_GET_DEF, range.def}};
    for (const auto& [request, answer] : requests) {
      const u16 length = bytes_in(answer);
      EXPECT_EQ(get(request, range.entity, range.selector, length), answer) << int(request);
      EXPECT_EQ(uvc_request_error_code, answer[0] == 'c' ? kInvalidControl : kNoError) << int(request);
      EXPECT_EQ(get(request, range.entity, range.selector, static_cast<u16>(length + 1)),
                std::string(answer) + " cc");
    }
  }
}

struct Setting {
  const char* name;
  u8 entity, selector;
  std::vector<u8> data;
  u8 status;  // 77: that of the request before
  const char* frames;
  const char* reads;  // afterwards, with a server that fails
};

TEST_F(CameraControlTest, SettingsBecomeFrames) {
  const Setting settings[] = {
      {"brightness 15", kImage, 2, {15, 0}, 0, "81 01 04 a4 00 00 00 0f ff", "0f 00"},
      {"brightness of one byte", kImage, 2, {5}, 0, "81 01 04 a4 00 00 00 05 ff", "05 00"},
      {"gain 15", kImage, 4, {15, 0}, 0, "81 01 04 2c 0f ff", "00 00"},
      {"10000 K", kImage, 10, {0x10, 0x27}, 0, "81 01 04 35 06 ff | 81 01 04 2a 02 07 01 00 ff", "10 27"},
      {"multiplier 128", kImage, 14, {128, 0}, 0, "", "32 00"},
      {"no image control", kImage, 15, {1, 0}, 6, "", "cc"},
      {"exposure auto", kCamera, 2, {8}, 0, "81 01 04 39 00 ff", "08 cc"},
      {"exposure", kCamera, 4, {1, 2, 3, 4}, 0, "", "01 02 03 04"},
      {"focus relative", kCamera, 7, {9, 9}, 77, "", "cc"},
      {"zoom", kCamera, 11, {0x34, 0x12}, 0, "81 01 04 47 01 02 03 04 ff", "34 12"},
      {"zoom out", kCamera, 12, {255, 9, 2}, 0, "81 01 04 07 03 ff", "ff 00 02"},
      {"pan and tilt out of this world",
       kCamera,
       13,
       {0, 0, 0, 0x80, 0xFF, 0xFF, 0xFF, 0x7F},
       0,
       "81 01 06 02 10 10 0a 03 01 05 05 0c 0e 0b ff",
       "00 00 00 80 ff ff ff 7f"},
      {"left before up", kCamera, 14, {255, 7, 1, 7}, 0, "81 01 06 01 10 10 01 03 ff", "ff 07 01 07"},
      {"roll 5", kCamera, 15, {5, 0}, 0, "", "00 00"},
      {"no camera control", kCamera, 3, {1}, 6, "", "cc"},
  };
  for (const Setting& setting : settings) {
    SCOPED_TRACE(setting.name);
    std::memset(uvc_resp_buf, 0xCC, sizeof(uvc_resp_buf));
    uvc_request_error_code = 77;
    set(setting.entity, setting.selector, setting.data);
    EXPECT_EQ(uvc_request_error_code, setting.status);
    EXPECT_EQ(server.frames(), setting.frames);
    EXPECT_EQ(get(UVC_GET_CUR, setting.entity, setting.selector, bytes_in(setting.reads)), setting.reads);
    server.frames();
  }
}

TEST_F(CameraControlTest, RefusesWhatLiesBeyondTheLimitsOfTheImage) {
  for (const Control& row : uvc_processing_unit.controls) {
    const u8 selector = row.selector;
    SCOPED_TRACE(int(selector));
    const u16 length = selector == PU_WHITE_BALANCE_COMPONENT_CONTROL ? 4 : 2;
    const auto try_value = [&](u32 value) {
      u8 bytes[4];
      put_le32(bytes, value);
      set(kImage, selector, {bytes, length});
      return uvc_request_error_code;
    };
    const auto [min, max] = limits(kImage, selector, length);
    if (uvc_request_error_code != kNoError) continue;  // has none
    const bool takes_any = selector != PU_HUE_CONTROL;
    for (const u32 value : {min, max}) EXPECT_EQ(try_value(value), takes_any ? kNoError : kOutOfRange);
    const std::string before = get(UVC_GET_CUR, kImage, selector, length);
    server.frames();
    for (const u32 value : {max + 1, max + 0x100, 0xFFFFFFFF, min - 1}) {
      if (length == 2 && min <= (value & 0xFFFF) && (value & 0xFFFF) <= max) continue;
      EXPECT_EQ(try_value(value), kOutOfRange) << value;
    }
    EXPECT_EQ(server.frames(), "");
    EXPECT_EQ(get(UVC_GET_CUR, kImage, selector, length), before);
  }
}

struct Reading {
  const char* name;
  u8 entity, selector;
  Answer answer;
  const char* inquiry;
  const char* reads;
};

TEST_F(CameraControlTest, ReadingsComeByInquiryAndStayWithinTheirLimits) {
  std::vector<u8> long_reply(4000, 0);
  long_reply[0] = 9;
  const Reading readings[] = {
      {"brightness", kImage, 2, {{7, 0}}, "81 09 04 a4 ff", "07 00"},
      {"above the limit", kImage, 2, {{16, 0}}, "81 09 04 a4 ff", "0f 00"},
      {"late", kImage, 2, {{6, 0}, 2, std::chrono::milliseconds(150)}, "81 09 04 a4 ff", "06 00"},
      {"low 16 bits", kImage, 2, {{3, 0, 1, 0}}, "81 09 04 a4 ff", "03 00"},
      {"too short", kImage, 2, {{1}}, "81 09 04 a4 ff", "03 00"},
      {"no reply", kImage, 2, {{1, 0}, 0}, "81 09 04 a4 ff", "03 00"},
      {"refused badly", kImage, 2, {{1, 0}, INT_MIN}, "81 09 04 a4 ff", "03 00"},
      {"long", kImage, 2, {long_reply}, "81 09 04 a4 ff", "09 00"},
      {"longer than there is", kImage, 2, {{8, 0}, INT_MAX}, "81 09 04 a4 ff", "08 00"},
      {"power line", kImage, 5, {{255, 255}}, "81 09 04 aa ff", "02 00"},
      {"exposure auto", kCamera, 2, {{0, 0, 0, 0}}, "81 09 04 39 ff", "01"},
      {"exposure manual", kCamera, 2, {{3, 0, 0, 0}}, "81 09 04 39 ff", "00"},
      {"exposure, any bit", kCamera, 2, {{0, 0, 0, 1}}, "81 09 04 39 ff", "00"},
      {"zoom beyond", kCamera, 11, {{1, 0x40}}, "81 09 04 47 ff", "01 40"},
  };
  for (const Reading& reading : readings) {
    SCOPED_TRACE(reading.name);
    server.answer(reading.answer);
    EXPECT_EQ(get(UVC_GET_CUR, reading.entity, reading.selector, bytes_in(reading.reads)), reading.reads);
    EXPECT_EQ(uvc_request_error_code, kNoError);
    EXPECT_EQ(server.frames(), reading.inquiry);
  }
  server.send_stale(2);
  get(UVC_GET_CUR, kImage, 2, 2);
  EXPECT_LE(get_le16(uvc_resp_buf), 15);
}

TEST_F(CameraControlTest, AValidCacheSparesTheInquiry) {
  CameraCache cache = {};
  camera_cache = &cache;
  for (u32 i = 0; i < std::size(cache.words); ++i) cache.words[i] = 0x70000 + i + 1;
  const struct {
    u8 selector;
    const char* reads;
  } rows[] = {{2, "01 00"}, {3, "02 00"}, {5, "0a 00"}, {7, "04 00"}, {8, "05 00"}, {9, "06 00"}, {11, "07"}};
  for (const u32 valid : {CAMERA_CACHE_VALID, 0u}) {
    cache.valid = valid;
    for (const auto& row : rows) {
      EXPECT_EQ(get(UVC_GET_CUR, kImage, row.selector, bytes_in(row.reads)), row.reads);
      EXPECT_EQ(server.frames().empty(), valid == CAMERA_CACHE_VALID) << int(row.selector);
    }
  }
}

}  // namespace
