// The writer's side of the encoded frame ring (vencbuf/enc_frame.h). While a reader takes frames, the writer
// waits for it; without one the ring holds the two newest frames at most.
#pragma once

#include <semaphore.h>

#include <atomic>

#include "sim/media/encoder.h"
#include "vencbuf/enc_frame.h"

namespace sim {

class RingWriter {
 public:
  /// Attaches the run's ring, which is created if absent, and takes back what another writer left in it. Ends
  /// the program with a message when that fails.
  RingWriter();
  ~RingWriter();
  /// Removes ring and semaphores from the run; who has them keeps what it has.
  static void remove();
  RingWriter(const RingWriter&) = delete;

  /// A slot to write into, marked so that the reader keeps off. While a reader is about, waits up to 300 ms
  /// for it; then takes back the unread frames. Null when the reader holds on to what it has.
  EncFrameSlot* acquire();
  /// Fills the slot that acquire() gave and hands it to the reader. False, with the slot empty again, when
  /// the frame does not fit.
  bool publish(EncFrameSlot& slot, const EncodedFrame& frame, int width, int height);
  /// Tells the reader of a frame that there is none.
  void post_nothing();
  /// Empties a slot that acquire() gave.
  void abandon(EncFrameSlot& slot);
  /// Takes back every frame that has not been read: the next stream begins with new ones. Safe from any
  /// thread.
  void clear();

  /// True once after acquire() took back frames: the next frame must not build on them.
  bool take_gap();
  /// Frames taken back although a reader was about. Safe from any thread.
  unsigned long dropped() const { return dropped_; }

 private:
  EncFrameSlot* free_slot() const;
  void note_reader();
  unsigned drop_unread();

  EncFrameSlot* slots_ = nullptr;
  sem_t* ready_ = nullptr;
  sem_t* released_ = nullptr;
  u32 seq_ = 0;
  std::atomic<bool> reader_seen_{false};
  bool gap_ = false;
  std::atomic<unsigned long> dropped_{0};
};

}  // namespace sim
