// Mappings of physical memory through /dev/mem, counted, so that overlapping users share one mapping.
// The table of mappings and the descriptor of /dev/mem are not locked: main thread only.
#pragma once

#include "common/bytes.h"

/// The `size` bytes at physical address `phys`, read-write and uncached. A live mapping that holds the whole
/// range is shared, else the pages that cover it are mapped. Null, reported, for a size of 0, a range that
/// passes 4 GiB, a mapping that fails, or a 65th mapping (its pages then stay mapped). Each result is given
/// back once with memunmap.
void* memmap(u32 phys, u32 size);

/// Gives back a result of memmap, or any address inside its mapping; the last user's call unmaps. 0, also
/// when the unmapping failed (reported), or -1 when `virt` lies in no mapping.
/// Deliberate: the address just past a mapping's end lies in it, too; of several mappings the oldest is
/// taken.
int memunmap(void* virt);
