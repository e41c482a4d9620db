// The camera at a host by USB/IP beside the simulator's own host: every format and size, one after the other,
// with the real service and encoders. The host at the other end of the socket is played here, so no kernel is
// needed. A frame counts if it has the bytes that were made; its latency ends with its last packet.
#include <linux/usb/video.h>
#include <sys/resource.h>
#include <sys/socket.h>

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <memory>

#include "sim/app/camera.h"
#include "sim/app/options.h"
#include "sim/app/service_process.h"
#include "sim/host/host_controls.h"
#include "sim/media/made_frames.h"
#include "sim/seam/wait_on.h"
#include "sim/usbip/gadget.h"
#include "tests/sim/usbip/urb_host.h"

namespace {

using namespace std::chrono_literals;

constexpr double kSeconds = 3;
constexpr u32 kRate = 30, kTransfers = 5, kPackets = 32;  // the latter two as Linux's driver has them

struct Measured {
  double rate = 0, latency_ms = 0, processor = 0;  // the last in cores
};

double processor_seconds() {
  rusage usage;
  getrusage(RUSAGE_SELF, &usage);
  const auto seconds = [](const timeval& time) {
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) / 1e6;
  };
  return seconds(usage.ru_utime) + seconds(usage.ru_stime);
}

Measured by_own_host(sim::Camera& camera, const sim::StreamChoice& choice) {
  if (!camera.host.start(choice)) return {};
  std::this_thread::sleep_for(std::chrono::duration<double>(kSeconds));
  const sim::StreamResult result = camera.host.stop("");
  return {result.rate(), result.report.latency_ms, 0};
}

std::vector<u8> block_of(const sim::StreamChoice& choice) {
  const auto sizes = sim::host_format(choice.format).sizes;
  std::vector<u8> block(26);
  block[2] = static_cast<u8>(choice.format);
  block[3] = static_cast<u8>(std::ranges::find(sizes, choice.size) - sizes.begin() + 1);
  put_le32(&block[4], 10'000'000 / choice.rate);
  return block;
}

class Attached {
 public:
  explicit Attached(sim::Camera& camera) : gadget_(camera.node, camera.conversation) {
    int ends[2];
    if (socketpair(AF_UNIX, SOCK_STREAM, 0, ends) < 0) std::abort();
    host_ = std::make_unique<UrbHost>(ends[0]);
    connection_ = std::make_unique<sim::UrbConnection>(ends[1], gadget_);
    ask({0, USB_REQ_SET_CONFIGURATION, 1, 0, 0});
  }

  Measured stream(const sim::StreamChoice& choice) {
    const auto block = block_of(choice);
    for (const u8 selector : {u8{UVC_VS_PROBE_CONTROL}, u8{UVC_VS_COMMIT_CONTROL}})
      ask(sim::class_request(UVC_SET_CUR, sim::kVideoStreamingInterface, 0, selector, block.size()), block);
    ask({1, USB_REQ_SET_INTERFACE, 1, 1, 0});
    const Measured measured = read();
    ask({1, USB_REQ_SET_INTERFACE, 0, 1, 0});
    return measured;
  }

 private:
  void ask(const usb_ctrlrequest& setup, const std::vector<u8>& data = {}) {
    const auto answer = host_->answer_to(host_->control(setup, data));
    if (!answer || answer->status != 0) std::printf("a request failed\n");
  }

  Measured read() {
    FrameReader reader;
    std::optional<u32> last;
    i64 first = 0, latest = 0;
    double frames = 0, latency = 0, processor = 0;
    const auto take = [&](const std::vector<u8>& frame) {
      const auto counter =
          frame.size() > sim::kEmptyPayload ? sim::counter_of(sim::payload_checksum(frame), last) : last;
      if (!counter || counter == last) return;
      last = counter;
      latest = sim::monotonic_ns();
      latency += static_cast<double>(latest - sim::scene_time(*counter)) / 1e6;
      if (++frames > 1) return;
      first = latest;
      processor = processor_seconds();
    };
    for (u32 i = 0; i < kTransfers; ++i) host_->stream(kPackets);
    const i64 end = sim::monotonic_ns() + static_cast<i64>(kSeconds * 1e9);
    u32 open = kTransfers;
    while (open > 0) {
      const auto answer = host_->next();
      if (!answer) return {};
      reader.read(*answer, take);
      if (sim::monotonic_ns() < end) {
        host_->stream(kPackets);
      } else {
        --open;
      }
    }
    const double seconds = static_cast<double>(latest - first) / 1e9;
    return {(frames - 1) / seconds, latency / frames, (processor_seconds() - processor) / seconds};
  }

  sim::Gadget gadget_;
  std::unique_ptr<UrbHost> host_;
  std::unique_ptr<sim::UrbConnection> connection_;
};

}  // namespace

int main() {
  const sim::Options options;
  sim::Camera camera(options);
  std::FILE* const nowhere = std::fopen("/dev/null", "w");
  sim::ServiceProcess service(
      {std::filesystem::read_symlink("/proc/self/exe").replace_filename("uvc_gadget_sim")}, nowhere, false);
  if (!camera.node.wait_for_device(15s)) return std::puts("the service did not come up"), 1;
  std::printf("%-18s %24s %40s\n%-18s %12s %11s %14s %11s %13s\n", "", "./dev run", "by USB/IP", "stream",
              "frames/s", "latency ms", "frames/s", "latency ms", "cores");
  for (const sim::HostFormat& format : sim::host_formats()) {
    for (const FrameSize& size : format.sizes) {
      const sim::StreamChoice choice{format.format, size, kRate};
      camera.host.replug();
      const Measured own = by_own_host(camera, choice);
      camera.host.unplug();
      const Measured attached = Attached(camera).stream(choice);
      std::printf("%-18s %12.1f %11.1f %14.1f %11.1f %13.2f\n", name_of(choice).c_str(), own.rate,
                  own.latency_ms, attached.rate, attached.latency_ms, attached.processor);
      std::fflush(stdout);
    }
  }
  return 0;
}
