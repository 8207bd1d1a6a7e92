#include "volume/import_volume.h"

#include <cstdio>

#include "fri/fri_entries.h"
#include "fri/fri_file.h"
#include "map/map_file.h"
#include "store/descriptor.h"
#include "store/keep_journal.h"
#include "tbl/tbl_file.h"
#include "volume/discovery.h"
#include "volume/import.h"
#include "volume/import_list.h"
#include "volume/map_check.h"
#include "volume/metadata_files.h"
#include "volume/stop_signals.h"
#include "volume/work_dir.h"

static constexpr mode_t WORK_DIR_MODE = 0700;
static constexpr const char* IMPORT_TITLE = "import MAP";

// One rebuild: of which volume, and where.
struct volume_rebuild {
    volume_paths live;  // and the map in hand
    volume_paths made;
    char dir[PATH_TEXT_SIZE];
    int32_t repair;
    linked_groups* linked;
    int (*confirm)(const volume_paths* paths);
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

static int import_loaded_map(const volume_rebuild* rebuild, int32_t kind, import_tally* tally) {
    const char* root = rebuild->live.root;
    if (rebuild->repair != 0) {
        printf("TARN_INFO: check and repair MAP(%s)\n", rebuild->live.map);
        if (do_check_map(kind, rebuild->repair, root) != 0) {
            return -1;
        }
    }
    printf("TARN_INFO: %s(%s)\n", IMPORT_TITLE, rebuild->live.map);
    return import_map(kind, root, tally) < 0 ? -1 : 0;
}

static int import_listed_map(void* context, const path_entry* map, import_tally* tally) {
    if (stop_requested()) {
        return -1;
    }
    auto* rebuild = static_cast<volume_rebuild*>(context);
    set_map_path(&rebuild->live, map->name);
    const int result = load_files("do_import_volume", &rebuild->live, {KIND_MAP}) == 0
                           ? import_loaded_map(rebuild, static_cast<int32_t>(map->type), tally)
                           : -1;
    close_map();
    return result;
}

// Lists the maps, and imports them with `import_all`, as far as the first that fails.
template <class ImportAll>
static int import_listed_maps(volume_rebuild* rebuild, ImportAll import_all) {
    path_list maps;
    const int result = enum_all_vaai_luns(&rebuild->live, &maps.head);
    if (result != 0) {
        log_err_as("do_import_volume", "Fail to enum all vaailuns on volumes %s\n",
                   rebuild->live.root);
        return result;
    }
    return import_all({&maps.head, rebuild->live.root, true, rebuild->linked, rebuild->repair != 0,
                       IMPORT_TITLE, nullptr, rebuild, import_listed_map});
}

static void print_rebuilt(const volume_rebuild* rebuild) {
    printf("TARN_INFO: Rebuild EP_TBL: (%s)\n", rebuild->made.table);
    printf("TARN_INFO: Rebuild EP_FRI: (%s)\n", rebuild->made.index);
}

static int rebuild_in(volume_rebuild* rebuild) {
    if (create_files(rebuild) != 0 || import_listed_maps(rebuild, import_listed) != 0) {
        return -1;
    }
    print_rebuilt(rebuild);
    return 0;
}

static int print_and_confirm(void* context) {
    auto* rebuild = static_cast<volume_rebuild*>(context);
    print_rebuilt(rebuild);
    return rebuild->confirm(&rebuild->live);
}

// The same, but where the live table agrees and is confirmed, no entry is written.
static int rebuild_to_compare(volume_rebuild* rebuild, bool* agrees) {
    if (create_files(rebuild) != 0) {
        return -1;
    }
    const int result = import_listed_maps(rebuild, [&](const import_job& job) {
        return import_to_compare(job, rebuild->live.table, print_and_confirm, agrees);
    });
    if (result == 0 && !*agrees) {
        print_rebuilt(rebuild);
    }
    return result != 0 ? -1 : 0;
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

int do_import_volume(const volume_paths* paths, const char* dir_name, int32_t repair,
                     linked_groups* linked) {
    volume_rebuild rebuild = {*paths, *paths, {}, repair, linked, nullptr};
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
    volume_rebuild rebuild = {*paths, *paths, {}, repair, nullptr, confirm};
    if (start_rebuild(&rebuild, dir_name) != 0) {
        return -1;
    }
    const int result = rebuild_to_compare(&rebuild, agrees);
    close_tbl();
    close_fri();
    return result;
}
