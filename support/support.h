// The process's toolbox: banner, level file, child processes, resource checks. Nothing is kept between calls,
// so any thread may call, except that print_level_load and daemonize belong to the main thread and that
// pox_system changes the SIGCHLD handler of the whole process while it runs.
#pragma once

#include "common/bytes.h"

/// This build, as the banner prints it and as the version record gives it to the USB host.
constexpr char kBuildDate[] = "2025-06-04";
constexpr char kBuildTime[] = "11:25:23";
constexpr char kBuildVersion[] = "1213";  ///< hexadecimal

/// The start-up banner, whatever the print level: the program's name out of `path` (argv[0]; null allowed),
/// then build date, time, version and process id, on standard error and in the log.
void process_info_print(const char* path);

/// Sets the print level and the logger's level from the first line of /opt/params/print.conf that contains
/// `name`. Both stay as they are when there is no such line or no level word in it.
void print_level_load(const char* name);

/// system() for a process whose SIGCHLD handler reaps children: the handler is disabled until the command has
/// ended. Returns what system() returned, and prints an error when that is -1.
int pox_system(const char* command);

/// Continues in a child with a session of its own; the parent exits. Returns 0 in the child, or -1.
int daemonize();

constexpr u32 kSpaceUnknown = UINT32_MAX;

/// Bytes free to unprivileged users on the file system of `path`, modulo 4 GiB, or kSpaceUnknown.
u32 free_space_check(const char* path);
/// Returns 0 when a message of `size` bytes may be sent now, that is when the queue has room for it and is at
/// most half full; else prints an error and returns -1.
int msg_size_check(int msqid, u32 size);
