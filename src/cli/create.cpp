#include "cli/create.h"

#include "fri/fri_file.h"
#include "map/map_file.h"
#include "options.h"
#include "store/log.h"
#include "tbl/tbl_file.h"
#include "volume/run_lock.h"

// A path that was not given, in a log line.
static const char* shown(const char* path) {
    return path != nullptr ? path : "(null)";
}

int creat_fri_op(int argc, char** argv, int) {
    run_lock_scope held;
    if (parse_sub_options(argc, argv) != 0 || run_lock_file(&held.lock, opt_ctx.path) != 0) {
        return -1;
    }
    if (create_fri(opt_ctx.path, opt_ctx.oldpath) != 0) {
        log_err("Fail to create FRI %s from %s\n", shown(opt_ctx.path), shown(opt_ctx.oldpath));
    } else if (save_fri() != 0) {
        log_err("Fail to save FRI %s\n", shown(opt_ctx.path));
    }
    close_fri();
    return -1;  // also when it was created, deliberate
}

int creat_tbl_op(int argc, char** argv, int) {
    run_lock_scope held;
    if (parse_sub_options(argc, argv) != 0 || run_lock_file(&held.lock, opt_ctx.path) != 0) {
        return -1;
    }
    if (create_tbl(opt_ctx.path, opt_ctx.oldpath) != 0) {
        log_err("Fail to create TBL %s from %s\n", shown(opt_ctx.path), shown(opt_ctx.oldpath));
    } else if (save_tbl() != 0) {
        log_err("Fail to save TBL %s\n", shown(opt_ctx.path));
    }
    close_tbl();
    return -1;  // also when it was created, deliberate
}

int creat_map_op(int argc, char** argv, int) {
    run_lock_scope held;
    if (parse_sub_options(argc, argv) != 0 || run_lock_file(&held.lock, opt_ctx.path) != 0) {
        return -1;
    }
    if (create_map(opt_ctx.path, opt_ctx.oldpath) != 0) {
        log_err("Fail to create MAP %s from %s\n", shown(opt_ctx.path), shown(opt_ctx.oldpath));
    }
    close_map();  // the old one, where the creation stopped half way
    return -1;    // also when it was created, deliberate
}

int change_uuid_fri_op(int argc, char** argv, int) {
    run_lock_scope held;
    if (parse_sub_options(argc, argv) != 0 || run_lock_file(&held.lock, opt_ctx.fripath) != 0) {
        return -1;
    }
    if (load_fri(opt_ctx.fripath) != 0) {
        log_err("Fail to load FRI %s\n", opt_ctx.fripath);
        close_fri();
        return -1;
    }
    set_fri_uuid(opt_ctx.uuid);
    if (save_fri() != 0) {
        log_err("Fail to save FRI %s\n", shown(opt_ctx.path));  // not fripath, deliberate
    }
    close_fri();
    return 0;
}

int change_uuid_tbl_op(int argc, char** argv, int) {
    run_lock_scope held;
    if (parse_sub_options(argc, argv) != 0 || run_lock_file(&held.lock, opt_ctx.tblpath) != 0) {
        return -1;
    }
    if (load_tbl(opt_ctx.tblpath) != 0) {
        log_err("Fail to load TBL %s\n", opt_ctx.tblpath);
        close_tbl();
        return -1;
    }
    set_tbl_uuid(opt_ctx.uuid);
    if (save_tbl() != 0) {
        log_err("Fail to save TBL %s\n", shown(opt_ctx.path));  // not tblpath, deliberate
    }
    close_tbl();
    return 0;
}
