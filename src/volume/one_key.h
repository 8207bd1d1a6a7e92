// The one-key procedures: repair one volume, check all volumes. Both run with the iSCSI target
// service paused. Below: volume_journal.h, reconstruct.h, table_swap.h, full_check.h, map_check.h,
// discovery.h. Above: the commands.
#pragma once

#include "volume/option_scan.h"
#include "volume/volume_paths.h"

// Replays the journal into the volume at paths->root, even if that fails, reconstructs its table
// and index, and swaps them with the live ones, which stay as EP_TBL.bkp and EP_FRI.bkp. If an
// earlier run left an unfinished swap, that is finished instead, without replay and rebuild; but if
// neither file was swapped in and a live one was written since, the volume is rebuilt again. 0; -1,
// logged: either no live file was moved and FIX_DIR is removed, or a step of the swap failed and
// FIX_DIR keeps what the next run needs. A failed replay is logged again at the end, unless there
// is no journal.
int one_key_repair(volume_paths* paths, option_scan* options);

// Replays the journal into every volume, even if that fails, and checks its table against its maps,
// its maps (repairing them when the options say so) and its free lists; an inconsistent free list
// is logged and is not a failure, deliberate. The options are scanned by the first replay. 0, or -1
// at the first failure, logged.
int one_key_check_all_vol(volume_paths* paths, option_scan* options);
