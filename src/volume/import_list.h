// The import of a list of maps. References are counted in memory, in silence, and then written,
// each block once; the lines are printed after that. Whatever has to be reported, or cannot be
// expressed by a count, sends the maps through the documented procedure: line by line, and entry by
// entry where a count would overflow. Below: reference_scan.h, tbl_ref_write.h, import.h. Above:
// import.h's command, import_volume.h.
#pragma once

#include "tbl/tbl_freelist.h"
#include "volume/discovery.h"

struct import_tally;

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
