#include "volume/import.h"

#include <algorithm>
#include <cstdio>

#include "fri/fri_entries.h"
#include "fri/fri_file.h"
#include "map/map_entries.h"
#include "map/map_file.h"
#include "options.h"
#include "print.h"
#include "store/descriptor.h"
#include "store/log.h"
#include "tbl/tbl_entries.h"
#include "tbl/tbl_file.h"
#include "volume/map_walk.h"
#include "volume/volume_paths.h"

// Refuses what tbl_entry_ref_inc would lose without a result: an extent past the table, a count
// that would wrap to 0, a write that failed.
static int add_reference(uint64_t lpa) {
    tbl_entry entry{};
    if (lpa >= TBL_TOTAL_COUNT) {
        log_err("lpa %llu is past the table\n", ull(lpa));
        return -1;
    }
    if (tbl_entry_read(&entry, lpa) < 0) {
        return -1;
    }
    if (tbl_entry_count(&entry) == TBL_COUNT_MAX) {
        log_err("lpa %llu has more than %u references\n", ull(lpa), TBL_COUNT_MAX);
        return -1;
    }
    const uint64_t failed_before = io_failed_writes();
    return tbl_entry_ref_inc(lpa) == 0 && io_failed_writes() == failed_before ? 0 : -1;
}

static int import_entry(uint64_t lea, uint64_t lpa, uint64_t* remaining) {
    if (*remaining == 0) {
        log_err_as("import_map", "mapped_cnt is wrong\n");
        return -1;
    }
    if (tarn_fri_set_init_bit(tbl_group_of(lpa)) != 0) {
        log_err_as("import_map", "Fail to init fri group, lea %llu\n", ull(lea));
        return -1;
    }
    if (add_reference(lpa) != 0) {
        log_err_as("import_map", "Fail to increase mapping, lea %llu\n", ull(lea));
        return -1;
    }
    --*remaining;
    return 0;
}

static int import_entries(int32_t kind, uint64_t count, uint64_t mapped, scan_progress* progress) {
    const uint64_t blank_begin = map_stored_nodes() * MAP_NODE_ENTRIES;
    const uint64_t reachable = map_blank_nodes_end(map_node_count(count)) * MAP_NODE_ENTRIES;
    const uint64_t blank_end = std::min(count, reachable);
    uint64_t remaining = mapped;
    for (uint64_t lea = 0; lea < count; lea++) {
        if (lea == blank_begin && lea < blank_end && kind != MAP_KIND_UNMAP_BUFFER) {
            scan_progress_pass(progress, lea, blank_end);
            lea = blank_end - 1;
            continue;
        }
        uint64_t lpa = 0;
        const int is_mapped = tarn_get_mapped_lpa(lea, &lpa);
        if (is_mapped < 0) {
            log_err_as("import_map", "Fail to import map, lea %llu\n", ull(lea));
            return -1;
        }
        scan_progress_pass(progress, lea, lea + 1);
        if (is_mapped == 1 && import_entry(lea, lpa, &remaining) != 0) {
            return -1;
        }
        if (is_mapped == 0 && kind == MAP_KIND_UNMAP_BUFFER) {
            break;
        }
    }
    return 0;
}

int import_map(int32_t kind, const char* root) {
    uint64_t count = 0;
    uint64_t mapped = 0;
    uint32_t shift = 0;
    if (map_scan_total(&count) != 0 || get_extent_shift(root, &shift) != 0) {
        return -1;
    }
    if (kind == MAP_KIND_ROD) {
        count = rod_entry_count(shift);
    }
    if (map_scan_mapped(&mapped) != 0) {
        return -1;
    }
    printf("TARN_INFO: Try to import %llu/%llu mappings\n", ull(mapped), ull(count));

    scan_progress progress = scan_progress_of(count);
    if (import_entries(kind, count, mapped, &progress) != 0) {
        return -1;
    }
    scan_progress_end(&progress);
    (void)save_fri();  // deliberate: a failure is logged and counted
    return 0;
}

static int load_and_import() {
    char root[PATH_TEXT_SIZE] = {};
    if (parse_volume_path(opt_ctx.tblpath, root) < 0) {
        log_err_as("import", "Fail to parse volume path from %s\n", opt_ctx.tblpath);
        return -1;
    }
    if (load_fri(opt_ctx.fripath) != 0) {
        log_err_as("import", "Fail to load FRI %s\n", opt_ctx.fripath);
        return -1;
    }
    if (load_tbl(opt_ctx.tblpath) != 0) {
        log_err_as("import", "Fail to load TBL %s\n", opt_ctx.tblpath);
        return -1;
    }
    if (load_map(opt_ctx.mappath) != 0) {
        log_err_as("import", "Fail to load MAP %s\n", opt_ctx.mappath);
        return -1;
    }
    return import_map(opt_ctx.map_kind, root);
}

int import() {
    const int result = load_and_import();
    close_fri();
    close_tbl();
    close_map();
    return result;
}
