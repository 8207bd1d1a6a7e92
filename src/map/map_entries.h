// Entries of the current map, one at a time, through its node cache: each change rewrites its data
// node with a fresh checksum. Below: map_file.h. Above: the journal, scans, search.
#pragma once

#include "map/map_format.h"

// Reads the entry of `lea`; past the end of the file it is unmapped. 0, even if the node's checksum
// does not match (logged); negative on failure, logged.
int map_entry_read(map_entry* entry, uint64_t lea);
// 1 mapped, 0 unmapped, -1 on failure, logged. Stores the lpa through `lpa` unless it is null.
int tarn_get_mapped_lpa(uint64_t lea, uint64_t* lpa);
// 0, or negative, logged. Fails for a lea past both the map's count and its file, unless the map is
// a volume's ROD map and the volume's extent size gives it that many entries.
int map_entry_write(const map_entry* entry, uint64_t lea);

// The journal's side. Check: 1 equal, 0 different, -1 unreadable, logged. Replay: 0 or -1, logged;
// a node whose checksum did not match is logged, and is a reason to keep the journal.
int map_entry_check(const map_entry* entry, uint64_t lea);
int map_entry_replay(const map_entry* entry, uint64_t lea);
int map_count_check(uint64_t count);   // 1 when it is the header's mapped count, else 0
int map_count_replay(uint64_t count);  // stores it and saves the header: save_map's result

void show_map_entry(const map_entry* entry);  // one line on standard output; null is logged
int dump_map_entry(uint64_t lea);             // lea and entry; 0, or -1, logged
