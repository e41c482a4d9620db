// What surrounds the service on the emulated board: the system server, on the camera's own keys, and the
// media process, which makes the pictures that the service requests. It never ends by itself.
#include <fcntl.h>
#include <semaphore.h>
#include <sys/shm.h>
#include <unistd.h>

#include <atomic>
#include <cstring>

#include "rigs/board/programs/pictures.h"
#include "sim/parties/server.h"
#include "sim/seam/physical_memory.h"
#include "sim/seam/run.h"
#include "sim/seam/wait_on.h"
#include "vencbuf/enc_frame.h"

namespace sim {
key_t run_key(key_t key) { return key; }
}  // namespace sim

namespace {

// The encoder's end of the frame ring.
class Ring {
 public:
  // Returns false if the service has not taken the last one yet.
  bool put(u32 number, u16 width, u16 height) {
    EncFrameSlot& slot = slots_[number % kRingSlots];
    std::atomic_ref<u32> state(*reinterpret_cast<u32*>(&slot));
    if (state == kSlotReady || state == kSlotReading) return false;
    const std::vector<u8> picture = board::jpeg_picture(number);
    slot.seq = number;
    slot.frame_type = kJpegFrameType;
    slot.width = width;
    slot.height = height;
    slot.size = static_cast<u32>(picture.size());
    std::memcpy(slot.data, picture.data(), picture.size());
    state = kSlotReady;
    sem_post(ready_);
    return true;
  }

 private:
  EncFrameSlot* slots_ =
      static_cast<EncFrameSlot*>(shmat(shmget(VENC_RING_KEY, kRingSize, IPC_CREAT | 0666), nullptr, 0));
  sem_t* ready_ = sem_open(kFrameReadySemaphore, O_CREAT, 0644, 1);
};

// The VPSS channel, with one picture at a time.
class Channel {
 public:
  Channel() { channel_.alive = 1; }

  bool put(u32 number, u32 width, u32 height) {
    if (sim::vpss_owner(channel_.owner[0]) != sim::kVpssFree) return false;
    const u32 luma = sim::kVpssPictureBase, chroma = luma + width * height;
    for (u32 row = 0; row < height; ++row) {
      for (u32 column = 0; column < width; ++column) {
        memory_.at(luma)[row * width + column] = board::luma(number, column, row);
      }
    }
    for (u32 row = 0; row < height / 2; ++row) {
      u8* pair = memory_.at(chroma + row * width);
      for (u32 column = 0; column < width / 2; ++column, pair += 2) {
        pair[0] = board::red(number, column, row);
        pair[1] = board::blue(number, column, row);
      }
    }
    channel_.picture[0] = {width, height, kVpssYuv420SemiPlanar, {luma, chroma}, {width, width}, number};
    channel_.owner[0] = sim::vpss_word(number, sim::kVpssReady);
    sim::wake(channel_.ready);
    return true;
  }

 private:
  const sim::PhysicalMemory memory_;
  sim::VpssChannel& channel_ = memory_.channel();
};

}  // namespace

int main() {
  Channel channel;
  Ring ring;
  const sim::Server server({.pool_address = sim::kAvPoolBase, .pool_size = sim::kAvPoolSize});
  for (u32 number = 0;;) {
    const auto [header, running, wanted] = server.encoder_settings();
    const bool yuy2 = wanted.codec == kCodecYuy2;
    const bool put = running && (yuy2 ? channel.put(number, wanted.width, wanted.height)
                                      : ring.put(number, wanted.width, wanted.height));
    number += put;
    usleep(put ? 1'000'000 / wanted.frame_rate : 5'000);
  }
}
