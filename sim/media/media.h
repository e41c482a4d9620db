// The media process of the simulated camera: a scene with a burnt-in frame counter, the VPSS pictures that
// libmpi.so hands to the service, and an encoder that follows the encoder-settings record and writes the
// encoded frame ring.
#pragma once

#include <functional>
#include <memory>
#include <string>

#include "ipc/velto_commands.h"
#include "sim/parties/camera_head.h"

namespace sim {

struct MediaOptions {
  std::string source = {};  ///< a video or picture file that libavformat reads; empty: the test card
  bool yuv422 = false;      ///< VPSS pictures as semi-planar 4:2:2 instead of 4:2:0
  u32 extra_stride = 0;     ///< bytes by which both strides exceed the width; may be odd
  /// Called before every picture, on the media thread. If null, the camera looks straight ahead.
  std::function<CameraView()> view = {};
  /// Memory of an encoder that another machine lends; if empty, this one encodes.
  std::string lent_encoder = {};
};

/// Faults of the media process, which can be set while it runs.
enum class EncoderFault {
  kNone,
  kSilent,     ///< makes no pictures and no frames
  kDead,       ///< the same, and it died while it wrote a slot of the ring
  kWrongSize,  ///< half the requested width and height
  kPosts,      ///< makes no frames, but posts a thousand times a second as if it had
  /// Its process has ended; ring and semaphores are removed, and created again when the fault ends.
  kGone,
};

/// A process can have one at a time; the counters continue from one to the next. Idle until command 10
/// requests a stream.
class Media {
 public:
  explicit Media(const MediaOptions& options = {});
  ~Media();

  /// Applies what command 10 brought, from the next picture on. A stop, another size or another codec takes
  /// back unread frames; the same settings again change nothing. Any thread may call it.
  void apply(const EncoderSettingsMessage& message);
  void set_fault(EncoderFault fault);

  /// The physical address and the size in bytes of the AV memory pool that the server hands out.
  static u32 pool_address();
  static u32 pool_size();

  struct Counts {
    unsigned long pictures, encoded;
    /// Frames that the reader did not take in time, or that were too large for a slot.
    unsigned long dropped;
  };
  Counts counts() const;

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace sim
