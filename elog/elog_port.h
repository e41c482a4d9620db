// The logger's port to the machine: its lock, its time, process and thread texts, and its sinks:
// console, file, and the queue of the log collector. Everything but the lock and the console switch is called
// under the lock. A line that a sink cannot take is lost; no call waits, and no line is kept for later.
#pragma once

#include <cstddef>

#include "common/bytes.h"

struct ElogFileCfg;

struct ElogMsgqCfg {
  i32 msg_type;  ///< message type of every record
  i32 key;       ///< System V key of the queue
  bool enabled;
};

/// Opens the sinks whose configuration is given and enabled. Returns 0, even if a sink could not be opened.
int elog_port_init(const ElogFileCfg* file_cfg, const ElogMsgqCfg* msgq_cfg);
/// Closes the open sinks. Which sinks are enabled does not change.
void elog_port_deinit();

/// Hands a line to each enabled sink. `text` must be the text of an ElogRecord whose level is set.
void elog_port_output(char* text, std::size_t len);
void elog_port_set_console(bool enabled);

/// A thread that holds the lock may take it again, and one that does not may release it: neither
/// has any effect.
void elog_port_output_lock();
void elog_port_output_unlock();

constexpr std::size_t kElogTimeSize = sizeof("2024-01-05 08:03:07 004211") - 1;
/// Return texts in static buffers, which the next call overwrites: "2024-01-05 08:03:07 004211", "pid:0412"
/// and "tid:1234". The last two are cut at 9 characters.
const char* elog_port_get_time();
const char* elog_port_get_p_info();
const char* elog_port_get_t_info();

/// Opens the queue, or creates it and reports that on standard output. Returns 0 in every case.
int elog_msgq_init(const ElogMsgqCfg* cfg);
/// Sends the ElogRecord around `text` in place, unless the queue is more than half full. Finds a queue that
/// was removed and created again.
void elog_msgq_output(char* text, std::size_t len);
void elog_msgq_deinit();
