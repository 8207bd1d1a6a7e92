// The two procedures that need nothing but a volume: repair one, check all. Both run with the iSCSI
// target service paused. Below: volume_journal.h, reconstruct.h, table_swap.h, full_check.h,
// map_check.h, discovery.h. Above: the commands.
#pragma once

#include "volume/option_scan.h"
#include "volume/volume_paths.h"

// Replays the journal into the volume at paths->root, even if that fails, reconstructs its table
// and index, and swaps them with the live ones, which stay as EP_TBL.bkp and EP_FRI.bkp. A swap
// that an earlier run began is finished instead, without replay and rebuild, unless a live file was
// written since and neither was swapped in. 0; -1, logged: no live file was moved, and no FIX_DIR
// remains, or a step of the swap failed, and FIX_DIR stays with what the next run needs to finish.
// A replay that failed is logged again at the end, unless there is no journal.
int one_key_repair(volume_paths* paths, option_scan* options);

// Replays the journal into every volume, even if that fails, and checks its table against its maps,
// its maps (repairing them when the options say so) and its free lists; a free list that is
// inconsistent is logged and fails nothing, deliberate. The options are scanned by the first
// replay. 0, or -1 at the first failure, logged.
int one_key_check_all_vol(volume_paths* paths, option_scan* options);
