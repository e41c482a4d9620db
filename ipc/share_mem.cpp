#include "ipc/share_mem.h"

#include <sys/ipc.h>
#include <sys/shm.h>

#include <algorithm>
#include <cstring>

#include "ipc/msg_records.h"
#include "platform/sys.h"
#include "support/print.h"

namespace {

constexpr char kPrintFile[] = "share_mem.c";

constexpr std::chrono::milliseconds kLookPause{500};

struct Segment {
  SegmentKey key;
  i32 id = -1;
  i32 size = 0;  // bytes that copies may touch
};
Segment system_segment;

i32 find_segment(key_t key) {
  i32 id = sys::shmget(key, kSysSegmentSize, IPC_CREAT | 0660);
  if (id < 0) id = sys::shmget(key, 0, 0);
  return id < 0 ? -1 : id;
}

bool within_segment(i32 offset, i32 length) {
  return offset >= 0 && length >= 0 && length <= kShareMemCopyLimit &&
         i64{offset} + length <= system_segment.size;
}

void take_segment(i32 id) {
  if (id == system_segment.id) return;
  system_segment.id = id;
  system_segment.size = static_cast<i32>(std::min<std::size_t>(ShareMemSize(id), kSysSegmentSize));
}

void* attach_once() {
  void* start = shmat(system_segment.id, nullptr, 0);
  return start == reinterpret_cast<void*>(-1) ? nullptr : start;
}

// Returns null if there is no system-message segment. A removed segment can still be attached while another
// process holds it; hence the check before.
u8* attach() {
  take_segment(system_segment.key.segment(system_segment.id));
  void* start = attach_once();
  if (!start) {
    take_segment(system_segment.key.segment(system_segment.id, true));
    start = attach_once();
  }
  return static_cast<u8*>(start);
}

}  // namespace

i32 ShareMemInit(key_t key) {
  system_segment.key = SegmentKey(key);
  take_segment(find_segment(key));
  PRINT_DEBUG("shared memory id:%d\n", system_segment.id);
  return system_segment.id;
}

i32 pShareMemInit(key_t key) {
  PRINT_DEBUG("shared memory size 0x%x\n", kSysSegmentSize);
  const i32 id = find_segment(key);
  PRINT_DEBUG("shared memory id:%d\n", id);
  return id;
}

std::size_t ShareMemSize(i32 id) {
  shmid_ds info;
  return shmctl(id, IPC_STAT, &info) == 0 ? info.shm_segsz : 0;
}

i32 SegmentKey::segment(i32 known, bool at_once) {
  const auto now = Clock::now();
  if (key_ == 0 || (!at_once && now - looked_ < kLookPause)) return known;
  looked_ = now;
  const i32 id = sys::shmget(key_, 0, 0);
  return id < 0 ? known : id;
}

i32 ShareMemRead(i32 offset, void* buffer, i32 length) {
  u8* segment = attach();
  if (!segment) return -1;
  if (within_segment(offset, length))
    std::memcpy(buffer, segment + offset, static_cast<std::size_t>(length));
  else
    PRINT_ERROR("ShareMemRead:Overflow!%d  %d  %d  %d\n", offset, length, kShareMemCopyLimit,
                kSysSegmentSize);
  return shmdt(segment);
}

i32 ShareMemWrite(i32 offset, const void* buffer, i32 length) {
  u8* segment = attach();
  if (!segment) return -1;
  if (within_segment(offset, length))
    std::memcpy(segment + offset, buffer, static_cast<std::size_t>(length));
  else
    PRINT_ERROR("ShareMemWrite:Overflow!%d  %d  %d  %d\n", offset, length, kShareMemCopyLimit,
                kSysSegmentSize);
  return shmdt(segment);
}
