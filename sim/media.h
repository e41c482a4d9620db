// The media process of the simulated camera: a scene with a burnt-in frame counter, the VPSS pictures that
// libmpi.so hands to the service, and an encoder that follows the encoder-settings record and writes the
// encoded frame ring.
#pragma once

#include <memory>
#include <string>

#include "ipc/velto_commands.h"

namespace sim {

struct MediaOptions {
  std::string source;          ///< a video or picture file that libavformat reads; empty: the test card
  bool yuv422 = false;         ///< VPSS pictures as semi-planar 4:2:2 instead of 4:2:0
  u32 extra_stride = 0;        ///< bytes by which both strides exceed the width (odd values welcome)
};

/// Faults of the encoder, changeable while it runs.
enum class EncoderFault { kNone, kSilent, kDead, kWrongSize };

class Media {
 public:
  explicit Media(const MediaOptions& options);
  ~Media();

  /// What command 10 brought; takes effect at the next picture. Called by the system server's thread.
  void apply(const EncoderSettingsMessage& message);
  void set_fault(EncoderFault fault);

  /// Monotonic time in nanoseconds at which the scene with this counter was made; 0 when unknown.
  static i64 scene_time(u32 counter);
  /// Physical address and size of the AV memory pool that the server hands out.
  static u32 pool_address();
  static u32 pool_size();

  struct Counts {
    unsigned long pictures, encoded, dropped;  ///< dropped: no free slot of the ring in time
  };
  Counts counts() const;

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace sim
