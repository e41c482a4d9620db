#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/msg.h>
#include <sys/shm.h>
#include <unistd.h>

#include <cstdlib>

#include "platform/fopen_cloexec.h"
#include "platform/spawn_shell.h"
#include "platform/sys.h"

namespace sys {

int open(const char* path, int flags, mode_t mode) { return ::open(path, flags, mode); }
int close(int fd) { return ::close(fd); }
int ioctl(int fd, unsigned long request, void* argument) { return ::ioctl(fd, request, argument); }
int poll(pollfd* files, nfds_t count, int timeout_ms) { return ::poll(files, count, timeout_ms); }
void* mmap(void* address, size_t length, int protection, int flags, int fd, off_t offset) {
  return ::mmap(address, length, protection, flags, fd, offset);
}
int munmap(void* address, size_t length) { return ::munmap(address, length); }
ssize_t read(int fd, void* buffer, size_t length) { return ::read(fd, buffer, length); }
ssize_t write(int fd, const void* buffer, size_t length) { return ::write(fd, buffer, length); }
std::FILE* fopen(const char* path, const char* mode) { return fopen_cloexec(path, mode); }
int remove(const char* path) { return std::remove(path); }
int rename(const char* from, const char* to) { return std::rename(from, to); }
int system(const char* command) { return std::system(command); }
pid_t spawn(const char* command) { return spawn_shell(command); }
int launch(const char* command) { return launch_shell(command); }
std::FILE* popen(const char* command, const char* mode) { return ::popen(command, mode); }
int usleep(useconds_t microseconds) { return ::usleep(microseconds); }
int msgget(key_t key, int flags) { return ::msgget(key, flags); }
int shmget(key_t key, size_t size, int flags) { return ::shmget(key, size, flags); }
sem_t* sem_open(const char* name, int flags, mode_t mode, unsigned value) {
  return ::sem_open(name, flags, mode, value);
}

}  // namespace sys
