// A table and its index, checked against each other, repaired and relinked.
// Below: metadata_files.h, the checks and repairs of the index, discovery.h. Above: the commands,
// start-up replay, one_key.h.
#pragma once

#include "volume/option_scan.h"
#include "volume/volume_paths.h"

// All return 0, or -1, logged, and close the files.

// Checks the head group's free list; the journal must load as well, deliberate. Scans the options.
int check_metadata_consistent(volume_paths* paths, option_scan* options);
// The same for the live files of every volume that has all three. `paths` ends with the last volume
// that was tried.
int check_all_vol_metadata_consistent(volume_paths* paths, option_scan* options);
int check_freelist_consistent(const volume_paths* paths);           // every listed group
int fix_fri_tbl_metadata_to_consistent(const volume_paths* paths);  // fix_fri_group_head
int finalize(const volume_paths* paths);                            // tarn_link_fri_group

// Walks every listed group of the loaded index, and prints or logs, for `caller`, whether the free
// lists are sound. The result of the walk.
int check_loaded_freelists(const char* caller, const volume_paths* paths);
