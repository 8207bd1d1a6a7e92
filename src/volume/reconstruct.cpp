#include "volume/reconstruct.h"

#include <cstdio>

#include "fri/fri_file.h"
#include "fri/fri_link.h"
#include "print.h"
#include "store/keep_journal.h"
#include "store/zero_memory.h"
#include "tbl/tbl_file.h"
#include "volume/dat_file.h"
#include "volume/import_volume.h"
#include "volume/work_dir.h"

constexpr size_t LINKED_SIZE = LINKED_GROUPS_MAX * sizeof(linked_group);

struct volume_reconstruction {
    volume_paths live;
    volume_paths made;  // in FIX_DIR
    char dat_path[PATH_TEXT_SIZE];
    dat_handle dat;        // the first data file, open
    linked_groups linked;  // groups whose lists the import has linked
};

static int load_rebuilt(volume_reconstruction* volume) {
    volume_paths* made = &volume->made;
    if (set_table_paths(made, FIX_DIR) != 0) {
        return -1;
    }
    if (load_fri(made->index) != 0) {
        printf("TARN_INFO: %s %s\n", FRI_LOAD_FAILED, made->index);
        return -1;
    }
    if (load_tbl(made->table) != 0) {
        printf("TARN_INFO: %s %s\n", TBL_LOAD_FAILED, made->table);
        return -1;
    }
    return 0;
}

// Whether the live file is gone, through `gone`. -1, logged, when that is not certain.
static int is_gone(const char* live, bool* gone) {
    const path_kind kind = kind_of_path("do_reconstruct_volume", live);
    *gone = kind != path_kind::file;
    return kind == path_kind::unknown ? -1 : 0;
}

// A rebuilt file whose live one is gone had no uuid to take over: it gets the data file's.
static int set_uuids(const volume_reconstruction* volume) {
    const volume_paths* live = &volume->live;
    const uint8_t* uuid = volume->dat.header.head.uuid;
    bool fri_gone = false;
    bool tbl_gone = false;
    if (is_gone(live->index, &fri_gone) != 0 || is_gone(live->table, &tbl_gone) != 0) {
        return -1;
    }
    if (fri_gone) {
        set_fri_uuid(uuid);
        if (save_fri() != 0) {
            printf("TARN_INFO: Fail to save FRI %s\n", volume->made.index);
            return -1;
        }
    }
    if (tbl_gone) {
        set_tbl_uuid(uuid);
        if (save_tbl() != 0) {
            printf("TARN_INFO: Fail to save TBL %s\n", volume->made.table);
            return -1;
        }
    }
    return 0;
}

static int rebuild_and_link(volume_reconstruction* volume, int32_t repair) {
    linked_groups* linked = &volume->linked;
    if (do_import_volume(&volume->live, FIX_DIR, repair, linked) < 0 || load_rebuilt(volume) != 0 ||
        set_uuids(volume) != 0) {
        return -1;
    }
    if (tarn_link_fri_group(linked) != 0) {
        log_err_as("do_reconstruct_volume", "Fail to finalize the link process\n");
        return -1;
    }
    return 0;
}

// Some writes fail without a result of their own: a table that misses one must replace no other.
static int all_done_since(const char* root, uint64_t failed_before) {
    const uint64_t failed = keep_journal_failures().count - failed_before;
    if (failed != 0) {
        log_err_as("do_reconstruct_volume", "%llu reads, writes or syncs of %s failed\n",
                   ull(failed), root);
        return -1;
    }
    return 0;
}

// With the data file open.
static int reconstruct(volume_reconstruction* volume, int32_t repair) {
    const char* root = volume->live.root;
    const uint64_t failed_before = keep_journal_failures().count;
    int result = rebuild_and_link(volume, repair);
    close_fri();
    close_tbl();
    (void)close_dat_handle(&volume->dat);
    if (result == 0) {
        result = all_done_since(root, failed_before);
    }
    if (result != 0) {
        remove_work_dir(root, FIX_DIR);
    }
    return result;
}

int do_reconstruct_volume(const volume_paths* paths, int32_t repair) {
    volume_reconstruction volume = {*paths, *paths, {}, {}, {}};
    const char* dat_path = volume.dat_path;
    printf("TARN_INFO: CHECK volume '%s'\n", paths->root);
    if (dat_file_path(volume.dat_path, paths->root, 0) != 0 ||
        set_table_paths(&volume.live, EP_DIR) != 0) {
        return -1;
    }
    if (is_regular_file(dat_path) == 0) {
        printf("TARN_INFO: Fail to reconstruct '%s', dat metadata files missing (%s)\n",
               paths->root, dat_path);
        return -1;
    }
    if (load_dat_handle(&volume.dat, dat_path) != 0) {
        log_err("Fail to load DAT (%s)\n", dat_path);
        return -1;
    }
    volume.linked.at = static_cast<linked_group*>(zero_memory(LINKED_SIZE));
    volume.linked.room = volume.linked.at != nullptr ? LINKED_GROUPS_MAX : 0;
    const int result = reconstruct(&volume, repair);
    zero_memory_free(volume.linked.at, LINKED_SIZE);
    return result;
}
