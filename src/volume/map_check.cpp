#include "volume/map_check.h"

#include <cstdio>
#include <cstring>

#include "map/map_file.h"
#include "map/map_scan.h"
#include "print.h"
#include "store/log.h"
#include "volume/map_walk.h"
#include "volume/metadata_files.h"

// Checks, and with `repair` blanks, the nodes of a scan, and counts their mapped entries.
class map_checker : public map_visitor {
public:
    map_checker(int32_t kind, int32_t repair, uint64_t nodes)
        : ends_at_unmapped_(kind == MAP_KIND_UNMAP_BUFFER),
          repair_(repair != 0),
          progress_(scan_progress_of(nodes)) {}

    void blank_nodes(uint64_t first, uint64_t end) override {
        scan_progress_pass(&progress_, first, end);
    }
    map_step node(const map_scan_node& node) override;

    [[nodiscard]] int node_result() const { return node_result_; }  // of the last node
    [[nodiscard]] uint64_t mapped() const { return mapped_; }       // entries found
    void end_progress() const { scan_progress_end(&progress_); }

private:
    bool check_in_cache(uint64_t number);
    map_walk_end count_entries(const map_scan_node& node);

    bool ends_at_unmapped_;
    bool repair_;
    int node_result_ = 0;  // 0 valid, 1 mismatched, negative on failure
    uint64_t mapped_ = 0;
    scan_progress progress_;
};

bool map_checker::check_in_cache(uint64_t number) {
    node_result_ =
        repair_ ? tarn_map_data_node_check_and_repair(number) : tarn_map_data_node_check(number);
    if (node_result_ > 0) {
        printf("TARN_INFO: checksum mismatched: node_num(%llu)\n", ull(number));
    }
    return node_result_ >= 0;
}

// Mapped entries of a node in memory.
static uint64_t count_mapped(const data_node* node) {
    uint64_t mapped = 0;
#pragma GCC unroll 32
    for (uint64_t slot = 0; slot < MAP_NODE_ENTRIES; slot++) {
        map_entry entry;
        memcpy(&entry, node->payload + slot * sizeof entry, sizeof entry);
        mapped += entry.word / MAP_MAPPED_BIT;  // the highest bit: 0 or 1
    }
    return mapped;
}

// Lists the entries of a mismatched node.
map_walk_end map_checker::count_entries(const map_scan_node& node) {
    if (node.bytes != nullptr && !ends_at_unmapped_) {
        mapped_ += count_mapped(node.bytes);
        return {map_step::go_on, MAP_NODE_ENTRIES};
    }
    uint64_t found = 0;
    const auto count = [&found](uint64_t, uint64_t) {
        found++;
        return true;
    };
    const auto list = [&found, &node](uint64_t slot, uint64_t lpa) {
        found++;
        printf("TARN_INFO:     lea(%llu), lpa(%llu)\n", ull(node.number * MAP_NODE_ENTRIES + slot),
               ull(lpa));
        return true;
    };
    const map_walk_end end =
        node_result_ > 0 ? for_each_mapped_entry(node, MAP_NODE_ENTRIES, ends_at_unmapped_, list)
                         : for_each_mapped_entry(node, MAP_NODE_ENTRIES, ends_at_unmapped_, count);
    mapped_ += found;
    return end;
}

// All 63 entries, even those of the last node that are past the map's count.
map_step map_checker::node(const map_scan_node& node) {
    scan_progress_pass(&progress_, node.number, node.number + 1);
    node_result_ = 0;
    if (node.bytes == nullptr && !check_in_cache(node.number)) {
        return map_step::failed;
    }
    const map_walk_end end = count_entries(node);
    if (end.step == map_step::unreadable) {  // unreachable: the node is in the cache
        log_err_as("do_check_map", "tarn_get_mapped_lpa error, lea %llu\n",
                   ull(node.number * MAP_NODE_ENTRIES + end.slot));
        return map_step::failed;
    }
    return end.step;
}

// Compares the entries found with the header's count. With `repair` the header gets their number.
static int settle_mapped_count(uint64_t found, int32_t repair) {
    const uint64_t stored = tarn_map_lea_mapped_cnt();
    if (found == stored) {
        printf("TARN_INFO: mapped_cnt matched: (%llu), on-disk(%llu)\n", ull(found), ull(stored));
        return 0;
    }
    printf("TARN_INFO: mapped_cnt mismatched: (%llu), on-disk(%llu)\n", ull(found), ull(stored));
    if (repair == 0) {
        return 0;  // printed, and not a failure
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

    map_checker checker(kind, repair, nodes);
    if (!for_each_map_node({current_map.fd, nodes, kind == MAP_KIND_UNMAP_BUFFER}, &checker)) {
        return checker.node_result();
    }
    checker.end_progress();
    return settle_mapped_count(checker.mapped(), repair);
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
