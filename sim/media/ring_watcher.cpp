#include "sim/media/ring_watcher.h"

#include <sys/shm.h>

#include <algorithm>
#include <chrono>
#include <span>

#include "sim/media/made_frames.h"
#include "sim/seam/run.h"

namespace sim {

namespace {

constexpr std::chrono::milliseconds kInterval{1};
constexpr unsigned kLooksPerSearch = 250;  // for a ring that was made anew

int find_ring() { return shmget(run_key(VENC_RING_KEY), kRingSize, 0); }

// What the other process may change at any time.
u32 load(const u32& word) { return __atomic_load_n(&word, __ATOMIC_ACQUIRE); }

bool holds_frame(const EncFrameSlot& slot) {
  const u32 state = load(slot.state);
  return state == kSlotReady || state == kSlotReading || state == kSlotReleased;
}

// Returns the number of the frame in the slot once it is noted, or nothing if there is none to be noted yet.
std::optional<u32> note(const EncFrameSlot& slot) {
  const u32 seq = load(slot.seq), size = std::min(load(slot.size), kEncFrameCapacity);
  const u32 checksum = payload_checksum(std::span(slot.data, size));
  if (!holds_frame(slot) || load(slot.seq) != seq) return std::nullopt;
  note_scene(seq);
  note_checksum(seq, checksum);
  return seq;
}

}  // namespace

bool ring_exists() { return find_ring() >= 0; }

RingWatcher::RingWatcher() {
  know_frames_by_their_bytes(true);
  thread_ = std::thread([this] { run(); });
}

RingWatcher::~RingWatcher() {
  quit_ = true;
  thread_.join();
  if (slots_) shmdt(slots_);
  know_frames_by_their_bytes(false);
}

void RingWatcher::run() {
  for (unsigned looks = 0; !quit_; ++looks) {
    if (looks % kLooksPerSearch == 0) attach_newest();
    if (slots_) look();
    std::this_thread::sleep_for(kInterval);
  }
}

void RingWatcher::attach_newest() {
  const int id = find_ring();
  if (id < 0 || id == id_) return;
  void* const start = shmat(id, nullptr, SHM_RDONLY);
  if (start == reinterpret_cast<void*>(-1)) return;
  if (slots_) shmdt(slots_);
  id_ = id;
  slots_ = static_cast<const EncFrameSlot*>(start);
  std::ranges::fill(seen_, std::nullopt);
}

void RingWatcher::look() {
  for (std::size_t i = 0; i < kRingSlots; ++i) {
    if (!holds_frame(slots_[i]) || seen_[i] == load(slots_[i].seq)) continue;
    if (const auto seq = note(slots_[i])) seen_[i] = seq;
  }
}

}  // namespace sim
