// The logger's file sink: appends lines to a file and rotates it by size: <name> is the current file,
// <name>.0 the newest rotated one, <name>.<max_rotate - 1> the oldest. Called under the logger's output lock,
// or with the logger stopped. Without an open file lines are dropped.
#pragma once

#include <cstddef>

#include "common/bytes.h"

constexpr std::size_t kElogFilePathSize = 256;
constexpr std::size_t kElogFileSuffixSize = 10;
/// Longest name that leaves room for a rotation suffix; longer ones are refused: no file is then open.
constexpr std::size_t kElogFileNameMax = kElogFilePathSize - kElogFileSuffixSize - 1;

struct ElogFileCfg {
  const char* name;  ///< path; copied
  u32 max_size;      ///< bytes; a line that meets a longer file rotates it first
  i32 max_rotate;    ///< rotated files kept; 0 or less: a file that is too long takes no more lines
  bool enabled;      ///< for elog_port_init() alone
};

/// Configures and opens the sink; does nothing when that has been done. Returns 0, also without a file.
int elog_file_init(const ElogFileCfg* cfg);
/// Closes the file and opens that of `cfg`. With null, no file is open afterwards.
void elog_file_config(const ElogFileCfg* cfg);
void elog_file_write(const char* log, std::size_t size);
void elog_file_deinit();
/// Moves the files one place on and opens a new current one. False: a file could not be moved.
bool elog_file_rotate();

/// Hooks for a lock of the file's own. The output lock suffices here: they do nothing.
int elog_file_port_init();
void elog_file_port_lock();
void elog_file_port_unlock();
void elog_file_port_deinit();
