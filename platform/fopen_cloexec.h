// fopen for both seams. uClibc accepts the mode letter "e", but does not close the file on exec.
#pragma once

#include <fcntl.h>

#include <cstdio>
#include <cstring>

inline std::FILE* fopen_cloexec(const char* path, const char* mode) {
  std::FILE* file = std::fopen(path, mode);
  if (file && std::strchr(mode, 'e')) fcntl(fileno(file), F_SETFD, FD_CLOEXEC);
  return file;
}
