// The import of maps into a table and index: one reference for every mapped entry, the init bit for
// every group that holds one. Free lists are linked afterwards (tarn_link_fri_group).
// References are counted in memory, in silence, and then written, each block once; the lines are
// printed after that. Whatever a line has to report, or a count cannot express, sends the maps
// through the documented procedure: line by line, and entry by entry where a count would overflow.
// Below: reference_scan.h, tbl_ref_write.h, the entries of the three kinds. Above: import_volume.h.
#pragma once

#include <cstdint>

#include "tbl/tbl_freelist.h"
#include "volume/discovery.h"
#include "volume/reference_scan.h"
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

// A list of maps to be imported into the current table and index.
struct import_job {
    const path_entry* maps;
    const char* root;
    bool is_new;            // table and index are empty
    linked_groups* linked;  // not null: free entries are linked as they are written, see there
    bool changes_maps;      // import_one may repair a map
    const char* title;      // of the line before each map, null: no such line
    const char* only_map;   // path of the list's only map, null: the list's names are the paths
    void* context;          // for import_one
    // Loads a map and imports it with import_map: its results.
    int (*import_one)(void* context, const path_entry* map, import_tally* tally);
};

// 0; -1 at the first failure, logged: what came before it is in table and index.
int import_listed(const import_job& job);

// The same, but when every map is sound and the table at `live_table` agrees with all of them,
// `confirm` is called, and no entry is written if it gives 0: *agrees is true then.
int import_to_compare(const import_job& job, const char* live_table, int (*confirm)(void* context),
                      bool* agrees);

// The map at `map`, of that kind, which is the current one, of the volume `root`: into the current
// table and index, in place. The same result.
int import_loaded(const char* map, int32_t kind, const char* root);
// --import: the map, of that kind, into the table and index, all three at `paths`, in place. 0, or
// -1, logged; all three are closed.
int import(const volume_paths* paths, int32_t kind);
