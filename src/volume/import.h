// The import of one map into a table and index that are being rebuilt: one reference for every
// mapped entry, the init bit for every group that holds one. Free lists are linked afterwards
// (finalize.h). Below: map_scan.h, map_walk.h, tbl_ref_counts.h, the index's entries. Above:
// import_volume.h.
#pragma once

#include <cstdint>

#include "volume/volume_paths.h"

struct tbl_ref_counts;

// Counts every mapped entry of the current map, one of map_kind_code, of the volume `root`, into
// the current table and index; an unmap buffer's entries end at the first unmapped one. Prints its
// progress. 0; -1 at the first failure, logged. Failures are, beside those of reads and writes,
// more mapped entries than the header says (fewer pass), a 4096th reference to an extent, and an
// extent past the table. References are collected in `counts`, for the caller to give to
// finish_import; with null they go to the table one by one.
int import_map(int32_t kind, const char* root, tbl_ref_counts* counts);
// After the last map, and after one that failed: writes what was counted to the table and frees
// `counts`. 0; -1 at the first entry that cannot be written, logged once with the lea of the map
// entry that brought its group into memory. Null: 0.
int finish_import(tbl_ref_counts* counts);

// --import: the map, of that kind, into the table and index, all three at `paths`, in place. 0, or
// -1, logged; all three are closed.
int import(const volume_paths* paths, int32_t kind);
