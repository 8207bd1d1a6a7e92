// Entries of the group index, one at a time: each write rewrites the entry's 512-byte block with a
// fresh checksum. And one reference to an extent, which changes table and index. Below: fri_file.h,
// data_node.h, tbl_entries.h. Above: the group list, the journal, dumps, the import of maps.
#pragma once

#include "fri/fri_file.h"

// Reads the entry of `group` in the current index; the block's checksum is not looked at. Returns
// the bytes read (8; 0 past the end of the file, entry 0); negative on a read error, logged.
int fri_entry_read(fri_entry* entry, uint64_t group);
// Writes it. 0, or -1, logged; a group past the index's capacity is refused.
int fri_entry_write(const fri_entry* entry, uint64_t group);
// The same; stores through `before` whether the block's old checksum matched.
int fri_entry_write_over(const fri_entry* entry, uint64_t group, node_mismatch* before);

// Sets the init bit of a group, and raises fri_group_count (saved at once) when it is the highest.
// 0, or -1, logged.
int tarn_fri_set_init_bit(uint64_t group);

// Subtracts `extents` from the free count of the current index, in memory, stopping at 0. Does
// nothing when no index is open.
void fri_take_free(uint64_t extents);

// Adds one reference to `lpa` in the current table. An extent that had none becomes used, and is
// subtracted from the free count of an open index, in memory. 4095 wraps to 0. Meant for a table
// that is rebuilt from nothing. Returns 0; -1, logged, when the entry cannot be read or no table
// holds the lpa. A failed write is logged and counted, and returns 0, deliberate.
int tbl_entry_ref_inc(uint64_t lpa);

void show_fri_entry(const fri_entry* entry);  // one line on standard output; null is logged
int dump_fri_group(uint64_t group);           // number and entry; 0, or -1, logged
