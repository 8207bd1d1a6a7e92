// The journal's status word: reading and setting it, and the guard that marks the journal if a
// volume cannot be written. Below: metadata_files.h, discovery.h.
#pragma once

#include <cstdint>

#include "volume/volume_paths.h"

// Loads the journal, sets its status, closes it. 0, or -1, logged.
int tarn_set_journal_status(const volume_paths* paths, uint32_t status);
// Loads it, stores its status through `status`, closes it. 0, or -1, logged.
int tarn_get_journal_status(const volume_paths* paths, uint32_t* status);
// 1 when a volume is mounted read-only, 0 when none is, -1 on failure; logged. Called through the
// guard below.
int is_read_only_volume_exist();
// The same results. For 1 and -1 the journal is set to JNL_STATUS_RO first (-1 when that fails).
int set_journal_ro_bad_when_ro_volume_exist(const volume_paths* paths);
