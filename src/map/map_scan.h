// Map scans: the data nodes of a map in ascending order, in large reads ahead of the scan, holes
// passed over, each checksum computed once. Reports nothing: the procedure that scans knows the
// order of the lines. Below: file.h, data_node.h, crc32c.h, map_format.h. Above: check, import.
#pragma once

#include "map/map_format.h"
#include "store/data_node.h"

constexpr uint32_t MAP_SCAN_NODES = 1024;  // of one read: 512 KiB

// Owned by the procedure, about 520 KiB: allocated by map_scan_open, freed by map_scan_close.
struct map_scan {
    int fd;
    uint64_t next;       // node that the next run begins at
    uint64_t end;        // nodes of the scan
    uint64_t file_size;  // bytes
    uint64_t data_end;   // byte where the present stretch of data ends
    data_node nodes[MAP_SCAN_NODES];
    uint32_t computed[MAP_SCAN_NODES];
};

// Consecutive nodes: all in a hole (`nodes` null: every entry unmapped), or in memory until the
// next call.
struct map_scan_run {
    uint64_t first;
    uint64_t count;
    const data_node* nodes;
    const uint32_t* computed;  // each node's checksum as it ought to be
};

enum class map_scan_result { run, end, failed };

// Null: no memory, or the entry road is to be taken. The scan ends before a node that no file can
// reach: the entry road goes on there, and tells.
map_scan* map_scan_open(int fd, uint64_t node_count);
// failed: the nodes from scan->next on cannot be read in runs; the entry road tells why.
map_scan_result map_scan_next(map_scan* scan, map_scan_run* run);
void map_scan_close(map_scan* scan);

// Entry `slot` (0..62) of a node.
inline map_entry map_scan_entry(const data_node* node, uint64_t slot) {
    map_entry entry;
    memcpy(&entry, node->payload + slot * sizeof entry, sizeof entry);
    return entry;
}

// A stored checksum of 0 means that the node carries none.
inline bool map_scan_mismatched(const map_scan_run* run, uint64_t i) {
    const uint32_t stored = run->nodes[i].checksum;
    return stored != 0 && stored != run->computed[i];
}
