// The media library's stand-in on a PC: the calls of platform/hi_mpi.h over the simulated physical memory.
// It keeps no state of its own and needs nothing but the C library; each call opens the run's memory.
#include <sys/stat.h>

#include "platform/hi_mpi.h"
#include "sim/seam/physical_memory.h"
#include "sim/seam/wait_on.h"

namespace {

using namespace sim;

enum MpiError : u32 {
  kNullPointer = 0xA0078006,
  kNoSuchChannel = 0xA0078001,
  kBadHandle = 0xA0078003,
  kNoPicture = 0xA007800E,
  kNotReady = 0xA0078010,
};

// Maps the memory object for the duration of a call. Returns null if there is none.
void* map_memory(u64 offset, u64 size) {
  const int fd = shm_open(PhysicalMemoryName().text, O_RDWR, 0);
  if (fd < 0) return nullptr;
  struct stat info;
  const bool inside = fstat(fd, &info) == 0 && offset + size <= static_cast<u64>(info.st_size);
  void* start = MAP_FAILED;
  if (inside) start = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, fd, static_cast<off_t>(offset));
  close(fd);
  return start == MAP_FAILED ? nullptr : start;
}

class Channel {
 public:
  Channel() : channel_(static_cast<VpssChannel*>(map_memory(0, kControlSize))) {}
  ~Channel() {
    if (channel_) munmap(channel_, kControlSize);
  }
  Channel(const Channel&) = delete;
  bool alive() const { return channel_ && channel_->alive; }
  VpssChannel* operator->() const { return channel_; }
  VpssChannel& operator*() const { return *channel_; }

 private:
  VpssChannel* channel_;
};

bool take_ready(VpssChannel& channel, VpssPicture& picture) {
  for (u32 i = 0; i < kVpssPictures; ++i) {
    u32 word = channel.owner[i];
    if (vpss_owner(word) != kVpssReady) continue;
    if (!channel.owner[i].compare_exchange_strong(word, word + (kVpssHeld - kVpssReady))) continue;
    picture = channel.picture[i];
    wake(channel.taken);
    return true;
  }
  return false;
}

i32 code(MpiError error) { return static_cast<i32>(error); }

u64 page_size() { return static_cast<u64>(sysconf(_SC_PAGESIZE)); }

void* map_physical(u32 phys_addr, u32 size) {
  const u64 end = u64{phys_addr} + size;
  if (size == 0 || phys_addr < kPhysicalBase || end > u64{kPhysicalBase} + kPhysicalSize) return nullptr;
  const u64 into_page = phys_addr % page_size();
  void* start = map_memory(kControlSize + (phys_addr - kPhysicalBase) - into_page, into_page + size);
  return start ? static_cast<u8*>(start) + into_page : nullptr;
}

}  // namespace

i32 HI_MPI_VPSS_GetChnFrame(i32 group, i32 channel_number, VpssPicture* picture, i32 timeout_ms) {
  if (group != 0 || channel_number != 3) return code(kNoSuchChannel);
  if (!picture) return code(kNullPointer);
  const Channel channel;
  if (!channel.alive()) return code(kNotReady);
  const i64 deadline = timeout_ms < 0 ? kNoDeadline : monotonic_ns() + timeout_ms * kMillisecond;
  bool taken = false;
  wait_on(channel->ready, deadline, [&] {
    channel->waiting = 1;
    taken = take_ready(*channel, *picture);
    return taken || !channel.alive();
  });
  channel->waiting = 0;
  if (taken) return 0;
  return code(channel.alive() ? kNoPicture : kNotReady);
}

i32 HI_MPI_VPSS_ReleaseChnFrame(i32 group, i32 channel_number, const VpssPicture* picture) {
  if (group != 0 || channel_number != 3) return code(kNoSuchChannel);
  if (!picture) return code(kNullPointer);
  const Channel channel;
  if (!channel.alive()) return code(kNotReady);
  for (auto& owner : channel->owner) {
    u32 held = vpss_word(picture->handle, kVpssHeld);
    if (owner.compare_exchange_strong(held, vpss_word(picture->handle, kVpssFree))) return 0;
  }
  return code(kBadHandle);
}

extern "C" {

void* HI_MPI_SYS_Mmap(u32 phys_addr, u32 size) { return map_physical(phys_addr, size); }

void* HI_MPI_SYS_MmapCache(u32 phys_addr, u32 size) { return map_physical(phys_addr, size); }

i32 HI_MPI_SYS_Munmap(void* address, u32 size) {
  if (!address || size == 0) return code(kNullPointer);
  const u64 into_page = reinterpret_cast<std::uintptr_t>(address) % page_size();
  return munmap(static_cast<u8*>(address) - into_page, into_page + size);
}

}  // extern "C"
