// Dumps to the console and to files. Nothing is kept between calls, so any thread may call.
#pragma once

#include "common/bytes.h"

/// The time of day in red on standard error.
void print_timestamp();
/// `len` bytes in hexadecimal on standard output, 16 a line.
void print_hex(const u8* buf, i32 len);
/// Appends the time, the tag (null: none) and a hex dump to a file. A file that cannot be opened is ignored.
void hex_to_file(const char* path, const u8* buf, i32 len, const char* tag);
/// The same with the text of `buf` (null: none), whose last line is closed.
void text_to_file(const char* path, const char* buf, i32 len, const char* tag);

/// Appends a line to a file, after a file of more than 1 MiB was moved to "<path>.bak". Returns 0, or -1 when
/// the file cannot be opened or the path is too long for the move (60 characters fit).
/// Deliberate: a null line leaves the file open.
int append_line_with_backup(const char* path, const char* line);
