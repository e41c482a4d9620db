#include "elog/elog_utils.h"

#include <string.h>

#include "common/bytes.h"
#include "elog/elog.h"
#include "elog/elog_assert.h"

namespace {

constexpr char kElogFile[] = "elog_utils";

}  // namespace

std::size_t elog_strcpy(std::size_t cur_len, char* dst, const char* src) {
  ELOG_ASSERT(dst, 44);
  ELOG_ASSERT(src, 45);
  if (!dst || !src || cur_len >= ELOG_LINE_BUF_SIZE) return 0;
  const std::size_t count = strnlen(src, ELOG_LINE_BUF_SIZE - cur_len);
  memcpy(dst, src, count);
  return count;
}

std::size_t elog_cpyln(char* line, const char* log, std::size_t len) {
  ELOG_ASSERT(line, 70);
  ELOG_ASSERT(log, 71);
  if (!line || !log) return 0;
  std::size_t count = 0;
  while (count < len) {
    line[count] = log[count];
    if (log[count++] == '\n') break;
  }
  return count;
}

namespace {

bool word_copy_pays(const u8* to, const u8* from, std::size_t count) {
  const auto to_address = reinterpret_cast<std::uintptr_t>(to);
  const auto from_address = reinterpret_cast<std::uintptr_t>(from);
  const auto apart = to_address > from_address ? to_address - from_address : from_address - to_address;
  return (to_address | from_address) % sizeof(u32) == 0 && count >= 10 && apart >= sizeof(u32);
}

}  // namespace

void* elog_memcpy(void* dst, const void* src, std::size_t count) {
  ELOG_ASSERT(dst, 96);
  ELOG_ASSERT(src, 97);
  if (!dst || !src) return dst;
  auto* to = static_cast<u8*>(dst);
  auto* from = static_cast<const u8*>(src);
  if (word_copy_pays(to, from, count)) {
    for (; count >= sizeof(u32); count -= sizeof(u32), to += sizeof(u32), from += sizeof(u32)) {
      u32 word;
      memcpy(&word, from, sizeof(word));
      memcpy(to, &word, sizeof(word));
    }
  }
  while (count-- > 0) *to++ = *from++;
  return dst;
}
