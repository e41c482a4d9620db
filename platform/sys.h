// The seam to the machine: every call by which the service reaches a device, a fixed path, a System V
// key, a named semaphore or the shell. The build links one implementation: sys_linux.cpp on the camera
// (each function is the call itself) or the simulator's on a PC. Arguments, results and errno are those
// of the call.
#pragma once

#include <poll.h>
#include <semaphore.h>
#include <sys/types.h>

#include <cstdio>

namespace sys {

/// `mode` matters only with O_CREAT. Callers pass O_CLOEXEC for files of their own.
int open(const char* path, int flags, mode_t mode = 0);
int close(int fd);
int ioctl(int fd, unsigned long request, void* argument);
/// Cancellation point, like the call itself. The service asks for POLLPRI, the node's events.
int poll(pollfd* files, nfds_t count, int timeout_ms);
void* mmap(void* address, size_t length, int protection, int flags, int fd, off_t offset);
int munmap(void* address, size_t length);
ssize_t read(int fd, void* buffer, size_t length);
ssize_t write(int fd, const void* buffer, size_t length);

std::FILE* fopen(const char* path, const char* mode);
int remove(const char* path);
int rename(const char* from, const char* to);
int system(const char* command);
/// Starts a command as system() does, in a process group of its own, and leaves waitpid to the caller.
/// Returns its process id, which is also the group's, or -1.
pid_t spawn(const char* command);
/// Starts a command that nobody waits for and that leaves no zombie. Returns 0 or -1.
int launch(const char* command);
/// The caller closes the stream with ::pclose.
std::FILE* popen(const char* command, const char* mode);

/// A cancellation point, like the call itself.
int usleep(useconds_t microseconds);

int msgget(key_t key, int flags);
int shmget(key_t key, size_t size, int flags);
/// `mode` and `value` matter only with O_CREAT in `flags`.
sem_t* sem_open(const char* name, int flags, mode_t mode, unsigned value);

}  // namespace sys
