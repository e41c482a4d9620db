// What camera_sim reports about its streams: a table with a row and a verdict for each.
#pragma once

#include <string>

#include "sim/app/results.h"
#include "sim/host/usb_host.h"

namespace sim {

struct ReportRow {
  std::string name;  ///< such as "replug MJPEG 1280x720"
  u32 asked_rate;    ///< frames per second
  StreamResult result;
  std::string error;  ///< what prevented the stream; empty if nothing did
};

/// Returns a text such as "lost 3, torn 1", empty if nothing is wrong.
std::string defects(const StreamReport& report);
/// Returns "whole", or what is wrong: "torn 2, lost 1", "slow: 21.0 of 30 frames/s".
std::string verdict(const ReportRow& row);
bool is_good(const ReportRow& row);
Finding finding_of(const ReportRow& row);

void print_table_head();
void print_row(const ReportRow& row);
/// Prints a line that the next one replaces; prints nothing unless standard output is a terminal.
void print_progress(const ReportRow& row);

}  // namespace sim
