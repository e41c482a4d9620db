// How the two threads wait while there is nothing to do: with short sleeps, or on request in the kernel,
// until there is something. The same events are served in the same order, and answered alike.
#pragma once

#include "common/bytes.h"

/// Chooses waiting in the kernel. Call it before the control thread starts.
void wait_in_kernel();
/// While streaming, the polls between two pauses; 0 where waiting is in the kernel.
u32 polls_between_pauses();

/// Control thread, waiting in the kernel: sleeps until the node has an event, for a second at most. Where the
/// driver's poll reports an error instead, as that of older kernels does while nothing is queued, sleeps 1
/// ms. The thread can be cancelled here.
void wait_for_event(i32 node);

/// Main thread, idle: sleeps for 10 ms, or in the kernel until somebody wakes it.
void rest();
/// Ends rest(), or the next one if the main thread does not rest. Any thread or signal handler may call it.
void wake_main_thread();
