// Bounded text helpers of the logger. No terminating zeros are written.
#pragma once

#include <cstddef>

/// Appends `src` at `dst`, which is position `cur_len` of a line, up to the line's end. Returns the count
/// copied.
std::size_t elog_strcpy(std::size_t cur_len, char* dst, const char* src);
/// Copies at most `len` bytes and nothing after the first newline. Returns the count copied.
std::size_t elog_cpyln(char* line, const char* log, std::size_t len);
/// Copies forwards, so an overlapping `dst` behind `src` repeats what lies between. Returns `dst`.
void* elog_memcpy(void* dst, const void* src, std::size_t count);
