// A library to be preloaded into the service: counts its heap calls in the file that HEAP_COUNT names, which
// the test has mapped as well. The calls themselves go to the C library.
#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>

extern "C" {
void* __libc_malloc(size_t size);
void* __libc_calloc(size_t count, size_t size);
void* __libc_realloc(void* memory, size_t size);
void* __libc_memalign(size_t alignment, size_t size);
}

using Count = std::atomic<unsigned long>;

namespace {

Count before_it_is_mapped;
std::atomic<Count*> heap_calls = &before_it_is_mapped;

[[gnu::constructor]] void map_count() {
  const int fd = open(std::getenv("HEAP_COUNT"), O_RDWR | O_CLOEXEC);
  void* start = fd < 0 ? MAP_FAILED : mmap(nullptr, sizeof(Count), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
  if (start == MAP_FAILED) std::abort();
  close(fd);
  heap_calls = static_cast<Count*>(start);
}

void count() { ++*heap_calls.load(); }

}  // namespace

extern "C" {
void* malloc(size_t size) { return count(), __libc_malloc(size); }
void* calloc(size_t amount, size_t size) { return count(), __libc_calloc(amount, size); }
void* realloc(void* memory, size_t size) { return count(), __libc_realloc(memory, size); }
void* memalign(size_t alignment, size_t size) { return count(), __libc_memalign(alignment, size); }
void* aligned_alloc(size_t alignment, size_t size) { return count(), __libc_memalign(alignment, size); }
int posix_memalign(void** memory, size_t alignment, size_t size) {
  count();
  *memory = __libc_memalign(alignment, size);
  return *memory ? 0 : 12;
}
}
