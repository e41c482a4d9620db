// The machine around the counted operations: the service's own seam to the system, with the calls below
// replaced at the linker (--wrap). Queues and segments are private ones, the gadget node is /dev/null with
// events that the ledger raises, pauses end at once, the clock of seconds stands still, and the system server
// answers every request at once.
#pragma once

#include <linux/videodev2.h>

/// The next VIDIOC_DQEVENT calls give these two, then there is no event again.
void raise_events(const v4l2_event& first, const v4l2_event& second = {});

/// Throws away what is in all queues. Returns how many messages that were.
int empty_queues();

/// How many answers to class requests have gone to the node.
int answers_sent();

/// Removes what would outlive the process.
void remove_queues();
