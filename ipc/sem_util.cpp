#include "ipc/sem_util.h"

#include <pthread.h>
#include <unistd.h>

#include <new>

#include "common/stream_state.h"
#include "common/wait_limit.h"
#include "platform/sys.h"
#include "support/print.h"

struct Sem {
  pthread_mutex_t mutex;
};

namespace {

constexpr char kPrintFile[] = "sem_util.c";
constexpr useconds_t kHeldPause = 1000;

// The holder may be waiting for a dead server, so this wait looks for the end of the process and the thread's
// limit. pthread_mutex_timedlock would not do: its limit depends on the wall clock.
i32 lock_within_limits(pthread_mutex_t* mutex) {
  while (pthread_mutex_trylock(mutex) != 0) {
    if (uvc_stream_state.exit_flag || WaitLimit::over()) return -1;
    sys::usleep(kHeldPause);
  }
  return 0;
}

}  // namespace

SemHandle MakeSem() {
  SemHandle handle = new (std::nothrow) Sem;
  if (!handle) {
    PRINT_ERROR("Not enough memory!!\n");
    return nullptr;
  }
  if (pthread_mutex_init(&handle->mutex, nullptr) != 0) {
    PRINT_ERROR("Sem_Creat init faill!!\n");
    delete handle;
    return nullptr;
  }
  return handle;
}

i32 SemWait(SemHandle handle) {
  if (!handle) {
    PRINT_ERROR("SemWait: Invalid Semaphore handler pid:%d\n", getpid());
    return -1;
  }
  return lock_within_limits(&handle->mutex);
}

i32 SemRelease(SemHandle handle) {
  if (!handle) {
    PRINT_ERROR("SemRelease: Invalid Semaphore handler pid:%d\n", getpid());
    return -1;
  }
  pthread_mutex_unlock(&handle->mutex);
  return 0;
}

i32 DestroySem(SemHandle handle) {
  if (!handle) {
    PRINT_ERROR("DestroySem: Invalid Semaphore handler\n");
    return -1;
  }
  pthread_mutex_lock(&handle->mutex);
  pthread_mutex_unlock(&handle->mutex);
  if (pthread_mutex_destroy(&handle->mutex) != 0) PRINT_ERROR("Sem_kill faill!!\n");
  delete handle;
  return 0;
}
