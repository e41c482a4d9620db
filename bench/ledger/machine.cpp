#include "bench/ledger/machine.h"

#include <semaphore.h>
#include <sys/ipc.h>
#include <sys/msg.h>
#include <sys/shm.h>
#include <sys/types.h>

#include <cerrno>
#include <cstring>
#include <ctime>
#include <iterator>

#include "platform/uvc_events.h"

namespace {

// What was made under a key of the service, in private.
struct Made {
  key_t key;
  int id;
};
Made queues[4], segments[4];
int queue_count, segment_count;
sem_t semaphores[2];
const char* semaphore_names[2];

v4l2_event events[2];
u32 events_left;
int answers;

int made_before(const Made* made, int count, key_t key) {
  for (int i = 0; i < count; ++i) {
    if (made[i].key == key) return made[i].id;
  }
  return -1;
}

int next_event(v4l2_event& event) {
  if (events_left == 0) {
    errno = ENOENT;
    return -1;
  }
  event = events[std::size(events) - events_left--];
  return 0;
}

}  // namespace

extern "C" {

int __real_ioctl(int fd, unsigned long request, void* argument);
ssize_t __real_msgrcv(int queue, void* record, size_t size, long type, int flags);
int __real_msgget(key_t key, int flags);
int __real_shmget(key_t key, size_t size, int flags);

// /dev/null knows none of the requests: the system call is real, but has no driver behind it.
int __wrap_ioctl(int fd, unsigned long request, void* argument) {
  __real_ioctl(fd, request, argument);
  if (request == VIDIOC_DQEVENT) return next_event(*static_cast<v4l2_event*>(argument));
  answers += request == UVCIOC_SEND_RESPONSE;
  return 0;
}

int __wrap_usleep(useconds_t) { return 0; }

time_t __wrap_time(time_t* result) {
  constexpr time_t kSecond = 1'700'000'000;
  return result ? *result = kSecond : kSecond;
}

int __wrap_msgget(key_t key, int) {
  const int known = made_before(queues, queue_count, key);
  if (known >= 0) return known;
  const int id = __real_msgget(IPC_PRIVATE, IPC_CREAT | 0600);
  queues[queue_count++] = {key, id};
  return id;
}

// The server's answer to a request is the request itself.
ssize_t __wrap_msgrcv(int queue, void* record, size_t size, long type, int flags) {
  const bool blocking = (flags & IPC_NOWAIT) == 0;
  return blocking ? static_cast<ssize_t>(size) : __real_msgrcv(queue, record, size, type, flags);
}

// Removed at once; the first attachment keeps a segment until the end of the process.
int __wrap_shmget(key_t key, size_t size, int) {
  const int known = made_before(segments, segment_count, key);
  if (known >= 0) return known;
  const int id = __real_shmget(IPC_PRIVATE, size, IPC_CREAT | 0600);
  shmat(id, nullptr, 0);
  shmctl(id, IPC_RMID, nullptr);
  segments[segment_count++] = {key, id};
  return id;
}

sem_t* __wrap_sem_open(const char* name, int, ...) {
  const bool first = !semaphore_names[0] || std::strcmp(name, semaphore_names[0]) == 0;
  semaphore_names[!first] = name;
  sem_init(&semaphores[!first], 0, 0);
  return &semaphores[!first];
}

}  // extern "C"

void raise_events(const v4l2_event& first, const v4l2_event& second) {
  events[0] = first;
  events[1] = second;
  events_left = second.type ? 2 : 1;
  if (events_left == 1) events[1] = first;
}

int empty_queues() {
  int messages = 0;
  char record[1024];
  for (int i = 0; i < queue_count; ++i) {
    while (__real_msgrcv(queues[i].id, record, sizeof(record) - sizeof(long), 0, IPC_NOWAIT) >= 0) ++messages;
  }
  return messages;
}

int answers_sent() { return answers; }

void remove_queues() {
  for (int i = 0; i < queue_count; ++i) msgctl(queues[i].id, IPC_RMID, nullptr);
}
