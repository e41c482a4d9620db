// Events and class requests, turn by turn: what the host asks, and what the service answers and remembers.
#include "uvc/uvc_class.h"

#include <gmock/gmock.h>
#include <pthread.h>

#include <array>
#include <chrono>
#include <sstream>
#include <thread>

#include "ipc/sys_msg_drv.h"
#include "platform/uvc_formats.h"
#include "support/print.h"
#include "tests/printed_by.h"
#include "tests/uvc/uvc_fixture.h"
#include "uvc/uvc_class_streaming.h"

using testing::HasSubstr;
using namespace std::chrono_literals;

namespace {

constexpr char kInitialBlock[] =
    "09 00 01 01 16 15 05 00 00 00 00 00 00 00 00 00 00 00 00 00 40 00 00 04 00 00";
constexpr u8 kPastYuy2 = std::size(kYuy2Sizes) + 1;  // the first frame index that YUY2 does not have

struct Question {
  const char* name;
  u8 request, selector, entity, interface;
  u16 length;
  const char* answer;  // after the answer buffer was filled with cc
  u8 status;           // after it was left at 77 by the request before
};

TEST_F(UvcTest, AnswersWhatIsUnknownOrOdd) {
  const Question questions[] = {
      {"still probe len, low byte only", UVC_GET_LEN, 3, 0, 1, 2, "0b cc", 0},
      {"still commit len", UVC_GET_LEN, 4, 0, 1, 2, "cc cc", 0},
      {"trigger len", UVC_GET_LEN, 5, 0, 1, 2, "cc cc", 77},
      {"trigger cur", UVC_GET_CUR, 5, 0, 1, 2, "cc cc", 77},
      {"unknown cur", UVC_GET_CUR, 200, 0, 1, 2, "cc cc", 6},
      {"unknown entity", UVC_GET_CUR, 1, 9, 0, 2, "cc cc", 5},
      {"unknown entity len", UVC_GET_LEN, 1, 0, 0, 2, "cc cc", 5},
      {"unknown interface", UVC_GET_MIN, 1, 0, 2, 2, "cc cc", 255},
      {"unknown interface len", UVC_GET_LEN, 1, 0, 7, 2, "cc cc", 0},
      {"low byte of the length counts", UVC_GET_LEN, 1, 0, 1, 0x0102, "1a 00", 0},
      {"no such request", 0x99, 1, 0, 1, 2, "cc cc", 77},
  };
  for (const Question& question : questions) {
    SCOPED_TRACE(question.name);
    std::memset(uvc_resp_buf, 0xCC, sizeof(uvc_resp_buf));
    uvc_request_error_code = 77;
    const auto bytes =
        setup(question.request, question.selector, question.entity, question.interface, question.length);
    EXPECT_EQ(hex(bytes), question.answer);
    EXPECT_EQ(uvc_request_error_code, question.status);
  }
}

TEST_F(UvcTest, ProbeKeepsTheDevicesOwnFields) {
  set_streaming(VS_PROBE_CONTROL, block(kFormatYuy2, 2, 333333));
  EXPECT_EQ(hex(get_streaming(UVC_GET_CUR, VS_PROBE_CONTROL, 26)),
            "ee ee 03 02 15 16 05 00 ee ee ee ee 00 00 ee ee ee ee 00 60 09 00 00 04 00 00");
  EXPECT_EQ(cur_format, kFormatMjpeg);
  EXPECT_EQ(sent_settings(), "");
  set_streaming(VS_PROBE_CONTROL, block(kFormatYuy2, kPastYuy2, 333333));
  const auto beyond = get_streaming(UVC_GET_CUR, VS_PROBE_CONTROL, 26);
  EXPECT_EQ(get_le32(&beyond[18]), 0u);
  for (const u8 limit : {UVC_GET_MIN, UVC_GET_MAX})
    EXPECT_EQ(hex(get_streaming(limit, VS_PROBE_CONTROL, 26)), kInitialBlock);
  EXPECT_EQ(get_streaming(UVC_GET_DEF, VS_PROBE_CONTROL, 26), beyond);
}

struct Commit {
  const char* name;
  u8 format, frame;
  u32 interval;
  i32 columns, lines, rate;
  u32 max_frame_size;
  std::string settings;
};

TEST_F(UvcTest, CommitSetsTheStreamAndTellsTheEncoder) {
  const auto [width, height] = *std::rbegin(kMjpegSizes);
  const std::string last_mjpeg = std::to_string(width) + ' ' + std::to_string(height);
  const Commit commits[] = {
      {"YUY2", 3, 2, 333333, 640, 480, 30, 614400, "2 1 640 480 30 0 3 1 40960 99 60 0 0\n"},
      {"MJPEG", 1, 2, 666666, 1280, 720, 15, 921600, "2 1 1280 720 15 0 1 0 32768 99 60 0 0\n"},
      {"H.264", 2, 8, 333333, 640, 360, 30, 230400, "2 1 640 360 30 0 0 0 1 60 12288 0 0\n"},
      {"H.265", 4, 6, 400000, 1600, 1200, 25, 1920000, "2 1 1600 1200 25 0 2 0 60 12288 12288 0 0\n"},
      {"unknown format keeps the size", 5, 1, 333333, 1600, 1200, 30, 0, ""},
      {"interval 0", 4, 1, 0, 1920, 1080, 0, 2073600, "2 1 1920 1080 0 0 2 0 60 12288 12288 0 0\n"},
      {"index 0 reads the entry before", 2, 0, 333333, width, height, 30, u32{width} * height,
       "2 1 " + last_mjpeg + " 30 0 0 0 1 60 12288 0 0\n"},
      {"index 0 of the first table", 1, 0, 333333, 0, 0, 30, 0, "2 1 0 0 30 0 1 0 32768 60 12288 0 0\n"},
      {"index past a table reads the next", 3, kPastYuy2, 333333, 1920, 1080, 30, 0,
       "2 1 1920 1080 30 0 3 0 32768 60 12288 0 0\n"},
      {"index past all tables", 4, 255, 333333, 0, 0, 30, 0, "2 1 0 0 30 0 2 0 60 12288 12288 0 0\n"},
  };
  for (const Commit& commit : commits) {
    SCOPED_TRACE(commit.name);
    config_changed = 0;
    set_streaming(VS_COMMIT_CONTROL, block(commit.format, commit.frame, commit.interval, 7000));
    EXPECT_EQ(cur_col, commit.columns);
    EXPECT_EQ(cfg_line, commit.lines);
    EXPECT_EQ(cur_frame_rate, commit.rate);
    EXPECT_EQ(cur_quality, 7000);
    EXPECT_EQ(config_changed, 1);
    EXPECT_EQ(sent_settings(), commit.settings);
    const auto answer = get_streaming(UVC_GET_CUR, VS_COMMIT_CONTROL, 26);
    EXPECT_EQ(get_le32(&answer[18]), commit.max_frame_size);
  }
}

TEST_F(UvcTest, StillImageBlockAndTrigger) {
  const u8 still[11] = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11};
  set_streaming(VS_STILL_COMMIT_CONTROL, still);
  EXPECT_EQ(hex(get_streaming(UVC_GET_CUR, VS_STILL_PROBE_CONTROL, 11)), "01 02 03 04 05 06 07 00 04 00 00");
  set_streaming(VS_STILL_IMAGE_TRIGGER_CONTROL, std::array<u8, 1>{9});
  EXPECT_EQ(still_trigger_format, 1);
  EXPECT_EQ(still_trigger, 1);
  EXPECT_EQ(uvc_request_error_code, 0);
}

struct StateRow {
  const char* name;
  UvcEventType event;
  const char* fault;
  i32 starts, on, stopped, connected;
  u32 disconnect;
  const char* text;
};

TEST_F(UvcTest, EventsSetTheStreamState) {
  u32 disconnect = 0;
  usb_disconnect_word = &disconnect;
  const StateRow rows[] = {
      {"connect", UVC_EVENT_CONNECT, "clear", 0, 0, 0, 1, 0, "UVC_EVENT_CONN\n"},
      {"stream on refused", UVC_EVENT_STREAMON, "fail STREAMON 1", 0, 0, 0, 1, 0,
       "set inter 1 UVC_EVENT_STREAMON\nVIDIOC_STREAMON  failed (-1)\n"},
      {"stream on", UVC_EVENT_STREAMON, "clear", 1, 1, 0, 1, 0, "set inter 1 UVC_EVENT_STREAMON\n"},
      {"while it runs", UVC_EVENT_STREAMON, "clear", 1, 1, 0, 1, 0, "set inter 1 UVC_EVENT_STREAMON\n"},
      {"stream off refused", UVC_EVENT_STREAMOFF, "fail STREAMOFF 1", 1, 0, 0, 1, 0,
       "UVC_EVENT_STREAMOFF\nVIDIOC_STREAMOFF  failed (-1)\n"},
      {"stream on again", UVC_EVENT_STREAMON, "clear", 2, 1, 0, 1, 0, "set inter 1 UVC_EVENT_STREAMON\n"},
      {"unplugged while streaming", UVC_EVENT_DISCONNECT, "clear", 2, 0, 1, 0, 1, "UVC_EVENT_DISCONN\n"},
      {"plugged in", UVC_EVENT_CONNECT, "clear", 2, 0, 0, 1, 1, "UVC_EVENT_CONN\n"},
  };
  for (const StateRow& row : rows) {
    SCOPED_TRACE(row.name);
    ASSERT_TRUE(host.script(row.fault));
    EXPECT_EQ(printed_by([&] { raise(row.event); }), row.text);
    EXPECT_EQ(uvc_stream_state.stream_starts, row.starts);
    EXPECT_EQ(uvc_stream_state.stream_on, row.on);
    EXPECT_EQ(uvc_stream_state.stream_stopped, row.stopped);
    EXPECT_EQ(uvc_stream_state.connected, row.connected);
    EXPECT_EQ(disconnect, row.disconnect);
  }
}

TEST_F(UvcTest, ReplugStopsTheNodeBeforeTheHostSelectsTheStream) {
  raise(UVC_EVENT_STREAMON);
  host.disconnect();
  uvc_event_turn(loop);
  EXPECT_THAT(host.call_log(), testing::Not(HasSubstr("\nSTREAMOFF")));
  raise(UVC_EVENT_CONNECT);
  EXPECT_THAT(host.call_log(), HasSubstr("\nSTREAMOFF -> 0"));
  raise(UVC_EVENT_STREAMON);
  EXPECT_EQ(uvc_stream_state.stream_on, 1);
  EXPECT_THAT(host.protocol_errors(), testing::IsEmpty());
}

TEST_F(UvcTest, NodeThatRefusesToStopIsToldAgainUntilTheHostStarts) {
  std::size_t seen = 0;
  const auto stops = [&] {  // since the last look, 35 turns without an event included
    for (int i = 0; i < 35; ++i) uvc_event_turn(loop);
    std::istringstream calls(host.call_log().substr(std::exchange(seen, host.call_log().size())));
    int count = 0;
    for (std::string line; std::getline(calls, line);) count += line.starts_with("STREAMOFF");
    return count;
  };
  raise(UVC_EVENT_STREAMON);
  host.disconnect();
  EXPECT_EQ(stops(), 0);
  ASSERT_TRUE(host.script("fail STREAMOFF *"));
  raise(UVC_EVENT_CONNECT);
  EXPECT_EQ(stops(), 4) << "every ten turns";
  ASSERT_TRUE(host.script("clear"));
  EXPECT_EQ(stops() + stops(), 1);
  ASSERT_TRUE(host.script("fail STREAMOFF 1-2"));
  for (const UvcEventType event : {UVC_EVENT_STREAMON, UVC_EVENT_STREAMOFF, UVC_EVENT_STREAMON}) raise(event);
  EXPECT_EQ(stops(), 1) << "not while the host starts a stream";
  raise(UVC_EVENT_CONNECT);
  EXPECT_EQ(stops(), 0) << "and not while that runs";
  ASSERT_TRUE(host.script("fail STREAMON 1"));
  for (const UvcEventType event : {UVC_EVENT_STREAMOFF, UVC_EVENT_STREAMON}) raise(event);
  EXPECT_EQ(stops(), 1) << "not while the host waits for a start that failed";
  raise(UVC_EVENT_CONNECT);
  EXPECT_EQ(stops(), 1);
  EXPECT_THAT(host.protocol_errors(), testing::IsEmpty());
}

TEST_F(UvcTest, PausesOnceIn2000PollsWhileStreaming) {
  uvc_stream_state.stream_on = 1;
  const auto before = sim::sleep_count().calls;
  for (int i = 0; i < 2000; ++i) uvc_event_turn(loop);
  EXPECT_EQ(sim::sleep_count().calls, before);
  uvc_event_turn(loop);
  EXPECT_EQ(sim::sleep_count().calls, before + 1);
}

// A SETUP for brightness, to which nobody but the service answers, `age` after its event.
v4l2_event old_setup(u8 request, std::chrono::milliseconds age) {
  v4l2_event event = {};
  event.type = UVC_EVENT_SETUP;
  const u8 packet[8] = {0xA1, request, 0, 2, 0, 2, 2, 0};
  std::memcpy(event.u.data, packet, sizeof(packet));
  const auto stamp = std::chrono::steady_clock::now().time_since_epoch() - age;
  event.timestamp.tv_sec = std::chrono::duration_cast<std::chrono::seconds>(stamp).count();
  event.timestamp.tv_nsec = static_cast<long>((stamp % 1s).count());
  return event;
}

class UvcInKernelTest : public UvcTest {
 protected:
  UvcInKernelTest() { loop.polls_between_pauses = 0; }
};

TEST_F(UvcInKernelTest, SleepsUntilAnEventComes) {
  uvc_stream_state.stream_on = 1;
  const auto before = sim::sleep_count().calls;
  std::thread later([this] {
    std::this_thread::sleep_for(200ms);
    host.raise(old_setup(UVC_GET_MAX, 0ms));
  });
  const auto start = std::chrono::steady_clock::now();
  uvc_event_turn(loop);
  EXPECT_GT(std::chrono::steady_clock::now() - start, 150ms);
  EXPECT_TRUE(host.next_response(100ms));
  EXPECT_EQ(sim::sleep_count().calls, before);
  later.join();
}

TEST_F(UvcInKernelTest, PausesWhereThePollReportsAnError) {
  ASSERT_TRUE(host.script("fail POLL 1-1000"));
  const auto before = sim::sleep_count().calls;
  for (int i = 0; i < 20; ++i) uvc_event_turn(loop);
  EXPECT_EQ(sim::sleep_count().calls, before + 20);
  EXPECT_EQ(hex(setup(UVC_GET_LEN, 3, 0, 1, 2)), "0b 00") << "the events come all the same";
}

// Without an event to wait for: an answer that was put off, and a node that is to be stopped again.
TEST_F(UvcInKernelTest, DoesNotSleepOverItsOwnWork) {
  ASSERT_TRUE(host.script("fail STREAMOFF 1"));
  raise(UVC_EVENT_STREAMOFF);
  const auto start = std::chrono::steady_clock::now();
  for (int i = 0; i < 10; ++i) uvc_event_turn(loop);
  EXPECT_LT(std::chrono::steady_clock::now() - start, 500ms);
  EXPECT_EQ(loop.stop_again_in, 0u) << "the second attempt succeeded";
}

TEST_F(UvcTest, AnswersWithinTheTimeThatItsEventLeaves) {
  ASSERT_EQ(InitSysMsgDrv(kSysMsgProcess), 0);
  for (const auto& [age, least] : {std::pair{4200ms, 150ms}, {4450ms, 0ms}, {9000ms, 0ms}}) {
    host.raise(old_setup(UVC_GET_CUR, age));
    const auto start = std::chrono::steady_clock::now();
    uvc_event_turn(loop);
    EXPECT_TRUE(host.next_response(0ms)) << age.count();
    const auto taken = std::chrono::steady_clock::now() - start;
    EXPECT_GE(taken, least) << age.count();
    EXPECT_LT(taken, 1s) << age.count();
  }
}

TEST_F(UvcTest, ASetupThatItsHostGaveUpIsLeftOutOnceANewerOneWaits) {
  ASSERT_EQ(InitSysMsgDrv(kSysMsgProcess), 0);
  const auto answers = [&](std::initializer_list<v4l2_event> events) {
    for (const v4l2_event& event : events) host.raise(event);
    for (std::size_t i = 0; i <= events.size(); ++i) uvc_event_turn(loop);
    std::string values;
    while (const auto response = host.next_response(0ms)) values += std::to_string(response->data[0]) + ' ';
    return values;
  };
  v4l2_event plugged_in = {};
  plugged_in.type = UVC_EVENT_CONNECT;
  const auto given_up = old_setup(UVC_GET_MAX, 6s);
  EXPECT_EQ(answers({given_up, given_up, old_setup(UVC_GET_DEF, 1s)}), "8 ");
  EXPECT_EQ(answers({old_setup(UVC_GET_MAX, 4900ms), old_setup(UVC_GET_DEF, 1s)}), "15 8 ");
  EXPECT_EQ(answers({given_up}), "15 ") << "no newer one";
  EXPECT_EQ(answers({given_up, plugged_in}), "15 ") << "no newer SETUP";

  v4l2_event unplugged = {};
  unplugged.type = UVC_EVENT_DISCONNECT;
  EXPECT_EQ(answers({old_setup(UVC_GET_MAX, 0s), unplugged, plugged_in, old_setup(UVC_GET_DEF, 0s)}), "8 ");
  const std::jthread cable([&] {
    std::this_thread::sleep_for(50ms);
    host.raise(unplugged);
  });
  EXPECT_EQ(answers({old_setup(UVC_GET_CUR, 4200ms)}), "") << "unplugged while the server is asked";
  EXPECT_EQ(answers({plugged_in, old_setup(UVC_GET_DEF, 0s)}), "8 ");
}

TEST_F(UvcTest, FailedSubscriptionEndsTheThread) {
  const struct {
    const char *fault, *text;
  } rows[] = {{"fail SUBSCRIBE 1", "VIDIOC_SUBSCRIBE_EVENT failed (-1)\n"},
              {"fail SUBSCRIBE 2", "set UVC_EVENT_DATA failed (-1)\n"},
              {"fail SUBSCRIBE 6", "set UVC_EVENT_DATA failed (-1)\n"}};
  for (const auto& row : rows) {
    uvc_device_close();
    ASSERT_EQ(uvc_device_open(), 0);
    ASSERT_TRUE(host.script("clear") && host.script(row.fault));
    EXPECT_EQ(printed_by([] { EXPECT_EQ(uvc_class_procesing(&uvc_video_fd), nullptr); }), row.text);
  }
}

TEST_F(UvcTest, LongAndUnannouncedDataStayInsideTheirRecords) {
  data(std::array<u8, 60>{});  // no SETUP before: a request for nothing
  EXPECT_EQ(uvc_request_error_code, kInvalidUnit);
  std::memset(uvc_resp_buf, 0xCC, sizeof(uvc_resp_buf));
  EXPECT_EQ(setup(UVC_GET_LEN, 9, 0, 1, 0x00FF).size(), 60u);
  setup(UVC_SET_CUR, VS_PROBE_CONTROL, 0, 1, 0x00FF);
  data(std::array<u8, 60>{});
  EXPECT_EQ(uvc_resp_buf[59], 0);
  EXPECT_EQ(uvc_resp_buf[60], 0xCC);
}

class ThreadTest : public UvcTest {
 protected:
  // The control thread, on a node that is opened anew and ready for the host.
  pthread_t start_thread() {
    uvc_device_close();
    EXPECT_EQ(uvc_device_open(), 0);
    pthread_t thread;
    EXPECT_EQ(pthread_create(&thread, nullptr, uvc_class_procesing, &uvc_video_fd), 0);
    EXPECT_TRUE(host.wait_for_device(2s));
    return thread;
  }
  static void* result_of(pthread_t thread) {
    void* result = nullptr;
    pthread_join(thread, &result);
    return result;
  }
};

TEST_F(ThreadTest, IsNotCancelledInTheMiddleOfARequest) {
  const int queue = msgget(sim::run_key(kVeltoMsgKey), 0);
  VeltoMsgBuf filler = {
      .dest = kServerMsgType, .cmd = kVeltoEncoderSettings, .src = 0, .ret = 0, .payload = {}};
  while (msgsnd(queue, &filler, kVeltoMsgPayload, IPC_NOWAIT) == 0) continue;
  const pthread_t thread = start_thread();
  host.control({0x21, UVC_SET_CUR, VS_COMMIT_CONTROL << 8, 1, 26}, block(kFormatYuy2, 1, 333333));
  while (cur_format != kFormatYuy2) sys::usleep(1000);  // then the settings meet the full queue
  sys::usleep(20'000);
  pthread_cancel(thread);
  timespec soon;
  clock_gettime(CLOCK_REALTIME, &soon);
  soon.tv_sec += 1;
  EXPECT_EQ(pthread_timedjoin_np(thread, nullptr, &soon), ETIMEDOUT);
  uvc_stream_state.exit_flag = 1;
  EXPECT_EQ(result_of(thread), PTHREAD_CANCELED);
}

TEST_F(ThreadTest, CanBeCancelledIdleAndStreaming) {
  for (const i32 on : {0, 1}) {
    uvc_stream_state.stream_on = on;
    const pthread_t thread = start_thread();
    pthread_cancel(thread);
    EXPECT_EQ(result_of(thread), PTHREAD_CANCELED);
  }
}

}  // namespace
