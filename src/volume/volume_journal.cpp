#include "volume/volume_journal.h"

#include <cstdio>

#include "handles/handle_set.h"
#include "jnl/jnl_block_cache.h"
#include "jnl/jnl_seen_keys.h"
#include "options.h"
#include "store/descriptor.h"
#include "store/log.h"
#include "volume/discovery.h"
#include "volume/journal_drivers.h"
#include "volume/path_list.h"
#include "volume/stop_signals.h"
#include "volume/swap_marker.h"
#include "volume/volume_paths.h"

// Maps that are open at a time while the table is replayed.
static constexpr int HANDLE_BATCH = 256;

// A volume with neither index nor table has nothing to check or replay. Says so with one of two
// words: `yes` or `no`.
static bool has_no_tables(const char* yes, const char* no) {
    const bool index = is_regular_file(opt_ctx.fripath) == 1;
    const bool table = is_regular_file(opt_ctx.tblpath) == 1;
    if (index || table) {
        return false;
    }
    printf("TARN_INFO: FRI %s fripath %s exist\n", opt_ctx.fripath, index ? yes : no);
    printf("TARN_INFO: TBL %s tblpath %s exist\n", opt_ctx.tblpath, table ? yes : no);
    return true;
}

using map_driver = int (*)(int argc, char** argv, int argument);

// Runs `driver` over the listed maps, up to the first that fails. 0 or -1.
static int for_each_map(const path_entry* maps, map_driver driver, int argc, char** argv) {
    for (const path_entry* map = maps->next; map != maps; map = map->next) {
        snprintf(opt_ctx.mappath, sizeof opt_ctx.mappath, "%s", map->name);
        if (stop_requested() || driver(argc, argv, 0) < 0) {
            return -1;
        }
    }
    return 0;
}

int check_vol_journal(int argc, char** argv, int) {
    const jnl_block_cache_scope blocks_stay;
    if (is_vaai_volume(opt_ctx.volpath) == 0) {
        return -1;
    }
    printf("TARN_INFO: CHECK volume %s\n", opt_ctx.volpath);
    set_live_table_paths(opt_ctx.volpath);
    if (prepare_jnl_path() != 0) {
        return -1;
    }
    if (has_no_tables("does", "doesn't")) {
        printf("TARN_INFO: Skip CHECK volume %s\n", opt_ctx.volpath);
        return 0;
    }
    if (check_fri_journal(argc, argv, 0) != 0 || check_tbl_journal(argc, argv, 0) != 0) {
        return -1;
    }
    path_entry maps = {};
    init_path_list(&maps);
    int result = enum_all_vaai_luns(&maps);
    if (result != 0) {
        log_err("Fail to enum all vaailuns on volumes %s\n", opt_ctx.volpath);
    } else {
        result = for_each_map(&maps, check_map_journal, argc, argv);
    }
    free_path_list(&maps);
    return result;
}

// Loads the maps into the handle set, as many at a time as a batch holds, and replays the table
// once for each full batch and once more for the rest, also an empty one. `applied` keeps over the
// passes which image each extent got. The caller releases the set.
static int replay_tbl_in_batches(const path_entry* maps, jnl_seen_keys* applied, int argc,
                                 char** argv) {
    int loaded = 0;
    for (const path_entry* map = maps->next; map != maps; map = map->next) {
        if (stop_requested()) {
            return -1;
        }
        if (load_as_handle(map->name) != 0) {
            log_err_as("replay_vol_journal", "Fail to load %s on volumes %s for replaying TBL\n",
                       map->name, opt_ctx.volpath);
            return -1;
        }
        if (++loaded == HANDLE_BATCH) {
            if (replay_tbl_journal_pass(argc, argv, applied) != 0) {
                return -1;
            }
            (void)finish_handle_set();  // what it could not close is logged
            loaded = 0;
        }
    }
    return replay_tbl_journal_pass(argc, argv, applied) != 0 ? -1 : 0;
}

static int replay_tbl_with_maps(const path_entry* maps, int argc, char** argv) {
    raise_open_file_limit();  // a batch of maps, and the files that are open anyway
    init_handle_set();
    jnl_seen_keys applied = {};
    const int result = replay_tbl_in_batches(maps, &applied, argc, argv);
    jnl_seen_keys_free(&applied);
    (void)finish_handle_set();  // what it could not close is logged
    return result;
}

int replay_vol_journal(int argc, char** argv, int) {
    const jnl_block_cache_scope blocks_stay;
    if (is_vaai_volume(opt_ctx.volpath) == 0) {
        return -1;
    }
    printf("TARN_INFO: REPLAY volume %s\n", opt_ctx.volpath);
    if (table_swap_expect_pair(opt_ctx.volpath) != 0) {
        return -1;
    }
    set_live_table_paths(opt_ctx.volpath);
    if (prepare_jnl_path() != 0) {
        return -1;
    }
    if (has_no_tables("is", "isn't")) {
        return 0;
    }
    if (replay_fri_journal(argc, argv, 0) != 0) {
        return -1;
    }
    path_entry maps = {};
    init_path_list(&maps);
    int result = enum_all_vaai_luns(&maps);
    if (result != 0) {
        log_err("Fail to enum all vaailuns on volumes %s\n", opt_ctx.volpath);
    } else {
        result = replay_tbl_with_maps(&maps, argc, argv);
    }
    if (result == 0) {
        result = for_each_map(&maps, replay_map_journal, argc, argv);
    }
    free_path_list(&maps);
    return result;
}

static int check_volume(const char* root, int argc, char** argv) {
    snprintf(opt_ctx.volpath, sizeof opt_ctx.volpath, "%s", root);
    return check_vol_journal(argc, argv, 0) < 0 ? -1 : 0;
}

int check_all_vol_journal(int argc, char** argv) {
    const jnl_block_cache_scope blocks_stay;
    if (parse_sub_options(argc, argv) != 0) {
        return -1;
    }
    return for_each_volume(__func__, check_volume, argc, argv);
}

static int replay_volume(const char* root, int argc, char** argv) {
    snprintf(opt_ctx.volpath, sizeof opt_ctx.volpath, "%s", root);
    return replay_vol_journal(argc, argv, 0) < 0 ? -1 : 0;
}

int replay_all_vol_journal(int argc, char** argv, int) {
    const jnl_block_cache_scope blocks_stay;
    if (parse_sub_options(argc, argv) != 0) {
        return -1;
    }
    return for_each_volume(__func__, replay_volume, argc, argv);
}
