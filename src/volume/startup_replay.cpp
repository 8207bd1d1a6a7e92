// The steps of start-up replay:
//  1. the options and the journal's path; without a journal file there is nothing to do
//  2. locks on the journal's directory and on every volume, against a second run
//  3. the status: after a clean shutdown only 5 and 7, after an unclean one all; others end here
//  4. every volume that is expected is there, with a table and an index that match
//  5. the guard: no volume is mounted read-only
//  6. the replay into every volume
//  7. the check of every volume
//  8. volumes that were skipped although they have maps, and a sync of everything
//  9. the removal of the journal, unless there is a reason to keep it
#include "volume/startup_replay.h"

#include <cerrno>
#include <cstdio>

#include "journal_status.h"
#include "platform.h"
#include "print.h"
#include "store/descriptor.h"
#include "store/keep_journal.h"
#include "volume/consistency.h"
#include "volume/discovery.h"
#include "volume/expected_volumes.h"
#include "volume/journal_state.h"
#include "volume/run_lock.h"
#include "volume/swap_marker.h"
#include "volume/volume_journal.h"

static constexpr const char* NAME = "vaai_startup_replay";  // its steps log under its name

// The state of one run.
struct startup_run {
    const char* journal;
    int listed;  // result of the listing of volumes; negative: it failed
    ORBASpaceInfo* spaces;
    path_list volumes;  // those of them that carry LUN metadata
    run_lock lock;      // the first `volume_count` directories are these volumes
    uint32_t volume_count;
    int journal_dir;  // open for reading
};

static int mark_journal_bad(const volume_paths* paths) {
    if (tarn_set_journal_status(paths, JNL_STATUS_BAD) != 0) {
        log_err_as(NAME, "Fail to set journal %s BAD\n", paths->journal);
    }
    return -1;
}

static int lock_volume(startup_run* run, const char* root) {
    if (!may_be_vaai_volume(root)) {
        return 0;
    }
    return run_lock_add(&run->lock, root, nullptr) == 0
               ? add_path_entry(root, &run->volumes.head, 0)
               : -1;
}

// If the volumes cannot be listed, the guard reports it.
static int lock_everything(startup_run* run) {
    int result = 0;
    run->listed = ORBASpaceInfoEnum(1, &run->spaces);
    for (const ORBASpaceInfo* at = run->spaces; at != nullptr && result == 0; at = at->next) {
        result = lock_volume(run, at->mount_path);
    }
    run->volume_count = run->lock.count;
    return result == 0 ? run_lock_journal(&run->lock, run->journal, &run->journal_dir) : -1;
}

// A repair that was interrupted between table and index must be finished first: a replay into both
// would be wrong.
static bool all_are_pairs(const startup_run* run) {
    for (const path_entry* at = run->volumes.head.next; at != &run->volumes.head; at = at->next) {
        if (table_swap_expect_pair(at->name) != 0) {
            return false;  // logged there
        }
    }
    return true;
}

// Replay and check skip a volume without table and index: its maps did not get their changes from
// the journal.
static void look_for_maps_without_tables(const startup_run* run) {
    volume_paths paths = {};
    for (const path_entry* at = run->volumes.head.next; at != &run->volumes.head; at = at->next) {
        set_volume_root(&paths, at->name);
        (void)set_table_paths(&paths, EP_DIR);  // logged; an empty path is no file
        if (is_regular_file(paths.table) == 1 || is_regular_file(paths.index) == 1) {
            continue;
        }
        char map[PATH_TEXT_SIZE];
        if (find_first_map(at->name, map, sizeof map) == first_map::found) {
            log_keep_as(NAME, keep_reason::unread,
                        "%s has the map %s but neither table nor index\n", at->name, map);
        }
    }
}

// Syncs everything that was written to the volumes, by this process or one that died before it,
// before the journal is removed.
static void sync_volumes(const startup_run* run) {
    for (uint32_t i = 0; i < run->volume_count; i++) {
        if (io_sync_file_system(run->lock.dirs[i].fd) != 0) {
            const int error = errno;
            char name[IO_NAME_SIZE];
            log_keep_as(NAME, keep_reason::failed_write, "Fail to sync the file system of %s: %s\n",
                        io_name(run->lock.dirs[i].fd, name, sizeof name), strerror(error));
        }
    }
}

// An old journal must not come back after the next power failure.
static int sync_removal(const startup_run* run) {
    if (io_sync(run->journal_dir) == 0) {
        return 0;
    }
    log_err_as(NAME, "Journal %s is removed, Fail to sync its directory: %s\n", run->journal,
               strerror(errno));
    return -1;
}

static int remove_journal(const startup_run* run, const volume_paths* paths) {
    look_for_maps_without_tables(run);
    sync_volumes(run);
    const keep_reasons reasons = keep_journal_reasons();
    if (reasons.count != 0) {
        log_err_as(NAME, "Keep journal %s, reasons %llu, the first: %s\n", paths->journal,
                   ull(reasons.count), reasons.first);
        return mark_journal_bad(paths);
    }
    tarn_log("%s(%d) Journal Consistent, Remove %s\n", NAME, __LINE__, paths->journal);
    if (io_unlink(paths->journal) != 0) {
        log_err_as(NAME, "Fail to remove journal %s\n", paths->journal);
        return -1;
    }
    return sync_removal(run);
}

// After an unclean shutdown.
static int replay_check_and_remove(const startup_run* run, volume_paths* paths,
                                   option_scan* options) {
    if (!all_volumes_there(run->listed, run->spaces) || !all_are_pairs(run) ||
        set_journal_ro_bad_when_ro_volume_exist(paths) != 0) {
        return -1;
    }
    tarn_log("%s(%d) Start to replaying Journal\n", NAME, __LINE__);
    if (replay_all_vol_journal(paths, options) != 0 ||
        check_all_vol_metadata_consistent(paths, options) != 0) {
        return mark_journal_bad(paths);
    }
    return remove_journal(run, paths);
}

// After a clean shutdown: the journal stays.
static int check_only(const startup_run* run, volume_paths* paths, option_scan* options) {
    if (!all_are_pairs(run) || set_journal_ro_bad_when_ro_volume_exist(paths) != 0) {
        return -1;
    }
    if (check_all_vol_metadata_consistent(paths, options) != 0) {
        return mark_journal_bad(paths);
    }
    return 0;
}

static int act_on_status(const startup_run* run, volume_paths* paths, option_scan* options) {
    uint32_t status = JNL_STATUS_INIT;
    if (tarn_get_journal_status(paths, &status) != 0) {
        log_err_as(NAME, "Fail to get journal status, jnlPath %s\n", paths->journal);
        return -1;
    }
    switch (status) {
        case JNL_STATUS_BAD:
            log_err_as(NAME, "Journal In-Consistent\n");
            return -1;  // a bad journal is never replayed
        case JNL_STATUS_RO:
        case JNL_STATUS_ABNORMAL:
            return replay_check_and_remove(run, paths, options);
        case JNL_STATUS_SUCCESS:
            return check_only(run, paths, options);
        default:
            return -1;  // never used, or unknown: nothing is touched
    }
}

// Sets a journal that is not named, and prints its path. 0, or -1, logged.
static int choose_journal(volume_paths* paths) {
    if (paths->journal[0] != '\0') {
        return 0;
    }
    const int found = get_jnl_root_path(paths);
    printf("TARN_INFO: jnlPath=%s\n", paths->journal);
    return found;
}

int vaai_startup_replay(volume_paths* paths, option_scan* options) {
    if (options->read(options, paths) != 0 || choose_journal(paths) != 0) {
        return -1;
    }
    const path_kind kind = kind_of_path(__func__, paths->journal);
    if (kind != path_kind::file) {
        return kind == path_kind::unknown ? -1 : 0;
    }
    startup_run run = {};
    run.journal = paths->journal;
    const int result = lock_everything(&run) == 0 ? act_on_status(&run, paths, options) : -1;
    run_lock_release(&run.lock);
    ORBASpaceInfoFree(run.spaces);
    return result;
}
