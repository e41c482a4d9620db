// The encoder's process: slots with any header, whose words change while the frame is taken.
#include <fcntl.h>
#include <semaphore.h>
#include <sys/shm.h>

#include <atomic>
#include <climits>
#include <thread>

#include "sim/seam/run.h"
#include "support/print.h"
#include "tests/fuzz/fuzz.h"
#include "uvc/uvc_gadget_fill.h"
#include "uvc/uvc_state.h"
#include "vencbuf/vencbuf_get.h"

namespace {

using fuzz::check;

constexpr u32 kLongestBuffer = kEncFrameCapacity + 16384;
constexpr std::size_t kWords = 5;  // of a header; the first one is the state
constexpr int kPosts = 2000;       // enough that no wait for a frame lasts
constexpr int kChanges = 500;      // of a state: a frame that becomes ready for ever is taken for ever

using Word32 = std::atomic_ref<u32>;

struct Ring {
  Ring() {
    check(vencbuf_get_init() == 0, "the ring can be attached");
    slots = static_cast<EncFrameSlot*>(shmat(shmget(sim::run_key(VENC_RING_KEY), 0, 0), nullptr, 0));
    ready = sem_open(sim::run_semaphore(kFrameReadySemaphore).c_str(), 0);
    uvc_stream_state.stream_on = 1;
    print_level = 4;
  }
  u32& word(u8 slot, u8 index) { return reinterpret_cast<u32*>(&slots[slot % kRingSlots])[index % kWords]; }

  void empty() {
    for (u8 slot = 0; slot < kRingSlots; ++slot) Word32(word(slot, 0)).store(kSlotEmpty);
  }
  void publish(u8 slot, fuzz::Input& input, bool fits) {
    for (u8 index = 1; index < kWords; ++index) word(slot, index) = input.take<u32>();
    if (fits) {
      word(slot, 2) = cur_format == kFormatMjpeg ? kJpegFrameType : 0;
      word(slot, 3) = static_cast<u16>(encoder_record.width) | static_cast<u32>(encoder_record.height) << 16;
    }
    Word32(word(slot, 0)).store(kSlotReady);
  }

  // Runs once the word changes, until the buffer is filled or after `most` changes.
  std::thread changing(u32& changed, u32 value, int most) {
    filled = false;
    changes = 0;
    std::thread writer([this, &changed, value, most]() mutable {
      for (; !filled && changes < most; ++changes) value = Word32(changed).exchange(value);
    });
    while (changes == 0) std::this_thread::yield();
    return writer;
  }

  // One buffer, while a rival changes a header word to and fro.
  void fill(u32 length, u32* rival, u32 value) {
    const auto buffer_memory = memory.lend(length);
    uvc_buffers[0] = {buffer_memory.data(), length};
    v4l2_buffer buffer = {};
    for (int posts = 0; sem_getvalue(ready, &posts) == 0 && posts < kPosts;) sem_post(ready);
    const bool state = rival == &word(0, 0) || rival == &word(1, 0);
    std::thread writer = rival ? changing(*rival, value, state ? kChanges : INT_MAX) : std::thread();
    uvc_video_fill_buffer(0, &buffer);
    filled = true;
    if (rival) writer.join();
    check(buffer.bytesused >= 1 && buffer.bytesused <= length, "a payload is inside its buffer");
    check(buffer.bytesused <= kEncFrameCapacity, "a payload is no longer than a slot");
    if (state) return empty();
    for (u8 slot = 0; slot < kRingSlots; ++slot)
      check(word(slot, 0) != kSlotReading, "a slot that was taken is given back");
  }

  sim::Run run;
  fuzz::Guarded memory{kLongestBuffer};
  EncFrameSlot* slots;
  sem_t* ready;
  std::atomic<bool> filled;
  std::atomic<int> changes;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const u8* bytes, std::size_t size) {
  static Ring ring;
  fuzz::Input input(bytes, size);
  u32 length = 1000;
  ring.empty();
  for (int steps = 0; !input.empty() && steps < 20; ++steps) {
    const u8 kind = input.take<u8>();
    if (kind % 4 == 0) {
      cur_format = kind / 4 % 6;
      encoder_record.width = input.take<u16>();
      encoder_record.height = input.take<u16>();
    } else if (kind % 4 == 1) {
      length = kind & 4 ? kLongestBuffer - input.take<u16>() % 32768 : 2 + input.take<u16>();
    } else if (kind % 4 == 2) {
      ring.publish(kind / 4 % 2, input, kind & 16);
    } else {
      u32* const rival = kind & 4 ? &ring.word(kind / 8, kind / 16) : nullptr;
      ring.fill(length, rival, rival ? input.take<u32>() : 0);
    }
  }
  return 0;
}
