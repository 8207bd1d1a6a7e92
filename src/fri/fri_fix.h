// The repair of the index from sound free lists. Below: fri_entries.h, tbl_freelist.h.
#pragma once

// Relinks every initialised group, up to the first uninitialised one, whose free list matches its
// count; adds what that changes to fri_free_count; makes the lowest such group the head; saves.
// Groups that fail the check, and the links between groups, stay as they are, deliberate.
// 0, or -1, logged.
int fix_fri_group_head();
