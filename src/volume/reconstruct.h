// The rebuild of a volume's table and index from its maps, finished with free lists and the
// volume's uuid. Below: import_volume.h, dat_file.h, fri_link.h, work_dir.h. Above: the commands,
// one_key.h.
#pragma once

#include <cstdint>

#include "volume/volume_paths.h"

// Rebuilds table and index of the volume at paths->root into its FIX_DIR, repairing each map first
// when `repair` is 1. 0: both are there, complete and on the disk, and so are their names. -1,
// logged or printed: FIX_DIR is gone, even one that was there before, deliberate; without a first
// data file that can be loaded it is not touched.
int do_reconstruct_volume(const volume_paths* paths, int32_t repair);
