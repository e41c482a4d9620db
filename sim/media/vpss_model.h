// The media process's end of the VPSS channel: puts the scene's pictures into physical memory as semi-planar
// pictures; libmpi.so hands them to the service from there.
#pragma once

#include <vector>

#include "sim/media/av.h"
#include "sim/seam/physical_memory.h"

namespace sim {

class VpssModel {
 public:
  VpssModel(bool yuv422, u32 extra_stride);
  ~VpssModel() { set_alive(false); }

  /// Sets whether anybody makes pictures; takers no longer wait if nobody does.
  void set_alive(bool alive);
  /// If somebody takes pictures, waits up to 300 ms until the last one has been taken.
  void wait_for_taker();
  /// Returns true if a taker is waiting right now.
  bool somebody_waits() const { return channel_.waiting != 0; }
  /// Makes a planar 4:2:0 picture available, in place of one that nobody has taken. A picture larger than a
  /// buffer is ignored.
  void publish(const AVFrame& picture);
  /// Takes back the picture that nobody has taken yet. Any thread may call it.
  void clear();

 private:
  struct Layout {
    u32 stride[2], chroma_rows, size;
  };
  Layout layout_of(const AVFrame& picture) const;
  u32 choose_buffer() const;
  void fill(u32 buffer, const AVFrame& picture, const Layout& layout);
  void take_back();
  bool ready() const;

  const bool yuv422_;
  const u32 extra_stride_;
  PhysicalMemory memory_;
  VpssChannel& channel_ = memory_.channel();
  u32 handle_ = 0;
  std::atomic<bool> taker_seen_{false};
};

/// Returns the packed 4:2:2 payload (Y0 U Y1 V) that the service is expected to make of this picture, in
/// either pixel format.
std::vector<u8> yuy2_payload(const AVFrame& picture);

}  // namespace sim
