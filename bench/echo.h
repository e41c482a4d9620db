// A system server in a process of its own that returns every request unchanged. It shares one core with the
// benchmark, so every message costs one switch to the other side.
#pragma once

#include <sched.h>
#include <signal.h>
#include <sys/msg.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <cstdio>

#include "ipc/msg_records.h"

/// Starts the process, which ends with the caller. Must be called before any thread is started.
template <typename Record, std::size_t kPayload>
void start_echo(int queue) {
  if (fork() != 0) return;
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  Record record;
  while (msgrcv(queue, &record, kPayload, kServerMsgType, 0) >= 0) {
    record.dest = record.src;
    msgsnd(queue, &record, kPayload, 0);
  }
  _exit(0);
}

inline void stay_on_this_core() {
  cpu_set_t core;
  CPU_ZERO(&core);
  CPU_SET(sched_getcpu(), &core);
  if (sched_setaffinity(0, sizeof(core), &core) < 0) std::perror("sched_setaffinity");
}
