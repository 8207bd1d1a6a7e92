#include "volume/map_check.h"

#include <cstdio>

#include "map/map_entries.h"
#include "map/map_file.h"
#include "map/map_scan.h"
#include "map/map_verify.h"
#include "print.h"
#include "store/log.h"
#include "volume/map_walk.h"
#include "volume/metadata_files.h"

enum class scan_step { go_on, finished, failed };

struct map_scan_state {
    int32_t kind;
    int32_t repair;
    int node_result;  // of the last node checked: 0, 1 mismatched, negative
    uint64_t mapped;  // entries found
    scan_progress progress;
};

static scan_step check_entry(map_scan_state* scan, uint64_t lea) {
    uint64_t lpa = 0;
    const int mapped = tarn_get_mapped_lpa(lea, &lpa);
    if (mapped < 0) {
        log_err_as("do_check_map", "tarn_get_mapped_lpa error, lea %llu\n", ull(lea));
        return scan_step::failed;
    }
    if (mapped == 0) {
        return scan->kind == MAP_KIND_UNMAP_BUFFER ? scan_step::finished : scan_step::go_on;
    }
    if (scan->node_result > 0) {
        printf("TARN_INFO:     lea(%llu), lpa(%llu)\n", ull(lea), ull(lpa));
    }
    scan->mapped++;
    return scan_step::go_on;
}

// All 63 entries, also those of the last node that lie beyond the map's count.
static scan_step check_node(map_scan_state* scan, uint64_t node) {
    scan_progress_pass(&scan->progress, node, node + 1);
    scan->node_result = scan->repair != 0 ? tarn_map_data_node_check_and_repair(node)
                                          : tarn_map_data_node_check(node);
    if (scan->node_result < 0) {
        return scan_step::failed;
    }
    if (scan->node_result > 0) {
        printf("TARN_INFO: checksum mismatched: node_num(%llu)\n", ull(node));
    }
    for (uint64_t i = 0; i < MAP_NODE_ENTRIES; i++) {
        const scan_step step = check_entry(scan, node * MAP_NODE_ENTRIES + i);
        if (step != scan_step::go_on) {
            return step;
        }
    }
    return scan_step::go_on;
}

// Entry by entry, from node `node` on.
static scan_step check_nodes_from(map_scan_state* scan, uint64_t node, uint64_t nodes) {
    const uint64_t blank_begin = map_stored_nodes();
    const uint64_t blank_end = map_blank_nodes_end(nodes);
    for (; node < nodes; node++) {
        if (node == blank_begin && node < blank_end && scan->kind != MAP_KIND_UNMAP_BUFFER) {
            scan_progress_pass(&scan->progress, node, blank_end);
            scan->node_result = 0;
            node = blank_end - 1;
            continue;
        }
        const scan_step step = check_node(scan, node);
        if (step != scan_step::go_on) {
            return step;
        }
    }
    return scan_step::finished;
}

// A node in memory whose checksum is right.
static scan_step check_good_node(map_scan_state* scan, uint64_t number, const data_node* node) {
    scan_progress_pass(&scan->progress, number, number + 1);
    scan->node_result = 0;
    for (uint64_t i = 0; i < MAP_NODE_ENTRIES; i++) {
        const map_entry entry = map_scan_entry(node, i);
        if (map_entry_is_mapped(&entry) != 0) {
            scan->mapped++;
        } else if (scan->kind == MAP_KIND_UNMAP_BUFFER) {
            return scan_step::finished;
        }
    }
    return scan_step::go_on;
}

static scan_step check_hole(map_scan_state* scan, const map_scan_run* run) {
    const bool stops = scan->kind == MAP_KIND_UNMAP_BUFFER;
    scan_progress_pass(&scan->progress, run->first, run->first + (stops ? 1 : run->count));
    scan->node_result = 0;
    return stops ? scan_step::finished : scan_step::go_on;
}

static scan_step check_run(map_scan_state* scan, const map_scan_run* run) {
    if (run->nodes == nullptr) {
        return check_hole(scan, run);
    }
    scan_step step = scan_step::go_on;
    for (uint64_t i = 0; i < run->count && step == scan_step::go_on; i++) {
        step = map_scan_mismatched(run, i)
                   ? check_node(scan, run->first + i)  // tells, repairs and lists
                   : check_good_node(scan, run->first + i, &run->nodes[i]);
    }
    return step;
}

// In runs of nodes as far as they can be had, entry by entry from there.
static scan_step check_nodes(map_scan_state* scan, uint64_t nodes) {
    map_scan* runs = map_scan_open(current_map.fd, nodes);
    if (runs == nullptr) {
        return check_nodes_from(scan, 0, nodes);
    }
    map_scan_run run{};
    scan_step step = scan_step::go_on;
    map_scan_result got = map_scan_next(runs, &run);
    while (got == map_scan_result::run && step == scan_step::go_on) {
        step = check_run(scan, &run);
        if (step == scan_step::go_on) {
            got = map_scan_next(runs, &run);
        }
    }
    const uint64_t next = runs->next;
    map_scan_close(runs);
    return step == scan_step::go_on ? check_nodes_from(scan, next, nodes) : step;
}

// Compares the entries found with the header's count, and sets that right when asked to.
static int settle_mapped_count(uint64_t found, int32_t repair) {
    const uint64_t stored = tarn_map_lea_mapped_cnt();
    if (found == stored) {
        printf("TARN_INFO: mapped_cnt matched: (%llu), on-disk(%llu)\n", ull(found), ull(stored));
        return 0;
    }
    printf("TARN_INFO: mapped_cnt mismatched: (%llu), on-disk(%llu)\n", ull(found), ull(stored));
    if (repair == 0) {
        return 0;  // told, and no failure
    }
    const int result = map_count_replay(found);
    if (result < 0) {
        log_err_as("do_check_map", "map_count_replay error\n");
        return result;
    }
    printf("TARN_INFO: mapped_cnt repair: (%llu), on-disk(%llu)\n", ull(found),
           ull(tarn_map_lea_mapped_cnt()));
    return 0;
}

int do_check_map(int32_t kind, int32_t repair, const char* root) {
    uint32_t shift = 0;
    if (get_extent_shift(root, &shift) != 0) {
        return -1;
    }
    uint64_t count = rod_entry_count(shift);
    if (kind != MAP_KIND_ROD && map_scan_total(&count) != 0) {
        return -1;
    }
    const uint64_t nodes = map_node_count(count);
    printf("TARN_INFO: Try to check %llu data-node\n", ull(nodes));

    map_scan_state scan{kind, repair, -1, 0, scan_progress_of(nodes)};
    if (check_nodes(&scan, nodes) == scan_step::failed) {
        return scan.node_result;
    }
    scan_progress_end(&scan.progress);
    return settle_mapped_count(scan.mapped, repair);
}

int check_map(const volume_paths* paths, int32_t kind, int32_t repair) {
    const char* const name = __func__;
    char root[PATH_TEXT_SIZE] = {};
    if (parse_volume_path(paths->map, root) < 0) {
        log_err("Fail to parse volume path from %s\n", paths->map);
        return -1;
    }
    return with_files(name, paths, {KIND_MAP}, [&] {
        const int result = do_check_map(kind, repair, root);
        if (result < 0) {
            log_err_as(name, "do_check_map error(%d)\n", result);
        }
        return result < 0 ? result : 0;
    });
}
