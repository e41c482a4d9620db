// The page's parts, each written to standard output.
#pragma once

#include "tools/control_probe.h"

void print_extension_unit(ControlProbe& probe);

/// The parts with a separator between them.
std::string joined(std::span<const std::string> parts, const char* separator);
/// The number in at most 4 bytes, little-endian.
u32 number_in(std::span<const u8> bytes);
/// What a GET request is answered with, as `show` puts it; "-" for nothing. A status other than 0 follows.
template <class Show>
std::string cell(const ProbeAnswer& answer, Show show) {
  if (answer.bytes.empty()) return "-";
  return show(answer.bytes) + (answer.status ? ", status " + std::to_string(answer.status) : "");
}
std::string number_cell(const ProbeAnswer& answer);
/// What a SET_CUR made the service send.
std::string sent_cell(const ProbeEffect& effect);
