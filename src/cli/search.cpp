#include "cli/search.h"

#include "cli/operations.h"
#include "cli/search_options.h"
#include "fri/fri_entries.h"
#include "jnl/jnl_dump.h"
#include "map/map_entries.h"
#include "map/map_file.h"
#include "options.h"
#include "store/log.h"
#include "tbl/tbl_file.h"
#include "tbl/tbl_show.h"
#include "volume/metadata_files.h"

// The displays' results are dropped below, deliberate: a failure is logged where it is found, and a
// display that was reached counts as done.

struct search_row {
    metadata_kind kind;
    search_options options;
    bool (*display)(const search_request& request);  // false: no display has that number
};

// A journal that is not named is the configured one; every other file must be named.
static bool has_path(const search_row& row) {
    if (row.options.path[0] != '\0') {
        return true;
    }
    const char* option = metadata_kind_of(row.kind)->option;
    if (row.kind != KIND_JNL) {
        log_err_as(row.options.handler, "Please assign -p %s\n", option);
        return false;
    }
    if (get_jnl_root_path() != 0) {
        log_err_as(row.options.handler, "Please assign -p %s, use default JNL %s\n", option,
                   row.options.path);
    }
    return true;
}

static int search(const search_row& row, int argc, char** argv) {
    search_request request = {};
    if (scan_search_options(argc, argv, &row.options, &request) != 0 || !has_path(row)) {
        return -1;  // logged there
    }
    const volume_paths paths = paths_of_options();
    return with_files(row.options.handler, &paths, {row.kind}, [&] {
        if (!row.display(request)) {
            log_err_as(row.options.handler, "No cmd execute\n");
        }
        return 0;
    });
}

static constexpr search_option fri_table[] = {
    {'m', 0, 1, nullptr, nullptr},
    {'g', 0, 2, &search_request::group, nullptr},
    {},
};

static bool display_fri(const search_request& request) {
    switch (request.mode) {
        case 1:
            (void)dump_fri_meta();
            return true;
        case 2:
            (void)dump_fri_group(request.group);
            return true;
        default:
            return false;
    }
}

int search_fri(int argc, char** argv, int) {
    return search({KIND_FRI, {__func__, "mg:p:", opt_ctx.fripath, fri_table}, display_fri}, argc,
                  argv);
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

static bool display_tbl(const search_request& request) {
    switch (request.mode) {
        case 1:
            (void)dump_tbl_meta();
            return true;
        case 2:
            (void)list_tbl_group_freelist(request.group, request.list_entries, request.head_only);
            return true;
        case 3:
            (void)show_tbl_group_offset(request.group, request.offset);
            return true;
        case 4:
            (void)show_tbl_lpa(request.address);
            return true;
        default:
            return false;
    }
}

int search_tbl(int argc, char** argv, int) {
    return search({KIND_TBL, {__func__, "ma:g:o:p:lh", opt_ctx.tblpath, tbl_table}, display_tbl},
                  argc, argv);
}

static constexpr search_option map_table[] = {
    {'m', 0, 1, nullptr, nullptr},
    {'a', 0, 2, &search_request::address, nullptr},
    {},
};

static bool display_map(const search_request& request) {
    switch (request.mode) {
        case 1:
            (void)dump_map_meta();
            return true;
        case 2:
            (void)dump_map_entry(request.address);
            return true;
        default:
            return false;
    }
}

int search_map(int argc, char** argv, int) {
    return search({KIND_MAP, {__func__, "ma:p:", opt_ctx.mappath, map_table}, display_map}, argc,
                  argv);
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

static bool display_jnl(const search_request& request) {
    switch (request.mode) {
        case 1:
            (void)dump_jnl_meta();
            return true;
        case 2:
            (void)dump_jnl_block(request.block, request.detail);
            return true;
        case 3:
            (void)dump_jnl_transaction(static_cast<uint32_t>(request.trans_id), request.start,
                                       request.dump_blocks, request.trace_blocks, request.detail);
            return true;
        default:
            return false;
    }
}

int search_jnl(int argc, char** argv, int) {
    return search({KIND_JNL, {__func__, "b:t:s:dxlmp:", opt_ctx.jnlpath, jnl_table}, display_jnl},
                  argc, argv);
}
