// Process queries through the shell's tools. Nothing is kept between calls, so any thread may call. The
// arguments go into the command as they are: the caller vouches for them. A command line that does not fit
// its buffer is treated as a failed popen.
#pragma once

#include <cstddef>

constexpr std::size_t kProcessNameSize = 256;

/// Stores this process's name in `dst`, of kProcessNameSize bytes. Returns 0, or -1 for a null dst or when no
/// name could be read.
int get_process_name(char* dst);
/// Returns 1 when a line of ps contains `name` as a word, else 0, also when popen failed.
int process_is_running(const char* name);
/// The number in the first column of the last such line, or -1.
int process_find_pid(const char* name);
/// Returns 1 when fuser names a user of the file, 0 when it names none, -1 when popen failed.
int file_in_use(const char* path);
