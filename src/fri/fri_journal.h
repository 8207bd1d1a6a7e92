// The journal's side of the index: comparing and applying recorded entries and counters.
// Below: fri_entries.h, tbl_freelist.h. Above: journal verification and replay.
#pragma once

#include "fri/fri_format.h"

// 1: a mismatch is printed with both images. Set once at start and never cleared.
extern int fri_mismatch_report;

// 1 equal, 0 different, -1 unreadable, logged.
int fri_entry_check(const fri_entry* entry, uint64_t group);
int fri_entry_replay(const fri_entry* entry, uint64_t group);  // 0 or -1, logged
// A record that initialises its group (`entry` has the init bit, `other` has not) also builds the
// group's free list in the table: returns link_free_tbl_entry_in_group's result, else 0.
int fri_entry_replay_link(const fri_entry* entry, const fri_entry* other, uint64_t group);
// The counters that are journalled as a unit. Check: 1 equal, 0 different. Replay: save_fri's
// result.
int fri_var0_check(uint64_t free_count, uint64_t group_head);
int fri_var0_replay(uint64_t free_count, uint64_t group_head);
