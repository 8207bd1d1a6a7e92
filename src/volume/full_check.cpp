#include "volume/full_check.h"

#include <cstdio>

#include "fri/fri_file.h"
#include "options.h"
#include "print.h"
#include "store/log.h"
#include "tbl/tbl_compare.h"
#include "tbl/tbl_entries.h"
#include "tbl/tbl_file.h"
#include "volume/import_volume.h"
#include "volume/volume_paths.h"
#include "volume/work_dir.h"

static constexpr const char* FULL_CHECK = "do_check_full_tbl_consistent";  // tells the log

static int open_tbl(tbl_handle* handle, const char* dir_name) {
    char path[PATH_TEXT_SIZE];
    if (form_path(path, sizeof path, "%s/%s/EP_TBL", opt_ctx.volpath, dir_name) != 0) {
        return -1;
    }
    if (load_tbl_handle(handle, path) != 0) {
        log_err_as(FULL_CHECK, "Fail to load TBL (%s)\n", path);
        return -1;
    }
    return 0;
}

static int open_fri(fri_handle* handle, const char* dir_name) {
    char path[PATH_TEXT_SIZE];
    if (form_path(path, sizeof path, "%s/%s/EP_FRI", opt_ctx.volpath, dir_name) != 0) {
        return -1;
    }
    if (load_fri_handle(handle, path) != 0) {
        log_err_as(FULL_CHECK, "Fail to load FRI (%s)\n", path);
        return -1;
    }
    return 0;
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
static int check_consistent(bool known_to_agree) {
    tbl_handle was{};
    tbl_handle rebuilt{};
    fri_handle index{};
    int result = -1;
    if (open_tbl(&was, EP_DIR) == 0 && open_tbl(&rebuilt, CHECK_DIR) == 0 &&
        open_fri(&index, CHECK_DIR) == 0) {
        result =
            known_to_agree ? 0 : compare_up_to_groups(&was, &rebuilt, index.header.fri_group_count);
    }
    (void)close_fri_handle(&index);  // one that is not open is skipped
    (void)close_tbl_handle(&rebuilt);
    (void)close_tbl_handle(&was);
    return result;
}

int do_check_full_tbl_consistent() {
    return check_consistent(false);
}

static int open_what_agrees() {
    return check_consistent(true);
}

int rebuild_and_compare() {
    bool agrees = false;
    if (do_import_volume_to_compare(CHECK_DIR, open_what_agrees, &agrees) < 0) {
        return -1;
    }
    return agrees || check_consistent(false) == 0 ? 0 : -1;
}

int check_full_volume() {
    if (rebuild_and_compare() != 0) {
        return -1;
    }
    remove_work_dir(CHECK_DIR);
    return 0;
}
