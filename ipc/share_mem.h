// System V shared memory: the system-message segment of this process, with bounded copies in and out, and the
// id of any other segment. Any thread may copy once ShareMemInit has returned; copies of different threads
// are kept apart by their driver's lock.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstddef>

#include "common/bytes.h"

/// Bytes that one copy moves at most.
constexpr i32 kShareMemCopyLimit = 4096;

/// Finds or creates the segment with this key, 102400 bytes long, or whatever size an existing one has, and
/// keeps it as the system-message segment. Its id, or -1.
i32 ShareMemInit(key_t key);
/// The same without keeping it.
i32 pShareMemInit(key_t key);
/// The segment's real size in bytes; 0 when it cannot be told.
std::size_t ShareMemSize(i32 id);

/// Which segment a key leads to: a server that starts anew may remove its segment and make another.
class SegmentKey {
 public:
  SegmentKey() = default;  ///< no key
  explicit SegmentKey(key_t key) : key_(key), looked_(Clock::now()) {}
  /// The id of the key's segment; `known` when it has none, or was looked up less than 500 ms ago. `at_once`
  /// does not wait for that.
  i32 segment(i32 known, bool at_once = false);

 private:
  using Clock = std::chrono::steady_clock;
  key_t key_ = 0;
  Clock::time_point looked_{};
};

/// Copies `length` bytes between `buffer` and byte `offset` of the system-message segment, which is attached
/// only meanwhile, and looked up again when it was removed. The result is that of the detaching: 0, or -1
/// when there is no segment to attach. Deliberate: a copy that the limit or the segment's bounds refuse is
/// reported, but returns 0 all the same.
i32 ShareMemRead(i32 offset, void* buffer, i32 length);
i32 ShareMemWrite(i32 offset, const void* buffer, i32 length);
