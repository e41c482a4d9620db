// Shell commands for both seams, started as system() starts them. This uses fork, not vfork: if a handler of
// the service runs in the child before the shell does, it must write to words of the child's own.
#pragma once

#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>

inline pid_t spawn_shell(const char* command) {
  const pid_t child = fork();
  if (child >= 0) setpgid(child, 0);  // both sides do this, because either may run first
  if (child == 0) {
    execl("/bin/sh", "sh", "-c", command, static_cast<char*>(nullptr));
    _exit(127);
  }
  return child;
}

/// The process in between ends at once and leaves the command to init, which waits for it.
inline int launch_shell(const char* command) {
  const pid_t between = fork();
  if (between == 0) _exit(spawn_shell(command) < 0);
  if (between < 0) return -1;
  int status = -1;
  while (waitpid(between, &status, 0) < 0 && errno == EINTR) {
  }
  return status == 0 ? 0 : -1;
}
