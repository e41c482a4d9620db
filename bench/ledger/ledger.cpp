// Does each operation of the ledger some hundred times, so that its instructions can be counted:
// tools/ledger runs this under Callgrind, rigs/board/count on the emulated board. Prints how the program was
// made and how often it does each; then each row's name, how many parts it has, and the median of the
// operation's times in nanoseconds, which mean something only where the clock counts instructions. The first
// row does nothing: the price of the counting itself.
#include <fcntl.h>
#ifndef __UCLIBC__
#include <gnu/libc-version.h>
#endif
#include <sys/ioctl.h>
#include <sys/msg.h>
#include <sys/shm.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstring>
#include <iterator>
#include <string>

#include "bench/ledger/machine.h"
#include "elog/elog.h"
#include "ipc/VeltoDrvMsg.h"
#include "ipc/file_msg_drv.h"
#include "ipc/msg_records.h"
#include "ipc/sys_msg_drv.h"
#include "platform/sys.h"
#include "platform/uvc_units.h"
#include "uvc/uvc_class.h"
#include "uvc/uvc_class_camera.h"
#include "uvc/uvc_gadget_fill.h"
#include "uvc/uvc_gadget_yuy2.h"
#include "uvc/uvc_state.h"
#include "vencbuf/vencbuf_get.h"

namespace {

constexpr u8 kCommit = 2;
constexpr u32 kWidth = 640, kHeight = 32;

UvcEventLoop loop = {.device = &uvc_video_fd, .request = {}};

v4l2_event setup_event(u8 type, u8 request, u8 selector, u8 interface, u8 entity, u8 length) {
  v4l2_event event = {};
  event.type = UVC_EVENT_SETUP;
  const u8 packet[8] = {type, request, 0, selector, interface, entity, length, 0};
  std::memcpy(event.u.data, packet, sizeof(packet));
  return event;
}

v4l2_event data_event(const UvcRequestData& data) {
  v4l2_event event = {};
  event.type = UVC_EVENT_DATA;
  std::memcpy(event.u.data, &data, sizeof(data));
  return event;
}

void nothing() {}

void system_call() { ioctl(uvc_video_fd, VIDIOC_DQEVENT, nullptr); }

// The control thread.

void one_turn() { uvc_event_turn(loop); }

void two_turns() {
  uvc_event_turn(loop);
  uvc_event_turn(loop);
}

void be_idle() { uvc_stream_state.stream_on = 0; }

void be_streaming() {
  uvc_stream_state.stream_on = 1;
  loop.polls = 0;
}

void ask_for_brightness_limit() {
  be_streaming();
  raise_events(setup_event(0xA1, UVC_GET_MAX, PU_BRIGHTNESS_CONTROL, 0, kProcessingUnit, 2));
}
bool limit_was_answered() { return answers_sent() > 0 && uvc_resp_buf[0] == 15; }

void set_brightness() {
  empty_queues();
  be_streaming();
  raise_events(setup_event(0x21, UVC_SET_CUR, PU_BRIGHTNESS_CONTROL, 0, kProcessingUnit, 2),
               data_event({.length = 2, .data = {9}}));
}
bool one_message() { return empty_queues() == 1; }

void commit_stream() {
  empty_queues();
  be_idle();
  constexpr u8 kLength = 26;
  raise_events(setup_event(0x21, UVC_SET_CUR, kCommit, 1, 0, kLength),
               data_event({.length = kLength, .data = {0, 0, kFormatMjpeg, 1, 0x15, 0x16, 5, 0}}));
}
bool encoder_was_told() { return cur_format == kFormatMjpeg && cur_frame_rate == 30 && empty_queues() == 6; }

// The logger, as the print forms call it.

constexpr char kFile[] = "uvc_gadget.c", kFunction[] = "uvc_video_fill_buffer";

void start_with_empty_queues() { empty_queues(); }
void log_below_level() { elog_output(ELOG_LVL_DEBUG, "NO_TAG", kFile, kFunction, 123, "frame %d\n", 17); }
void log_plain() { elog_output(ELOG_LVL_INFO, "NO_TAG", kFile, kFunction, 123, "stream is on\n"); }
void log_values() {
  elog_output(ELOG_LVL_INFO, "NO_TAG", kFile, kFunction, 123, "frame %d: %s has %u bytes\n", 17, "slot",
              123456u);
}
bool no_message() { return empty_queues() == 0; }

// The frame ring, whose writer puts in a frame of one byte.

EncFrameSlot* slots;
sem_t *ready, *released;
u8 gadget_buffer[kWidth * kHeight * 2];
v4l2_buffer record;

std::atomic_ref<u32> state_of(EncFrameSlot& slot) {
  return std::atomic_ref<u32>(*reinterpret_cast<u32*>(&slot));
}

void write_frame() {
  static u32 number;
  be_streaming();
  cur_format = kFormatMjpeg;
  sem_trywait(released);
  EncFrameSlot& slot = slots[number % kRingSlots];
  slot.seq = number++;
  slot.frame_type = kJpegFrameType;
  slot.width = static_cast<u16>(encoder_record.width);
  slot.height = static_cast<u16>(encoder_record.height);
  slot.size = 1;
  state_of(slot).store(kSlotReady);
  sem_post(ready);
}
void take_frame() { uvc_video_fill_buffer(0, &record); }
bool frame_was_taken() { return record.bytesused == 1 && state_of(slots[0]).load() == kSlotReleased; }

// Pictures, by the loop for vectors of 16 bytes: SSE2 or NEON.

u8 luma[kWidth * kHeight], chroma[kWidth * kHeight];

void convert(bool chroma_422) {
  const SemiPlanarPicture picture = {luma, chroma, kWidth, kWidth, kWidth, kHeight, chroma_422};
  const auto kernels = yuy2_kernels();
  yuy2_convert(picture, gadget_buffer, kernels[std::min<std::size_t>(1, kernels.size() - 1)]);
}
void convert_420() { convert(false); }
void convert_422() { convert(true); }
bool picture_was_converted() { return gadget_buffer[0] == 100 && gadget_buffer[1] == 128; }

struct Row {
  const char* name;
  void (*prepare)();  // not counted
  void (*operation)();
  bool (*held)() = nullptr;  // whether the operation did what it should
  u32 parts = 1;             // of which the row counts one
};

constexpr Row kRows[] = {
    {"nothing", nothing, nothing},
    {"system call that is refused at once", nothing, system_call},
    {"control turn, idle", be_idle, one_turn},
    {"control turn, streaming", be_streaming, one_turn},
    {"GET answered from a table", ask_for_brightness_limit, one_turn, limit_was_answered},
    {"SET of brightness, answered at once", set_brightness, two_turns, one_message},
    {"whole commit, with its five log lines", commit_stream, two_turns, encoder_was_told},
    {"log line below the level", start_with_empty_queues, log_below_level, no_message},
    {"log line, plain", start_with_empty_queues, log_plain, one_message},
    {"log line, three values", start_with_empty_queues, log_values, one_message},
    {"frame from the ring and back, one byte", write_frame, take_frame, frame_was_taken},
    {"YUY2 row of 640, 4:2:0", nothing, convert_420, picture_was_converted, kHeight},
    {"YUY2 row of 640, 4:2:2", nothing, convert_422, picture_was_converted, kHeight},
};

}  // namespace

// Callgrind counts while the first of these runs, and writes its sum down at each call of the second.
extern "C" {
[[gnu::noinline]] void ledger_operation(void (*operation)()) {
  operation();
  asm volatile("");  // keeps the call from becoming a jump
}
[[gnu::noinline]] void ledger_row_ends() { asm volatile(""); }
}

namespace {

i64 nanoseconds() {
  timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  return i64{now.tv_sec} * 1'000'000'000 + now.tv_nsec;
}

constexpr int kTimes = 101;

std::string c_library() {
#ifdef __UCLIBC__
  return "uClibc " + std::to_string(__UCLIBC_MAJOR__) + "." + std::to_string(__UCLIBC_MINOR__) + "." +
         std::to_string(__UCLIBC_SUBLEVEL__);
#else
  return std::string("glibc ") + gnu_get_libc_version();
#endif
}

i64 median_time(const Row& row) {
  i64 times[kTimes];
  for (i64& time : times) {
    row.prepare();
    const i64 start = nanoseconds();
    ledger_operation(row.operation);
    time = nanoseconds() - start;
  }
  std::sort(std::begin(times), std::end(times));
  return times[kTimes / 2];
}

bool works(const Row& row) {
  row.prepare();
  row.operation();
  return !row.held || row.held();
}

// The first transaction of a process takes one answer to be owed to a former one.
void make_first_transaction() {
  const SysMsgBuf owed{kSysMsgProcess, kSysMsgVisca, 0, 0, 0};
  msgsnd(sys::msgget(kSysMsgKey, 0), &owed, kSysMsgPayload, 0);
  u8 frame[] = {0x81};
  SendMsg2Sys(kSysMsgVisca, frame, sizeof(frame), nullptr);
}

bool start() {
  uvc_video_fd = open("/dev/null", O_RDWR | O_CLOEXEC);
  log_module_init(ELOG_LVL_INFO);
  if (InitFileMsgDrv(kFileMsgKey, kFileMsgProcess) < 0 || InitSysMsgDrv(kSysMsgProcess) < 0) return false;
  if (VeltoDrvInit(kVeltoProcess) < 0 || vencbuf_get_init() < 0) return false;
  make_first_transaction();
  slots = static_cast<EncFrameSlot*>(shmat(sys::shmget(VENC_RING_KEY, 0, 0), nullptr, 0));
  ready = sys::sem_open(kFrameReadySemaphore, 0, 0, 0);
  released = sys::sem_open(kSlotReleasedSemaphore, 0, 0, 0);
  uvc_buffers[0] = {gadget_buffer, sizeof(gadget_buffer)};
  std::fill(std::begin(luma), std::end(luma), u8{100});
  std::fill(std::begin(chroma), std::end(chroma), u8{128});
  return true;
}

}  // namespace

int main() {
  if (!start()) return 1;
  const int console = dup(STDERR_FILENO);
  dup2(uvc_video_fd, STDERR_FILENO);
  std::printf("%s, %s\t%d\n", LEDGER_MADE_WITH, c_library().c_str(), kTimes);
  bool all_work = true;
  for (const Row& row : kRows) {
    if (!works(row)) dprintf(console, "ledger: '%s' did not do what it should\n", row.name), all_work = false;
    const i64 time = median_time(row);
    ledger_row_ends();
    std::printf("%s\t%u\t%lld\n", row.name, row.parts, static_cast<long long>(time));
  }
  remove_queues();
  return all_work ? 0 : 1;
}
