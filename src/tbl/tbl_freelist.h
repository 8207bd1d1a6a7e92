// The free list of one group of the current table: rebuilding it, and walking it against its count.
// Below: tbl_entries.h. Above: the index's entries, which hold head and count of each list.
#pragma once

#include <cstddef>
#include <cstdint>

// Links the free entries of `group` in ascending order, the last one flagged as tail. *head becomes
// the first one's offset, and is unchanged if the group has none. Returns the number of free
// entries (0..4096); -1 at the first entry that cannot be read or written, and for a group past the
// table, logged.
int link_free_tbl_entry_in_group(uint64_t group, uint16_t* head);

// A group whose free list was linked, and what its index entry says of it.
struct linked_group {
    uint64_t group;
    uint16_t head;        // offset of the first free entry, 0 without any
    uint16_t free_count;  // 0..4096
};
struct linked_groups {
    linked_group* at;
    size_t count;
    size_t room;
};
constexpr size_t LINKED_GROUPS_MAX = 500000;  // remembered at the most: 8 MiB

// Called by journal replay before such a relink: logs and records each block with a checksum
// mismatch that the relink will rewrite. Changes nothing.
void tbl_note_damage_before_link(uint64_t group);

// Walks the free list of `group` from `offset` (0..4095), and prints where it starts and whether
// its length is `expected`. Visits 4097 entries at most. 0 when it matches, -1 otherwise, logged;
// an entry that cannot be read is a reason to keep the journal as well.
int tbl_check_group_free_count(uint64_t group, uint64_t offset, uint16_t expected);
