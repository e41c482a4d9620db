// Start-up and shutdown of the camera service, and the small pieces that only they use.
#pragma once

#include "common/bytes.h"

/// The service from start to end, as docs/architecture.md lists it. Returns the process's exit value: 0 after
/// an orderly end, -1 when a channel to the system server cannot be had.
i32 uvc_gadget_main(int argc, char** argv);

/// A call-rate meter for diagnostics: prints "B %d" with the number of calls when the wall clock's second has
/// changed since the last one.
void second_cnt();

/// Makes SoC pin `pin` (group = pin / 8, bit = pin mod 8) an output and drives it high if `value` is not 0.
void gpio_set_output(u32 pin, u32 value);

/// Connects to the control-message channel under `id` and maps the AV memory pool. 0, or -1 with the channel
/// closed again.
i32 connect_av_server(i32 id);
