// The writer's side of the encoded frame ring (vencbuf/enc_frame.h). While a reader takes frames, the writer
// waits for it; without a reader, the ring holds at most the two newest frames.
#pragma once

#include <semaphore.h>

#include <atomic>

#include "sim/media/encoder.h"
#include "vencbuf/enc_frame.h"

namespace sim {

class RingWriter {
 public:
  /// Attaches the run's ring, creating it if it does not exist, and takes back what another writer left in
  /// it. Ends the program with a message if that fails.
  RingWriter();
  ~RingWriter();
  /// Removes ring and semaphores from the run. Processes that have them attached keep them.
  static void remove();
  RingWriter(const RingWriter&) = delete;

  /// Returns a slot to write into, marked so that the reader leaves it alone. If there is a reader, waits for
  /// it for up to 300 ms, then takes back the unread frames. Returns null if the reader keeps what it has.
  EncFrameSlot* acquire();
  /// Fills the slot that acquire() returned and hands it to the reader. Returns false, with the slot empty
  /// again, if the frame does not fit.
  bool publish(EncFrameSlot& slot, const EncodedFrame& frame, int width, int height);
  /// Wakes the reader as for a new frame, although there is none.
  void post_nothing();
  /// Empties a slot that acquire() returned.
  void abandon(EncFrameSlot& slot);
  /// Takes back every frame that has not been read, so that the next stream begins with new ones. Any thread
  /// may call it.
  void clear();

  /// Returns true once after acquire() took back frames: the next frame must not depend on them.
  bool take_gap();
  /// The number of frames taken back although there was a reader. Any thread may call it.
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
