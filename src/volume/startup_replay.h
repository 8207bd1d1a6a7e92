// The main job: what happens to journal and volumes before the storage service starts.
// Below: journal_state.h, volume_journal.h, consistency.h, run_lock.h, swap_marker.h. Above: the
// commands.
#pragma once

#include "volume/option_scan.h"
#include "volume/volume_paths.h"

// --startup-replay: scans the options and acts on the journal's status. 0: there is no journal; it
// was replayed, everything passed, nothing was in doubt, and it is removed for good; or the
// shutdown was clean and the checks passed. Else -1, logged: the journal is still there (unless
// only the sync of its directory failed), marked bad where replay, check or doubt ask for it.
int vaai_startup_replay(volume_paths* paths, option_scan* options);
