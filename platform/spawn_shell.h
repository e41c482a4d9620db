// Shell commands for both seams, started as system() does it. fork, not vfork: a handler of the service's
// that runs in the child before the shell does stores into words of the child's own.
#pragma once

#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>

inline pid_t spawn_shell(const char* command) {
  const pid_t child = fork();
  if (child >= 0) setpgid(child, 0);  // by both sides, whichever comes first
  if (child == 0) {
    execl("/bin/sh", "sh", "-c", command, static_cast<char*>(nullptr));
    _exit(127);
  }
  return child;
}

/// The process between ends at once and leaves the command to init, which waits for it.
inline int launch_shell(const char* command) {
  const pid_t between = fork();
  if (between == 0) _exit(spawn_shell(command) < 0);
  if (between < 0) return -1;
  int status = -1;
  while (waitpid(between, &status, 0) < 0 && errno == EINTR) {
  }
  return status == 0 ? 0 : -1;
}
