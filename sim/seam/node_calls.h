// The gadget node as the service's calls reach it: results are the system call's own, -1 with errno. `open`
// is what node_open returned. Nothing here is a cancellation point.
#pragma once

#include <sys/types.h>

namespace sim {

/// Enters a descriptor of the node's file. The number of this open, or -1.
int node_open(int fd);
void node_close(int open);
int node_ioctl(int open, unsigned long request, void* argument);
/// Whether the driver admits the mapping; 0 or -1.
int node_mmap(int open, size_t length, int protection, int flags, off_t offset);
/// VIDIOC_DQEVENT while there is no event: true, and nothing else is to be done. Cheap: the service asks at
/// full speed.
bool node_has_no_event(int open);

}  // namespace sim
