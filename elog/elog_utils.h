// Bounded text helpers of the logger. No terminating zeros are written.
#pragma once

#include <cstddef>

/// Appends `src` at `dst`, which is position `cur_len` of a line, up to the line's end. Returns the number
/// of bytes copied.
std::size_t elog_strcpy(std::size_t cur_len, char* dst, const char* src);
/// Copies at most `len` bytes, and nothing after the first newline. Returns the number of bytes copied.
std::size_t elog_cpyln(char* line, const char* log, std::size_t len);
/// Copies forwards, so a `dst` that overlaps the end of `src` repeats the bytes between the
/// two. Returns `dst`.
void* elog_memcpy(void* dst, const void* src, std::size_t count);
