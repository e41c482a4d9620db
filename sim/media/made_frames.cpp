#include "sim/media/made_frames.h"

extern "C" {
#include <libavutil/crc.h>
}

#include <array>
#include <cinttypes>
#include <fstream>
#include <mutex>

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
std::FILE* made_log = nullptr;

Made& made_entry(u32 counter) { return made[counter % made.size()]; }

Made find_made(u32 counter) {
  const std::lock_guard lock(made_mutex);
  const Made& entry = made_entry(counter);
  return entry.counter == counter ? entry : Made{};
}

}  // namespace

void note_scene(u32 counter) {
  const std::lock_guard lock(made_mutex);
  made_entry(counter) = {counter, monotonic_ns(), std::nullopt};
}

void note_payload(u32 counter, std::span<const u8> payload) {
  const u32 checksum = payload_checksum(payload);
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

u32 payload_checksum(std::span<const u8> payload) {
  return av_crc(av_crc_get_table(AV_CRC_32_IEEE_LE), 0, payload.data(), payload.size());
}

}  // namespace sim
