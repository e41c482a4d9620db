// Start-up and shutdown of the camera service, and the small pieces that only they use.
#pragma once

#include "common/bytes.h"

/// Runs the service from start to end, in the order that docs/architecture.md gives. Returns the process's
/// exit value: 0 after an orderly end, -1 when a channel to the system server cannot be opened.
i32 uvc_gadget_main(int argc, char** argv);

/// Meters its own calls, for diagnostics: prints "B %d" with their number when the wall clock's second has
/// changed since the last call.
void second_cnt();

/// Makes SoC pin `pin` (group = pin / 8, bit = pin mod 8) an output and drives it high if `value` is not 0.
void gpio_set_output(u32 pin, u32 value);

/// Connects to the control-message channel under `id` and maps the AV memory pool. Returns 0, or closes the
/// channel again and returns -1.
i32 connect_av_server(i32 id);
