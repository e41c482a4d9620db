// An encoder that needs no more than docs/wire-formats.md. Instead of encoding it plays frames from files,
// over and over: one frame a file, all of one size. It obeys the settings that a system server hands on as
// lines of numbers on standard input, "10 2 1 640 480 30 ...", and without such a line it just plays.
#include <fcntl.h>
#include <getopt.h>
#include <poll.h>
#include <semaphore.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ipc.h>
#include <sys/shm.h>
#include <time.h>
#include <unistd.h>

enum { SLOTS = 2, CAPACITY = 2076672, JPEG = 3 };
enum { EMPTY = 0, WRITING = 1, READY = 2, READING = 3 };  // WRITING is the encoder's own
enum { CODEC_MJPEG = 1 };

struct slot {
  uint32_t state, seq, type;
  uint16_t width, height;
  uint32_t size;
  uint8_t data[CAPACITY];
};
_Static_assert(sizeof(struct slot) == 2076692, "a slot of the ring");

static struct slot* ring;
static sem_t *ready, *released;
static uint32_t seq;
static int running = 1, width, height, codec = CODEC_MJPEG, rate = 30;

_Noreturn static void fail(const char* what) {
  perror(what);
  exit(1);
}

static int change(struct slot* slot, uint32_t from, uint32_t to) {
  return __atomic_compare_exchange_n(&slot->state, &from, to, 0, __ATOMIC_ACQ_REL, __ATOMIC_ACQUIRE);
}
static void take_back_unread(void) {
  for (int i = 0; i < SLOTS; ++i) change(&ring[i], READY, EMPTY);
}

static void attach(key_t key, const char* ready_name, const char* released_name) {
  const int id = shmget(key, SLOTS * sizeof(struct slot), IPC_CREAT | 0666);
  void* const start = id < 0 ? (void*)-1 : shmat(id, NULL, 0);
  if (start == (void*)-1) fail("encoder: ring");
  ring = start;
  ready = sem_open(ready_name, O_CREAT, 0644, 1);
  released = sem_open(released_name, O_CREAT, 0644, 1);
  if (ready == SEM_FAILED || released == SEM_FAILED) fail("encoder: semaphore");
  take_back_unread();
}

static struct slot* free_slot(void) {
  for (int i = 0; i < SLOTS; ++i) {
    const uint32_t state = __atomic_load_n(&ring[i].state, __ATOMIC_ACQUIRE);
    if (state != READY && state != READING) return &ring[i];
  }
  return NULL;
}

// Waits for a slot, three frames long at most. If nobody takes frames, the old ones make room.
static struct slot* wait_for_slot(void) {
  struct timespec end;
  clock_gettime(CLOCK_REALTIME, &end);
  const int64_t nanoseconds = end.tv_nsec + 3000000000 / rate;
  end.tv_sec += nanoseconds / 1000000000;
  end.tv_nsec = nanoseconds % 1000000000;
  struct slot* slot;
  while (!(slot = free_slot()) && sem_timedwait(released, &end) == 0) continue;
  if (!slot) take_back_unread();
  return slot ? slot : free_slot();
}

static void publish(const char* path) {
  struct slot* const slot = wait_for_slot();
  if (!slot) return;
  __atomic_store_n(&slot->state, WRITING, __ATOMIC_RELAXED);
  FILE* const file = fopen(path, "rb");
  if (!file) fail(path);
  slot->size = (uint32_t)fread(slot->data, 1, CAPACITY, file);
  fclose(file);
  slot->seq = seq++;
  slot->type = codec == CODEC_MJPEG ? JPEG : 0;
  slot->width = (uint16_t)width;
  slot->height = (uint16_t)height;
  __atomic_store_n(&slot->state, READY, __ATOMIC_RELEASE);
  int posts = 0;
  if (sem_getvalue(ready, &posts) == 0 && posts < 2) sem_post(ready);
}

// A line of command 10 says whether to encode, and what. Returns 0 at the end of the input.
static int take_settings(void) {
  char line[256];
  int go, columns, lines, wanted_rate, wanted_codec;
  if (!fgets(line, sizeof(line), stdin)) return 0;
  if (sscanf(line, "10 %*d %d %d %d %d %*d %d", &go, &columns, &lines, &wanted_rate, &wanted_codec) != 5)
    return 1;
  const int possible = columns == width && lines == height && wanted_codec == codec;
  running = go && possible;
  if (wanted_rate > 0) rate = wanted_rate;
  if (!running) take_back_unread();
  if (go && !possible)
    fprintf(stderr, "encoder: no files for %dx%d, codec %d\n", columns, lines, wanted_codec);
  return 1;
}

static int64_t microseconds(void) {
  struct timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  return (int64_t)now.tv_sec * 1000000 + now.tv_nsec / 1000;
}

int main(int argc, char** argv) {
  const char* names[] = {"USB_VENC_R", "USB_VENC_W"};
  key_t key = 0x5678;
  for (int option; (option = getopt(argc, argv, "k:r:w:c:")) != -1;) {
    if (option == 'k') key = (key_t)strtoul(optarg, NULL, 0);
    if (option == 'r') names[0] = optarg;
    if (option == 'w') names[1] = optarg;
    if (option == 'c') codec = atoi(optarg);
  }
  if (argc - optind < 2 || sscanf(argv[optind], "%dx%d", &width, &height) != 2) {
    fprintf(stderr,
            "Usage: encoder [-k RING_KEY] [-r READY_SEMAPHORE] [-w RELEASED_SEMAPHORE] [-c CODEC]\n"
            "               WIDTHxHEIGHT FILE...\n");
    return 2;
  }
  attach(key, names[0], names[1]);
  setvbuf(stdin, NULL, _IONBF, 0);  // so that poll() knows of every line
  struct pollfd input = {STDIN_FILENO, POLLIN, 0};
  int64_t due = microseconds();
  for (int next = optind + 1;;) {
    const int64_t wait = due - microseconds();
    const int limit = !running ? -1 : wait > 0 ? (int)(wait / 1000) : 0;
    if (poll(&input, 1, limit) > 0 && !take_settings()) input.fd = -1;
    if (!running || microseconds() < due) continue;
    publish(argv[next]);
    next = next + 1 < argc ? next + 1 : optind + 1;
    due += 1000000 / rate;
    if (due < microseconds()) due = microseconds();
  }
}
