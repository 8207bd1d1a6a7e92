// The comparison of a volume's table with one rebuilt from all its maps.
// Below: import_volume.h, work_dir.h, the files of table and index. Above: the commands, one_key.h.
#pragma once

#include <cstdint>

#include "volume/volume_paths.h"

// Compares the live table of the volume with the one in its CHECK_DIR, entry by entry up to the
// highest group that some map refers to: which extents are used, and by how many. Free lists are
// not compared. 0; -1 at the first difference or on a failure, logged.
int do_check_full_tbl_consistent(const volume_paths* paths);

// Rebuilds the table from the maps in CHECK_DIR, repairing each map first when `repair` is 1, and
// compares. 0; -1, logged. CHECK_DIR stays; after a failure it holds what was counted.
int rebuild_and_compare(const volume_paths* paths, int32_t repair);

// --fullck: rebuilds in CHECK_DIR, compares, removes CHECK_DIR. 0; -1, logged, and CHECK_DIR stays.
int check_full_volume(const volume_paths* paths, int32_t repair);
