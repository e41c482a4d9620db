// The USB host: events and class requests in any order, with a system server that answers.
#include <filesystem>
#include <memory>
#include <optional>

#include "ipc/VeltoDrvMsg.h"
#include "ipc/sys_msg_drv.h"
#include "platform/sys.h"
#include "sim/parties/server.h"
#include "sim/seam/node.h"
#include "sim/seam/node_state.h"
#include "sim/seam/run.h"
#include "support/print.h"
#include "tests/fuzz/fuzz.h"
#include "uvc/uvc_class.h"
#include "uvc/uvc_gadget_device.h"
#include "uvc/uvc_state.h"

namespace {

using fuzz::check;

class Camera {
 public:
  Camera() {
    sys::system("insmod /opt/vcam/ko/extdrv/g_webcam.ko");
    std::filesystem::remove(run_.path("/bin/reboot"));  // from here on no command starts a shell
    print_level = 4;
    sim::set_sleep_divisor(10000);
    check(VeltoDrvInit(kVeltoProcess) == 0 && InitSysMsgDrv(kSysMsgProcess) == 0, "the channels are there");
    begin();
  }

  // A fresh context for the requests; the server forgets now and then what it has received.
  void begin() {
    if (starts_++ % 5000 == 0) server_.emplace(sim::ServerOptions{});
    loop_ = std::make_unique<UvcEventLoop>(UvcEventLoop{.device = &uvc_video_fd, .request = {}});
    std::memset(uvc_resp_buf, 0, sizeof(uvc_resp_buf));
    camera_cache = nullptr;
    if (uvc_video_fd < 0) reopen();
  }

  void raise(u32 type, std::span<const u8> bytes) {
    v4l2_event event = {};
    event.type = type;
    std::copy(bytes.begin(), bytes.end(), event.u.data);
    host_.raise(event);
    uvc_event_turn(*loop_);
    const UvcRequestContext& last = loop_->request;
    const bool update = last.interface() == 0 && last.entity() == 3 && last.selector() == 9;
    if (type == UVC_EVENT_DATA && update) reopen();  // the node was given up
  }

  UvcRequestData setup(std::span<const u8> packet) {
    u8 whole[8] = {};
    std::copy(packet.begin(), packet.end(), whole);
    const u64 before = sim::node_state().call_count;
    raise(UVC_EVENT_SETUP, whole);
    check(answers_since(before) == 1, "a SETUP is answered once");
    const auto answer = host_.next_response({});
    check(answer && answer->length == std::min<i32>(whole[6], kUvcRequestDataSize),
          "an answer is as long as asked for, and no longer than its record");
    check(std::memcmp(answer->data, uvc_resp_buf, static_cast<u32>(answer->length)) == 0,
          "an answer is what the buffer holds");
    return *answer;
  }

  // The locks are free and both channels work: a value that is set goes to the server and comes back.
  void check_order() {
    check(stream_end_lock.try_lock(), "the lock of the stream's end is free");
    stream_end_lock.unlock();
    camera_cache = nullptr;
    const u8 value = starts_ % 16;
    setup(std::array<u8, 8>{0x21, UVC_SET_CUR, 0, 2, 0, 2, 2, 0});
    raise(UVC_EVENT_DATA, std::array<u8, 6>{2, 0, 0, 0, value, 0});
    check(setup(std::array<u8, 8>{0xA1, UVC_GET_CUR, 0, 2, 0, 2, 2, 0}).data[0] == value,
          "a valid request after any other does what it should");
    check(SendEncoderSettings({}) == 0, "the encoder takes settings");
    raise(UVC_EVENT_STREAMOFF, {});
  }

 private:
  static u32 answers_since(u64 call) {
    u32 answers = 0;
    const sim::NodeState& state = sim::node_state();
    for (; call != state.call_count; ++call)
      answers += state.calls[call % state.calls.size()].kind == sim::CallKind::kSendResponse;
    return answers;
  }
  void reopen() {
    if (uvc_video_fd >= 0) uvc_device_close();
    check(uvc_device_open() == 0 && uvc_event_subscribe(*loop_) == 0, "the node is there");
  }

  sim::Run run_;
  sim::NodeHost host_;
  std::optional<sim::Server> server_;
  std::unique_ptr<UvcEventLoop> loop_;  // on the heap: what is written behind it is found
  u32 starts_ = 0;
};

CameraCache cache;

void step(Camera& camera, fuzz::Input& input) {
  const u8 kind = input.take<u8>(), variant = kind / 8;
  if (kind % 8 <= 1) camera.setup(input.bytes(8));
  if (kind % 8 == 2) camera.raise(UVC_EVENT_DATA, input.bytes(sizeof(UvcRequestData)));
  if (kind % 8 == 3) {  // a SET as hosts send it: to an entity or, as 0, to the stream
    const u8 entity = variant % 4;
    camera.setup(std::array<u8, 8>{0x21, UVC_SET_CUR, 0, input.take<u8>(), entity == 0, entity, 26, 0});
    camera.raise(UVC_EVENT_DATA, input.bytes(4 + 26));
  }
  if (kind % 8 == 4) camera.raise(UVC_EVENT_CONNECT + variant % 4, {});
  if (kind % 8 == 5) camera.raise(input.take<u32>(), input.bytes(64));
  if (kind % 8 == 6) {
    cache.words[input.take<u8>() % 20] = input.take<u32>();
    cache.valid = variant % 2 ? CAMERA_CACHE_VALID : 0;
    camera_cache = &cache;
  }
  if (kind % 8 == 7) {
    const u8 request = static_cast<u8>(UVC_GET_CUR + variant % 7), entity = variant / 7;
    camera.setup(
        std::array<u8, 8>{0xA1, request, 0, input.take<u8>(), entity == 0, entity, input.take<u8>()});
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const u8* bytes, std::size_t size) {
  static Camera camera;
  fuzz::Input input(bytes, size);
  camera.begin();
  for (int steps = 0; !input.empty() && steps < 100; ++steps) step(camera, input);
  camera.check_order();
  return 0;
}
