// The rebuild of a whole volume's table and index from its maps, in a work directory.
// Below: import.h, map_check.h, discovery.h, the files of the three kinds. Above: the commands,
// full_check.h, reconstruct.h, one_key.h.
#pragma once

#include <cstdint>

#include "tbl/tbl_freelist.h"
#include "volume/volume_paths.h"

// Rebuilds table and index of the volume at paths->root from all its maps, in the new directory
// `dir_name` below it; with `repair` (0 or 1) each map is repaired first. 0: both are complete and
// on the disk, and so are their names. -1 at the first failure, logged, and at a stop signal: the
// directory then stays for the caller to remove. Table, index and map are closed. An existing
// directory, or a link of that name, is refused before a file is made.
// With `linked` the free entries of each group are linked as they are written, and the rows are in
// ascending order afterwards.
int do_import_volume(const volume_paths* paths, const char* dir_name, int32_t repair,
                     linked_groups* linked = nullptr);

// The same for a comparison with the live table; nothing needs to be on the disk. Where that table
// agrees with the maps about every extent, `confirm` is called with the rebuilt files still open:
// 0 makes *agrees true, and only headers were written, since no one needs the entries. Otherwise
// *agrees is false and the entries were written; the first difference is still to be looked for,
// or `confirm` failed and so does this.
int do_import_volume_to_compare(const volume_paths* paths, const char* dir_name, int32_t repair,
                                int (*confirm)(const volume_paths* paths), bool* agrees);
