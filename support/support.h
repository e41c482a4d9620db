// The process's toolbox: banner, level file, shell commands and process queries, dumps, resource checks.
// Nothing is kept between calls, so any thread may call; print_level_load and daemonize belong to the main
// thread, and pox_system changes the SIGCHLD handler of the whole process while it runs.
// Shell helpers put their arguments into the command as they are: the caller vouches for them. A command
// line that does not fit its buffer counts as a pipe that cannot be opened.
#pragma once

#include <cstddef>

#include "common/bytes.h"

/// This build, as the banner and the USB host are told.
constexpr char kBuildDate[] = "2025-06-04";
constexpr char kBuildTime[] = "11:25:23";
constexpr char kBuildVersion[] = "1213";  ///< hexadecimal

/// The start-up banner, whatever the print level: the program's name out of `path` (argv[0]; null allowed),
/// then build date, time, version and process id, on standard error and in the log.
void process_info_print(const char* path);

/// Sets the print level and the logger's level from the first line of /opt/params/print.conf that contains
/// `name`. Without such a line, or a level word in it, both stay.
void print_level_load(const char* name);

constexpr std::size_t kProcessNameSize = 256;

/// This process's name. `dst` holds kProcessNameSize bytes. 0, or -1 for a null dst or a failed pipe.
int get_process_name(char* dst);
/// 1 when a line of ps contains `name` as a word, else 0, also for a failed pipe.
int process_is_running(const char* name);
/// The number in the first column of the last such line, or -1.
int process_find_pid(const char* name);
/// 1 when fuser names a user of the file, 0 when none, -1 for a failed pipe.
int file_in_use(const char* path);

/// The time of day in red on standard error.
void print_timestamp();
/// `len` bytes in hexadecimal on standard output, 16 a line.
void print_hex(const u8* buf, i32 len);
/// Appends the time, the tag (null: none) and a hex dump to a file. An unopened file is ignored.
void hex_to_file(const char* path, const u8* buf, i32 len, const char* tag);
/// The same with the text of `buf` (null: none), its last line closed.
void text_to_file(const char* path, const char* buf, i32 len, const char* tag);

/// Appends a line to a file, after a file of more than 1 MiB was moved to "<path>.bak". 0, or -1 when the
/// file cannot be opened or the path is too long to be moved (60 characters fit).
/// Deliberate: a null line leaves the file open.
int append_line_with_backup(const char* path, const char* line);

/// system() for a process whose SIGCHLD handler reaps children: the handler rests meanwhile. The result of
/// system(); -1 is reported.
int pox_system(const char* command);

/// Goes on in a child with a session of its own; the parent exits. 0 in the child, or -1.
int daemonize();

constexpr u32 kSpaceUnknown = UINT32_MAX;

/// Bytes free to unprivileged users on the file system of `path`, modulo 4 GiB, or kSpaceUnknown.
u32 free_space_check(const char* path);
/// 0 when a message of `size` bytes may be sent now: the queue has room for it and is at most half full. Else
/// -1, reported.
int msg_size_check(int msqid, u32 size);
