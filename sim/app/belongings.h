// What a process has, to find out whether it has the same afterwards as before.
#pragma once

#include <sys/types.h>

#include <string>

namespace sim {

struct Belongings {
  long files = 0, threads = 0;
  long mappings = 0;       ///< of files and segments; the C library creates others as it needs them
  long own_kilobytes = 0;  ///< resident memory that no file or segment backs
  std::string text() const;
};

/// Reads the values from /proc. All are zero if there is no such process.
Belongings belongings_of(pid_t process);

}  // namespace sim
