// The streaming loop turn by turn: start, feed and end of a stream, and what the gadget node sees of them.
#include "uvc/uvc_gadget_loop.h"

#include <gmock/gmock.h>
#include <semaphore.h>
#include <sys/shm.h>

#include <algorithm>
#include <atomic>
#include <csignal>
#include <thread>

#include "support/print.h"
#include "tests/printed_by.h"
#include "tests/uvc/uvc_fixture.h"
#include "uvc/uvc_class_encoder.h"
#include "uvc/uvc_class_streaming.h"
#include "uvc/uvc_gadget.h"
#include "uvc/uvc_gadget_signals.h"
#include "vencbuf/vencbuf_get.h"

using testing::HasSubstr;
using testing::Not;

namespace {

// The encoder as the loop sees it: a thread keeps both slots of the ring filled with frames that fit the
// settings of the stream.
class LoopTest : public UvcTest {
 protected:
  void SetUp() override {
    UvcTest::SetUp();
    sim::set_sleep_divisor(10);
    ASSERT_EQ(vencbuf_get_init(), 0);
    slots = static_cast<EncFrameSlot*>(shmat(shmget(sim::run_key(VENC_RING_KEY), 0, 0), nullptr, 0));
    frame_ready = sem_open(sim::run_semaphore(kFrameReadySemaphore).c_str(), 0);
    writer = std::jthread([this](std::stop_token end) {
      for (u32 seq = 0; !end.stop_requested(); ++seq) {
        publish(slots[seq % 2], seq);
        std::this_thread::sleep_for(std::chrono::microseconds(500));
      }
    });
  }

  void publish(EncFrameSlot& slot, u32 seq) {
    std::atomic_ref<u32> state(*reinterpret_cast<u32*>(&slot));
    const u32 now = state.load();
    if (now == kSlotReady || now == kSlotReading) return;
    slot.seq = seq;
    const bool mjpeg = encoder_record.codec == kCodecMjpeg;
    slot.frame_type = mjpeg ? kJpegFrameType : 1;
    slot.width = static_cast<u16>(encoder_record.width);
    slot.height = static_cast<u16>(encoder_record.height);
    slot.size = mjpeg ? 5000 : 6000;
    state.store(kSlotReady);
    int posts = 1;
    sem_getvalue(frame_ready, &posts);
    if (posts == 0) sem_post(frame_ready);
  }

  void commit(i32 format) {
    set_streaming(VS_COMMIT_CONTROL, block(static_cast<u8>(format), 2, 333333));
    sent_settings();
  }

  // The loop's first turn, and one with a stream.
  void start(i32 format) {
    stream_turn(stream);
    commit(format);
    raise(UVC_EVENT_STREAMON);
    stream_turn(stream);
  }

  std::string printed_turns(int count) {
    return printed_by([&] {
      for (int i = 0; i < count; ++i) stream_turn(stream);
    });
  }

  // Payload sizes that reach the host until none comes for a while.
  std::string received() {
    std::string sizes;
    std::vector<u8> frame;
    while (host.take_frame(frame, std::chrono::milliseconds(30))) sizes += std::to_string(frame.size()) + " ";
    return sizes;
  }

  // What an encoder leaves that posts while nobody takes its frames.
  void pile_up_posts() {
    for (int i = 0; i < 1000; ++i) sem_post(frame_ready);
  }
  int posts() {
    int value = -1;
    sem_getvalue(frame_ready, &value);
    return value;
  }

  EncFrameSlot* slots = nullptr;
  sem_t* frame_ready = nullptr;
  StreamLoop stream = {.need_dequeue = true};
  std::jthread writer;
};

TEST_F(LoopTest, FirstTurnEndsTheStreamThatNeverWas) {
  EXPECT_EQ(printed_turns(1), "stop uvc stream .............\n");
  EXPECT_EQ(sent_settings(), "2 0 1920 1080 30 0 1 1 40960 99 60 0 0\n");
  EXPECT_EQ(last_format, -1);
  EXPECT_TRUE(stream.stopped);
  stream_turn(stream);
  EXPECT_EQ(sent_settings(), "");
}

TEST_F(LoopTest, StreamThatRunsAlreadyIsFedAtOnce) {
  commit(kFormatMjpeg);
  raise(UVC_EVENT_STREAMON);
  pile_up_posts();
  stream_turn(stream);
  EXPECT_LT(posts(), 10);
  EXPECT_EQ(received(), "2 2 2 ") << "queued when the node was opened";
  stream_turn(stream);
  EXPECT_EQ(received(), "5000 5000 5000 ");
  EXPECT_EQ(sent_settings(), "");
}

TEST_F(LoopTest, EndOfTheServiceIsNoEndOfTheStream) {
  start(kFormatMjpeg);
  sent_settings();
  std::signal(SIGALRM, SIG_IGN);  // the timer of the end
  exitfunction(SIGTERM);
  EXPECT_EQ(printed_by(serve_signals) + printed_by(serve_signals), "exit uvc class threads...\n");
  stream_turn(stream);
  EXPECT_EQ(sent_settings(), "") << "the shutdown tells the server";
}

TEST_F(LoopTest, MjpegIsAnnouncedTwiceAndStreams) {
  pile_up_posts();
  start(kFormatMjpeg);
  EXPECT_LT(posts(), 10);
  const std::string notice = "2 1 1280 720 30 0 1 0 32768 99 60 0 0\n";
  EXPECT_EQ(sent_settings(), notice + notice);
  EXPECT_EQ(config_changed, 0);
  EXPECT_EQ(received(), "2 2 2 ") << "the buffers that were queued empty come first";
  stream_turn(stream);
  EXPECT_EQ(received(), "5000 5000 5000 ");
  EXPECT_EQ(sent_settings(), "");
}

TEST_F(LoopTest, H264StartsWithKeyFramesOnly) {
  start(kFormatH264);
  const std::string intra = "2 1 1280 720 30 0 0 0 1 1 12288 0 0\n";
  EXPECT_EQ(sent_settings(), intra + intra);
  std::vector<u8> frame;
  ASSERT_TRUE(host.take_frame(frame, std::chrono::milliseconds(30)));
  stream_turn(stream);  // has one buffer to fill
  EXPECT_EQ(sent_settings(), "2 1 1280 720 30 0 0 0 1 60 12288 0 0\n") << "with the fourth frame";
  EXPECT_EQ(get_key_frame_interval(), 60);
}

TEST_F(LoopTest, NoFrameOfTheOldStreamOpensTheNextOne) {
  start(kFormatMjpeg);
  received();
  raise(UVC_EVENT_STREAMOFF);
  stream_turn(stream);
  EXPECT_EQ(sent_settings().substr(0, 4), "2 1 ");
  raise(UVC_EVENT_STREAMON);
  EXPECT_EQ(received(), "2 2 2 ");
}

TEST_F(LoopTest, HostThatRestartsAtOnceGetsOnlyFramesOfItsNewStream) {
  const std::jthread main_thread([this](std::stop_token end) {
    while (!end.stop_requested()) stream_turn(stream);
  });
  sim::set_sleep_divisor(1000);
  print_level = 1;
  std::vector<u8> frame;
  for (int i = 0; i < 200 && !HasFailure(); ++i) {
    const bool mjpeg = i % 2;
    commit(mjpeg ? kFormatMjpeg : kFormatH264);
    raise(UVC_EVENT_STREAMON);
    while (host.take_frame(frame, std::chrono::seconds(2)) && frame.size() <= 2) continue;
    EXPECT_EQ(frame.size(), mjpeg ? 5000u : 6000u) << i << "\n" << host.call_log();
    raise(UVC_EVENT_STREAMOFF);
  }
}

TEST_F(LoopTest, StreamEndingInsideATurnQueuesNothing) {
  start(kFormatMjpeg);
  received();
  writer = {};  // no frame any more: the turn waits in the ring until the stream ends
  slots[0].state = slots[1].state = kSlotEmpty;
  const std::jthread ender([this] {
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    raise(UVC_EVENT_STREAMOFF);
  });
  const std::size_t before = host.call_log().size();
  stream_turn(stream);
  EXPECT_THAT(host.call_log().substr(before), Not(HasSubstr("\nQBUF")));
}

TEST_F(LoopTest, StreamThatEndedAndBeganBehindTheLoopStartsAnew) {
  start(kFormatMjpeg);
  raise(UVC_EVENT_STREAMOFF);
  commit(kFormatH264);
  raise(UVC_EVENT_STREAMON);
  stream_turn(stream);
  EXPECT_EQ(sent_settings().substr(0, 4), "2 0 ") << "first the end of the old stream";
  EXPECT_TRUE(stream.stopped);
  stream_turn(stream);
  EXPECT_EQ(sent_settings().substr(0, 4), "2 1 ");
}

TEST_F(LoopTest, DequeueFailuresAreCountedAndSaid) {
  start(kFormatMjpeg);
  sim::set_sleep_divisor(1000);
  EXPECT_EQ(printed_turns(33), "") << "nobody takes a frame: 99 failures";
  EXPECT_EQ(printed_turns(1), "VIDIOC_QBUF Timeout!\n");
}

TEST_F(LoopTest, BufferThatTheDriverNamesWronglyIsNotTouched) {
  start(kFormatMjpeg);
  received();
  for (const char* fault : {"DQBUF gives index 7", "DQBUF gives index 32", "DQBUF gives index 4294967295"}) {
    SCOPED_TRACE(fault);
    ASSERT_TRUE(host.script(fault));
    const auto slept = sim::sleep_count().microseconds;
    stream_turn(stream);
    EXPECT_EQ(received(), "2 2 2 ") << "this turn's buffers, lest they are lost";
    EXPECT_GE(sim::sleep_count().microseconds - slept, 3 * 20'000u);
    ASSERT_TRUE(host.script("clear"));
    stream_turn(stream);
    EXPECT_EQ(received(), "5000 5000 5000 ");
  }
}

TEST_F(LoopTest, BufferWithoutAMappingIsLeftOutUntilItCanBeMapped) {
  ASSERT_TRUE(host.script("fail MMAP 1-4"));
  start(kFormatMjpeg);
  EXPECT_EQ(uvc_buffers[0].start, nullptr);
  EXPECT_NE(uvc_buffers[2].start, nullptr);
  std::string sizes = received();
  for (int i = 0; i < 5; ++i) {
    stream_turn(stream);
    sizes += received();
  }
  EXPECT_NE(uvc_buffers[0].start, nullptr);
  EXPECT_THAT(sizes, HasSubstr("5000 5000 5000 "));
  EXPECT_THAT(sizes, testing::MatchesRegex("((2|5000) )+")) << "nothing that was not filled";
}

TEST_F(LoopTest, StreamEndingInOneBufferLeavesTheOthersAlone) {
  start(kFormatMjpeg);
  ASSERT_EQ(received(), "2 2 2 ");
  const std::size_t before = host.call_log().size();
  uvc_stream_state.stream_on = 0;
  stream.stopped = false;
  stream_turn(stream);
  EXPECT_THAT(host.call_log().substr(before), Not(HasSubstr("DQBUF")));
}

TEST_F(LoopTest, DriverWithoutBuffersLeavesNothingToDo) {
  uvc_device_close();
  ASSERT_TRUE(host.script("grant 0"));
  ASSERT_EQ(uvc_device_open(), 0);
  uvc_stream_state.stream_on = 1;
  stream.stopped = true;
  stream_turn(stream);
  stream_turn(stream);
  EXPECT_TRUE(stream.need_dequeue);
  EXPECT_FALSE(stream.stopped);
}

TEST_F(LoopTest, PinsAreDrivenThroughTheirRegisters) {
  gpio_set_output(122, 1);
  gpio_set_output(73, 1);
  EXPECT_EQ(run.register_value(0x20260010), 4u);
  EXPECT_EQ(run.register_value(0x20260400), 4u);
  EXPECT_EQ(run.register_value(0x201D0008), 2u);
  EXPECT_EQ(run.register_value(0x201D0400), 2u);
}

TEST_F(LoopTest, FramesAreToldOnceASecond) {
  const std::string text = printed_by([] {
    for (int i = 0; i < 1000; ++i) second_cnt();
  });
  EXPECT_TRUE(text.starts_with("B 1\n")) << text;
  EXPECT_LE(std::ranges::count(text, 'B'), 2) << "one more when a second ends meanwhile";
}

}  // namespace
