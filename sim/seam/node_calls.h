// The gadget node as the service's calls reach it: results are those of the system call, -1 with errno.
// `open` is what node_open returned. Only node_poll is a cancellation point.
#pragma once

#include <poll.h>
#include <sys/types.h>

namespace sim {

/// Registers a descriptor of the node's file. Returns the number of this open, or -1.
int node_open(int fd);
void node_close(int open);
int node_ioctl(int open, unsigned long request, void* argument);
/// Returns 0 if the driver allows the mapping, else -1.
int node_mmap(int open, size_t length, int protection, int flags, off_t offset);
/// Waits for an event, as poll for POLLPRI does; is not logged. A cancellation point. With a fault, reports
/// an error, as older kernels do while nothing is queued.
int node_poll(int open, pollfd& file, int timeout_ms);
/// Returns true, and handles the call, if VIDIOC_DQEVENT finds no event. Cheap, because the service
/// asks without pausing.
bool node_has_no_event(int open);

}  // namespace sim
