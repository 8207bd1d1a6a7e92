// Checks of the list of groups against the table's free lists. Nothing is written.
// Below: fri_entries.h, tbl_freelist.h. Above: the consistency commands.
#pragma once

// Checks the free list of the head group against its count. 0, or -1, logged.
int fri_check_group_head();
// Checks the free list of every listed group, up to the first uninitialised group. A list that
// returns to a group is reported as a loop. 0, or -1 at the first bad group, logged.
int fri_check_free_group_list();
