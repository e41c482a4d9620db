// The media process of the simulated camera: a scene with a burnt-in frame counter, the VPSS pictures that
// libmpi.so hands to the service, and an encoder that follows the encoder-settings record and writes the
// encoded frame ring.
#pragma once

#include <chrono>
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
  bool encodes = true;  ///< false: the user's own encoder writes the ring, which is only watched
  /// Memory of an encoder that another machine lends; if empty, this one encodes.
  std::string lent_encoder = {};
};

enum class EncoderFault;

/// A process can have one at a time; the counters continue from one to the next. Idle until command 10
/// requests a stream.
class Media {
 public:
  explicit Media(const MediaOptions& options = {});
  ~Media();

  /// Applies what command 10 brought, from the next picture on. A stop, another size or another codec takes
  /// back unread frames; the same settings again change nothing. Any thread may call it.
  void apply(const EncoderSettingsMessage& message);
  /// `time` is how much longer a slow encoder takes for a frame. Safe while the process runs.
  void set_fault(EncoderFault fault, std::chrono::milliseconds time = {});

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
