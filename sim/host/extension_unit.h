// The extension unit's selectors that mean something: names, lengths and fields.
#pragma once

#include <span>

#include "common/bytes.h"

namespace sim {

struct ExtensionField {
  const char* name;
  u8 offset, size;  ///< in bytes
  u16 most;         ///< the highest value; the lowest is 0
  bool high_byte_first = false;
};

struct ExtensionSelector {
  u8 selector;
  const char* name;
  const char* meaning;
  u8 length;  ///< of its value, in bytes
  std::span<const ExtensionField> fields;
  bool caution = false;    ///< a SET reboots, updates or disconnects the camera
  bool read_only = false;  ///< a SET has no effect
};
/// In the order of selectors.
std::span<const ExtensionSelector> extension_selectors();

}  // namespace sim
