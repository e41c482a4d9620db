// The parts of the page, each written to standard output.
#pragma once

#include "tools/control_probe.h"

void print_descriptors();
void print_extension_unit(ControlProbe& probe);

/// Joins the parts with a separator.
std::string joined(std::span<const std::string> parts, const char* separator);
/// Returns the number in at most 4 bytes, little-endian.
u32 number_in(std::span<const u8> bytes);
/// Returns the answer to a GET request, written by `show`, or "-" for none. A status other than 0 follows it.
template <class Show>
std::string cell(const ProbeAnswer& answer, Show show) {
  if (answer.bytes.empty()) return "-";
  return show(answer.bytes) + (answer.status ? ", status " + std::to_string(answer.status) : "");
}
std::string number_cell(const ProbeAnswer& answer);
/// Returns what a SET_CUR made the service send.
std::string sent_cell(const ProbeEffect& effect);
