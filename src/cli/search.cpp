#include "cli/search.h"

#include "cli/search_options.h"
#include "fri/fri_entries.h"
#include "fri/fri_file.h"
#include "jnl/jnl_dump.h"
#include "jnl/jnl_file.h"
#include "map/map_entries.h"
#include "map/map_file.h"
#include "options.h"
#include "store/log.h"
#include "tbl/tbl_file.h"
#include "tbl/tbl_show.h"
#include "volume/volume_paths.h"

// The displays' results are dropped below, deliberate: what failed is logged where it did, and a
// display that was reached counts as done.

static void tell_no_mode(const search_options* options) {
    log_err_as(options->handler, "No cmd execute\n");
}

static constexpr search_option fri_table[] = {
    {'m', 0, 1, nullptr, nullptr},
    {'g', 0, 2, &search_request::group, nullptr},
    {},
};
static constexpr search_options fri_options = {"search_fri", "mg:p:", opt_ctx.fripath, fri_table,
                                               close_fri};

static void display_fri(const search_request& request) {
    switch (request.mode) {
        case 1:
            (void)dump_fri_meta();
            break;
        case 2:
            (void)dump_fri_group(request.group);
            break;
        default:
            tell_no_mode(&fri_options);
    }
}

int search_fri(int argc, char** argv, int) {
    search_request request = {};
    if (scan_search_options(argc, argv, &fri_options, &request) != 0) {
        return -1;  // logged there
    }
    if (opt_ctx.fripath[0] == '\0') {
        log_err("Please assign -p fripath\n");
        return -1;
    }
    if (load_fri(opt_ctx.fripath) != 0) {
        log_err("Fail to load FRI %s\n", opt_ctx.fripath);
        close_fri();
        return -1;
    }
    display_fri(request);
    close_fri();
    return 0;
}

static constexpr search_option tbl_table[] = {
    {'m', 0, 1, nullptr, nullptr},
    {'g', 'o', 2, &search_request::group, nullptr},
    {'o', 'g', 3, &search_request::offset, nullptr},
    {'a', 0, 4, &search_request::address, nullptr},
    {'l', 0, 0, nullptr, &search_request::list_entries},
    {'h', 0, 0, nullptr, &search_request::head_only},
    {},
};
static constexpr search_options tbl_options = {"search_tbl", "ma:g:o:p:lh", opt_ctx.tblpath,
                                               tbl_table, close_tbl};

static void display_tbl(const search_request& request) {
    switch (request.mode) {
        case 1:
            (void)dump_tbl_meta();
            break;
        case 2:
            (void)list_tbl_group_freelist(request.group, request.list_entries, request.head_only);
            break;
        case 3:
            (void)show_tbl_group_offset(request.group, request.offset);
            break;
        case 4:
            (void)show_tbl_lpa(request.address);
            break;
        default:
            tell_no_mode(&tbl_options);
    }
}

int search_tbl(int argc, char** argv, int) {
    search_request request = {};
    if (scan_search_options(argc, argv, &tbl_options, &request) != 0) {
        return -1;  // logged there
    }
    if (opt_ctx.tblpath[0] == '\0') {
        log_err("Please assign -p tblpath\n");
        return -1;
    }
    if (load_tbl(opt_ctx.tblpath) != 0) {
        log_err("Fail to load TBL %s\n", opt_ctx.tblpath);
        close_tbl();
        return -1;
    }
    display_tbl(request);
    close_tbl();
    return 0;
}

static constexpr search_option map_table[] = {
    {'m', 0, 1, nullptr, nullptr},
    {'a', 0, 2, &search_request::address, nullptr},
    {},
};
static constexpr search_options map_options = {"search_map", "ma:p:", opt_ctx.mappath, map_table,
                                               close_map};

static void display_map(const search_request& request) {
    switch (request.mode) {
        case 1:
            (void)dump_map_meta();
            break;
        case 2:
            (void)dump_map_entry(request.address);
            break;
        default:
            tell_no_mode(&map_options);
    }
}

int search_map(int argc, char** argv, int) {
    search_request request = {};
    if (scan_search_options(argc, argv, &map_options, &request) != 0) {
        return -1;  // logged there
    }
    if (opt_ctx.mappath[0] == '\0') {
        log_err("Please assign -p mappath\n");
        return -1;
    }
    if (load_map(opt_ctx.mappath) != 0) {
        log_err("Fail to load MAP %s\n", opt_ctx.mappath);
        close_map();
        return -1;
    }
    display_map(request);
    close_map();
    return 0;
}

static constexpr search_option jnl_table[] = {
    {'m', 0, 1, nullptr, nullptr},
    {'b', 0, 2, &search_request::block, nullptr},
    {'t', 0, 3, &search_request::trans_id, nullptr},
    {'s', 0, 0, &search_request::start, nullptr},
    {'d', 0, 0, nullptr, &search_request::dump_blocks},
    {'l', 0, 0, nullptr, &search_request::trace_blocks},
    {'x', 0, 0, nullptr, &search_request::detail},
    {},
};
static constexpr search_options jnl_options = {"search_jnl", "b:t:s:dxlmp:", opt_ctx.jnlpath,
                                               jnl_table, close_jnl};

static void display_jnl(const search_request& request) {
    switch (request.mode) {
        case 1:
            (void)dump_jnl_meta();
            break;
        case 2:
            (void)dump_jnl_block(request.block, request.detail);
            break;
        case 3:
            (void)dump_jnl_transaction(static_cast<uint32_t>(request.trans_id), request.start,
                                       request.dump_blocks, request.trace_blocks, request.detail);
            break;
        default:
            tell_no_mode(&jnl_options);
    }
}

int search_jnl(int argc, char** argv, int) {
    search_request request = {};
    if (scan_search_options(argc, argv, &jnl_options, &request) != 0) {
        return -1;  // logged there
    }
    if (opt_ctx.jnlpath[0] == '\0' && get_jnl_root_path() != 0) {
        log_err("Please assign -p jnlpath, use default JNL %s\n", opt_ctx.jnlpath);
    }
    if (load_jnl(opt_ctx.jnlpath) != 0) {
        log_err("Fail to load JNL %s\n", opt_ctx.jnlpath);
        close_jnl();
        return -1;
    }
    display_jnl(request);
    close_jnl();
    return 0;
}
