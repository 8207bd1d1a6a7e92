#include "volume/volume_journal.h"

#include <cstdio>

#include "handles/handle_set.h"
#include "jnl/jnl_file.h"
#include "jnl/jnl_seen_keys.h"
#include "store/descriptor.h"
#include "store/log.h"
#include "volume/discovery.h"
#include "volume/journal_drivers.h"
#include "volume/stop_signals.h"
#include "volume/swap_marker.h"

// Maps that are open at the same time while the table is replayed.
static constexpr int HANDLE_BATCH = 256;

// A volume with neither index nor table has nothing to check or replay. Prints for each of the two
// whether it exists, with the word `yes` or `no`.
static bool has_no_tables(const volume_paths* paths, const char* yes, const char* no) {
    const bool index = is_regular_file(paths->index) == 1;
    const bool table = is_regular_file(paths->table) == 1;
    if (index || table) {
        return false;
    }
    printf("TARN_INFO: FRI %s fripath %s exist\n", paths->index, index ? yes : no);
    printf("TARN_INFO: TBL %s tblpath %s exist\n", paths->table, table ? yes : no);
    return true;
}

// Lists the maps of the volume. 0; not 0, logged there and for `caller`.
static int list_maps(const char* caller, const volume_paths* paths, path_list* maps) {
    const int result = enum_all_vaai_luns(paths, &maps->head);
    if (result != 0) {
        log_err_as(caller, "Fail to enum all vaailuns on volumes %s\n", paths->root);
    }
    return result;
}

static int check_listed_map(volume_paths* paths, const path_entry* map) {
    set_map_path(paths, map->name);
    return stop_requested() || check_map_journal(paths) < 0 ? -1 : 0;
}

int check_vol_journal(volume_paths* paths) {
    const jnl_keep_blocks keep_blocks(&current_jnl);
    if (is_vaai_volume(paths->root) == 0) {
        return -1;
    }
    printf("TARN_INFO: CHECK volume %s\n", paths->root);
    (void)set_table_paths(paths, EP_DIR);  // logged; the load of an empty path fails
    if (prepare_jnl_path(paths) != 0) {
        return -1;
    }
    if (has_no_tables(paths, "does", "doesn't")) {
        printf("TARN_INFO: Skip CHECK volume %s\n", paths->root);
        return 0;
    }
    if (check_fri_journal(paths) != 0 || check_tbl_journal(paths) != 0) {
        return -1;
    }
    path_list maps;
    const int result = list_maps(__func__, paths, &maps);
    return result != 0 ? result : for_each_entry(&maps.head, [&](const path_entry* map) {
        return check_listed_map(paths, map);
    });
}

// Loads the maps into the handle set in batches, and replays the table once for each full batch and
// once more for the rest, even if that is empty. `applied` records over all passes which image each
// extent got. The caller releases the set.
static int replay_tbl_in_batches(const path_entry* maps, volume_paths* paths, option_scan* options,
                                 jnl_seen_keys* applied) {
    int loaded = 0;
    for (const path_entry* map = maps->next; map != maps; map = map->next) {
        if (stop_requested()) {
            return -1;
        }
        if (load_as_handle(map->name) != 0) {
            log_err_as("replay_vol_journal", "Fail to load %s on volumes %s for replaying TBL\n",
                       map->name, paths->root);
            return -1;
        }
        if (++loaded == HANDLE_BATCH) {
            if (replay_tbl_journal_pass(paths, options, applied) != 0) {
                return -1;
            }
            (void)finish_handle_set();  // what it could not close is logged
            loaded = 0;
        }
    }
    return replay_tbl_journal_pass(paths, options, applied) != 0 ? -1 : 0;
}

static int replay_tbl_with_maps(const path_entry* maps, volume_paths* paths, option_scan* options) {
    raise_open_file_limit();  // a batch of maps, and the files that are open anyway
    init_handle_set();
    jnl_seen_keys applied = {};
    const int result = replay_tbl_in_batches(maps, paths, options, &applied);
    jnl_seen_keys_free(&applied);
    (void)finish_handle_set();  // what it could not close is logged
    return result;
}

static int replay_listed_map(volume_paths* paths, option_scan* options, const path_entry* map) {
    set_map_path(paths, map->name);
    return stop_requested() || replay_map_journal(paths, options) < 0 ? -1 : 0;
}

int replay_vol_journal(volume_paths* paths, option_scan* options) {
    const jnl_keep_blocks keep_blocks(&current_jnl);
    if (is_vaai_volume(paths->root) == 0) {
        return -1;
    }
    printf("TARN_INFO: REPLAY volume %s\n", paths->root);
    if (table_swap_expect_pair(paths->root) != 0) {
        return -1;
    }
    (void)set_table_paths(paths, EP_DIR);  // logged; the load of an empty path fails
    if (prepare_jnl_path(paths) != 0) {
        return -1;
    }
    if (has_no_tables(paths, "is", "isn't")) {
        return 0;
    }
    if (replay_fri_journal(paths, options) != 0) {
        return -1;
    }
    path_list maps;
    int result = list_maps(__func__, paths, &maps);
    if (result == 0) {
        result = replay_tbl_with_maps(&maps.head, paths, options);
    }
    return result != 0 ? result : for_each_entry(&maps.head, [&](const path_entry* map) {
        return replay_listed_map(paths, options, map);
    });
}

int check_all_vol_journal(volume_paths* paths, option_scan* options) {
    const jnl_keep_blocks keep_blocks(&current_jnl);
    if (options->read(options, paths) != 0) {
        return -1;
    }
    return for_each_volume(__func__, [&](const char* root) {
        set_volume_root(paths, root);
        return check_vol_journal(paths) < 0 ? -1 : 0;
    });
}

int replay_all_vol_journal(volume_paths* paths, option_scan* options) {
    const jnl_keep_blocks keep_blocks(&current_jnl);
    if (options->read(options, paths) != 0) {
        return -1;
    }
    return for_each_volume(__func__, [&](const char* root) {
        set_volume_root(paths, root);
        return replay_vol_journal(paths, options) < 0 ? -1 : 0;
    });
}
