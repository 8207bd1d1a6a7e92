#include "volume/journal_drivers.h"

#include <cstdio>

#include "jnl/jnl_check.h"
#include "jnl/jnl_replay.h"
#include "jnl/jnl_seen_keys.h"
#include "store/log.h"
#include "volume/metadata_files.h"

static int check_file(const char* caller, metadata_kind kind, const volume_paths* paths) {
    const metadata_kind_row* row = metadata_kind_of(kind);
    const char* path = paths->*row->path;
    printf("TARN_INFO: CHECK %s %s\n", row->title, path);
    return with_files(caller, paths, {kind, KIND_JNL}, [&] {
        if (jnl_file_type_check(row->type) != 0) {
            log_err_as(caller, "%s %s is not match with JNL %s\n", row->name, path, paths->journal);
            return -1;
        }
        printf("TARN_INFO: %s %s check successfully\n", row->name, path);
        return 0;
    });
}

int check_fri_journal(const volume_paths* paths) {
    return check_file(__func__, KIND_FRI, paths);
}

int check_tbl_journal(const volume_paths* paths) {
    return check_file(__func__, KIND_TBL, paths);
}

int check_map_journal(const volume_paths* paths) {
    return check_file(__func__, KIND_MAP, paths);
}

// Replays into the file of `kind`, once `loads` are loaded; `applied` as in the header.
static int replay_file(const char* caller, metadata_kind kind,
                       std::initializer_list<metadata_kind> loads, volume_paths* paths,
                       option_scan* options, jnl_seen_keys* applied) {
    if (options->read(options, paths) != 0) {
        return -1;
    }
    const metadata_kind_row* row = metadata_kind_of(kind);
    const char* path = paths->*row->path;
    printf("TARN_INFO: REPLAY %s %s\n", row->title, path);
    return with_files(caller, paths, loads, [&] {
        if (jnl_file_type_replay_pass(row->type, applied) != 0) {
            log_err_as(caller, "Fail to replay %s %s with JNL %s\n", row->name, path,
                       paths->journal);
            return -1;
        }
        if (kind != KIND_MAP) {  // a map gets no line, deliberate
            printf("TARN_INFO: %s %s replay successfully\n", row->name, path);
        }
        return 0;
    });
}

// A single pass.
static int replay_file_once(const char* caller, metadata_kind kind,
                            std::initializer_list<metadata_kind> loads, volume_paths* paths,
                            option_scan* options) {
    jnl_seen_keys applied = {};
    const int result = replay_file(caller, kind, loads, paths, options, &applied);
    jnl_seen_keys_free(&applied);
    return result;
}

// The table is loaded as well: a group that the journal initialises gets its free list there.
int replay_fri_journal(volume_paths* paths, option_scan* options) {
    return replay_file_once(__func__, KIND_FRI, {KIND_FRI, KIND_TBL, KIND_JNL}, paths, options);
}

int replay_tbl_journal(volume_paths* paths, option_scan* options) {
    return replay_file_once(__func__, KIND_TBL, {KIND_TBL, KIND_JNL}, paths, options);
}

int replay_map_journal(volume_paths* paths, option_scan* options) {
    return replay_file_once(__func__, KIND_MAP, {KIND_MAP, KIND_JNL}, paths, options);
}

int replay_tbl_journal_pass(volume_paths* paths, option_scan* options, jnl_seen_keys* applied) {
    return replay_file("replay_tbl_journal", KIND_TBL, {KIND_TBL, KIND_JNL}, paths, options,
                       applied);
}
