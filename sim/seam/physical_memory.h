// The simulated camera's physical memory: 64 MiB in a POSIX shared memory object of the run, after a control
// area with the VPSS channel. libmpi.so opens it by name on the service's side; the media process owns it. It
// needs nothing but the C library.
#pragma once

#include <fcntl.h>
#include <semaphore.h>
#include <sys/mman.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>

#include "common/bytes.h"
#include "platform/hi_mpi.h"

namespace sim {

constexpr u32 kPhysicalBase = 0x80000000;
constexpr u32 kPhysicalSize = 64u << 20;
/// The AV memory pool comes first; the VPSS pictures follow it.
constexpr u32 kAvPoolBase = kPhysicalBase;
constexpr u32 kAvPoolSize = 8u << 20;
constexpr u32 kVpssPictures = 8;
constexpr u32 kVpssPictureBase = kAvPoolBase + kAvPoolSize;
constexpr u32 kVpssPictureSize = (kPhysicalSize - kAvPoolSize) / kVpssPictures;

/// Who has a picture buffer: the lower two bits of its word. The bits above them are the picture's handle.
enum VpssOwner : u32 {
  kVpssFree = 0,
  kVpssFilling = 1,  ///< the media process writes
  kVpssReady = 2,    ///< can be handed out; one buffer at a time
  kVpssHeld = 3,     ///< the service has it
};
constexpr u32 vpss_word(u32 handle, VpssOwner owner) { return handle << 2 | owner; }
constexpr VpssOwner vpss_owner(u32 word) { return static_cast<VpssOwner>(word & 3); }

/// Group 0, channel 3. There are no locks: owners change by compare-exchange, so either side may be killed
/// at any time.
struct VpssChannel {
  std::atomic<u32> alive;    ///< 1 while the media process runs
  std::atomic<u32> waiting;  ///< 1 while a taker waits; the next published picture clears it
  std::atomic<u32> owner[kVpssPictures];
  VpssPicture picture[kVpssPictures];
  sem_t ready;  ///< posted when a picture has become ready or `alive` has become 0
  sem_t taken;  ///< posted when the ready picture has been taken
};
static_assert(std::atomic<u32>::is_always_lock_free);

/// Whole pages; the memory itself follows.
constexpr std::size_t kControlSize = 64u << 10;
static_assert(sizeof(VpssChannel) <= kControlSize);

struct PhysicalMemoryName {
  char text[64];
  PhysicalMemoryName() {
    const char* run = std::getenv("CAMERA_SIM_RUN");
    std::snprintf(text, sizeof(text), "/camera_phys.%s", run ? run : "0");
  }
};

/// Creates the memory, all zero, without a media process; the destructor removes it. Both ends of the
/// service's calls are inside libmpi.so, so a test that only maps memory needs nothing but one of these.
class PhysicalMemory {
 public:
  PhysicalMemory() {
    shm_unlink(name_.text);
    const int fd = shm_open(name_.text, O_RDWR | O_CREAT | O_EXCL, 0600);
    const std::size_t size = kControlSize + kPhysicalSize;
    if (fd < 0 || ftruncate(fd, static_cast<off_t>(size)) < 0) fail();
    void* start = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    if (start == MAP_FAILED) fail();
    close(fd);
    start_ = static_cast<u8*>(start);
    sem_init(&channel().ready, 1, 0);
    sem_init(&channel().taken, 1, 0);
  }
  ~PhysicalMemory() {
    munmap(start_, kControlSize + kPhysicalSize);
    shm_unlink(name_.text);
  }
  PhysicalMemory(const PhysicalMemory&) = delete;

  VpssChannel& channel() const { return *reinterpret_cast<VpssChannel*>(start_); }
  /// Returns the byte at a physical address, which must be inside the memory.
  u8* at(u32 phys_addr) const { return start_ + kControlSize + (phys_addr - kPhysicalBase); }

 private:
  [[noreturn]] void fail() const {
    std::perror(name_.text);
    std::exit(2);
  }

  PhysicalMemoryName name_;
  u8* start_ = nullptr;
};

}  // namespace sim
