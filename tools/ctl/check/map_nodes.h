// The entries of one map, node by node, as everything but the check itself reads them.
// Below: map_scan.h, maps.h. Above: the commands that ask who refers to what.
#pragma once

#include <cstring>
#include <functional>

#include "ctl/check/state.h"
#include "store/data_node.h"

// A node with at least one entry that counts. `bytes` is right until the taker returns.
struct map_node_view {
    uint64_t first_lea;
    uint32_t entries;  // 1..63, from the first one on
    const data_node* bytes;
    bool damaged;  // its checksum is wrong
};
using map_node_taker = std::function<void(const map_node_view& node)>;

struct map_reading {
    int error = 0;         // errno of the first node that could not be read; 0: all were
    uint64_t damaged = 0;  // nodes whose checksum is wrong
    uint64_t unread = 0;   // nodes that could not be read; ~0: the file cannot be opened
};

// Shows the nodes of a map in ascending order, up to its last entry, or to the first blank one of
// an unmap buffer. Nodes without any mapped entry may be left out. A node that cannot be read is
// left out and counted. The map's headers have been read, and it is readable. `progress` gets
// scan_blocks(map) units.
map_reading read_map_nodes(const map_check& map, const map_node_taker& take,
                           progress_line* progress = nullptr);

inline map_entry entry_of(const map_node_view& node, uint32_t slot) {
    map_entry entry;
    memcpy(&entry, node.bytes->payload + slot * sizeof entry, sizeof entry);
    return entry;
}
