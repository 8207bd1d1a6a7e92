// Printed forms of table entries, on standard output. Below: tbl_entries.h. Above: dumps, search.
#pragma once

#include "tbl/tbl_format.h"

void show_tbl_entry(const tbl_entry* entry);  // a null entry is logged
// Show one entry of the current table. 0, or -1 when it cannot be read, logged.
int show_tbl_lpa(uint64_t lpa);
int show_tbl_group_offset(uint64_t group, uint64_t offset);
// Prints the free list of a group in order: only its head if `first_only`, each entry as well if
// `show_entries`. The head is the one offset that nothing links to; a list that begins at offset 0
// is therefore reported as no list, deliberate. 0; -1 for several heads, a list without a tail
// or an unreadable entry.
int list_tbl_group_freelist(uint64_t group, bool show_entries, bool first_only);
