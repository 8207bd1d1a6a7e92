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

static int check_volume(const char* root, int argc, char** argv) {
    snprintf(opt_ctx.volpath, sizeof opt_ctx.volpath, "%s", root);
    set_live_table_paths(root);
    if (!has_all_three_files()) {
        printf("TARN_INFO: SKIP VAAI CONSISTENT CHECK, volume %s\n", root);
        return 0;
    }
    return check_metadata_consistent(argc, argv) < 0 ? -1 : 0;
}

int check_all_vol_metadata_consistent(int argc, char** argv) {
    return for_each_volume(__func__, check_volume, argc, argv);
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

// Runs `step` over the index and the table that the options name, as far as both load.
static int with_loaded_tables(const char* caller, int (*step)()) {
    int result = -1;
    if (load_fri(opt_ctx.fripath) != 0) {
        log_err_as(caller, "Fail to load FRI %s\n", opt_ctx.fripath);
    } else if (load_tbl(opt_ctx.tblpath) != 0) {
        log_err_as(caller, "Fail to load TBL %s\n", opt_ctx.tblpath);
    } else {
        result = step();
    }
    close_fri();
    close_tbl();
    return result;
}

int check_freelist_consistent() {
    return with_loaded_tables(__func__, check_group_list);
}

int fix_fri_tbl_metadata_to_consistent() {
    return with_loaded_tables(__func__, fix_fri_group_head);
}
