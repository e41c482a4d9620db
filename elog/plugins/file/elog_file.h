// The logger's file sink. It appends lines to a file and rotates it by size: <name> is the current file,
// <name>.0 the newest rotated one, <name>.<max_rotate - 1> the oldest. Called under the logger's output lock,
// or while the logger is stopped. Without an open file, lines are dropped.
#pragma once

#include <cstddef>

#include "common/bytes.h"

constexpr std::size_t kElogFilePathSize = 256;
constexpr std::size_t kElogFileSuffixSize = 10;
/// The longest name that leaves room for a rotation suffix. A longer one is refused; no file is open then.
constexpr std::size_t kElogFileNameMax = kElogFilePathSize - kElogFileSuffixSize - 1;

struct ElogFileCfg {
  const char* name;  ///< path; copied
  u32 max_size;      ///< bytes; a line for a file longer than this rotates it first
  i32 max_rotate;    ///< rotated files kept; if 0 or less, a file that is too long takes no more lines
  bool enabled;      ///< used only by elog_port_init()
};

/// Configures and opens the sink; does nothing if that has been done. Returns 0, even if no file is open.
int elog_file_init(const ElogFileCfg* cfg);
/// Closes the file and opens that of `cfg`. If `cfg` is null, no file is open afterwards.
void elog_file_config(const ElogFileCfg* cfg);
void elog_file_write(const char* log, std::size_t size);
void elog_file_deinit();
/// Rotates the files by one place and opens a new current file. Returns false if a file could not be moved.
bool elog_file_rotate();

/// Hooks for a lock of the file's own. They do nothing, because the output lock suffices.
int elog_file_port_init();
void elog_file_port_lock();
void elog_file_port_unlock();
void elog_file_port_deinit();
