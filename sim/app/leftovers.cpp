#include "sim/app/leftovers.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <thread>

#include "sim/seam/run.h"

namespace sim {

namespace {

// Keeps nothing of the first process open but the pipe, as standard input. No signal to a group ends it.
void separate(int pipe_end) {
  setsid();
  for (const int number : {SIGINT, SIGTERM, SIGHUP}) signal(number, SIG_IGN);
  dup2(pipe_end, STDIN_FILENO);
  const int nowhere = open("/dev/null", O_WRONLY);
  dup2(nowhere, STDOUT_FILENO);
  dup2(nowhere, STDERR_FILENO);
  close_range(STDERR_FILENO + 1, ~0U, 0);
}

[[noreturn]] void clean_up_after(pid_t process, int pipe_end) {
  separate(pipe_end);
  char goodbye;
  if (read(STDIN_FILENO, &goodbye, 1) == 1) _exit(0);
  while (kill(process, 0) == 0 || errno != ESRCH) std::this_thread::sleep_for(std::chrono::milliseconds(5));
  remove_dead_runs();
  _exit(0);
}

}  // namespace

Leftovers::Leftovers() {
  const pid_t own = getpid();
  int ends[2];
  if (pipe2(ends, O_CLOEXEC) < 0) return;
  other_ = fork();
  if (other_ == 0) clean_up_after(own, ends[0]);
  close(ends[0]);
  end_ = ends[1];
}

Leftovers::~Leftovers() {
  if (other_ < 0) return;
  (void)!write(end_, "", 1);
  waitpid(other_, nullptr, 0);
}

}  // namespace sim
