// A system server that needs no more than docs/wire-formats.md: it keeps the parameter record, hands out the
// memory pool and plays the camera head, which remembers what it was told. Every command 10 and 12 goes to
// standard output as a line of numbers, for an encoder to read: system_server | encoder 640x480 *.jpg
#include <errno.h>
#include <pthread.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ipc.h>
#include <sys/msg.h>
#include <sys/shm.h>
#include <unistd.h>

enum { SEGMENT_SIZE = 102400, SLOT_SIZE = 4096, FIRST_CLIENT = 2, LAST_CLIENT = 24 };
enum { RECORD_LENGTH = 2640, USB_PORT = 284, STATE = 2640, CACHE_VALID = 2956 + 80, HOST_GONE = 3040 };
enum { MAGIC = 0x5AC33CA5 };

struct message {
  long type;
  int32_t cmd, src, word[35];  // the first word is at offset 12 on the camera
};

// A queue, the bytes of its records without the type, and what turns a request into its answer.
struct queue {
  key_t key;
  size_t size;
  void (*answer)(struct message* m);
  int id;
};

static uint8_t *parameters, *slots;
static uint32_t pool[2] = {0x80000000, 8 << 20};  // address and size, as in the simulator
static uint16_t values[256] = {[0xA4] = 8, [0xA2] = 8, [0xA1] = 8, [0x42] = 3, [0x35] = 1};  // of the head

_Noreturn static void fail(const char* what) {
  perror(what);
  exit(1);
}

static uint8_t* attach(key_t key) {
  const int id = shmget(key, SEGMENT_SIZE, IPC_CREAT | 0660);
  void* const start = id < 0 ? (void*)-1 : shmat(id, NULL, 0);
  if (start == (void*)-1) fail("system_server: segment");
  return start;
}

static uint32_t* parameter(size_t offset) { return (uint32_t*)(void*)(parameters + offset); }
static void store(size_t offset, uint32_t value) {
  __atomic_store_n(parameter(offset), value, __ATOMIC_RELEASE);
}

static int32_t reply(uint8_t* frame, const void* bytes, int32_t length) {
  memcpy(frame, bytes, (size_t)length);
  return length;
}

// Obeys the frame and puts the reply in its place. Returns the reply's length.
static int32_t obey(uint8_t* frame, int32_t length) {
  if (length < 5 || length > 16 || frame[0] != 0x81 || frame[length - 1] != 0xFF)
    return reply(frame, "\x90\x60\x02\xFF", 4);
  const int kind = frame[1], unit = frame[2];
  uint16_t* const value = &values[frame[3]];
  const uint32_t now = *value;
  if (kind == 9 && unit == 4) return reply(frame, &now, sizeof(now));
  if (unit == 4 && length == 6) *value = frame[3] == 0x35 ? frame[4] == 0 : frame[4];
  if (unit == 4 && length == 9)
    *value = (uint16_t)(frame[4] << 12 | frame[5] << 8 | frame[6] << 4 | frame[7]);
  return reply(frame, "\x90\x41\xFF", 3);  // also for pan and tilt, though nothing moves
}

static void answer_parameters(struct message* m) { m->word[1] = RECORD_LENGTH; }

static void answer_system(struct message* m) {
  const int32_t length = m->word[0], offset = m->word[1];
  const int sound = m->cmd == 39 && m->src >= FIRST_CLIENT && m->src <= LAST_CLIENT &&
                    offset == (m->src - FIRST_CLIENT) * SLOT_SIZE && length <= SLOT_SIZE;
  m->word[0] = sound ? obey(slots + offset, length) : -1;
}

static void answer_control(struct message* m) {
  const int words = m->cmd == 10 ? 13 : m->cmd == 12 ? 1 : 0;
  if (words > 0) {
    printf("%d", m->cmd);
    for (int i = 0; i < words; ++i) printf(" %d", m->word[3 + i]);
    printf("\n");
  }
  m->word[0] = m->cmd == 1 ? 0 : -1;
  if (m->cmd == 1) memcpy(&m->word[1], pool, sizeof(pool));
}

static struct queue queues[] = {
    {12930021, 28, answer_parameters, 0}, {152421, 148, answer_control, 0}, {14073, 16, answer_system, 0}};

static void* serve(void* argument) {
  struct queue* const queue = argument;
  for (struct message m;;) {
    const ssize_t size = msgrcv(queue->id, &m, sizeof(m) - sizeof(m.type), 1, MSG_NOERROR);
    if (size < 0 && errno != EINTR) fail("system_server: queue");
    if (size != (ssize_t)queue->size) continue;
    queue->answer(&m);
    m.type = m.src;  // 0 in a one-way command, which has no answer
    if (m.src >= FIRST_CLIENT && m.src <= LAST_CLIENT) msgsnd(queue->id, &m, queue->size, IPC_NOWAIT);
  }
}

static void fill_parameters(void) {
  parameters = attach(queues[0].key);
  memset(parameters, 0, SEGMENT_SIZE);
  store(USB_PORT, 0);
  store(CACHE_VALID, 0);  // the service asks for every value
  store(STATE, MAGIC);
  store(0, MAGIC);
}

static void start(struct queue* queue) {
  pthread_t thread;
  queue->id = msgget(queue->key, IPC_CREAT | 0666);
  if (queue->id < 0 || (errno = pthread_create(&thread, NULL, serve, queue)) != 0)
    fail("system_server: queue");
}

int main(int argc, char** argv) {
  if (argc != 1 && argc != 6) {
    fprintf(stderr, "Usage: system_server [PARAMETERS_KEY CONTROL_KEY SYSTEM_KEY POOL_ADDRESS POOL_SIZE]\n");
    return 2;
  }
  for (int i = 1; i <= 3 && argc == 6; ++i) queues[i - 1].key = (key_t)strtoul(argv[i], NULL, 0);
  for (int i = 4; i <= 5 && argc == 6; ++i) pool[i - 4] = (uint32_t)strtoul(argv[i], NULL, 0);
  setlinebuf(stdout);
  slots = attach(queues[2].key);
  fill_parameters();
  for (int i = 0; i < 3; ++i) start(&queues[i]);
  for (;; usleep(100000))
    if (__atomic_exchange_n(parameter(HOST_GONE), 0, __ATOMIC_ACQ_REL) != 0)
      fprintf(stderr, "system_server: the USB host has gone\n");
}
