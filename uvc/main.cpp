#include <unistd.h>

#include <cstdio>
#include <cstring>

#include "platform/output.h"
#include "uvc/uvc_gadget.h"

namespace {

constexpr char kHelp[] =
    "Usage: uvc_gadget\n"
    "Runs the camera's USB Video Class service on /dev/video0 until SIGTERM or SIGINT.\n"
    "\n"
    "  --help     print this text\n"
    "  --version  print the version\n"
    "\n"
    "Other words are reported and ignored.\n"
    "The print level is read from /opt/params/print.conf (a line such as uvc_gadget=debug) at start and on\n"
    "SIGUSR1. Log lines go to the log collector's queue, diagnostics to standard error.\n";

}  // namespace

int main(int argc, char** argv) {
  output_init();
  if (argc <= 1) return uvc_gadget_main(argc, argv);
  if (std::strcmp(argv[1], "--help") == 0) return std::fputs(kHelp, stdout) < 0;
  if (std::strcmp(argv[1], "--version") == 0) return std::puts("uvc_gadget " UVC_GADGET_VERSION) < 0;
  output_format(STDERR_FILENO, "uvc_gadget: unknown option %s is ignored; --help tells those there are\n",
                argv[1]);
  return uvc_gadget_main(argc, argv);
}
