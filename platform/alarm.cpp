#include "platform/alarm.h"

#include <signal.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>

namespace {

using std::chrono::nanoseconds;

constexpr long kRepeatNs = 10'000'000;

// The handler has nothing to do. Its running is what makes the interrupted call return.
void interrupt(int) {}

void install_handler() {
  struct sigaction action = {};
  action.sa_handler = interrupt;  // without SA_RESTART
  sigaction(SIGRTMIN, &action, nullptr);
}

// A timer whose signal goes to the thread that created it.
class ThreadTimer {
 public:
  ThreadTimer() {
    [[maybe_unused]] static const bool installed = (install_handler(), true);
    sigevent event = {};
    event.sigev_notify = SIGEV_THREAD_ID;
    event.sigev_signo = SIGRTMIN;
    event._sigev_un._tid = static_cast<pid_t>(syscall(SYS_gettid));
    made_ = timer_create(CLOCK_MONOTONIC, &event, &timer_) == 0;
  }
  ~ThreadTimer() {
    if (made_) timer_delete(timer_);
  }
  ThreadTimer(const ThreadTimer&) = delete;

  void start(nanoseconds delay) const {
    const nanoseconds first = std::max(delay, nanoseconds(1));  // 0 would stop the timer
    const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(first);
    itimerspec times = {};
    times.it_value.tv_sec = static_cast<time_t>(seconds.count());
    times.it_value.tv_nsec = static_cast<long>((first - seconds).count());
    times.it_interval.tv_nsec = kRepeatNs;
    set(times);
  }
  void stop() const { set({}); }

 private:
  void set(const itimerspec& times) const {
    if (made_) timer_settime(timer_, 0, &times, nullptr);
  }

  timer_t timer_{};
  bool made_ = false;
};

thread_local const ThreadTimer timer;

}  // namespace

Alarm::Alarm(Clock::duration delay) { timer.start(delay); }
Alarm::~Alarm() { timer.stop(); }

void Alarm::prepare() { timer.stop(); }
