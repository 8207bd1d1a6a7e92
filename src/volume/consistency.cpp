#include "volume/consistency.h"

#include <cstdio>

#include "fri/fri_check.h"
#include "fri/fri_fix.h"
#include "fri/fri_link.h"
#include "store/log.h"
#include "volume/discovery.h"
#include "volume/metadata_files.h"

static int check_head_group(const volume_paths* paths) {
    printf("TARN_INFO: CHECK FRI %s TBL %s CONSISTENT\n", paths->index, paths->table);
    const int result = fri_check_group_head();
    if (result != 0) {
        log_err_as("check_metadata_consistent", "FRI %s TBL %s IS IN-CONSISTENT\n", paths->index,
                   paths->table);
    } else {
        printf("TARN_INFO: FRI %s TBL %s IS CONSISTENT\n", paths->index, paths->table);
    }
    return result;
}

int check_metadata_consistent(volume_paths* paths, option_scan* options) {
    if (options->read(options, paths) != 0) {
        return -1;
    }
    return with_files(__func__, paths, {KIND_FRI, KIND_TBL, KIND_JNL},
                      [&] { return check_head_group(paths); });
}

static bool has_all_three_files(const volume_paths* paths) {
    return is_regular_file(paths->journal) == 1 && is_regular_file(paths->table) == 1 &&
           is_regular_file(paths->index) == 1;
}

static int check_volume(volume_paths* paths, option_scan* options, const char* root) {
    set_volume_root(paths, root);
    (void)set_table_paths(paths, EP_DIR);  // logged; an empty path is no file
    if (!has_all_three_files(paths)) {
        printf("TARN_INFO: SKIP VAAI CONSISTENT CHECK, volume %s\n", root);
        return 0;
    }
    return check_metadata_consistent(paths, options) < 0 ? -1 : 0;
}

int check_all_vol_metadata_consistent(volume_paths* paths, option_scan* options) {
    return for_each_volume(__func__,
                           [&](const char* root) { return check_volume(paths, options, root); });
}

int check_loaded_freelists(const char* caller, const volume_paths* paths) {
    printf("TARN_INFO: CHECK FRI %s TBL %s Free-List CONSISTENCY\n", paths->index, paths->table);
    const int result = fri_check_free_group_list();
    if (result != 0) {
        log_err_as(caller, "FreeList IS IN-CONSISTENT\n");
    } else {
        puts("TARN_INFO: FreeList IS CONSISTENT");
    }
    return result;
}

int check_freelist_consistent(const volume_paths* paths) {
    const char* const name = __func__;
    return with_files(name, paths, {KIND_FRI, KIND_TBL},
                      [&] { return check_loaded_freelists(name, paths); });
}

int fix_fri_tbl_metadata_to_consistent(const volume_paths* paths) {
    return with_files(__func__, paths, {KIND_FRI, KIND_TBL}, fix_fri_group_head);
}

static int link_loaded_tables() {
    if (tarn_link_fri_group() != 0) {
        log_err_as("finalize", "Fail to finalize the link process\n");
        return -1;
    }
    return 0;
}

int finalize(const volume_paths* paths) {
    return with_files(__func__, paths, {KIND_FRI, KIND_TBL}, link_loaded_tables);
}
