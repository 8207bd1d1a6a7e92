// Entries of the extent table, one at a time: a read transfers 2 bytes; a write rewrites the
// entry's 512-byte block with a fresh checksum before the call returns. Below: tbl_file.h,
// data_node.h. Above: free lists, the journal, the index's entries.
#pragma once

#include "tbl/tbl_file.h"

// Reads the entry of `lpa` in the current table; the block's checksum is not checked.
// Returns the bytes read (2; 0 past the end of the file, entry 0); negative on a read error,
// logged. With no table open: logged, 0, entry untouched, deliberate.
int tbl_entry_read(tbl_entry* entry, uint64_t lpa);
// The same on a handle, where a closed file is an error.
int tbl_handle_entry_read(tbl_handle* handle, tbl_entry* entry, uint64_t lpa);

// Writes the entry of `lpa` in the current table. Always 0, deliberate: a failure is logged, and
// counted as a failed write. An lpa past the end of any table is such a failure.
int tbl_entry_write(const tbl_entry* entry, uint64_t lpa);

// The journal's side. Check: 1 equal, 0 different, -1 unreadable, logged. Replay: 0 or -1; a block
// whose checksum did not match is logged, and is a reason to keep the journal.
int tbl_entry_check(const tbl_entry* entry, uint64_t lpa);
int tbl_entry_replay(const tbl_entry* entry, uint64_t lpa);
// Logs and records that block `block` of the current table was damaged before the replay rewrote
// it.
void tbl_note_damaged_block(uint64_t block, const node_mismatch* before);
