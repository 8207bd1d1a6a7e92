#include "volume/consistency.h"

#include <cstdio>

#include "fri/fri_check.h"
#include "fri/fri_file.h"
#include "fri/fri_fix.h"
#include "jnl/jnl_file.h"
#include "options.h"
#include "store/log.h"
#include "tbl/tbl_file.h"
#include "volume/discovery.h"
#include "volume/path_list.h"
#include "volume/volume_paths.h"

static int check_head_group() {
    printf("TARN_INFO: CHECK FRI %s TBL %s CONSISTENT\n", opt_ctx.fripath, opt_ctx.tblpath);
    const int result = fri_check_group_head();
    if (result != 0) {
        log_err_as("check_metadata_consistent", "FRI %s TBL %s IS IN-CONSISTENT\n", opt_ctx.fripath,
                   opt_ctx.tblpath);
    } else {
        printf("TARN_INFO: FRI %s TBL %s IS CONSISTENT\n", opt_ctx.fripath, opt_ctx.tblpath);
    }
    return result;
}

int check_metadata_consistent(int argc, char** argv) {
    if (parse_sub_options(argc, argv) != 0) {
        return -1;
    }
    int result = -1;
    if (load_fri(opt_ctx.fripath) != 0) {
        log_err("Fail to load FRI %s\n", opt_ctx.fripath);
    } else if (load_tbl(opt_ctx.tblpath) != 0) {
        log_err("Fail to load TBL %s\n", opt_ctx.tblpath);
    } else if (load_jnl(opt_ctx.jnlpath) != 0) {  // not read here, and yet it must load: deliberate
        log_err("Fail to load JNL %s\n", opt_ctx.jnlpath);
    } else {
        result = check_head_group();
    }
    close_fri();
    close_tbl();
    close_jnl();
    return result;
}

static bool has_all_three_files() {
    return is_regular_file(opt_ctx.jnlpath) == 1 && is_regular_file(opt_ctx.tblpath) == 1 &&
           is_regular_file(opt_ctx.fripath) == 1;
}

int check_all_vol_metadata_consistent(int argc, char** argv) {
    path_entry volumes = {};
    init_path_list(&volumes);
    int result = enum_all_volumes(&volumes);
    if (result != 0) {
        log_err("Fail to enum all volumes\n");
    }
    for (const path_entry* volume = volumes.next; volume != &volumes && result == 0;
         volume = volume->next) {
        snprintf(opt_ctx.volpath, sizeof opt_ctx.volpath, "%s", volume->name);
        set_live_table_paths(volume->name);
        if (!has_all_three_files()) {
            printf("TARN_INFO: SKIP VAAI CONSISTENT CHECK, volume %s\n", volume->name);
        } else if (check_metadata_consistent(argc, argv) < 0) {
            result = -1;
        }
    }
    free_path_list(&volumes);
    return result;
}

static int check_group_list() {
    printf("TARN_INFO: CHECK FRI %s TBL %s Free-List CONSISTENCY\n", opt_ctx.fripath,
           opt_ctx.tblpath);
    const int result = fri_check_free_group_list();
    if (result != 0) {
        log_err_as("check_freelist_consistent", "FreeList IS IN-CONSISTENT\n");
    } else {
        puts("TARN_INFO: FreeList IS CONSISTENT");
    }
    return result;
}

int check_freelist_consistent() {
    int result = -1;
    if (load_fri(opt_ctx.fripath) != 0) {
        log_err("Fail to load FRI %s\n", opt_ctx.fripath);
    } else if (load_tbl(opt_ctx.tblpath) != 0) {
        log_err("Fail to load TBL %s\n", opt_ctx.tblpath);
    } else {
        result = check_group_list();
    }
    close_fri();
    close_tbl();
    return result;
}

int fix_fri_tbl_metadata_to_consistent() {
    int result = -1;
    if (load_fri(opt_ctx.fripath) != 0) {
        log_err("Fail to load FRI %s\n", opt_ctx.fripath);
    } else if (load_tbl(opt_ctx.tblpath) != 0) {
        log_err("Fail to load TBL %s\n", opt_ctx.tblpath);
    } else {
        result = fix_fri_group_head();
    }
    close_fri();
    close_tbl();
    return result;
}
