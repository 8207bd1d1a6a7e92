// Reference counts in memory: how often the entries of a set of maps name each extent. The counts
// are exact, and the memory is fixed: a volume with more extents than fit is counted in windows of
// regions, and the same maps are scanned once for each window. Nothing is logged, and no table is
// looked at. Below: tbl_format.h, map_format.h, zero_memory.h. Above: the rebuild of a table.
//
// A region holds 2^20 extents. Most references of a scan come in no order, and a counter that is
// not in the processor's cache costs more than everything else; so a reference is first put into
// the bucket of its part of the region, as 16 bits, and a full bucket is counted at once, into
// 32 KiB of counters of 4 bits each. What a counter of 4 bits cannot hold is kept apart, by extent;
// a region with too much of that gets counters of 16 bits, in a later window.
#pragma once

#include "map/map_format.h"
#include "store/data_node.h"
#include "tbl/tbl_format.h"

constexpr unsigned REF_REGION_SHIFT = 20;
constexpr uint32_t REF_REGION_EXTENTS = uint32_t{1} << REF_REGION_SHIFT;
constexpr uint32_t REF_REGION_GROUPS = REF_REGION_EXTENTS / TBL_GROUP_ENTRIES;
constexpr uint32_t REF_REGIONS =
    static_cast<uint32_t>((TBL_TOTAL_COUNT + REF_REGION_EXTENTS - 1) >> REF_REGION_SHIFT);
constexpr size_t REF_WINDOW_SIZE = size_t{64} << 20;  // bytes: counters and buckets of a window
constexpr size_t REF_WINDOW_SIZE_MIN = size_t{1} << 20;

struct ref_counts;

// Counts references to the extents below `extents`, in windows of `window` bytes; a region that
// needs wide counters takes 2 MiB even if the window is smaller. Null: no memory. The caller owns
// it.
ref_counts* ref_counts_open(size_t window = REF_WINDOW_SIZE, uint64_t extents = TBL_TOTAL_COUNT);
void ref_counts_close(ref_counts* counts);  // null is ignored
// Forgets everything: the next scan is a first one.
void ref_counts_restart(ref_counts* counts);

// Prepares a scan over the maps, for the next window. False: every region was counted. The first
// scan counts the regions that come first, and finds out which others there are.
bool ref_counts_begin_scan(ref_counts* counts);

// What a node of a map holds.
struct node_references {
    uint32_t mapped;  // entries
    bool past_end;    // one of them names an extent past the last one; it is not counted
};
// Counts the references among the first `entries` (0..63) entries of a node.
node_references ref_counts_add_node(ref_counts* counts, const data_node* node, uint32_t entries);
// Counts one reference; false for an extent past the last one.
bool ref_counts_add(ref_counts* counts, uint64_t lpa);

// Ends a scan: everything that was added is in the counters.
void ref_counts_end_scan(ref_counts* counts);
// True: some extent has more references than an entry of a table can count.
bool ref_counts_is_past_max(const ref_counts* counts);

// True: the region is counted in this window, up to its last extent.
bool ref_counts_has_region(const ref_counts* counts, uint32_t region);
// True: a reference into the region came in some scan.
bool ref_counts_met_region(const ref_counts* counts, uint32_t region);

// Moves *group to the first group, from *group on, that has a reference in this window. Returns
// false if no further group has one.
bool ref_counts_next_group(const ref_counts* counts, uint64_t* group);
// After the highest group of this window that has a reference; 0 if none has.
uint64_t ref_counts_group_end(const ref_counts* counts);
// Not below the end of the highest group of all windows: exact in the window that it is in.
uint64_t ref_counts_group_limit(const ref_counts* counts);
// Stores the count of each of the 4096 extents of a group, whose region is in this window.
void ref_counts_get_group(const ref_counts* counts, uint64_t group, uint16_t* out);
