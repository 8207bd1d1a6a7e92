// The repair of the index from sound free lists. Below: fri_entries.h, tbl_freelist.h.
#pragma once

// Relinks every group whose free list matches its count, up to the first uninitialised group. Adds
// the changes of the counts to fri_free_count, makes the lowest relinked group the head, and saves.
// Groups that fail the check, and the links between groups, stay as they are, deliberate.
// 0, or -1, logged.
int fix_fri_group_head();
