// System V shared memory: the system-message segment of this process, with bounded copies in and out, and the
// id of any other segment. Any thread may copy once ShareMemInit has returned; the driver's lock keeps the
// copies of different threads apart.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstddef>

#include "common/bytes.h"

/// The largest number of bytes that one copy moves.
constexpr i32 kShareMemCopyLimit = 4096;

/// Finds the segment with this key, whatever its size, or creates one of 102400 bytes, and keeps it as the
/// system-message segment. Returns its id, or -1.
i32 ShareMemInit(key_t key);
/// The same without keeping it.
i32 pShareMemInit(key_t key);
/// Returns the segment's real size in bytes, or 0 if it cannot be found out.
std::size_t ShareMemSize(i32 id);

/// Finds the segment that a key leads to: a restarted server may remove its segment and create another.
class SegmentKey {
 public:
  SegmentKey() = default;  ///< no key
  explicit SegmentKey(key_t key) : key_(key), looked_(Clock::now()) {}
  /// Returns the id of the key's segment, or `known` if there is none or the last look was less than 500 ms
  /// ago. `at_once` looks regardless of that time.
  i32 segment(i32 known, bool at_once = false);

 private:
  using Clock = std::chrono::steady_clock;
  key_t key_ = 0;
  Clock::time_point looked_{};
};

/// Copy `length` bytes between `buffer` and byte `offset` of the system-message segment, which is attached
/// for the copy only, and looked up again if it was removed. Return what shmdt returned, or -1 if there is no
/// segment to attach. Deliberate: a copy that the limit or the segment's bounds forbid is reported, but the
/// result is still 0.
i32 ShareMemRead(i32 offset, void* buffer, i32 length);
i32 ShareMemWrite(i32 offset, const void* buffer, i32 length);
