#include "volume/import_volume.h"

#include <cstdio>
#include <fcntl.h>

#include "fri/fri_entries.h"
#include "fri/fri_file.h"
#include "map/map_file.h"
#include "store/descriptor.h"
#include "store/keep_journal.h"
#include "tbl/tbl_file.h"
#include "tbl/tbl_ref_compare.h"
#include "tbl/tbl_ref_counts.h"
#include "volume/discovery.h"
#include "volume/import.h"
#include "volume/map_check.h"
#include "volume/metadata_files.h"
#include "volume/stop_signals.h"
#include "volume/work_dir.h"

static constexpr mode_t WORK_DIR_MODE = 0700;

// One rebuild: of which volume, and where.
struct volume_rebuild {
    volume_paths live;  // and the map in hand
    volume_paths made;
    char dir[PATH_TEXT_SIZE];
    int32_t repair;
};

static int form_paths(volume_rebuild* rebuild, const char* dir_name) {
    return form_path(rebuild->dir, sizeof rebuild->dir, "%s/%s", rebuild->live.root, dir_name) ==
                       0 &&
                   set_table_paths(&rebuild->made, dir_name) == 0 &&
                   set_table_paths(&rebuild->live, EP_DIR) == 0
               ? 0
               : -1;
}

// A lost index gets a fresh uuid here. One that is there keeps its own, or gets the table's.
static int create_index(const volume_rebuild* rebuild) {
    switch (kind_of_path("do_import_volume", rebuild->live.index)) {
        case path_kind::unknown:
            return -1;  // logged there
        case path_kind::absent:
            return create_fri(rebuild->made.index, rebuild->live.index);
        default:
            return recreate_fri(rebuild->made.index, rebuild->live.index,
                                current_tbl.header.tbl_uuid);
    }
}

static int create_files(const volume_rebuild* rebuild) {
    if (recreate_tbl(rebuild->made.table, rebuild->live.table) != 0) {
        log_err_as("do_import_volume", "Fail to create TBL %s from %s\n", rebuild->made.table,
                   rebuild->live.table);
        return -1;
    }
    if (save_tbl() != 0) {
        log_err_as("do_import_volume", "Fail to save TBL %s\n", rebuild->made.table);
        return -1;
    }
    if (create_index(rebuild) != 0) {
        log_err_as("do_import_volume", "Fail to create FRI %s from %s\n", rebuild->made.index,
                   rebuild->live.index);
        return -1;
    }
    if (save_fri() != 0) {
        log_err_as("do_import_volume", "Fail to save FRI %s\n", rebuild->made.index);
        return -1;
    }
    return 0;
}

static int import_loaded_map(const volume_rebuild* rebuild, int32_t kind, tbl_ref_counts* counts) {
    const char* root = rebuild->live.root;
    if (rebuild->repair != 0) {
        printf("TARN_INFO: check and repair MAP(%s)\n", rebuild->live.map);
        if (do_check_map(kind, rebuild->repair, root) != 0) {
            return -1;
        }
    }
    printf("TARN_INFO: import MAP(%s)\n", rebuild->live.map);
    return import_map(kind, root, counts) < 0 ? -1 : 0;
}

static int import_listed_map(volume_rebuild* rebuild, const path_entry* map,
                             tbl_ref_counts* counts) {
    if (stop_requested()) {
        return -1;
    }
    set_map_path(&rebuild->live, map->name);
    const int result = load_files("do_import_volume", &rebuild->live, {KIND_MAP}) == 0
                           ? import_loaded_map(rebuild, static_cast<int32_t>(map->type), counts)
                           : -1;
    close_map();
    return result;
}

// Whether the live table agrees with the counts. False if that cannot be decided in memory: the
// comparison on disk decides it then.
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
static int import_listed_maps(volume_rebuild* rebuild, tbl_ref_counts* counts) {
    path_list maps;
    const int result = enum_all_vaai_luns(&rebuild->live, &maps.head);
    if (result != 0) {
        log_err_as("do_import_volume", "Fail to enum all vaailuns on volumes %s\n",
                   rebuild->live.root);
        return result;
    }
    return for_each_entry(
        &maps.head, [&](const path_entry* map) { return import_listed_map(rebuild, map, counts); });
}

static void print_rebuilt(const volume_rebuild* rebuild) {
    printf("TARN_INFO: Rebuild EP_TBL: (%s)\n", rebuild->made.table);
    printf("TARN_INFO: Rebuild EP_FRI: (%s)\n", rebuild->made.index);
}

static int rebuild_in(volume_rebuild* rebuild) {
    if (create_files(rebuild) != 0) {
        return -1;
    }
    tbl_ref_counts* counts = tbl_ref_counts_open(tarn_fri_set_init_bit);
    const int imported = import_listed_maps(rebuild, counts);
    if (finish_import(counts) != 0 || imported != 0) {
        return -1;
    }
    print_rebuilt(rebuild);
    return 0;
}

// The same, but where the live table agrees and `confirm` does too, no entry is written.
static int rebuild_to_compare(volume_rebuild* rebuild, int (*confirm)(const volume_paths* paths),
                              bool* agrees) {
    if (create_files(rebuild) != 0) {
        return -1;
    }
    tbl_ref_counts* counts = tbl_ref_counts_open(tarn_fri_set_init_bit);
    int result = import_listed_maps(rebuild, counts);
    const bool agreed = result == 0 && agrees_with(rebuild->live.table, counts);
    if (agreed) {
        print_rebuilt(rebuild);
        result = confirm(&rebuild->live);
    }
    if (agreed && result == 0) {
        *agrees = true;
        tbl_ref_counts_drop(counts);
        return 0;
    }
    if (finish_import(counts) != 0 || result != 0) {
        return -1;
    }
    print_rebuilt(rebuild);
    return 0;
}

// Makes the work directory. 0, or -1, logged: nothing was made.
static int start_rebuild(volume_rebuild* rebuild, const char* dir_name) {
    const char* root = rebuild->live.root;
    if (is_vaai_volume(root) != 1 || form_paths(rebuild, dir_name) != 0) {
        return -1;
    }
    if (io_mkdir(rebuild->dir, WORK_DIR_MODE) != 0) {  // an existing one, or a link: never entered
        log_err_as("do_import_volume", "Fail to mkdir(%s)\n", rebuild->dir);
        return -1;
    }
    printf("TARN_INFO: import volume %s\n", root);
    return 0;
}

int do_import_volume(const volume_paths* paths, const char* dir_name, int32_t repair) {
    volume_rebuild rebuild = {*paths, *paths, {}, repair};
    if (start_rebuild(&rebuild, dir_name) != 0) {
        return -1;
    }
    const uint64_t failed_before = keep_journal_failures().count;
    const int result = rebuild_in(&rebuild);
    close_tbl();
    close_fri();
    if (result != 0 || keep_journal_failures().count != failed_before) {
        return -1;  // logged where it failed
    }
    // The closes have put the files on the disk; their names are in these two.
    return sync_directory(rebuild.dir) == 0 && sync_directory(rebuild.live.root) == 0 ? 0 : -1;
}

int do_import_volume_to_compare(const volume_paths* paths, const char* dir_name, int32_t repair,
                                int (*confirm)(const volume_paths* paths), bool* agrees) {
    *agrees = false;
    volume_rebuild rebuild = {*paths, *paths, {}, repair};
    if (start_rebuild(&rebuild, dir_name) != 0) {
        return -1;
    }
    const int result = rebuild_to_compare(&rebuild, confirm, agrees);
    close_tbl();
    close_fri();
    return result;
}
