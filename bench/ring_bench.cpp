// Measures one encoded frame from the ring into a gadget buffer: what the service's logic costs, compared
// with the same calls and the same copy without it.
#include <benchmark/benchmark.h>
#include <semaphore.h>
#include <sys/shm.h>

#include <atomic>
#include <cstdio>
#include <cstring>
#include <vector>

#include "bench/medians.h"
#include "sim/seam/run.h"
#include "uvc/uvc_gadget_fill.h"
#include "uvc/uvc_state.h"
#include "vencbuf/vencbuf_get.h"

namespace {

constexpr i64 kSizes[] = {50'000, 200'000, 1'000'000};

EncFrameSlot* slots;
std::vector<u8> buffer(1280 * 720 * 2);
sem_t* ready;
sem_t* released;

std::atomic_ref<u32> state_of(EncFrameSlot& slot) {
  return std::atomic_ref<u32>(*reinterpret_cast<u32*>(&slot));
}

EncFrameSlot& publish(u32 seq, i64 size) {
  EncFrameSlot& slot = slots[seq % 2];
  slot.seq = seq;
  slot.size = static_cast<u32>(size);
  state_of(slot).store(kSlotReady);
  return slot;
}

void service(benchmark::State& state) {
  v4l2_buffer record = {};
  u32 seq = 0;
  for (auto _ : state) {
    publish(seq++, state.range(0));
    uvc_video_fill_buffer(0, &record);
  }
  if (record.bytesused != static_cast<u32>(state.range(0))) state.SkipWithError("no whole frame");
}

void plain_calls(benchmark::State& state) {
  u32 seq = 0;
  for (auto _ : state) {
    EncFrameSlot& slot = publish(seq++, state.range(0));
    int posts;
    sem_getvalue(ready, &posts);
    state_of(slot).store(kSlotReading);
    std::memcpy(buffer.data(), slot.data, static_cast<std::size_t>(state.range(0)));
    benchmark::ClobberMemory();
    state_of(slot).store(kSlotReleased);
    sem_getvalue(released, &posts);
  }
}

BENCHMARK(service)->Arg(kSizes[0])->Arg(kSizes[1])->Arg(kSizes[2]);
BENCHMARK(plain_calls)->Arg(kSizes[0])->Arg(kSizes[1])->Arg(kSizes[2]);

void attach() {
  vencbuf_get_init();
  slots = static_cast<EncFrameSlot*>(shmat(shmget(sim::run_key(VENC_RING_KEY), 0, 0), nullptr, 0));
  for (std::size_t i = 0; i < kRingSlots; ++i) {
    slots[i].frame_type = kJpegFrameType;
    slots[i].width = 1920;
    slots[i].height = 1080;
    std::memset(slots[i].data, 1, kEncFrameCapacity);
  }
  ready = sem_open(sim::run_semaphore(kFrameReadySemaphore).c_str(), 0);
  released = sem_open(sim::run_semaphore(kSlotReleasedSemaphore).c_str(), 0);
  uvc_buffers[0] = {buffer.data(), static_cast<u32>(buffer.size())};
  uvc_stream_state.stream_on = 1;
}

}  // namespace

int main(int argc, char** argv) {
  const sim::Run run;
  attach();
  Medians ns = run_benchmarks(argc, argv);
  for (const i64 size : kSizes) {
    const std::string argument = "/" + std::to_string(size);
    std::printf(
        "ring take + copy + release of %ld KB: %.3f of the same calls without logic (aim: at most 1.05)\n",
        static_cast<long>(size / 1000), ns["service" + argument] / ns["plain_calls" + argument]);
  }
}
