// Watches the pages of /dev/mem that the service maps, and logs the registers that it changed.
#pragma once

#include <sys/types.h>

namespace sim {

/// Remembers the words of a fresh mapping of /dev/mem. Mappings above 1 MiB are not watched.
void watch_registers(const void* mapping, size_t length, off_t physical);
/// Must be called before a mapping goes. Logs each word that has changed; ignores mappings that
/// are not watched.
void log_changed_registers(const void* mapping);

}  // namespace sim
