#include "sim/media/made_frames.h"

extern "C" {
#include <libavutil/crc.h>
}

#include <array>
#include <atomic>
#include <chrono>
#include <cinttypes>
#include <fstream>
#include <mutex>
#include <thread>

#include "sim/seam/wait_on.h"

namespace sim {

namespace {

struct Made {
  u32 counter = 0;
  i64 time = 0;
  std::optional<u32> checksum;
};
std::mutex made_mutex;
std::array<Made, 1 << 16> made;
u32 newest = 0;  // counter
std::FILE* made_log = nullptr;
std::atomic<bool> by_bytes = false;

constexpr u32 kRecent = 64;  // frames
constexpr i64 kNotingLimit = 100 * kMillisecond;

Made& made_entry(u32 counter) { return made[counter % made.size()]; }

Made find_made(u32 counter) {
  const std::lock_guard lock(made_mutex);
  const Made& entry = made_entry(counter);
  return entry.counter == counter ? entry : Made{};
}

// Returns the first frame after `last`, or without it the latest, that has these bytes.
std::optional<u32> find_bytes(u32 checksum, std::optional<u32> last) {
  u32 end;
  {
    const std::lock_guard lock(made_mutex);
    end = newest;
  }
  if (!last) {
    for (u32 age = 0; age < kRecent; ++age)
      if (expected_checksum(end - age) == checksum) return end - age;
    return std::nullopt;
  }
  for (u32 counter = *last + 1; static_cast<i32>(end - counter) >= 0; ++counter)
    if (expected_checksum(counter) == checksum) return counter;
  return std::nullopt;
}

}  // namespace

void note_scene(u32 counter) {
  const std::lock_guard lock(made_mutex);
  made_entry(counter) = {counter, monotonic_ns(), std::nullopt};
  newest = counter;
}

void note_payload(u32 counter, std::span<const u8> payload) {
  note_checksum(counter, payload_checksum(payload));
}

void note_checksum(u32 counter, u32 checksum) {
  const std::lock_guard lock(made_mutex);
  Made& entry = made_entry(counter);
  entry.checksum = checksum;
  if (!made_log) return;
  std::fprintf(made_log, "%u %" PRId64 " %u\n", counter, entry.time, checksum);
  std::fflush(made_log);
}

void log_made_frames(std::FILE* log) {
  const std::lock_guard lock(made_mutex);
  made_log = log;
}

bool read_made_frames(const std::string& path) {
  std::ifstream log(path);
  if (!log) return false;
  const std::lock_guard lock(made_mutex);
  Made entry;
  for (u32 checksum; log >> entry.counter >> entry.time >> checksum;) {
    entry.checksum = checksum;
    made_entry(entry.counter) = entry;
  }
  return true;
}

i64 scene_time(u32 counter) { return find_made(counter).time; }

std::optional<u32> expected_checksum(u32 counter) { return find_made(counter).checksum; }

void know_frames_by_their_bytes(bool on) { by_bytes = on; }
bool frames_are_known_by_their_bytes() { return by_bytes; }

std::optional<u32> counter_of(u32 checksum, std::optional<u32> last) {
  for (const i64 end = monotonic_ns() + kNotingLimit; monotonic_ns() < end;) {
    if (const auto counter = find_bytes(checksum, last)) return counter;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return last && expected_checksum(*last) == checksum ? last : std::nullopt;
}

std::optional<u32> counter_of_unseen(u32 last) {
  u32 end;
  {
    const std::lock_guard lock(made_mutex);
    end = newest;
  }
  for (u32 counter = last + 1; static_cast<i32>(end - counter) > 0; ++counter)
    if (!expected_checksum(counter)) return counter;
  return std::nullopt;
}

u32 payload_checksum(std::span<const u8> payload) {
  return av_crc(av_crc_get_table(AV_CRC_32_IEEE_LE), 0, payload.data(), payload.size());
}

}  // namespace sim
