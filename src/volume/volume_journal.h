// The journal over whole volumes: check and replay of every file of a volume, and of all volumes.
// Below: journal_drivers.h, discovery.h, handle_set.h, swap_marker.h. Above: the commands, start-up
// replay, one_key.h.
#pragma once

#include "volume/option_scan.h"
#include "volume/volume_paths.h"

// The files of the volume at paths->root. 0, or -1 at the first failure, logged; what was replayed
// stays replayed. `paths` ends with the last files that were used.
int check_vol_journal(volume_paths* paths);
int replay_vol_journal(volume_paths* paths, option_scan* options);
// The files of every volume, after a scan of the options; `paths` ends with the root of the last
// volume that was tried.
int check_all_vol_journal(volume_paths* paths, option_scan* options);
int replay_all_vol_journal(volume_paths* paths, option_scan* options);
