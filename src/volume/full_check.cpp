#include "volume/full_check.h"

#include <cstdio>

#include "fri/fri_file.h"
#include "print.h"
#include "store/log.h"
#include "tbl/tbl_compare.h"
#include "tbl/tbl_entries.h"
#include "tbl/tbl_file.h"
#include "volume/import_volume.h"
#include "volume/volume_paths.h"
#include "volume/work_dir.h"

static constexpr const char* FULL_CHECK = "do_check_full_tbl_consistent";  // in the log

// Opens the file `name` in a directory of the volume; `failed` is how the message begins.
template <class Handle>
static int open_handle(Handle* handle, int (*load)(Handle*, const char*, file_access),
                       const char* failed, const char* root, const char* dir_name,
                       const char* name) {
    char path[PATH_TEXT_SIZE];
    if (form_path(path, sizeof path, "%s/%s/%s", root, dir_name, name) != 0) {
        return -1;
    }
    if (load(handle, path, file_access::read_write) != 0) {
        log_err_as(FULL_CHECK, "%s (%s)\n", failed, path);
        return -1;
    }
    return 0;
}

static int open_tbl(tbl_handle* handle, const char* root, const char* dir_name) {
    return open_handle(handle, load_tbl_handle, TBL_LOAD_FAILED, root, dir_name, TABLE_NAME);
}

static int open_fri(fri_handle* handle, const char* root, const char* dir_name) {
    return open_handle(handle, load_fri_handle, FRI_LOAD_FAILED, root, dir_name, INDEX_NAME);
}

// 0 when both say the same of `lpa`: free, or used by equally many.
static int compare_entries(const tbl_entry* was, const tbl_entry* rebuilt, uint64_t lpa) {
    const int was_used = tbl_entry_is_used(was) ? 1 : 0;
    const int rebuilt_used = tbl_entry_is_used(rebuilt) ? 1 : 0;
    if (was_used != rebuilt_used) {
        log_err_as(FULL_CHECK, "TBL: used bit mismatch, lpa(%llu), (old, new)=(%d, %d)\n", ull(lpa),
                   was_used, rebuilt_used);
        return -1;
    }
    const int was_count = tbl_entry_count(was);
    const int rebuilt_count = tbl_entry_count(rebuilt);
    if (was_used == 1 && was_count != rebuilt_count) {
        log_err_as(FULL_CHECK, "TBL: refer-cnt mismatch, lpa(%llu), (old, new)=(%d, %d)\n",
                   ull(lpa), was_count, rebuilt_count);
        return -1;
    }
    return 0;
}

static int compare_tables(tbl_handle* was, tbl_handle* rebuilt, uint64_t entries) {
    for (uint64_t lpa = 0; lpa < entries; lpa++) {
        lpa = tbl_agree_up_to(was->fd, rebuilt->fd, lpa, entries);
        if (lpa == entries) {
            break;
        }
        tbl_entry was_entry{};
        tbl_entry rebuilt_entry{};
        if (tbl_handle_entry_read(was, &was_entry, lpa) < 0) {
            log_err_as(FULL_CHECK, "old tbl_handle_entry_read error lpa(%llu)\n", ull(lpa));
            return -1;
        }
        if (tbl_handle_entry_read(rebuilt, &rebuilt_entry, lpa) < 0) {
            log_err_as(FULL_CHECK, "new tbl_handle_entry_read error lpa(%llu)\n", ull(lpa));
            return -1;
        }
        if (compare_entries(&was_entry, &rebuilt_entry, lpa) != 0) {
            return -1;
        }
    }
    return 0;
}

// The rebuild sets init bits and links nothing, so the index counts the groups up to the highest
// one that a map refers to.
static int compare_up_to_groups(tbl_handle* was, tbl_handle* rebuilt, uint64_t groups) {
    if (groups > FRI_GROUP_CAPACITY) {
        log_err_as(FULL_CHECK, "group count %llu is more than an index holds\n", ull(groups));
        return -1;
    }
    return compare_tables(was, rebuilt, groups * TBL_GROUP_ENTRIES);
}

// `known_to_agree`: the files are only opened.
static int check_consistent(const char* root, bool known_to_agree) {
    tbl_handle was{};
    tbl_handle rebuilt{};
    fri_handle index{};
    int result = -1;
    if (open_tbl(&was, root, EP_DIR) == 0 && open_tbl(&rebuilt, root, CHECK_DIR) == 0 &&
        open_fri(&index, root, CHECK_DIR) == 0) {
        result =
            known_to_agree ? 0 : compare_up_to_groups(&was, &rebuilt, index.header.fri_group_count);
    }
    (void)close_fri_handle(&index);  // one that is not open is skipped
    (void)close_tbl_handle(&rebuilt);
    (void)close_tbl_handle(&was);
    return result;
}

int do_check_full_tbl_consistent(const volume_paths* paths) {
    return check_consistent(paths->root, false);
}

static int open_what_agrees(const volume_paths* paths) {
    return check_consistent(paths->root, true);
}

int rebuild_and_compare(const volume_paths* paths, int32_t repair) {
    bool agrees = false;
    if (do_import_volume_to_compare(paths, CHECK_DIR, repair, open_what_agrees, &agrees) < 0) {
        return -1;
    }
    return agrees || check_consistent(paths->root, false) == 0 ? 0 : -1;
}

int check_full_volume(const volume_paths* paths, int32_t repair) {
    if (rebuild_and_compare(paths, repair) != 0) {
        return -1;
    }
    remove_work_dir(paths->root, CHECK_DIR);
    return 0;
}
