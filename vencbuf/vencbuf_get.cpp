// The reading side of the frame ring (enc_frame.h). The encoder's process fills a slot, marks it ready and
// posts the frame-ready semaphore; the streaming loop takes the oldest ready slot, copies it and gives it
// back. The state word alone says whose a slot is. The reader takes it by compare-exchange, so that it either
// owns a whole frame or, when the writer takes the slot back at the same moment, nothing. The semaphores only
// spare both sides polling: a post may be missing, or one too many, and no wait is longer than 100 ms.
//
// A writer that is late keeps the caller waiting for 25 such slices; then there is no frame, and the caller
// goes on without. Either side may start first, since each creates what it does not find. A writer that was
// restarted may have made the segment and the semaphores anew: while no frame comes, the reader looks for
// new ones under the same key and names, and moves over to them.
#include "vencbuf/vencbuf_get.h"

#include <fcntl.h>
#include <sys/ipc.h>
#include <sys/shm.h>
#include <sys/time.h>

#include <atomic>
#include <cerrno>
#include <optional>
#include <utility>

#include "platform/alarm.h"
#include "platform/sys.h"
#include "support/print.h"

constexpr char kPrintFile[] = "vencbuf_get.c";

namespace {

using Clock = Alarm::Clock;

constexpr int kAttempts = 25;
constexpr std::chrono::nanoseconds kSlice = std::chrono::milliseconds(100);
constexpr std::chrono::milliseconds kAlarmDelay(150);
constexpr std::chrono::milliseconds kBetweenLooks(500);
constexpr u32 kPostsInVain = 5;

sem_t* frame_ready;
sem_t* slot_released;
int ring_id = -1;
EncFrameSlot* ring;
u32 posts_in_vain;  // without a frame, since the last one; a writer of another ring may post our semaphores
Clock::time_point next_look;

// The state is the slot's first word; a member of a packed record cannot be referred to.
std::atomic_ref<u32> state_of(EncFrameSlot& slot) {
  return std::atomic_ref<u32>(*reinterpret_cast<u32*>(&slot));
}

sem_t* open_semaphore(const char* name) {
  sem_t* semaphore = sys::sem_open(name, O_CREAT, 0644, 1);
  return semaphore == SEM_FAILED ? nullptr : semaphore;
}

// The value of a semaphore, or nothing when the query returns EINVAL.
// Deliberate: sem_getvalue reports errors through errno, so that comparison never holds.
std::optional<int> pending_posts(sem_t* semaphore) {
  int value = 0;
  if (sem_getvalue(semaphore, &value) == EINVAL) return {};
  return value;
}

timespec slice_end() {
  timeval now;
  gettimeofday(&now, nullptr);
  timespec end{now.tv_sec, static_cast<long>(now.tv_usec * 1000 + kSlice.count())};
  if (end.tv_nsec >= 1'000'000'000) {
    ++end.tv_sec;
    end.tv_nsec -= 1'000'000'000;
  }
  return end;
}

// Deliberate: apart from the one wrap from 0xFFFFFFFF to 0 in slot order, numbers compare as they are.
EncFrameSlot& older(EncFrameSlot& first, EncFrameSlot& second) {
  if (first.seq == 0xFFFFFFFF && second.seq == 0) return first;
  return second.seq < first.seq ? second : first;
}

EncFrameSlot* oldest_ready() {
  const bool first = state_of(ring[0]).load() == kSlotReady;
  const bool second = state_of(ring[1]).load() == kSlotReady;
  if (first && second) return &older(ring[0], ring[1]);
  if (first) return &ring[0];
  return second ? &ring[1] : nullptr;
}

// Passes over a slot that the writer takes back at the same moment.
EncFrameSlot* take_oldest_ready() {
  while (EncFrameSlot* slot = oldest_ready()) {
    u32 expected = kSlotReady;
    if (state_of(*slot).compare_exchange_strong(expected, kSlotReading)) return slot;
  }
  return nullptr;
}

// Whether the writer's post came within the slice. A signal does not cut the slice short, unless the caller
// no longer wants the frame; a wall clock that is set back does not make it longer.
bool wait_for_post(bool (*goes_on)()) {
  if (sem_trywait(frame_ready) == 0) return true;
  const auto over = Clock::now() + kSlice;
  const timespec end = slice_end();
  const Alarm alarm(kAlarmDelay);
  while (sem_timedwait(frame_ready, &end) != 0) {
    if (errno != EINTR || !goes_on() || Clock::now() >= over) return false;
  }
  return true;
}

// A segment that was removed stays in use until there is another one under its key. The frames in the new one
// are the writer's newest, so they are kept.
void follow_ring() {
  const int id = sys::shmget(VENC_RING_KEY, kRingSize, 0);
  if (id == -1 || id == ring_id) return;
  void* address = shmat(id, nullptr, 0);
  if (address == reinterpret_cast<void*>(-1)) return;
  shmdt(ring);
  ring_id = id;
  ring = static_cast<EncFrameSlot*>(address);
  PRINT_INFO("frame ring was made anew\n");
}

// A name that still leads to the same semaphore gives the same pointer and one more reference to close.
void follow_semaphore(const char* name, sem_t*& semaphore) {
  sem_t* named = sys::sem_open(name, 0, 0, 0);
  if (named == SEM_FAILED) return;
  sem_close(std::exchange(semaphore, named));
}

// A writer that has been restarted may have made ring and semaphores anew.
void follow_writer() {
  const auto now = Clock::now();
  if (now < next_look) return;
  next_look = now + kBetweenLooks;
  follow_ring();
  follow_semaphore(kFrameReadySemaphore, frame_ready);
  follow_semaphore(kSlotReleasedSemaphore, slot_released);
}

}  // namespace

i32 vencbuf_get_init() {
  Alarm::prepare();
  frame_ready = open_semaphore(kFrameReadySemaphore);
  if (!frame_ready) {
    PRINT_ERROR("sem_open error!\n");
    return -1;
  }
  slot_released = open_semaphore(kSlotReleasedSemaphore);
  if (!slot_released) {
    PRINT_ERROR("sem_open error!\n");
    return -1;
  }
  ring_id = sys::shmget(VENC_RING_KEY, kRingSize, IPC_CREAT | 0666);
  if (ring_id == -1) {
    PRINT_ERROR("shmget failed\n");
    return -1;
  }
  void* address = shmat(ring_id, nullptr, 0);
  if (address == reinterpret_cast<void*>(-1)) {
    PRINT_ERROR("shmat error!\n");
    return -1;
  }
  ring = static_cast<EncFrameSlot*>(address);
  for (std::size_t i = 0; i < kRingSlots; ++i) state_of(ring[i]).store(kSlotEmpty);
  return 0;
}

void vencbuf_clear() { sem_trywait(frame_ready); }

void vencbuf_clear_all(bool (*goes_on)()) {
  for (int posts = pending_posts(frame_ready).value_or(0); posts > 0 && goes_on(); --posts) {
    sem_trywait(frame_ready);
  }
}

EncFrameSlot* vencbuf_get(bool (*goes_on)(), void (*between_waits)()) {
  vencbuf_clear();
  for (int i = 0; i < kAttempts && goes_on(); ++i) {
    if (EncFrameSlot* slot = take_oldest_ready()) {
      posts_in_vain = 0;
      return slot;
    }
    if (!wait_for_post(goes_on) || ++posts_in_vain >= kPostsInVain) follow_writer();
    if (between_waits) between_waits();
  }
  PRINT_ERROR("get buffer timeout!\n");
  return nullptr;
}

void vencbuf_release(EncFrameSlot* slot) {
  state_of(*slot).store(kSlotReleased);
  if (pending_posts(slot_released) == 0) sem_post(slot_released);
}

void vencbuf_exit() {
  for (sem_t** semaphore : {&frame_ready, &slot_released}) {
    if (*semaphore) sem_close(*semaphore);
    *semaphore = nullptr;
  }
  if (ring) shmdt(ring);
  ring = nullptr;
}
