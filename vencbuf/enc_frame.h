// The encoded frame ring: two slots in a System V segment that the encoder process writes and this service
// reads, paced by two named semaphores. The layout is a contract between processes: little-endian and packed.
#pragma once

#include <cstddef>

#include "common/bytes.h"

constexpr i32 VENC_RING_KEY = 0x5678;
constexpr std::size_t kRingSlots = 2;
constexpr u32 kEncFrameCapacity = 0x1FB000;  ///< payload bytes that a slot holds

constexpr char kFrameReadySemaphore[] = "USB_VENC_R";    ///< posted by the writer, waited on by the reader
constexpr char kSlotReleasedSemaphore[] = "USB_VENC_W";  ///< posted by the reader; the writer may wait on it

/// Values of EncFrameSlot::state, and who sets them; the reader takes any other value for "not ready".
enum EncFrameState : u32 {
  kSlotEmpty = 0,     ///< by the reader, at attach
  kSlotReady = 2,     ///< by the writer, once header and payload are complete
  kSlotReading = 3,   ///< by the reader, when it takes the slot; the writer leaves it alone
  kSlotReleased = 4,  ///< by the reader, after the copy
};

/// Values of EncFrameSlot::frame_type: 0 to 2 are frames of the video codec (H.264 or H.265).
constexpr u32 kLastVideoFrameType = 2;
constexpr u32 kJpegFrameType = 3;

struct [[gnu::packed, gnu::aligned(4)]] EncFrameSlot {
  u32 state;       ///< EncFrameState; the only word that both sides write
  u32 seq;         ///< the writer's frame number, plus one per frame, wrapping
  u32 frame_type;  ///< 0, 1, 2: H.264 or H.265; 3: JPEG
  u16 width;       ///< pixels
  u16 height;      ///< lines
  u32 size;        ///< payload bytes
  u8 data[kEncFrameCapacity];
};
static_assert(offsetof(EncFrameSlot, width) == 12 && offsetof(EncFrameSlot, size) == 16);
static_assert(offsetof(EncFrameSlot, data) == 20 && sizeof(EncFrameSlot) == 2076692);

constexpr std::size_t kRingSize = kRingSlots * sizeof(EncFrameSlot);
static_assert(kRingSize == 4153384);
