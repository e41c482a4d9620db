// Watches the encoded frame ring while an encoder of the user's own writes it: notes when each frame came and
// what its bytes are, so that the host can tell whether they arrive as they were written.
#pragma once

#include <sys/types.h>

#include <atomic>
#include <optional>
#include <thread>

#include "vencbuf/enc_frame.h"

namespace sim {

class RingWatcher {
 public:
  /// Looks at the run's ring once a millisecond, in a thread of its own, until it is destroyed. The ring may
  /// appear later, and may be removed and made anew. From now on, frames are known by their bytes.
  RingWatcher();
  ~RingWatcher();
  RingWatcher(const RingWatcher&) = delete;

 private:
  void run();
  void attach_newest();
  void look();

  int id_ = -1;
  const EncFrameSlot* slots_ = nullptr;
  std::optional<u32> seen_[kRingSlots];  ///< number of the last frame in each slot
  std::atomic<bool> quit_ = false;
  std::thread thread_;
};

/// Returns true if the current run has a ring.
bool ring_exists();

}  // namespace sim
