// encoder_lender: encodes for the media process of another machine, until a signal comes.
#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>

#include "sim/media/av.h"
#include "sim/media/lent_encoder.h"

namespace {

std::atomic<bool> interrupted = false;

}  // namespace

static_assert(decltype(interrupted)::is_always_lock_free);

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fprintf(stderr, "Usage: encoder_lender FILE\n\nFILE is the memory that both machines share.\n");
    return 2;
  }
  if (truncate(argv[1], sim::kLentEncoderSize) < 0) {
    std::perror(argv[1]);
    return 1;
  }
  for (const int number : {SIGINT, SIGTERM, SIGHUP}) signal(number, [](int) { interrupted = true; });
  av_log_set_level(AV_LOG_QUIET);
  sim::lend_encoder(argv[1], interrupted);
  return 0;
}
