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
  u32 extra_stride = 0;     ///< bytes by which both strides exceed the width (odd values welcome)
  /// Asked before every picture, from the media thread; null: straight ahead.
  std::function<CameraView()> view = {};
  std::string lent_encoder = {};  ///< memory of an encoder that another machine lends; empty: encodes itself
};

enum class EncoderFault;

/// One at a time per process; counters go on from one to the next. Idle until command 10 asks for a stream.
class Media {
 public:
  explicit Media(const MediaOptions& options = {});
  ~Media();

  /// What command 10 brought; takes effect at the next picture. A stop, another size or another codec takes
  /// unread frames back; the same settings again change nothing. Safe from any thread.
  void apply(const EncoderSettingsMessage& message);
  /// `time` is how much longer a slow encoder takes for a frame. Safe while the process runs.
  void set_fault(EncoderFault fault, std::chrono::milliseconds time = {});

  /// Physical address and size of the AV memory pool that the server hands out.
  static u32 pool_address();
  static u32 pool_size();

  struct Counts {
    unsigned long pictures, encoded;
    unsigned long dropped;  ///< frames that the reader did not take in time, or too large for a slot
  };
  Counts counts() const;

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace sim
