#include <unistd.h>

#include <cstdio>
#include <string_view>

#include "platform/output.h"
#include "uvc/uvc_gadget.h"
#include "uvc/uvc_waiting.h"

namespace {

constexpr char kHelp[] =
    "Usage: uvc_gadget [--wait-in-kernel]\n"
    "Runs the camera's USB Video Class service on /dev/video0 until SIGTERM or SIGINT.\n"
    "\n"
    "  --wait-in-kernel  sleep until the driver has an event instead of polling: less processor time\n"
    "  --help            print this text\n"
    "  --version         print the version\n"
    "\n"
    "Other words are reported and ignored.\n"
    "The print level is read from /opt/params/print.conf (a line such as uvc_gadget=debug) at start and on\n"
    "SIGUSR1. Log lines go to the log collector's queue, diagnostics to standard error.\n";

}  // namespace

int main(int argc, char** argv) {
  output_init();
  for (int i = 1; i < argc; ++i) {
    const std::string_view word = argv[i];
    if (word == "--help") return std::fputs(kHelp, stdout) < 0;
    if (word == "--version") return std::puts("uvc_gadget " UVC_GADGET_VERSION) < 0;
    if (word == "--wait-in-kernel") {
      wait_in_kernel();
    } else {
      output_format(STDERR_FILENO, "uvc_gadget: unknown option %s is ignored; --help tells those there are\n",
                    argv[i]);
    }
  }
  return uvc_gadget_main(argc, argv);
}
