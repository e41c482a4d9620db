// An encoder that another machine lends, as the camera's chip has one beside its processor: pictures go into
// a memory that both machines share, and frames come back in it. Meant for a guest whose emulated processor
// encodes too slowly.
#pragma once

#include <atomic>
#include <optional>
#include <string>

#include "sim/media/encoder.h"

namespace sim {

struct LentEncoderMemory;

/// The borrower's side: like Encoder, but another machine does the work.
class LentEncoder {
 public:
  /// `path` is the shared memory, a file or a PCI device's resource. Ends the program with a message if it
  /// cannot be mapped.
  explicit LentEncoder(const std::string& path);
  ~LentEncoder();
  LentEncoder(const LentEncoder&) = delete;

  /// Like Encoder::encode. Also returns nothing if no answer comes within a second.
  std::optional<EncodedFrame> encode(const EncoderSettings& settings, const AVFrame& picture, bool key_frame);

 private:
  LentEncoderMemory& memory_;
};

/// The lender's side: encodes what comes until `end` becomes true, for example in a signal handler.
void lend_encoder(const std::string& path, const std::atomic<bool>& end);
/// Size of the shared memory in bytes.
extern const std::size_t kLentEncoderSize;

}  // namespace sim
