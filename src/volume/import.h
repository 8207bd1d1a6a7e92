// The import of maps into a table and index: one reference for every mapped entry, the init bit for
// every group that holds one. Free lists are linked afterwards (tarn_link_fri_group).
// Below: map_scan.h, the entries of the three kinds. Above: import_list.h, import_volume.h.
#pragma once

#include <cstdint>

#include "volume/volume_paths.h"

// How far an import came that only looked at its maps.
struct import_tally {
    uint64_t lea;          // of the current map: entries before it were accepted
    uint64_t group_count;  // of the index, as the accepted entries raise it
    uint64_t raised_at;    // lea of the current map that raised it last
    bool raised;           // in the current map
};

// Imports the current map, one of map_kind_code, of the volume `root`, entry by entry, into the
// current table and index; an unmap buffer's entries end at the first unmapped one. Prints its
// progress. 0; -1 at the first failure, logged: also for more mapped entries than the header says
// (fewer pass), a 4096th reference, and an extent that the table cannot hold or did not take.
// With `tally` the entries are accepted and not counted: what would be logged is logged, but for
// the table's and the index's own failures.
int import_map(int32_t kind, const char* root, import_tally* tally = nullptr);

// Logs that the reference of the entry `lea` did not get into the table.
void report_lost_mapping(uint64_t lea);

// The map at `map`, of that kind, which is the current one, of the volume `root`: into the current
// table and index, in place. The same result.
int import_loaded(const char* map, int32_t kind, const char* root);
// --import: the map, of that kind, into the table and index, all three at `paths`, in place. 0, or
// -1, logged; all three are closed.
int import(const volume_paths* paths, int32_t kind);
