// The ring's reader against a writer that the tests play themselves.
#include "vencbuf/vencbuf_get.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <semaphore.h>
#include <sys/shm.h>
#include <sys/time.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <thread>

#include "common/word.h"
#include "sim/seam/run.h"
#include "tests/printed_by.h"

using namespace std::chrono_literals;
using testing::HasSubstr;

// A clock that is ahead when the reader makes its deadline, and then set back.
namespace {
time_t clock_lead;
}
extern "C" int __real_gettimeofday(timeval*, void*);
extern "C" int __wrap_gettimeofday(timeval* now, void* zone) {
  const int result = __real_gettimeofday(now, zone);
  now->tv_sec += clock_lead;
  return result;
}

// A C library that reports a failed query by its return value.
namespace {
int query_result;
}
extern "C" int __real_sem_getvalue(sem_t*, int*);
extern "C" int __wrap_sem_getvalue(sem_t* semaphore, int* value) {
  return query_result ? query_result : __real_sem_getvalue(semaphore, value);
}

namespace {

using Clock = std::chrono::steady_clock;

Word wanted{1};  // whether the caller of the reader still wants a frame
bool goes_on() { return wanted; }

class RingTest : public testing::Test {
 protected:
  void SetUp() override {
    make_ring();
    publish(0, 1);
    ASSERT_EQ(vencbuf_get_init(), 0);
    make_semaphores();
  }
  void TearDown() override { vencbuf_exit(); }

  // The writer's start.
  void make_ring() {
    const int id = shmget(sim::run_key(VENC_RING_KEY), kRingSize, IPC_CREAT | 0666);
    slots = static_cast<EncFrameSlot*>(shmat(id, nullptr, 0));
  }
  void make_semaphores() {
    ready = sem_open(sim::run_semaphore(kFrameReadySemaphore).c_str(), O_CREAT, 0644, 1);
    released = sem_open(sim::run_semaphore(kSlotReleasedSemaphore).c_str(), O_CREAT, 0644, 1);
  }
  static void remove_ring() { shmctl(shmget(sim::run_key(VENC_RING_KEY), 0, 0), IPC_RMID, nullptr); }
  static void remove_semaphores() {
    for (const char* name : {kFrameReadySemaphore, kSlotReleasedSemaphore})
      sem_unlink(sim::run_semaphore(name).c_str());
  }

  void publish(int slot, u32 seq) {
    slots[slot].seq = seq;
    std::atomic_ref<u32>(*reinterpret_cast<u32*>(&slots[slot])).store(kSlotReady);
  }
  static int value(sem_t* semaphore) {
    int posts = -1;
    sem_getvalue(semaphore, &posts);
    return posts;
  }
  static void take_all(sem_t* semaphore) {
    while (sem_trywait(semaphore) == 0) continue;
  }

  sim::Run run;
  EncFrameSlot* slots = nullptr;
  sem_t* ready = nullptr;
  sem_t* released = nullptr;
};

TEST_F(RingTest, AttachEmptiesBothSlots) {
  EXPECT_EQ(slots[0].state, kSlotEmpty);
  EXPECT_EQ(slots[1].state, kSlotEmpty);
}

struct OrderRow {
  u32 first, second;
  int taken;
};

TEST_F(RingTest, TakesTheOlderOfTwoReadySlots) {
  const OrderRow rows[] = {{7, 8, 0}, {8, 7, 1}, {5, 5, 0}, {0xFFFFFFFF, 0, 0}, {0, 0xFFFFFFFF, 0}};
  for (const OrderRow& row : rows) {
    publish(0, row.first);
    publish(1, row.second);
    EncFrameSlot* slot = vencbuf_get(goes_on);
    ASSERT_NE(slot, nullptr);
    EXPECT_EQ(slots[row.taken].state, kSlotReading) << row.first << " " << row.second;
    EXPECT_EQ(slots[1 - row.taken].state, kSlotReady);
    EXPECT_EQ(slot->seq, row.taken ? row.second : row.first);
    vencbuf_release(slot);
    EXPECT_EQ(slots[row.taken].state, kSlotReleased);
  }
}

TEST_F(RingTest, ReleasePostsAtMostOnce) {
  take_all(released);
  for (int i = 0; i < 3; ++i) {
    publish(1, 1);
    vencbuf_release(vencbuf_get(goes_on));
    EXPECT_EQ(value(released), 1);
  }
  sem_trywait(released);
  publish(1, 1);
  query_result = EINVAL;
  vencbuf_release(vencbuf_get(goes_on));
  query_result = 0;
  EXPECT_EQ(value(released), 0) << "nothing is posted on a query that failed";
}

TEST_F(RingTest, DropsOneStalePostPerCall) {
  for (int i = 0; i < 3; ++i) sem_post(ready);
  const int before = value(ready);
  publish(0, 1);
  vencbuf_release(vencbuf_get(goes_on));
  EXPECT_EQ(value(ready), before - 1);
  vencbuf_clear();
  EXPECT_EQ(value(ready), before - 2);
}

TEST_F(RingTest, FindsWhatTheWriterMadeAnew) {
  const struct {
    const char* name;
    bool ring, semaphores;
  } rows[] = {{"both", true, true}, {"ring", true, false}, {"semaphores", false, true}};
  u32 seq = 0;
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    if (row.ring) remove_ring(), make_ring();
    if (row.semaphores) remove_semaphores(), make_semaphores();
    take_all(released);
    const u32 first = ++seq;
    std::jthread writer([&](std::stop_token end) {
      for (int slot = 0; !end.stop_requested(); slot ^= 1) {
        if (std::atomic_ref(*reinterpret_cast<u32*>(&slots[slot])) != kSlotReading) publish(slot, seq++);
        sem_post(ready);
        std::this_thread::sleep_for(30ms);
      }
    });
    const auto start = Clock::now();
    for (bool found = false; !found && Clock::now() < start + 5s;) {
      EncFrameSlot* slot = vencbuf_get(goes_on);
      found = slot && slot->seq >= first;
      if (slot) vencbuf_release(slot);
      found = found && value(released) == 1;
    }
    EXPECT_LT(Clock::now() - start, 3s) << "some 600 ms on an idle machine";
    writer.request_stop();
    writer.join();
    sem_post(ready);
    const int posts = value(ready);
    vencbuf_clear();
    EXPECT_EQ(value(ready), posts - 1);
  }
}

TEST_F(RingTest, WhatWasOnlyRemovedStaysInUse) {
  remove_ring();
  shmget(sim::run_key(VENC_RING_KEY), 4096, IPC_CREAT | 0666);
  remove_semaphores();
  const std::jthread writer([this] {
    std::this_thread::sleep_for(750ms);
    publish(0, 5);
    sem_post(ready);
  });
  EXPECT_NE(vencbuf_get(goes_on), nullptr);
  EXPECT_EQ(slots[0].state, kSlotReading);
}

TEST_F(RingTest, HeapOfPostsGoesAsLongAsFramesAreWanted) {
  for (int i = 0; i < 1000; ++i) sem_post(ready);
  vencbuf_clear_all(goes_on);
  EXPECT_EQ(value(ready), 0);
  sem_post(ready);
  wanted = 0;
  vencbuf_clear_all(goes_on);
  EXPECT_EQ(value(ready), 1);
}

TEST_F(RingTest, GivesUpAfter25SlicesWhateverSignalsCome) {
  std::signal(SIGUSR1, [](int) {});
  const std::jthread signals([waiter = pthread_self()](std::stop_token end) {
    for (; !end.stop_requested(); std::this_thread::sleep_for(10ms)) pthread_kill(waiter, SIGUSR1);
  });
  take_all(ready);
  const auto start = Clock::now();
  static int waits = 0;
  EXPECT_EQ(vencbuf_get(goes_on, [] { ++waits; }), nullptr);
  EXPECT_EQ(waits, 25);
  EXPECT_GT(Clock::now() - start, 2400ms);
  EXPECT_LT(Clock::now() - start, 4s);
}

TEST_F(RingTest, SlotThatTheWriterTakesBackIsNeverTaken) {
  constexpr u32 kWriting = 1;
  publish(0, 1);
  long taken_back = 0, collisions = 0;
  std::jthread writer([&](std::stop_token end) {  // takes its ready slot back again and again
    std::atomic_ref<u32> state(*reinterpret_cast<u32*>(&slots[0]));
    while (!end.stop_requested()) {
      u32 expected = kSlotReady;
      if (state.compare_exchange_strong(expected, kWriting)) {
        ++taken_back;
        for (int i = 0; i < 20; ++i) collisions += state.load() != kWriting;
      }
      if (expected != kSlotReading) state.store(kSlotReady);
      if (value(ready) == 0) sem_post(ready);
    }
  });
  const auto end = Clock::now() + 300ms;
  while (Clock::now() < end) {
    if (EncFrameSlot* slot = vencbuf_get(goes_on)) vencbuf_release(slot);
  }
  writer.request_stop();
  writer.join();
  EXPECT_GT(taken_back, 100);
  EXPECT_EQ(collisions, 0);
}

TEST_F(RingTest, EndsOnceNoFrameIsWanted) {
  for (const time_t lead : {0, 3600}) {  // seconds by which the clock is set back
    SCOPED_TRACE(lead);
    wanted = 1;
    clock_lead = lead;
    take_all(ready);
    const std::jthread ender([] {
      std::this_thread::sleep_for(50ms);
      wanted = 0;
    });
    const auto start = Clock::now();
    EXPECT_THAT(printed_by([] { EXPECT_EQ(vencbuf_get(goes_on), nullptr); }),
                HasSubstr("get buffer timeout!\n"));
    EXPECT_LT(Clock::now() - start, 1s);
  }
}

TEST_F(RingTest, ClockThatIsSetBackDoesNotHoldUpAFrame) {
  clock_lead = 3600;
  const std::jthread writer([this] {  // and does not post
    std::this_thread::sleep_for(50ms);
    publish(0, 1);
  });
  const auto start = Clock::now();
  EXPECT_NE(vencbuf_get(goes_on), nullptr);
  EXPECT_LT(Clock::now() - start, 1s);
}

TEST(Ring, SmallSegmentIsRefused) {
  sim::Run run;
  shmget(sim::run_key(VENC_RING_KEY), 4096, IPC_CREAT | 0666);
  EXPECT_THAT(printed_by([] { EXPECT_EQ(vencbuf_get_init(), -1); }), HasSubstr("shmget failed\n"));
}

}  // namespace
