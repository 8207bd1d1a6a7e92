#include "volume/reconstruct.h"

#include <cstdio>

#include "fri/fri_file.h"
#include "fri/fri_link.h"
#include "options.h"
#include "print.h"
#include "store/keep_journal.h"
#include "tbl/tbl_file.h"
#include "volume/dat_file.h"
#include "volume/import_volume.h"
#include "volume/volume_paths.h"
#include "volume/work_dir.h"

struct live_paths {
    char dat[PATH_TEXT_SIZE];
    char tbl[PATH_TEXT_SIZE];
    char fri[PATH_TEXT_SIZE];
};

static int form_live_paths(live_paths* paths) {
    const char* root = opt_ctx.volpath;
    const bool fit = dat_file_path(paths->dat, root, 0) == 0 &&
                     form_path(paths->tbl, sizeof paths->tbl, "%s/%s/EP_TBL", root, EP_DIR) == 0 &&
                     form_path(paths->fri, sizeof paths->fri, "%s/%s/EP_FRI", root, EP_DIR) == 0;
    return fit ? 0 : -1;
}

static int load_rebuilt() {
    const char* root = opt_ctx.volpath;
    if (form_path(opt_ctx.fripath, sizeof opt_ctx.fripath, "%s/%s/EP_FRI", root, FIX_DIR) != 0 ||
        form_path(opt_ctx.tblpath, sizeof opt_ctx.tblpath, "%s/%s/EP_TBL", root, FIX_DIR) != 0) {
        return -1;
    }
    if (load_fri(opt_ctx.fripath) != 0) {
        printf("TARN_INFO: Fail to load FRI %s\n", opt_ctx.fripath);
        return -1;
    }
    if (load_tbl(opt_ctx.tblpath) != 0) {
        printf("TARN_INFO: Fail to load TBL %s\n", opt_ctx.tblpath);
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
static int set_uuids(const live_paths* live, const dat_handle* dat) {
    bool fri_gone = false;
    bool tbl_gone = false;
    if (is_gone(live->fri, &fri_gone) != 0 || is_gone(live->tbl, &tbl_gone) != 0) {
        return -1;
    }
    if (fri_gone) {
        set_fri_uuid(dat->header.head.uuid);
        if (save_fri() != 0) {
            printf("TARN_INFO: Fail to save FRI %s\n", opt_ctx.fripath);
            return -1;
        }
    }
    if (tbl_gone) {
        set_tbl_uuid(dat->header.head.uuid);
        if (save_tbl() != 0) {
            printf("TARN_INFO: Fail to save TBL %s\n", opt_ctx.tblpath);
            return -1;
        }
    }
    return 0;
}

static int rebuild_and_link(const live_paths* live, const dat_handle* dat) {
    if (do_import_volume(FIX_DIR) < 0 || load_rebuilt() != 0 || set_uuids(live, dat) != 0) {
        return -1;
    }
    if (tarn_link_fri_group() != 0) {
        log_err_as("do_reconstruct_volume", "Fail to finalize the link process\n");
        return -1;
    }
    return 0;
}

// Some writes fail without a result of their own: a table that misses one must replace no other.
static int all_done_since(uint64_t failed_before) {
    const uint64_t failed = keep_journal_failures().count - failed_before;
    if (failed != 0) {
        log_err_as("do_reconstruct_volume", "%llu reads, writes or syncs of %s failed\n",
                   ull(failed), opt_ctx.volpath);
        return -1;
    }
    return 0;
}

static int reconstruct_with(const live_paths* live, dat_handle* dat) {
    const uint64_t failed_before = keep_journal_failures().count;
    int result = rebuild_and_link(live, dat);
    close_fri();
    close_tbl();
    (void)close_dat_handle(dat);
    if (result == 0) {
        result = all_done_since(failed_before);
    }
    if (result != 0) {
        remove_work_dir(FIX_DIR);
    }
    return result;
}

int do_reconstruct_volume() {
    printf("TARN_INFO: CHECK volume '%s'\n", opt_ctx.volpath);
    live_paths live;
    if (form_live_paths(&live) != 0) {
        return -1;
    }
    if (is_regular_file(live.dat) == 0) {
        printf("TARN_INFO: Fail to reconstruct '%s', dat metadata files missing (%s)\n",
               opt_ctx.volpath, live.dat);
        return -1;
    }
    dat_handle dat{};
    if (load_dat_handle(&dat, live.dat) != 0) {
        log_err("Fail to load DAT (%s)\n", live.dat);
        return -1;
    }
    return reconstruct_with(&live, &dat);
}
