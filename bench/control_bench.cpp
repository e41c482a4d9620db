// Measures a class request from its event to its response: the service's control thread against a thread that
// waits in the same way and answers at once.
#include <benchmark/benchmark.h>
#include <pthread.h>

#include <chrono>
#include <cstdio>

#include "bench/control_thread.h"
#include "bench/medians.h"
#include "common/cancel.h"
#include "ipc/VeltoDrvMsg.h"
#include "ipc/msg_records.h"
#include "platform/sys.h"
#include "sim/seam/run.h"
#include "uvc/uvc_class.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr u8 kProbe = 1;

void* empty_loop(void*) {
  int former;
  pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &former);
  UvcEventLoop loop = {.device = &uvc_video_fd, .request = {}};
  uvc_event_subscribe(loop);
  for (u32 polls = 0;;) {
    if (uvc_stream_state.stream_on && polls < 2000) {
      ++polls;
    } else {
      polls = 0;
      CancelPoint cancel_point;
      sys::usleep(1000);
    }
    v4l2_event event;
    if (sys::ioctl(uvc_video_fd, VIDIOC_DQEVENT, &event) < 0) continue;
    UvcRequestData response = {.length = 26, .data = {}};
    sys::ioctl(uvc_video_fd, UVCIOC_SEND_RESPONSE, &response);
  }
}

void request(benchmark::State& state, void* (*body)(void*), bool streaming) {
  const ControlThread thread(body, streaming);
  sim::NodeHost host;
  usb_ctrlrequest setup = {0xA1, UVC_GET_CUR, kProbe << 8, 1, 26};
  for (auto _ : state) {
    const auto start = Clock::now();
    const sim::ControlAnswer answer = host.control(setup);
    state.SetIterationTime(std::chrono::duration<double>(Clock::now() - start).count());
    if (answer.data.size() != 26) state.SkipWithError("no answer");
  }
}

void request_idle(benchmark::State& state) { request(state, uvc_class_procesing, false); }
void empty_idle(benchmark::State& state) { request(state, empty_loop, false); }
void request_streaming(benchmark::State& state) { request(state, uvc_class_procesing, true); }
void empty_streaming(benchmark::State& state) { request(state, empty_loop, true); }

BENCHMARK(request_idle)->UseManualTime();
BENCHMARK(empty_idle)->UseManualTime();
BENCHMARK(request_streaming)->UseManualTime();
BENCHMARK(empty_streaming)->UseManualTime();

}  // namespace

int main(int argc, char** argv) {
  const sim::Run run;
  sys::system("insmod /opt/vcam/ko/extdrv/g_webcam.ko");
  VeltoDrvInit(kVeltoProcess);
  Medians ns = run_benchmarks(argc, argv);
  for (const std::string state : {"idle", "streaming"}) {
    std::printf("control request, %s: %.3f of an empty loop with the same waiting (aim: at most 1.10)\n",
                state.c_str(), ns["request_" + state] / ns["empty_" + state]);
  }
}
