#include "volume/one_key.h"

#include <cerrno>
#include <cstdio>

#include "fri/fri_check.h"
#include "fri/fri_file.h"
#include "map/map_file.h"
#include "options.h"
#include "store/descriptor.h"
#include "store/log.h"
#include "tbl/tbl_file.h"
#include "volume/discovery.h"
#include "volume/full_check.h"
#include "volume/map_check.h"
#include "volume/path_list.h"
#include "volume/reconstruct.h"
#include "volume/stop_signals.h"
#include "volume/table_swap.h"
#include "volume/volume_journal.h"
#include "volume/volume_paths.h"
#include "volume/work_dir.h"

// Whether there is a file at the path, as far as the system says.
static bool is_absent(const char* path) {
    struct stat64 status = {};
    return io_stat(path, &status) != 0 &&
           (errno == ENOENT || errno == ENOTDIR || errno == ENAMETOOLONG);
}

// Finishes the swap that this run began, or one that was cut.
static int finish_swap(const table_swap* swap) {
    if (table_swap_finish(swap) != 0) {
        return -1;  // logged; FIX_DIR holds the only finished files and stays
    }
    remove_work_dir(FIX_DIR);
    return 0;
}

static int rebuild_and_swap(table_swap* swap) {
    const int result = stop_requested() ? -1 : do_reconstruct_volume();
    if (result != 0) {
        return result;
    }
    if (stop_requested()) {
        remove_work_dir(FIX_DIR);  // as after a rebuild that failed
        return -1;
    }
    return table_swap_begin(swap) == 0 ? finish_swap(swap) : -1;
}

// A volume is rebuilt from its maps even if the journal cannot be replayed: said at the end, where
// it is seen. Without a journal there was nothing to replay.
static int replay_rebuild_and_swap(table_swap* swap, int argc, char** argv) {
    const bool replayed = replay_vol_journal(argc, argv, 0) == 0;
    const bool no_journal = opt_ctx.jnlpath[0] != '\0' && is_absent(opt_ctx.jnlpath);
    const int result = rebuild_and_swap(swap);
    if (!replayed && !no_journal) {
        log_err_as("one_key_repair", "the journal was not replayed into %s\n", opt_ctx.volpath);
    }
    return result;
}

int one_key_repair(int argc, char** argv, int) {
    table_swap swap;
    if (table_swap_form(&swap, opt_ctx.volpath) != 0) {
        return -1;
    }
    switch (table_swap_find(&swap)) {
        case swap_found::unknown:
            return -1;  // logged there
        case swap_found::marker:
            return stop_requested() ? -1 : finish_swap(&swap);
        case swap_found::outdated:
            log_err_as("one_key_repair", "%s/%s is older than the live files: rebuilding again\n",
                       opt_ctx.volpath, FIX_DIR);
            if (table_swap_forget(&swap) != 0) {
                return -1;
            }
            remove_work_dir(FIX_DIR);
            [[fallthrough]];
        default:
            return replay_rebuild_and_swap(&swap, argc, argv);
    }
}

static int check_table() {
    const int result = rebuild_and_compare();
    remove_work_dir(CHECK_DIR);
    return result;
}

static int check_listed_map(const path_entry* map) {
    snprintf(opt_ctx.mappath, sizeof opt_ctx.mappath, "%s", map->name);
    int result = -1;
    if (load_map(opt_ctx.mappath) != 0) {
        log_err_as("one_key_check_all_vol", "Fail to load MAP %s\n", opt_ctx.mappath);
    } else {
        const int32_t kind = static_cast<int32_t>(map->type);
        result = do_check_map(kind, opt_ctx.repair, opt_ctx.volpath);
        if (result < 0) {
            log_err_as("one_key_check_all_vol", "do_check_map error(%d)\n", result);
        }
    }
    close_map();
    return result < 0 ? -1 : 0;
}

static int check_maps() {
    path_entry maps = {};
    init_path_list(&maps);
    int result = enum_all_vaai_luns(&maps);
    if (result != 0) {
        log_err_as("one_key_check_all_vol", "Fail to enum all volumes\n");  // deliberate words
    }
    for (const path_entry* map = maps.next; map != &maps && result == 0; map = map->next) {
        result = stop_requested() ? -1 : check_listed_map(map);
    }
    free_path_list(&maps);
    return result;
}

static void report_free_lists() {
    printf("TARN_INFO: CHECK FRI %s TBL %s Free-List CONSISTENCY\n", opt_ctx.fripath,
           opt_ctx.tblpath);
    if (fri_check_free_group_list() == 0) {
        puts("TARN_INFO: FreeList IS CONSISTENT");
    } else {
        log_err_as("one_key_check_all_vol", "FreeList IS IN-CONSISTENT\n");
    }
}

static int check_free_lists() {
    int result = -1;
    if (load_fri(opt_ctx.fripath) != 0) {
        log_err_as("one_key_check_all_vol", "Fail to load FRI %s\n", opt_ctx.fripath);
    } else if (load_tbl(opt_ctx.tblpath) != 0) {
        log_err_as("one_key_check_all_vol", "Fail to load TBL %s\n", opt_ctx.tblpath);
    } else {
        report_free_lists();
        result = 0;
    }
    close_fri();
    close_tbl();
    return result;
}

static void choose_volume(const char* root) {
    snprintf(opt_ctx.volpath, sizeof opt_ctx.volpath, "%s", root);
}

static int check_volume(const char* root, int argc, char** argv) {
    if (stop_requested()) {
        return -1;
    }
    choose_volume(root);
    (void)get_jnl_root_path();                // deliberate: the replay reports what is missing
    (void)replay_vol_journal(argc, argv, 0);  // deliberate: checked all the same
    choose_volume(root);                      // the replay's options may have named another one
    set_live_table_paths(root);
    if (check_table() != 0 || check_maps() != 0 || check_free_lists() != 0) {
        return -1;
    }
    remove_work_dir(CHECK_DIR);
    return 0;
}

int one_key_check_all_vol(int argc, char** argv, int) {
    return for_each_volume(__func__, check_volume, argc, argv);
}
