// Reference counts of a table being rebuilt: counted in memory, a group of 4096 at a time, and
// written as whole checksummed blocks in ascending order, at the end and when the memory is full.
// Same bytes as tbl_entry_ref_inc entry by entry. Below: tbl_group_image.h, tbl_entries.h; the
// index's header for its free count. Above: the import of maps.
#pragma once

#include "tbl/tbl_format.h"

// A group in memory is narrow (a byte an entry: its count; the group was all zero before) until a
// count outgrows the byte, or wide (the entries' words) from then on or when it was not all zero.
constexpr uint32_t REF_UNIT_SIZE = TBL_GROUP_ENTRIES;  // bytes; a wide group takes two units
constexpr uint32_t REF_UNITS = 16384;                  // 64 MiB: 67 million extents, narrow
constexpr uint32_t REF_SLOTS = 2 * REF_UNITS;
constexpr uint32_t REF_NARROW_MAX = 254;

struct ref_group {
    uint64_t group;
    uint8_t* narrow;   // counts; null: wide
    uint16_t* wide;    // words; null: narrow
    uint32_t changed;  // wide: bit i: block i of the group; narrow: every block with a count
};

struct tbl_ref_counts;  // one rebuild's counts, about 66 MiB at the most, taken as they are used

// Called before the first reference into a group is counted in memory: 0, or negative, logged.
using ref_group_hook = int (*)(uint64_t group);

// Null: no memory, or the entry road is to be taken. Counts go to the current table.
tbl_ref_counts* tbl_ref_counts_open(ref_group_hook first_touch);

enum class ref_result {
    counted,
    touch_failed,  // the hook failed: nothing was counted
    no_entry,  // the entry road is to be taken for this lpa: the table has no such group, or its
               // blocks cannot be read
    full,      // the entry has 4095 references
};
ref_result tbl_ref_counts_add(tbl_ref_counts* counts, uint64_t lpa);

// Writes everything that was counted and frees the counts. Groups whose blocks cannot be moved as a
// whole are written entry by entry. 0, or -1 when an entry could not be written, logged. Null: 0.
int tbl_ref_counts_close(tbl_ref_counts* counts);
