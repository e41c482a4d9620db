// What is known about the pictures that the media process made: when each counter's scene was drawn, and the
// checksum of the payload that shows it. The media process is part of this process, or its log is read here.
#pragma once

#include <cstdio>
#include <optional>
#include <span>
#include <string>

#include "common/bytes.h"

namespace sim {

void note_scene(u32 counter);
void note_payload(u32 counter, std::span<const u8> payload);
void note_checksum(u32 counter, u32 checksum);
/// From now on, writes a line "COUNTER TIME CHECKSUM" for every noted payload, or none if `log` is null. The
/// caller keeps the file open.
void log_made_frames(std::FILE* log);
/// Reads such a log. Returns false if it cannot be read.
bool read_made_frames(const std::string& path);

/// Returns the monotonic time in nanoseconds at which the scene with this counter was drawn, or 0 if it is
/// not, or no longer, known.
i64 scene_time(u32 counter);
/// Returns the checksum of the payload that shows this counter (an encoded frame, or the YUY2 picture that
/// the service is expected to make), if it is known and recent.
std::optional<u32> expected_checksum(u32 counter);
u32 payload_checksum(std::span<const u8> payload);

/// Encoded frames of the user's own encoder show no counter. They are known by their bytes, and their number
/// in the ring serves as the counter.
void know_frames_by_their_bytes(bool on);
bool frames_are_known_by_their_bytes();
/// Returns the counter of the first noted frame after `last` that has these bytes, or `last` if that one has
/// them. Waits up to 100 ms for the frame to be noted. Without `last`, the latest such frame counts.
std::optional<u32> counter_of(u32 checksum, std::optional<u32> last);
/// Returns the counter of the first frame after `last` that was never noted although a later one was.
std::optional<u32> counter_of_unseen(u32 last);

}  // namespace sim
