// The service must not use the heap after its start: all heap calls of the whole process are counted, from
// outside.
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <thread>

#include "sim/collector.h"
#include "sim/conversation.h"
#include "sim/media.h"
#include "sim/node.h"
#include "sim/run.h"
#include "sim/server.h"
#include "sim/service_process.h"
#include "sim/usb_host.h"

using namespace std::chrono_literals;

TEST(Heap, RestsFromTheFirstRequestOnThroughEveryFormat) {
  const auto folder = std::filesystem::read_symlink("/proc/self/exe").parent_path();
  sim::Run run;
  std::FILE* count_file = std::tmpfile();
  ASSERT_EQ(ftruncate(fileno(count_file), sizeof(long)), 0);
  const auto* heap_calls = static_cast<std::atomic<unsigned long>*>(
      mmap(nullptr, sizeof(long), PROT_READ | PROT_WRITE, MAP_SHARED, fileno(count_file), 0));
  ASSERT_NE(heap_calls, MAP_FAILED);
  sim::NodeHost node;
  sim::Media media{{}};
  sim::Server server({.pool_address = sim::Media::pool_address(), .pool_size = sim::Media::pool_size()});
  sim::Collector collector{{}};
  sim::Conversation conversation{node};
  sim::UsbHost host{node, conversation, false};
  std::FILE* output = std::tmpfile();

  setenv("HEAP_COUNT",
         ("/proc/" + std::to_string(getpid()) + "/fd/" + std::to_string(fileno(count_file))).c_str(), 1);
  setenv("LD_PRELOAD", (folder / "libheap_counter.so").c_str(), 1);
  sim::ServiceProcess service(folder / "uvc_gadget_sim", output, false);
  unsetenv("LD_PRELOAD");
  ASSERT_TRUE(node.wait_for_device(20s)) << service.last_lines();
  host.replug();
  const unsigned long at_start = *heap_calls;
  EXPECT_GT(at_start, 0u) << "nothing was counted at all";
  ASSERT_TRUE(host.enumerate()) << host.error();
  using enum sim::StreamFormat;
  for (const sim::StreamFormat format : {kMjpeg, kYuy2, kH264, kH265}) {
    const unsigned long before = *heap_calls;
    ASSERT_TRUE(host.start({format, {320, 240}, 30})) << host.error();
    for (int i = 0; i < 2000 && host.progress().payloads < 12; i++) std::this_thread::sleep_for(5ms);
    EXPECT_GE(host.progress().payloads, 12u) << service.last_lines();
    host.stop("");
    EXPECT_EQ(*heap_calls, before) << "format " << static_cast<int>(format);
  }
  EXPECT_EQ(*heap_calls, at_start);
  EXPECT_TRUE(service.stop(10));
}
