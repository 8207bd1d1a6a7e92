#include "volume/import_volume.h"

#include <cstdio>
#include <fcntl.h>

#include "fri/fri_entries.h"
#include "fri/fri_file.h"
#include "map/map_file.h"
#include "options.h"
#include "store/descriptor.h"
#include "store/keep_journal.h"
#include "tbl/tbl_file.h"
#include "tbl/tbl_ref_compare.h"
#include "tbl/tbl_ref_counts.h"
#include "volume/discovery.h"
#include "volume/import.h"
#include "volume/map_check.h"
#include "volume/path_list.h"
#include "volume/stop_signals.h"
#include "volume/volume_paths.h"
#include "volume/work_dir.h"

static constexpr mode_t WORK_DIR_MODE = 0700;

struct rebuild_paths {
    char dir[PATH_TEXT_SIZE];
    char new_tbl[PATH_TEXT_SIZE];
    char old_tbl[PATH_TEXT_SIZE];
    char new_fri[PATH_TEXT_SIZE];
    char old_fri[PATH_TEXT_SIZE];
};

static int form_paths(rebuild_paths* paths, const char* dir_name) {
    const char* root = opt_ctx.volpath;
    const size_t size = PATH_TEXT_SIZE;
    const bool fit = form_path(paths->dir, size, "%s/%s", root, dir_name) == 0 &&
                     form_path(paths->new_tbl, size, "%s/%s/EP_TBL", root, dir_name) == 0 &&
                     form_path(paths->old_tbl, size, "%s/%s/EP_TBL", root, EP_DIR) == 0 &&
                     form_path(paths->new_fri, size, "%s/%s/EP_FRI", root, dir_name) == 0 &&
                     form_path(paths->old_fri, size, "%s/%s/EP_FRI", root, EP_DIR) == 0;
    return fit ? 0 : -1;
}

// A lost index gets a fresh uuid here. One that is there keeps its own, or gets the table's.
static int create_index(const rebuild_paths* paths) {
    switch (kind_of_path("do_import_volume", paths->old_fri)) {
        case path_kind::unknown:
            return -1;  // logged there
        case path_kind::absent:
            return create_fri(paths->new_fri, paths->old_fri);
        default:
            return recreate_fri(paths->new_fri, paths->old_fri, current_tbl.header.tbl_uuid);
    }
}

static int create_files(const rebuild_paths* paths) {
    if (recreate_tbl(paths->new_tbl, paths->old_tbl) != 0) {
        log_err_as("do_import_volume", "Fail to create TBL %s from %s\n", paths->new_tbl,
                   paths->old_tbl);
        return -1;
    }
    if (save_tbl() != 0) {
        log_err_as("do_import_volume", "Fail to save TBL %s\n", paths->new_tbl);
        return -1;
    }
    if (create_index(paths) != 0) {
        log_err_as("do_import_volume", "Fail to create FRI %s from %s\n", paths->new_fri,
                   paths->old_fri);
        return -1;
    }
    if (save_fri() != 0) {
        log_err_as("do_import_volume", "Fail to save FRI %s\n", paths->new_fri);
        return -1;
    }
    return 0;
}

static int import_loaded_map(int32_t kind, tbl_ref_counts* counts) {
    const char* root = opt_ctx.volpath;
    if (opt_ctx.repair != 0) {
        printf("TARN_INFO: check and repair MAP(%s)\n", opt_ctx.mappath);
        if (do_check_map(kind, opt_ctx.repair, root) != 0) {
            return -1;
        }
    }
    printf("TARN_INFO: import MAP(%s)\n", opt_ctx.mappath);
    return import_map(kind, root, counts) < 0 ? -1 : 0;
}

static int import_listed_map(const path_entry* map, tbl_ref_counts* counts) {
    snprintf(opt_ctx.mappath, sizeof opt_ctx.mappath, "%s", map->name);
    int result = -1;
    if (load_map(opt_ctx.mappath) != 0) {
        log_err_as("do_import_volume", "Fail to load MAP %s\n", opt_ctx.mappath);
    } else {
        result = import_loaded_map(static_cast<int32_t>(map->type), counts);
    }
    close_map();
    return result;
}

// Whether the live table says what was counted. What it cannot tell, the comparison on disk does.
static bool agrees_with(const char* live_tbl, tbl_ref_counts* counts) {
    const int fd = counts != nullptr ? io_open(live_tbl, O_RDONLY, 0) : -1;
    const uint64_t groups = current_fri.header.fri_group_count;
    const bool agrees = fd > 0 && tbl_ref_counts_agree(counts, fd, groups);
    if (fd > 0) {
        io_close(fd);
    }
    return agrees;
}

// Every listed map, up to the first that fails.
static int import_listed_maps(tbl_ref_counts* counts) {
    path_entry maps = {};
    init_path_list(&maps);
    int result = enum_all_vaai_luns(&maps);
    if (result != 0) {
        log_err_as("do_import_volume", "Fail to enum all vaailuns on volumes %s\n",
                   opt_ctx.volpath);
    }
    for (const path_entry* map = maps.next; map != &maps && result == 0; map = map->next) {
        result = stop_requested() ? -1 : import_listed_map(map, counts);
    }
    free_path_list(&maps);
    return result;
}

static void print_rebuilt(const rebuild_paths* paths) {
    printf("TARN_INFO: Rebuild EP_TBL: (%s/EP_TBL)\n", paths->dir);
    printf("TARN_INFO: Rebuild EP_FRI: (%s/EP_FRI)\n", paths->dir);
}

static int rebuild_in(const rebuild_paths* paths) {
    if (create_files(paths) != 0) {
        return -1;
    }
    tbl_ref_counts* counts = tbl_ref_counts_open(tarn_fri_set_init_bit);
    const int imported = import_listed_maps(counts);
    if (finish_import(counts) != 0 || imported != 0) {
        return -1;
    }
    print_rebuilt(paths);
    return 0;
}

// The same, but where the live table agrees and `confirm` does too, no entry is written.
static int rebuild_to_compare(const rebuild_paths* paths, int (*confirm)(), bool* agrees) {
    if (create_files(paths) != 0) {
        return -1;
    }
    tbl_ref_counts* counts = tbl_ref_counts_open(tarn_fri_set_init_bit);
    int result = import_listed_maps(counts);
    const bool agreed = result == 0 && agrees_with(paths->old_tbl, counts);
    if (agreed) {
        print_rebuilt(paths);
        result = confirm();
    }
    if (agreed && result == 0) {
        *agrees = true;
        tbl_ref_counts_drop(counts);
        return 0;
    }
    if (finish_import(counts) != 0 || result != 0) {
        return -1;
    }
    print_rebuilt(paths);
    return 0;
}

// Makes the work directory. 0, or -1, logged: nothing was made.
static int start_rebuild(const char* dir_name, rebuild_paths* paths) {
    if (is_vaai_volume(opt_ctx.volpath) != 1 || form_paths(paths, dir_name) != 0) {
        return -1;
    }
    if (io_mkdir(paths->dir, WORK_DIR_MODE) != 0) {  // an existing one, or a link: never entered
        log_err_as("do_import_volume", "Fail to mkdir(%s)\n", paths->dir);
        return -1;
    }
    printf("TARN_INFO: import volume %s\n", opt_ctx.volpath);
    return 0;
}

int do_import_volume(const char* dir_name) {
    rebuild_paths paths;
    if (start_rebuild(dir_name, &paths) != 0) {
        return -1;
    }
    const uint64_t failed_before = keep_journal_failures().count;
    const int result = rebuild_in(&paths);
    close_tbl();
    close_fri();
    if (result != 0 || keep_journal_failures().count != failed_before) {
        return -1;  // logged where it failed
    }
    // The closes have put the files on the disk; their names are in these two.
    return sync_directory(paths.dir) == 0 && sync_directory(opt_ctx.volpath) == 0 ? 0 : -1;
}

int do_import_volume_to_compare(const char* dir_name, int (*confirm)(), bool* agrees) {
    *agrees = false;
    rebuild_paths paths;
    if (start_rebuild(dir_name, &paths) != 0) {
        return -1;
    }
    const int result = rebuild_to_compare(&paths, confirm, agrees);
    close_tbl();
    close_fri();
    return result;
}
