// Mappings of physical memory through /dev/mem. They are counted, so that overlapping users share one.
// The table of mappings and the descriptor of /dev/mem are not locked: main thread only.
#pragma once

#include "common/bytes.h"

/// Maps the `size` bytes at physical address `phys`, read-write and uncached. Shares a live mapping that
/// holds the whole range, else maps the pages that cover it. Prints an error and returns null for a size of
/// 0, a range that passes 4 GiB, a mapping that fails, or a 65th mapping (whose pages then stay mapped). Each
/// result is given back once with memunmap.
void* memmap(u32 phys, u32 size);

/// Gives back a result of memmap, or any address inside its mapping; the last user's call unmaps. Returns 0,
/// even when the unmapping failed (it prints an error then), or -1 when no mapping holds `virt`.
/// Deliberate: the address one past a mapping's end is accepted as well; of several mappings that hold the
/// address the oldest is taken.
int memunmap(void* virt);
