// The logger's port to the machine: its lock, its time, process and thread texts, and its three sinks:
// console, file, and the queue of the log collector. Everything but the lock and the console switch is called
// under the lock. A line that a sink cannot take is lost; nothing waits and nothing is kept back.
#pragma once

#include <cstddef>

#include "common/bytes.h"

struct ElogFileCfg;

struct ElogMsgqCfg {
  i32 msg_type;  ///< message type of every record
  i32 key;       ///< System V key of the queue
  bool enabled;
};

/// Opens the sinks whose configuration is given and enabled. Returns 0, also when a sink could not be opened.
int elog_port_init(const ElogFileCfg* file_cfg, const ElogMsgqCfg* msgq_cfg);
/// Closes the open sinks. Which sinks are switched on stays as it is.
void elog_port_deinit();

/// Hands a line to each sink that is switched on. `text` is the text of an ElogRecord whose level is set.
void elog_port_output(char* text, std::size_t len);
void elog_port_set_console(bool enabled);

/// Taken by a thread that has it already, the lock stays as it is; released by one that has not, too.
void elog_port_output_lock();
void elog_port_output_unlock();

constexpr std::size_t kElogTimeSize = sizeof("2024-01-05 08:03:07 004211") - 1;
/// Texts in static buffers, overwritten by the next call: "2024-01-05 08:03:07 004211", "pid:0412" and
/// "tid:1234"; the last two are cut at 9 characters.
const char* elog_port_get_time();
const char* elog_port_get_p_info();
const char* elog_port_get_t_info();

/// Opens the queue, or creates it and says so on standard output. Returns 0 in every case.
int elog_msgq_init(const ElogMsgqCfg* cfg);
/// Sends the ElogRecord around `text` in place, unless the queue is more than half full. A queue that was
/// removed and made anew is found again.
void elog_msgq_output(char* text, std::size_t len);
void elog_msgq_deinit();
