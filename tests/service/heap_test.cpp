// The service must not use the heap after its start: the calls of its whole process are counted from outside.
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <thread>

#include "sim/app/camera.h"
#include "sim/app/options.h"
#include "sim/app/service_process.h"

using namespace std::chrono_literals;

TEST(Heap, RestsThroughEveryFormat) {
  const auto folder = std::filesystem::read_symlink("/proc/self/exe").parent_path();
  std::FILE* count_file = std::tmpfile();
  ASSERT_EQ(ftruncate(fileno(count_file), sizeof(long)), 0);
  const auto* heap_calls = static_cast<std::atomic<unsigned long>*>(
      mmap(nullptr, sizeof(long), PROT_READ | PROT_WRITE, MAP_SHARED, fileno(count_file), 0));
  ASSERT_NE(heap_calls, MAP_FAILED);
  sim::Camera camera{{}};
  std::FILE* output = std::tmpfile();

  setenv("HEAP_COUNT",
         ("/proc/" + std::to_string(getpid()) + "/fd/" + std::to_string(fileno(count_file))).c_str(), 1);
  setenv("LD_PRELOAD", (folder / "libheap_counter.so").c_str(), 1);
  sim::ServiceProcess service({folder / "uvc_gadget_sim"}, output, false);
  unsetenv("LD_PRELOAD");
  ASSERT_TRUE(camera.node.wait_for_device(20s)) << service.last_lines();
  camera.host.replug();
  ASSERT_TRUE(camera.host.enumerate()) << camera.host.error();
  // The node is there before the start-up has ended; the streaming loop's first turn sends encoder settings.
  const auto in_its_loop = [&] {
    const auto lines = camera.parties.server->received();
    return std::ranges::any_of(lines, [](const std::string& line) { return line.starts_with("velto 10 "); });
  };
  for (int i = 0; i < 2000 && !in_its_loop(); ++i) std::this_thread::sleep_for(5ms);
  ASSERT_TRUE(in_its_loop()) << service.last_lines();
  const unsigned long at_start = *heap_calls;
  EXPECT_GT(at_start, 0u) << "nothing was counted at all";
  using enum sim::StreamFormat;
  for (const sim::StreamFormat format : {kMjpeg, kYuy2, kH264, kH265}) {
    ASSERT_TRUE(camera.host.start({format, {320, 240}, 30})) << camera.host.error();
    for (int i = 0; i < 2000 && camera.host.progress().payloads < 12; ++i) std::this_thread::sleep_for(5ms);
    EXPECT_GE(camera.host.progress().payloads, 12u) << service.last_lines();
    camera.host.stop("");
    EXPECT_EQ(*heap_calls, at_start) << "format " << static_cast<int>(format);
  }
  EXPECT_TRUE(service.stop(10));
}
