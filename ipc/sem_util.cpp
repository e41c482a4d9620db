#include "ipc/sem_util.h"

#include <pthread.h>
#include <time.h>
#include <unistd.h>

#include <new>

#include "common/stream_state.h"
#include "support/print.h"

static constexpr char kPrintFile[] = "sem_util.c";

struct Sem {
  pthread_mutex_t mutex;
};

static constexpr long kSliceNs = 50'000'000;

static timespec slice_end() {
  timespec end;
  clock_gettime(CLOCK_REALTIME, &end);
  end.tv_nsec += kSliceNs;
  if (end.tv_nsec >= 1'000'000'000) {
    end.tv_sec++;
    end.tv_nsec -= 1'000'000'000;
  }
  return end;
}

// The holder may wait for a dead server, so the end of the process is looked for while waiting.
static i32 lock_unless_ending(pthread_mutex_t* mutex) {
  while (pthread_mutex_trylock(mutex) != 0) {
    if (uvc_stream_state.exit_flag) return -1;
    const timespec end = slice_end();
    if (pthread_mutex_timedlock(mutex, &end) == 0) return 0;
  }
  return 0;
}

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
  return lock_unless_ending(&handle->mutex);
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
