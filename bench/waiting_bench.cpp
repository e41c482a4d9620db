// The two ways in which the control thread waits, side by side: how late a class request is answered, alone
// and while the main thread copies frames on the same core, and what waiting costs. A poll that finds no
// event is a system call here, as on the camera.
#include <pthread.h>
#include <sched.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <random>
#include <thread>
#include <vector>

#include "bench/control_thread.h"
#include "ipc/VeltoDrvMsg.h"
#include "ipc/msg_records.h"
#include "platform/sys.h"
#include "sim/seam/run.h"
#include "uvc/uvc_class.h"
#include "uvc/uvc_waiting.h"

namespace {

using Clock = std::chrono::steady_clock;
using namespace std::chrono_literals;

constexpr int kServiceCore = 0, kHostCore = 1;
constexpr int kRequests = 500;
constexpr auto kObserved = 2s;

void stay_on(pthread_t thread, int core) {
  cpu_set_t cores;
  CPU_ZERO(&cores);
  CPU_SET(core, &cores);
  if (const int error = pthread_setaffinity_np(thread, sizeof(cores), &cores))
    std::printf("core %d is not to be had (%s): latencies are of any core\n", core, std::strerror(error));
}

// The service's main thread while it streams: 30 times a second it copies for 3 ms, as a frame of 200 KB
// takes in the camera's slower memory.
class FrameCopier {
 public:
  FrameCopier() : thread_([this] { run(); }) { stay_on(thread_.native_handle(), kServiceCore); }
  ~FrameCopier() {
    quit_ = true;
    thread_.join();
  }

 private:
  void run() {
    std::vector<u8> from(200'000, 1), to(from.size());
    for (auto next = Clock::now(); !quit_; next += 33ms) {
      for (const auto end = Clock::now() + 3ms; Clock::now() < end;)
        std::memcpy(to.data(), from.data(), from.size());
      std::this_thread::sleep_until(next + 33ms);
    }
  }

  std::atomic<bool> quit_ = false;
  std::thread thread_;
};

// Microseconds from request to answer, in ascending order.
std::vector<double> latencies() {
  sim::NodeHost host;
  std::mt19937 random(1);
  std::uniform_int_distribution<int> pause_us(500, 4000);
  std::vector<double> all;
  v4l2_event setup = {};
  setup.type = UVC_EVENT_SETUP;
  const u8 packet[8] = {0xA1, UVC_GET_CUR, 0, 1, 1, 0, 26, 0};  // of the probe control
  std::memcpy(setup.u.data, packet, sizeof(packet));
  for (int i = 0; i < kRequests; ++i) {
    std::this_thread::sleep_for(std::chrono::microseconds(pause_us(random)));
    const auto start = Clock::now();
    host.raise(setup);
    while (!host.next_response(0ms)) continue;  // at full speed, on the other core
    all.push_back(std::chrono::duration<double, std::micro>(Clock::now() - start).count());
  }
  std::ranges::sort(all);
  return all;
}

// How often this process has slept; only the control thread does while it is observed.
long sleeps() {
  constexpr std::string_view kSleeps = "voluntary_ctxt_switches:";
  long count = 0;
  for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
    std::ifstream status(task.path() / "status");
    for (std::string line; std::getline(status, line);)
      if (line.starts_with(kSleeps)) count += std::atol(line.c_str() + kSleeps.size());
  }
  return count;
}

void measure(const char* name, bool streaming) {
  const ControlThread thread(uvc_class_procesing, streaming);
  stay_on(thread.handle(), kServiceCore);
  const long slept = sleeps();
  const double used = thread.cpu_seconds();
  std::this_thread::sleep_for(kObserved);
  const double seconds = std::chrono::duration<double>(kObserved).count();
  const double cpu = (thread.cpu_seconds() - used) / seconds * 100;
  const double wakes = static_cast<double>(sleeps() - slept - 1) / seconds;
  const std::vector<double> alone = latencies();
  const FrameCopier copier;
  const std::vector<double> beside = latencies();
  const auto p = [](const std::vector<double>& all, double share) {
    return all[static_cast<std::size_t>(share * static_cast<double>(all.size() - 1))];
  };
  std::printf("%-10s %-9s  %6.0f %6.0f  %8.0f %8.0f  %8.2f  %10.1f\n", name, streaming ? "streaming" : "idle",
              p(alone, 0.5), p(alone, 0.99), p(beside, 0.5), p(beside, 0.99), cpu, wakes);
}

}  // namespace

int main() {
  const sim::Run run;
  sim::make_empty_polls_calls();
  sys::system("insmod /opt/vcam/ko/extdrv/g_webcam.ko");
  VeltoDrvInit(kVeltoProcess);
  stay_on(pthread_self(), kHostCore);
  std::puts(
      "control thread        answer alone  beside main loop  processor     wake-ups\n"
      "waiting    state      p50 us p99 us    p50 us   p99 us         %   per second");
  for (const bool streaming : {false, true}) measure("polls", streaming);
  wait_in_kernel();
  for (const bool streaming : {false, true}) measure("in kernel", streaming);
}
