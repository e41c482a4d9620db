#include "uvc/uvc_gadget_signals.h"

#include <csignal>

#include "common/stream_state.h"
#include "support/print.h"
#include "support/support.h"

static constexpr char kPrintFile[] = "uvc_gadget.c";

static Word exit_requested;
static Word reload_requested;

void exitfunction(int) {
  exit_requested = 1;
  uvc_stream_state.exit_flag = 1;
}

static void request_reload(int signal) {
  if (signal == SIGUSR1) reload_requested = 1;
}

void install_reload_handler() { std::signal(SIGUSR1, request_reload); }

void install_exit_handlers() {
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
