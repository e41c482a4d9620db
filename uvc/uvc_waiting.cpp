#include "uvc/uvc_waiting.h"

#include <poll.h>
#include <semaphore.h>

#include "common/cancel.h"
#include "platform/sys.h"

namespace {

constexpr int kLongestWaitMs = 1000;
constexpr u32 kPollsBetweenPauses = 2000;
constexpr useconds_t kPause = 1000;
constexpr useconds_t kIdlePause = 10'000;

bool in_kernel = false;

// Posted once at most, so that a busy time does not leave the main thread with turns to make up for.
struct Wake {
  Wake() { sem_init(&semaphore, 0, 0); }
  sem_t semaphore;
} wake;

}  // namespace

void wait_in_kernel() { in_kernel = true; }
u32 polls_between_pauses() { return in_kernel ? 0 : kPollsBetweenPauses; }

void wait_for_event(i32 node) {
  pollfd request = {.fd = node, .events = POLLPRI, .revents = 0};
  CancelPoint cancel_point;
  const int result = sys::poll(&request, 1, kLongestWaitMs);
  if (result < 0 || request.revents & ~POLLPRI) sys::usleep(kPause);
}

void rest() { in_kernel ? sem_wait(&wake.semaphore) : sys::usleep(kIdlePause); }

void wake_main_thread() {
  int posted;
  if (sem_getvalue(&wake.semaphore, &posted) == 0 && posted == 0) sem_post(&wake.semaphore);
}
