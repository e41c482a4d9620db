// The faults of the simulated media process.
#pragma once

namespace sim {

enum class EncoderFault {
  kNone,
  kSilent,     ///< makes no pictures and no frames
  kDead,       ///< the same, and died while it wrote a slot of the ring
  kSlow,       ///< encodes each frame, then waits for a time before it hands the frame over
  kWrongSize,  ///< half the width and height that were asked for
  kPosts,      ///< makes none, but posts a thousand times a second as if it had
  kGone,       ///< its process has ended; ring and semaphores are removed, and made anew when the fault ends
};

}  // namespace sim
