// What is known of the pictures that the media process made: when each counter's scene was drawn, and the
// checksum of the payload that shows it. Of this process, or read from the log of another one.
#pragma once

#include <cstdio>
#include <optional>
#include <span>
#include <string>

#include "common/bytes.h"

namespace sim {

void note_scene(u32 counter);
void note_payload(u32 counter, std::span<const u8> payload);
/// From now on a line "COUNTER TIME CHECKSUM" for every noted payload; null: none. The caller's.
void log_made_frames(std::FILE* log);
/// Knows from now on what such a log tells. False when it cannot be read.
bool read_made_frames(const std::string& path);

/// Monotonic time in nanoseconds at which the scene with this counter was drawn; 0 when it is not known, or
/// no longer.
i64 scene_time(u32 counter);
/// Checksum of the payload that shows this counter (an encoded frame, or the YUY2 picture that the service is
/// to make), when it is known and not long ago.
std::optional<u32> expected_checksum(u32 counter);
u32 payload_checksum(std::span<const u8> payload);

}  // namespace sim
