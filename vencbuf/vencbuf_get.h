// The reader of the encoded frame ring (see vencbuf/enc_frame.h). Only the streaming loop's thread calls it,
// and it holds at most one slot at a time.
#pragma once

#include "vencbuf/enc_frame.h"

/// Attaches to the ring, creates it if it is absent, and empties both slots, whatever the writer has left
/// there. Returns 0, or prints an error and returns -1 without undoing the steps before it.
i32 vencbuf_get_init();

/// Takes the oldest ready slot. Waits about 2.5 s at most, and no longer than 100 ms after `goes_on` has
/// begun to return false; `between_waits` is called after each wait, every 100 ms at most. Prints an error
/// and returns null when there was no slot. The caller gives the slot back with vencbuf_release before the
/// next call. A ring or semaphores that the writer has removed and made anew are found within 700 ms, while
/// no frame comes.
EncFrameSlot* vencbuf_get(bool (*goes_on)(), void (*between_waits)() = nullptr);

/// Marks the slot released and wakes the writer.
void vencbuf_release(EncFrameSlot* slot);

/// Drops one pending post of the frame-ready semaphore.
void vencbuf_clear();

/// Drops the posts that have piled up while nobody took frames, as long as `goes_on` returns true. To be
/// called when a stream starts: vencbuf_get does not wait before they are used up.
void vencbuf_clear_all(bool (*goes_on)());

/// Closes the semaphores and detaches the segment. The service itself leaves both to the end of the process.
void vencbuf_exit();
