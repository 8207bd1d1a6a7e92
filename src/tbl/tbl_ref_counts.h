// Reference counts of a table being rebuilt: counted in memory, a group of 4096 at a time, and
// written as whole checksummed blocks in ascending order, at the end and when the memory is full.
// Gives the bytes that single references give. Below: tbl_group_image.h, tbl_entries.h. Above: the
// import of maps.
#pragma once

#include "tbl/tbl_format.h"
#include "tbl/tbl_group_image.h"

// A group in memory is narrow (a byte an entry, its counter; the group was all zero before) until a
// count outgrows the byte, or wide (the entries' words) from then on or when it was not all zero.
// A counter holds the count and REF_COUNTER_ZERO, or one of the two values around those.
constexpr uint8_t REF_COUNTER_NONE = 0;  // the group is not in memory
constexpr uint8_t REF_COUNTER_ZERO = 1;
constexpr uint8_t REF_COUNTER_FULL = 254;  // counts no further: the group is widened
constexpr uint8_t REF_COUNTER_WIDE = 255;  // the group is wide

// Each counter of the first groups has a place of its own, found by the extent's number alone.
// Other narrow groups take one unit, wide groups two.
constexpr uint64_t REF_NEAR_GROUPS = 16384;  // 64 MiB: 67 million extents
constexpr uint64_t REF_NEAR_EXTENTS = REF_NEAR_GROUPS * TBL_GROUP_ENTRIES;
constexpr uint32_t REF_UNIT_SIZE = TBL_GROUP_ENTRIES;  // bytes
constexpr uint32_t REF_UNITS = 6144;                   // 24 MiB
constexpr uint32_t REF_GROUPS = static_cast<uint32_t>(REF_NEAR_GROUPS) + REF_UNITS;
constexpr uint32_t REF_SLOTS = 32768;

struct ref_group {
    uint64_t group;
    uint8_t* narrow;   // counters; null: wide
    uint16_t* wide;    // words; null: narrow
    uint32_t changed;  // wide: bit i: block i of the group; narrow: every block with a count
    uint64_t lea;      // of the map entry that brought the group into memory
};

// Called before the first reference into a group is counted in memory: 0, or negative, logged.
using ref_group_hook = int (*)(uint64_t group);

// One rebuild's counts, about 89 MiB at most, taken as they are used. Only the functions below and
// tbl_ref_compare.cpp touch its fields.
struct tbl_ref_counts {
    ref_group_hook first_touch;
    uint8_t* near;   // REF_NEAR_EXTENTS counters
    uint8_t* units;  // REF_UNITS of REF_UNIT_SIZE bytes
    uint32_t units_used;
    uint32_t group_count;
    bool in_table;              // some references are only there: to make room, or after no_entry
    bool lost;                  // an entry could not be written: nothing more is
    uint64_t lost_lea;          // when `lost`: lea of the group that the entry is in
    uint32_t slots[REF_SLOTS];  // number in `groups`, by hash of the group
    ref_group groups[REF_GROUPS];
    tbl_group_image image;  // of the group being taken in or written
};

// Counts for the current table, which tbl_ref_counts_drop frees. Null when there is no memory.
tbl_ref_counts* tbl_ref_counts_open(ref_group_hook first_touch);

enum class ref_result {
    counted,
    touch_failed,  // the hook failed: nothing was counted
    no_entry,  // this lpa takes the single-entry path: the table has no such group, or its blocks
               // cannot be read
    full,      // the entry has 4095 references
    lost,      // the memory was full and an entry could not be written, logged: the rebuild ends
};
// Counts one reference to `lpa`, of whatever group, for the map entry `lea`. Adds 1 to
// `*first_uses` when the extent had no reference before: the index then has one free extent less.
ref_result tbl_ref_counts_add(tbl_ref_counts* counts, uint64_t lpa, uint64_t lea,
                              uint64_t* first_uses);

// The same for a counter that has room. Returns false, nothing changed, for a counter that has
// none.
inline bool ref_counter_add(uint8_t* counter, uint64_t* first_uses) {
    if (static_cast<uint8_t>(*counter - REF_COUNTER_ZERO) >= REF_COUNTER_FULL - REF_COUNTER_ZERO) {
        return false;
    }
    *first_uses += *counter == REF_COUNTER_ZERO ? 1 : 0;
    ++*counter;
    return true;
}

// Counts one reference where that takes one counter and nothing else: `lpa` is one of the first
// extents and its counter has room. Returns false, nothing changed, for every other reference: it
// is for tbl_ref_counts_add. `first_uses` as there.
inline bool tbl_ref_counts_add_in_place(tbl_ref_counts* counts, uint64_t lpa,
                                        uint64_t* first_uses) {
    return lpa < REF_NEAR_EXTENTS && ref_counter_add(counts->near + lpa, first_uses);
}

// Fetches into the processor's cache what tbl_ref_counts_add_in_place needs for `lpa`.
inline void tbl_ref_counts_expect(const tbl_ref_counts* counts, uint64_t lpa) {
    if (lpa < REF_NEAR_EXTENTS) {
        __builtin_prefetch(counts->near + lpa, 1);
    }
}

// The entry that a narrow group's counter means.
constexpr uint16_t ref_counter_word(uint8_t counter) {
    const unsigned count = counter - unsigned{REF_COUNTER_ZERO};
    return static_cast<uint16_t>(count != 0 ? TBL_USED_BIT | count : 0);
}

// Puts the groups into ascending order. Afterwards the counts are only read, written or dropped.
void tbl_ref_counts_sort(tbl_ref_counts* counts);
// Frees the counts without writing what is in memory. Null is ignored.
void tbl_ref_counts_drop(tbl_ref_counts* counts);
// Writes everything that was counted, in ascending order, up to the first entry that cannot be
// written, logged. Groups whose blocks cannot be moved in bulk are written entry by entry. Returns
// false after such an entry, and from then on without another attempt. Null: true.
bool tbl_ref_counts_write(tbl_ref_counts* counts);
// Whether an entry could not be written. Stores then the lea of the map entry that brought the
// entry's group into memory.
bool tbl_ref_counts_lost(const tbl_ref_counts* counts, uint64_t* lea);
