// Reference counts of a table being rebuilt: counted in memory, a group of 4096 at a time, and
// written as whole checksummed blocks in ascending order, at the end and when the memory is full.
// Same bytes as tbl_entry_ref_inc entry by entry. Below: tbl_group_image.h, tbl_entries.h; the
// index's header for its free count. Above: the import of maps.
#pragma once

#include "fri/fri_file.h"
#include "tbl/tbl_format.h"
#include "tbl/tbl_group_image.h"

// A group in memory is narrow (a byte an entry: its count; the group was all zero before) until a
// count outgrows the byte, or wide (the entries' words) from then on or when it was not all zero.
constexpr uint32_t REF_UNIT_SIZE = TBL_GROUP_ENTRIES;  // bytes; a wide group takes two units
constexpr uint32_t REF_UNITS = 16384;                  // 64 MiB: 67 million extents, narrow
constexpr uint32_t REF_SLOTS = 2 * REF_UNITS;
constexpr uint32_t REF_NARROW_MAX = 254;
constexpr uint32_t REF_DIRECT = 65536;  // groups found by their number alone: 268 million extents

struct ref_group {
    uint64_t group;
    uint8_t* narrow;   // counts; null: wide
    uint16_t* wide;    // words; null: narrow
    uint32_t changed;  // wide: bit i: block i of the group; narrow: every block with a count
};

// Called before the first reference into a group is counted in memory: 0, or negative, logged.
using ref_group_hook = int (*)(uint64_t group);

// One rebuild's counts, about 67 MiB at the most, taken as they are used. Its fields are this
// file's own.
struct tbl_ref_counts {
    ref_group_hook first_touch;
    uint8_t* units;  // REF_UNITS * REF_UNIT_SIZE bytes, zero where unused
    uint32_t units_used;
    uint32_t group_count;
    bool lost;                    // an entry could not be written
    uint8_t* direct[REF_DIRECT];  // counts of the narrow groups among the first; null: none
    uint32_t slots[REF_SLOTS];    // number in `groups`, by hash of the group
    ref_group groups[REF_UNITS];
    tbl_group_image image;  // of the group being taken in or written
};

// Null: no memory, or the entry road is to be taken. Counts go to the current table.
tbl_ref_counts* tbl_ref_counts_open(ref_group_hook first_touch);

enum class ref_result {
    counted,
    touch_failed,  // the hook failed: nothing was counted
    no_entry,  // the entry road is to be taken for this lpa: the table has no such group, or its
               // blocks cannot be read
    full,      // the entry has 4095 references
};
// By way of the group's hash, and of the table when the group is not in memory.
ref_result tbl_ref_counts_add_slowly(tbl_ref_counts* counts, uint64_t lpa);

// An extent is in use from now on.
inline void tbl_ref_counts_take_free() {
    if (current_fri.fd != 0 && current_fri.header.fri_free_count != 0) {
        current_fri.header.fri_free_count = current_fri.header.fri_free_count - 1;
    }
}

// Counts one reference to `lpa`.
inline ref_result tbl_ref_counts_add(tbl_ref_counts* counts, uint64_t lpa) {
    const uint64_t group = tbl_group_of(lpa);
    if (group < REF_DIRECT && counts->direct[group] != nullptr) {
        uint8_t* count = &counts->direct[group][tbl_offset_in_group(lpa)];
        if (*count != 0 && *count < REF_NARROW_MAX) {
            ++*count;
            return ref_result::counted;
        }
        if (*count == 0) {
            *count = 1;
            tbl_ref_counts_take_free();
            return ref_result::counted;
        }
    }
    return tbl_ref_counts_add_slowly(counts, lpa);
}

// Writes everything that was counted and frees the counts. Groups whose blocks cannot be moved as a
// whole are written entry by entry. 0, or -1 when an entry could not be written, logged. Null: 0.
int tbl_ref_counts_close(tbl_ref_counts* counts);
