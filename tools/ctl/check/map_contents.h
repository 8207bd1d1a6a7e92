// What a map holds, as few numbers: an inventory notes them, a comparison looks at them again.
// Below: map_nodes.h. Above: inventory, compare.h.
#pragma once

#include <cstdint>

#include "ctl/check/state.h"

struct map_contents {
    bool whole = false;     // every node was read, and none is damaged
    uint64_t mapped = 0;    // entries
    uint64_t end = 0;       // after the highest mapped one
    uint64_t contents = 0;  // depends on lea, extent and pool row of every mapped entry
};

// The map is readable. `progress` gets scan_blocks(map) units; null: none does.
map_contents contents_of(const map_check& map, progress_line* progress);
