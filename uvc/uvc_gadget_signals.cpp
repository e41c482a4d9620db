#include "uvc/uvc_gadget_signals.h"

#include <sys/time.h>
#include <unistd.h>

#include <atomic>
#include <csignal>

#include "common/stream_state.h"
#include "support/print.h"
#include "support/support.h"
#include "uvc/uvc_waiting.h"

constexpr char kPrintFile[] = "uvc_gadget.c";

namespace {

Word exit_requested;
Word reload_requested;

// How long the orderly end may take; whatever delays it, the service ends within a second.
constexpr itimerval kEndLimit = {.it_interval = {}, .it_value = {.tv_sec = 0, .tv_usec = 700'000}};

void end_at_once(int) { _exit(0); }

void request_reload(int signal) {
  if (signal != SIGUSR1) return;
  reload_requested = 1;
  wake_main_thread();
}

}  // namespace

void exitfunction(int) {
  static std::atomic_flag limited;  // a second signal does not postpone the end
  exit_requested = 1;
  uvc_stream_state.exit_flag = 1;
  wake_main_thread();
  if (!limited.test_and_set()) setitimer(ITIMER_REAL, &kEndLimit, nullptr);
}

void install_reload_handler() { std::signal(SIGUSR1, request_reload); }

void install_exit_handlers() {
  std::signal(SIGALRM, end_at_once);
  std::signal(SIGINT, exitfunction);
  std::signal(SIGTERM, exitfunction);
}

void serve_signals() {
  if (exit_requested) {
    exit_requested = 0;
    PRINT_INFO("exit uvc class threads...\n");
  }
  if (reload_requested) {
    reload_requested = 0;
    print_level_load(kProcessName);
  }
}
