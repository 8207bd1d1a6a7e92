#include "volume/one_key.h"

#include <cerrno>
#include <cstdio>

#include "store/descriptor.h"
#include "store/log.h"
#include "volume/consistency.h"
#include "volume/discovery.h"
#include "volume/full_check.h"
#include "volume/map_check.h"
#include "volume/metadata_files.h"
#include "volume/reconstruct.h"
#include "volume/stop_signals.h"
#include "volume/table_swap.h"
#include "volume/volume_journal.h"
#include "volume/work_dir.h"

// Whether there is a file at the path, as far as the system says.
static bool is_absent(const char* path) {
    struct stat64 status = {};
    return io_stat(path, &status) != 0 &&
           (errno == ENOENT || errno == ENOTDIR || errno == ENAMETOOLONG);
}

// Finishes the swap that this run began, or an interrupted one.
static int finish_swap(const table_swap* swap, const char* root) {
    if (table_swap_finish(swap) != 0) {
        return -1;  // logged; FIX_DIR holds the only finished files and stays
    }
    remove_work_dir(root, FIX_DIR);
    return 0;
}

static int rebuild_and_swap(table_swap* swap, const volume_paths* paths, int32_t repair) {
    const int result = stop_requested() ? -1 : do_reconstruct_volume(paths, repair);
    if (result != 0) {
        return result;
    }
    if (stop_requested()) {
        remove_work_dir(paths->root, FIX_DIR);  // as after a rebuild that failed
        return -1;
    }
    return table_swap_begin(swap) == 0 ? finish_swap(swap, paths->root) : -1;
}

// A volume is rebuilt from its maps even if the journal cannot be replayed: logged at the end,
// where it is seen. Without a journal there was nothing to replay.
static int replay_rebuild_and_swap(table_swap* swap, volume_paths* paths, option_scan* options) {
    const bool replayed = replay_vol_journal(paths, options) == 0;
    const bool no_journal = paths->journal[0] != '\0' && is_absent(paths->journal);
    const int result = rebuild_and_swap(swap, paths, options->repair);
    if (!replayed && !no_journal) {
        log_err_as("one_key_repair", "the journal was not replayed into %s\n", paths->root);
    }
    return result;
}

int one_key_repair(volume_paths* paths, option_scan* options) {
    table_swap swap;
    if (table_swap_form(&swap, paths->root) != 0) {
        return -1;
    }
    switch (table_swap_find(&swap)) {
        case swap_found::unknown:
            return -1;  // logged there
        case swap_found::marker:
            return stop_requested() ? -1 : finish_swap(&swap, paths->root);
        case swap_found::outdated:
            log_err("%s/%s is older than the live files: rebuilding again\n", paths->root, FIX_DIR);
            if (table_swap_forget(&swap) != 0) {
                return -1;
            }
            remove_work_dir(paths->root, FIX_DIR);
            [[fallthrough]];
        default:
            return replay_rebuild_and_swap(&swap, paths, options);
    }
}

static constexpr const char* CHECK = "one_key_check_all_vol";  // its steps log under its name

static int check_table(const volume_paths* paths, int32_t repair) {
    const int result = rebuild_and_compare(paths, repair);
    remove_work_dir(paths->root, CHECK_DIR);
    return result;
}

static int check_listed_map(volume_paths* paths, int32_t repair, const path_entry* map) {
    if (stop_requested()) {
        return -1;
    }
    set_map_path(paths, map->name);
    return with_files(CHECK, paths, {KIND_MAP}, [&] {
        const int result = do_check_map(static_cast<int32_t>(map->type), repair, paths->root);
        if (result < 0) {
            log_err_as(CHECK, "do_check_map error(%d)\n", result);
        }
        return result < 0 ? -1 : 0;
    });
}

static int check_maps(volume_paths* paths, int32_t repair) {
    path_list maps;
    const int result = enum_all_vaai_luns(paths, &maps.head);
    if (result != 0) {
        log_err_as(CHECK, "Fail to enum all volumes\n");  // deliberate text
        return result;
    }
    return for_each_entry(
        &maps.head, [&](const path_entry* map) { return check_listed_map(paths, repair, map); });
}

static int check_free_lists(const volume_paths* paths) {
    return with_files(CHECK, paths, {KIND_FRI, KIND_TBL}, [&] {
        (void)check_loaded_freelists(CHECK, paths);  // deliberate: not a failure
        return 0;
    });
}

static int check_volume(volume_paths* paths, option_scan* options, const char* root) {
    if (stop_requested()) {
        return -1;
    }
    set_volume_root(paths, root);
    (void)get_jnl_root_path(paths);            // deliberate: the replay reports what is missing
    (void)replay_vol_journal(paths, options);  // deliberate: the volume is checked anyway
    set_volume_root(paths, root);              // the options may have named another one
    (void)set_table_paths(paths, EP_DIR);      // logged; the load of an empty path fails
    if (check_table(paths, options->repair) != 0 || check_maps(paths, options->repair) != 0 ||
        check_free_lists(paths) != 0) {
        return -1;
    }
    remove_work_dir(root, CHECK_DIR);
    return 0;
}

int one_key_check_all_vol(volume_paths* paths, option_scan* options) {
    return for_each_volume(__func__,
                           [&](const char* root) { return check_volume(paths, options, root); });
}
