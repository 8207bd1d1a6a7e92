#include "volume/one_key.h"

#include <cstdio>

#include "fri/fri_check.h"
#include "fri/fri_file.h"
#include "map/map_file.h"
#include "options.h"
#include "store/log.h"
#include "tbl/tbl_file.h"
#include "volume/discovery.h"
#include "volume/full_check.h"
#include "volume/map_check.h"
#include "volume/path_list.h"
#include "volume/reconstruct.h"
#include "volume/volume_journal.h"
#include "volume/volume_paths.h"
#include "volume/work_dir.h"

static constexpr size_t SWAP_PATH_SIZE = 256;

struct swap_paths {
    char live[SWAP_PATH_SIZE];
    char backup[SWAP_PATH_SIZE];
    char rebuilt[SWAP_PATH_SIZE];
};

static int form_swap_paths(swap_paths* paths, const char* name) {
    const char* root = opt_ctx.volpath;
    const size_t size = SWAP_PATH_SIZE;
    const bool fit = form_path(paths->live, size, "%s/%s/%s", root, EP_DIR, name) == 0 &&
                     form_path(paths->backup, size, "%s/%s/%s.bkp", root, EP_DIR, name) == 0 &&
                     form_path(paths->rebuilt, size, "%s/%s/%s", root, FIX_DIR, name) == 0;
    return fit ? 0 : -1;
}

// Results are not looked at, deliberate: where there is no live file, there is nothing to keep.
static void swap_in(const swap_paths* paths) {
    (void)rename(paths->live, paths->backup);
    (void)rename(paths->rebuilt, paths->live);
}

int one_key_repair(int argc, char** argv, int) {
    swap_paths tbl;
    swap_paths fri;
    if (form_swap_paths(&tbl, "EP_TBL") != 0 || form_swap_paths(&fri, "EP_FRI") != 0) {
        return -1;
    }
    (void)replay_vol_journal(argc, argv, 0);  // deliberate: rebuilt from the maps all the same
    const int result = do_reconstruct_volume();
    if (result != 0) {
        return result;
    }
    swap_in(&tbl);
    swap_in(&fri);
    remove_work_dir(FIX_DIR);
    return 0;
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
        log_err_as("one_key_check_all_vol", "Fail to load MAP %s\n",
                   shown_name(opt_ctx.mappath).text);
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
        result = check_listed_map(map);
    }
    free_path_list(&maps);
    return result;
}

static void tell_free_lists() {
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
        tell_free_lists();
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
    choose_volume(root);
    (void)get_jnl_root_path();                // deliberate: the replay tells what is missing
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
