#include "ipc/sem_util.h"

#include <pthread.h>
#include <unistd.h>

#include <new>

#include "support/print.h"

static constexpr char kPrintFile[] = "sem_util.c";

struct Sem {
  pthread_mutex_t mutex;
};

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
  pthread_mutex_lock(&handle->mutex);
  return 0;
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
