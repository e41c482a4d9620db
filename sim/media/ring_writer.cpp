#include "sim/media/ring_writer.h"

#include <fcntl.h>
#include <sys/shm.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <span>
#include <utility>

#include "sim/seam/run.h"
#include "sim/seam/wait_on.h"

namespace sim {

namespace {

// The writer's own state of a slot; the reader takes it for "not ready".
constexpr u32 kSlotWriting = 1;
constexpr i64 kPatienceWithReader = 300 * kMillisecond;

// The reader loads a state and then stores its own, in two steps; after this time it has done both.
constexpr useconds_t kReaderStepsUs = 1000;

std::atomic_ref<u32> state(EncFrameSlot& slot) {
  return std::atomic_ref<u32>(*reinterpret_cast<u32*>(&slot));
}

bool change(EncFrameSlot& slot, u32 from, u32 to) { return state(slot).compare_exchange_strong(from, to); }

sem_t* open_semaphore(const char* name) {
  sem_t* semaphore = sem_open(run_semaphore(name).c_str(), O_CREAT, 0644, 1);
  if (semaphore != SEM_FAILED) return semaphore;
  std::perror(name);
  std::exit(2);
}

EncFrameSlot* attach_ring() {
  const int id = shmget(run_key(VENC_RING_KEY), kRingSize, IPC_CREAT | 0666);
  void* start = id < 0 ? nullptr : shmat(id, nullptr, 0);
  if (start && start != reinterpret_cast<void*>(-1)) return static_cast<EncFrameSlot*>(start);
  std::perror("encoded frame ring");
  std::exit(2);
}

}  // namespace

RingWriter::RingWriter()
    : slots_(attach_ring()),
      ready_(open_semaphore(kFrameReadySemaphore)),
      released_(open_semaphore(kSlotReleasedSemaphore)) {
  clear();
}

RingWriter::~RingWriter() {
  sem_close(ready_);
  sem_close(released_);
  shmdt(slots_);
}

void RingWriter::remove() {
  remove_objects(VENC_RING_KEY);
  for (const char* name : {kFrameReadySemaphore, kSlotReleasedSemaphore})
    sem_unlink(run_semaphore(name).c_str());
}

EncFrameSlot* RingWriter::free_slot() const {
  for (EncFrameSlot& slot : std::span(slots_, kRingSlots)) {
    const u32 value = state(slot);
    if (value != kSlotReady && value != kSlotReading) return &slot;
  }
  return nullptr;
}

void RingWriter::note_reader() {
  for (EncFrameSlot& slot : std::span(slots_, kRingSlots)) {
    const u32 value = state(slot);
    if (value == kSlotReading || value == kSlotReleased) reader_seen_ = true;
  }
}

// Takes back both frames or none, newest first: a reader that comes in between never gets a frame whose
// predecessor was just taken back.
unsigned RingWriter::drop_unread() {
  EncFrameSlot *older = slots_, *newer = slots_ + 1;
  if (static_cast<i32>(newer->seq - older->seq) < 0) std::swap(older, newer);
  const bool took_newer = change(*newer, kSlotReady, kSlotWriting);
  const bool took_older = change(*older, kSlotReady, kSlotWriting);
  usleep(kReaderStepsUs);
  if (state(*older) == kSlotReading) {
    if (took_newer && change(*newer, kSlotWriting, kSlotReady)) wake(*ready_);
    return 0;
  }
  unsigned dropped = 0;
  if (took_newer) dropped += change(*newer, kSlotWriting, kSlotEmpty);
  if (took_older) dropped += change(*older, kSlotWriting, kSlotEmpty);
  return dropped;
}

EncFrameSlot* RingWriter::acquire() {
  note_reader();
  EncFrameSlot* slot = nullptr;
  const auto found = [&] { return (slot = free_slot()) != nullptr; };
  if (!wait_on(*released_, monotonic_ns() + (reader_seen_ ? kPatienceWithReader : 0), found)) {
    const unsigned dropped = drop_unread();
    gap_ = gap_ || dropped > 0;
    if (reader_seen_) dropped_ += dropped;
    reader_seen_ = false;
    slot = free_slot();
  }
  if (slot) state(*slot) = kSlotWriting;
  return slot;
}

bool RingWriter::publish(EncFrameSlot& slot, const EncodedFrame& frame, int width, int height) {
  if (frame.data.size() > kEncFrameCapacity) {
    abandon(slot);
    return false;
  }
  slot.seq = seq_++;
  slot.frame_type = frame.type;
  slot.width = static_cast<u16>(width);
  slot.height = static_cast<u16>(height);
  slot.size = static_cast<u32>(frame.data.size());
  std::memcpy(slot.data, frame.data.data(), frame.data.size());
  state(slot).store(kSlotReady, std::memory_order_release);
  wake(*ready_, 2);
  return true;
}

void RingWriter::post_nothing() { wake(*ready_, 2); }

void RingWriter::abandon(EncFrameSlot& slot) { state(slot) = kSlotEmpty; }

void RingWriter::clear() {
  for (EncFrameSlot& slot : std::span(slots_, kRingSlots)) {
    change(slot, kSlotReady, kSlotEmpty);
    change(slot, kSlotReleased, kSlotEmpty);
  }
  reader_seen_ = false;
}

bool RingWriter::take_gap() { return std::exchange(gap_, false); }

}  // namespace sim
