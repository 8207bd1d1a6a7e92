// The scan of the current map: its data nodes, each once, in ascending order. Nodes come in large
// reads, holes are skipped, each checksum is computed once; what cannot be read in bulk, or is
// damaged, comes through the map's node cache. And the check and repair of one node.
// Below: map_entries.h, map_file.h, file.h, crc32c.h. Above: the check and the import of a map.
#pragma once

#include "map/map_entries.h"
#include "store/data_node.h"

// 0 valid or without a checksum, 1 checksum mismatch, negative on failure; all logged. The node is
// in the map's cache afterwards, unless negative.
int tarn_map_data_node_check(uint64_t node_num);
// The same. A mismatched node is blanked, and all its entries are lost; printed, result 1.
int tarn_map_data_node_check_and_repair(uint64_t node_num);

// What a scan looks at.
struct map_range {
    int fd;  // of the current map
    uint64_t nodes;
    bool ends_at_unmapped;  // an unmap buffer: its first unmapped entry ends the scan
};

// A node as a visitor sees it. In memory until the visitor returns, its checksum right or absent;
// or `bytes` null: its entries are read through the map's cache, one by one, since it is damaged or
// cannot be read in bulk.
struct map_scan_node {
    uint64_t number;
    const data_node* bytes;
};

enum class map_step {
    go_on,
    finished,
    failed,
    unreadable,  // an entry cannot be read, logged; for_each_mapped_entry only
};

// What a scan calls, in ascending order of the nodes.
class map_visitor {
public:
    virtual ~map_visitor() = default;
    // The nodes `first` to `end` - 1 have no mapped entry and are not read. Not called in a range
    // that ends at an unmapped entry: node() is, with an empty node.
    virtual void blank_nodes(uint64_t first, uint64_t end) = 0;
    // go_on, finished (the scan ends here) or failed, logged.
    virtual map_step node(const map_scan_node& node) = 0;
};

// Shows every node of the range to the visitor. Returns false if the visitor failed. A node past
// the highest that a file can have is shown for the cache to fail at.
bool for_each_map_node(const map_range& range, map_visitor* visitor);

// Where a walk over the entries of one node ended.
struct map_walk_end {
    map_step step;
    uint64_t slot;  // of the entry that ended it; the count after go_on
};

template <typename Read, typename Take>
map_walk_end walk_map_entries(uint64_t count, bool ends_at_unmapped, Read read, Take take) {
    for (uint64_t slot = 0; slot < count; slot++) {
        map_entry entry;
        if (!read(slot, &entry)) {
            return {map_step::unreadable, slot};
        }
        if (map_entry_is_mapped(&entry) != 0) {
            if (!take(slot, map_entry_get_lpa(&entry))) {
                return {map_step::failed, slot};
            }
        } else if (ends_at_unmapped) {
            return {map_step::finished, slot};
        }
    }
    return {map_step::go_on, count};
}

constexpr uint64_t MAP_WALK_AHEAD = 16;  // entries

// Calls take(slot, lpa) for each mapped entry among the first `count` (1..63) of the node. take
// returns false to fail. Of a node in memory, expect(lpa) is called for every entry, mapped or not,
// MAP_WALK_AHEAD entries before its turn: it may fetch into the cache what take needs.
template <typename Take, typename Expect>
map_walk_end for_each_mapped_entry(const map_scan_node& node, uint64_t count, bool ends_at_unmapped,
                                   Take take, Expect expect) {
    if (node.bytes == nullptr) {
        const uint64_t first = node.number * MAP_NODE_ENTRIES;
        const auto read = [first](uint64_t slot, map_entry* entry) {
            return map_entry_read(entry, first + slot) >= 0;
        };
        return walk_map_entries(count, ends_at_unmapped, read, take);
    }
    const uint8_t* payload = node.bytes->payload;
    const auto read = [payload, expect](uint64_t slot, map_entry* entry) {
        if (slot + MAP_WALK_AHEAD < MAP_NODE_ENTRIES) {
            map_entry later;
            memcpy(&later, payload + (slot + MAP_WALK_AHEAD) * sizeof later, sizeof later);
            expect(map_entry_get_lpa(&later));
        }
        memcpy(entry, payload + slot * sizeof *entry, sizeof *entry);
        return true;
    };
    return walk_map_entries(count, ends_at_unmapped, read, take);
}

template <typename Take>
map_walk_end for_each_mapped_entry(const map_scan_node& node, uint64_t count, bool ends_at_unmapped,
                                   Take take) {
    return for_each_mapped_entry(node, count, ends_at_unmapped, take, [](uint64_t) {});
}
