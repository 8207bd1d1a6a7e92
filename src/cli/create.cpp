#include "cli/create.h"

#include <cstdint>

#include "cli/operations.h"
#include "cli/sub_options.h"
#include "fri/fri_file.h"
#include "map/map_file.h"
#include "options.h"
#include "store/log.h"
#include "tbl/tbl_file.h"
#include "volume/metadata_files.h"
#include "volume/run_lock.h"

// A path for a log line; it may be missing.
static const char* shown(const char* path) {
    return path != nullptr ? path : "(null)";
}

struct create_row {
    const char* caller;  // in the log
    metadata_kind kind;
    int (*create)(const char* newpath, const char* oldpath);
    int (*save)();  // null: `create` saves the file
};

// Always closes the file, which may be the old one if the creation stopped halfway. Always -1, even
// if the file was created, deliberate.
static int create_file_of_kind(const create_row& row, int argc, char** argv) {
    run_lock_scope held;
    if (parse_sub_options(argc, argv) != 0 || run_lock_file(&held.lock, opt_ctx.path) != 0) {
        return -1;
    }
    const metadata_kind_row* kind = metadata_kind_of(row.kind);
    if (row.create(opt_ctx.path, opt_ctx.oldpath) != 0) {
        log_err_as(row.caller, "Fail to create %s %s from %s\n", kind->name, shown(opt_ctx.path),
                   shown(opt_ctx.oldpath));
    } else if (row.save != nullptr && row.save() != 0) {
        log_err_as(row.caller, "Fail to save %s %s\n", kind->name, shown(opt_ctx.path));
    }
    kind->close();
    return -1;
}

int creat_fri_op(int argc, char** argv, int) {
    return create_file_of_kind({__func__, KIND_FRI, create_fri, save_fri}, argc, argv);
}

int creat_tbl_op(int argc, char** argv, int) {
    return create_file_of_kind({__func__, KIND_TBL, create_tbl, save_tbl}, argc, argv);
}

int creat_map_op(int argc, char** argv, int) {
    return create_file_of_kind({__func__, KIND_MAP, create_map, nullptr}, argc, argv);
}

struct change_uuid_row {
    const char* caller;  // in the log
    metadata_kind kind;
    void (*set_uuid)(const uint8_t* uuid);
    int (*save)();
};

static int change_uuid(const change_uuid_row& row, int argc, char** argv) {
    run_lock_scope held;
    if (parse_sub_options(argc, argv) != 0) {
        return -1;
    }
    const volume_paths paths = paths_of_options();
    const metadata_kind_row* kind = metadata_kind_of(row.kind);
    if (run_lock_file(&held.lock, paths.*kind->path) != 0) {
        return -1;
    }
    return with_files(row.caller, &paths, {row.kind}, [&] {
        row.set_uuid(opt_ctx.uuid);
        if (row.save() != 0) {  // --path instead of the file's own path, deliberate
            log_err_as(row.caller, "Fail to save %s %s\n", kind->name, shown(opt_ctx.path));
        }
        return 0;
    });
}

int change_uuid_fri_op(int argc, char** argv, int) {
    return change_uuid({__func__, KIND_FRI, set_fri_uuid, save_fri}, argc, argv);
}

int change_uuid_tbl_op(int argc, char** argv, int) {
    return change_uuid({__func__, KIND_TBL, set_tbl_uuid, save_tbl}, argc, argv);
}
