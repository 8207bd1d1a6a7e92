// The main job: what happens to journal and volumes before the storage service starts.
// Below: journal_state.h, volume_journal.h, consistency.h, run_lock.h, swap_marker.h. Above: the
// commands.
#pragma once

#include "volume/option_scan.h"
#include "volume/volume_paths.h"

// --startup-replay: scans the options and acts on the journal's status. 0 if there is no journal,
// if it was replayed and removed and there was no reason to keep it, or if the shutdown was clean
// and the checks passed. Else -1, logged: the journal still exists (unless only the sync of its
// directory failed), and is marked bad if the replay, a check or a reason to keep it requires that.
int vaai_startup_replay(volume_paths* paths, option_scan* options);
