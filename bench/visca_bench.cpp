// Measures a class request that becomes a VISCA frame, from its event to its end, compared with the
// bare round trip of a message to a server that answers at once. Also measures the look-up of a
// control's row alone.
#include <benchmark/benchmark.h>
#include <sys/msg.h>

#include <chrono>
#include <cstdio>
#include <cstring>

#include "bench/echo.h"
#include "bench/medians.h"
#include "ipc/VeltoDrvMsg.h"
#include "ipc/sys_msg_drv.h"
#include "platform/sys.h"
#include "platform/uvc_units.h"
#include "sim/seam/node.h"
#include "sim/seam/run.h"
#include "support/print.h"
#include "uvc/uvc_class.h"
#include "uvc/uvc_class_camera.h"
#include "uvc/uvc_gadget_device.h"
#include "uvc/uvc_state.h"

namespace {

using Clock = std::chrono::steady_clock;

UvcEventLoop loop = {.device = &uvc_video_fd, .request = {}};

// Makes the service serve one event. Returns the time that took, in seconds.
double serve(const v4l2_event& event) {
  sim::NodeHost().raise(event);
  const auto start = Clock::now();
  uvc_event_turn(loop);
  return std::chrono::duration<double>(Clock::now() - start).count();
}

double serve_setup(u8 request) {
  v4l2_event event = {};
  event.type = UVC_EVENT_SETUP;
  const u8 packet[8] = {0xA1, request, 0, PU_BRIGHTNESS_CONTROL, 0, kProcessingUnit, 2, 0};
  std::memcpy(event.u.data, packet, sizeof(packet));
  const double seconds = serve(event);
  if (!sim::NodeHost().next_response(std::chrono::seconds(0)))
    std::fprintf(stderr, "visca_bench: no answer\n");
  return seconds;
}

double serve_data() {
  v4l2_event event = {};
  event.type = UVC_EVENT_DATA;
  const UvcRequestData data = {.length = 2, .data = {9}};
  std::memcpy(event.u.data, &data, sizeof(data));
  return serve(event);
}

void get_cur(benchmark::State& state) {
  for (auto _ : state) state.SetIterationTime(serve_setup(UVC_GET_CUR));
}

void set_cur(benchmark::State& state) {
  for (auto _ : state) state.SetIterationTime(serve_setup(UVC_SET_CUR) + serve_data());
}

void round_trip(benchmark::State& state) {
  const int queue = msgget(sim::run_key(kSysMsgKey), 0);
  for (auto _ : state) {
    SysMsgBuf record{kServerMsgType, 39, kSysMsgProcess, 5, sys_slot_offset(kSysMsgProcess)};
    const auto start = Clock::now();
    msgsnd(queue, &record, kSysMsgPayload, 0);
    msgrcv(queue, &record, kSysMsgPayload, kSysMsgProcess, 0);
    state.SetIterationTime(std::chrono::duration<double>(Clock::now() - start).count());
  }
}

void system_message(benchmark::State& state) {
  for (auto _ : state) {
    u8 frame[9] = {0x81};
    i32 room = sizeof(frame);
    const auto start = Clock::now();
    TransmitMsg2Sys(frame, 5, &room, 39);
    state.SetIterationTime(std::chrono::duration<double>(Clock::now() - start).count());
  }
}

void look_up(benchmark::State& state, u8 entity, u8 selector) {
  UvcRequestContext request = {};
  request.wIndex = static_cast<u16>(entity << 8);
  request.wValue = static_cast<u16>(selector << 8);
  for (auto _ : state) {
    benchmark::DoNotOptimize(request);
    benchmark::DoNotOptimize(uvc_getmin(&request));
  }
}

BENCHMARK(get_cur)->UseManualTime();
BENCHMARK(set_cur)->UseManualTime();
BENCHMARK(round_trip)->UseManualTime();
BENCHMARK(system_message)->UseManualTime();
BENCHMARK_CAPTURE(look_up, first, kCameraTerminal, CT_AE_MODE_CONTROL);
BENCHMARK_CAPTURE(look_up, last, kExtensionUnit, 28);
BENCHMARK_CAPTURE(look_up, unknown, kExtensionUnit, 255);

}  // namespace

int main(int argc, char** argv) {
  const sim::Run run;
  stay_on_this_core();
  sim::set_sleep_divisor(10000);
  print_level = 1;
  sys::system("insmod /opt/vcam/ko/extdrv/g_webcam.ko");
  if (InitSysMsgDrv(kSysMsgProcess) < 0 || VeltoDrvInit(kVeltoProcess) < 0) return 1;
  start_echo<SysMsgBuf, kSysMsgPayload>(msgget(sim::run_key(kSysMsgKey), 0));
  if (uvc_device_open() < 0 || uvc_event_subscribe(loop) < 0) return 1;

  Medians ns = run_benchmarks(argc, argv);
  for (const auto& [name, request] : {std::pair("GET_CUR", "get_cur"), std::pair("SET_CUR", "set_cur")}) {
    std::printf("%s of a camera control: %.2f of its message's bare round trip, %.2f of its system message\n",
                name, ns[request] / ns["round_trip"], ns[request] / ns["system_message"]);
  }
  for (const std::string which : {"first", "last", "unknown"}) {
    std::printf("control look-up, %s selector: %.1f ns\n", which.c_str(), ns["look_up/" + which]);
  }
}
