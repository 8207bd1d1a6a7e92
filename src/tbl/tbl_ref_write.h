// What was counted goes into a table, or is compared with one: each block once, in ascending order
// and in large transfers. Below: tbl_ref_counts.h, tbl_entries.h, file.h. Above: the rebuild.
#pragma once

#include "tbl/tbl_freelist.h"
#include "tbl/tbl_ref_counts.h"

// How the counts of a window go into a table.
struct ref_write_plan {
    int fd;         // of the table
    bool is_new;    // nothing but earlier windows was written to it
    bool is_first;  // of a new table: nothing at all was written to it
    // Not null: free entries of a group with a reference are linked, and a row is added for the
    // group while there is room. Needs is_new.
    linked_groups* linked;
    bool only_looks;  // nothing is written
};

struct ref_write_result {
    uint64_t first_uses;    // extents that had no reference in the table
    bool past_max;          // an extent would get more references than an entry can count
    bool failed;            // an entry could not be written, logged
    uint64_t failed_group;  // the group it is in
};

// Adds the counts of the window to the table open as plan->fd, which is the current one. Stops at
// the first entry that cannot be written; blocks that cannot be moved together are written entry by
// entry. With `only_looks` past_max and first_uses are found out, and a table that cannot be read
// counts as failed, without a line.
ref_write_result write_ref_counts(const ref_counts* counts, const ref_write_plan& plan);

// Whether the table open as `fd` has every extent of the window's regions, up to the highest group
// of all that has a reference, as it was counted: free, or used by equally many. False as well if
// the table cannot be read.
bool ref_counts_agree(const ref_counts* counts, int fd);
// Whether the table has every extent free that is in none of the regions that were met in any
// window, below the group `group_count`. False as well if that cannot be decided.
bool unmet_regions_are_free(const ref_counts* counts, int fd, uint64_t group_count);
