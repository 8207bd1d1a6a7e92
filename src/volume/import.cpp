#include "volume/import.h"

#include <algorithm>
#include <cstdio>
#include <utility>

#include "fri/fri_entries.h"
#include "fri/fri_file.h"
#include "map/map_file.h"
#include "map/map_scan.h"
#include "print.h"
#include "store/keep_journal.h"
#include "tbl/tbl_entries.h"
#include "tbl/tbl_file.h"
#include "tbl/tbl_ref_counts.h"
#include "volume/map_walk.h"
#include "volume/metadata_files.h"

// Refuses what tbl_entry_ref_inc would lose while it returns 0: an extent past the table, a count
// that would wrap to 0, a write that fails.
static int add_single_reference(uint64_t lpa) {
    tbl_entry entry{};
    if (lpa >= TBL_TOTAL_COUNT) {
        log_err_as("add_reference", "lpa %llu is past the table\n", ull(lpa));
        return -1;
    }
    if (tbl_entry_read(&entry, lpa) < 0) {
        return -1;
    }
    if (tbl_entry_count(&entry) == TBL_COUNT_MAX) {
        log_err_as("add_reference", "lpa %llu has more than %u references\n", ull(lpa),
                   TBL_COUNT_MAX);
        return -1;
    }
    const uint64_t failed_before = keep_journal_failures().count;
    return tbl_entry_ref_inc(lpa) == 0 && keep_journal_failures().count == failed_before ? 0 : -1;
}

static void report_lost_mapping(uint64_t lea) {
    log_err_as("import_map", "Fail to increase mapping, lea %llu\n", ull(lea));
}

// Counts the mapped entries of a scan into the table and the index.
class map_importer : public map_visitor {
public:
    // count: entries to look at; mapped: entries that may be mapped; counts: null when references
    // go to the table one by one.
    map_importer(int32_t kind, uint64_t count, uint64_t mapped, tbl_ref_counts* counts)
        : ends_at_unmapped_(kind == MAP_KIND_UNMAP_BUFFER),
          count_(count),
          remaining_(mapped),
          counts_(counts),
          progress_(scan_progress_of(count)) {}

    void blank_nodes(uint64_t first, uint64_t end) override {
        scan_progress_pass(&progress_, first * MAP_NODE_ENTRIES,
                           std::min(end * MAP_NODE_ENTRIES, count_));
    }
    map_step node(const map_scan_node& node) override;

    void end_progress() const { scan_progress_end(&progress_); }

private:
    map_walk_end count_entries(const map_scan_node& node, uint64_t first, uint64_t entries);
    bool import_entry(uint64_t lea, uint64_t lpa);
    ref_result add_reference(uint64_t lpa, uint64_t lea);

    bool ends_at_unmapped_;
    uint64_t count_;
    uint64_t remaining_;  // mapped entries that the header still allows
    tbl_ref_counts* counts_;
    scan_progress progress_;
};

// Marks the group and adds the reference, in memory where that is possible.
ref_result map_importer::add_reference(uint64_t lpa, uint64_t lea) {
    if (counts_ == nullptr) {
        return tarn_fri_set_init_bit(tbl_group_of(lpa)) != 0 ? ref_result::touch_failed
                                                             : ref_result::no_entry;
    }
    uint64_t first_uses = 0;
    const ref_result result = tbl_ref_counts_add(counts_, lpa, lea, &first_uses);
    fri_take_free(first_uses);
    return result;
}

bool map_importer::import_entry(uint64_t lea, uint64_t lpa) {
    if (remaining_ == 0) {
        log_err_as("import_map", "mapped_cnt is wrong\n");
        return false;
    }
    uint64_t failed_lea = lea;
    switch (add_reference(lpa, lea)) {
        case ref_result::counted:
            remaining_--;
            return true;
        case ref_result::no_entry:
            if (add_single_reference(lpa) == 0) {
                remaining_--;
                return true;
            }
            break;
        case ref_result::touch_failed:
            log_err_as("import_map", "Fail to init fri group, lea %llu\n", ull(lea));
            return false;
        case ref_result::full:
            log_err_as("add_reference", "lpa %llu has more than %u references\n", ull(lpa),
                       TBL_COUNT_MAX);
            break;
        case ref_result::lost:
            (void)tbl_ref_counts_lost(counts_, &failed_lea);  // true
            break;
    }
    report_lost_mapping(failed_lea);
    return false;
}

// Most references take one counter in memory and nothing else: those are settled together. Their
// counters are fetched ahead, since the extents of a map may be anywhere.
map_walk_end map_importer::count_entries(const map_scan_node& node, uint64_t first,
                                         uint64_t entries) {
    tbl_ref_counts* const counts = counts_;
    uint64_t most = counts != nullptr ? remaining_ : 0;
    uint64_t counted = 0;
    uint64_t first_uses = 0;
    const auto settle = [this, &counted, &first_uses] {
        remaining_ -= std::exchange(counted, 0);
        fri_take_free(std::exchange(first_uses, 0));
    };
    const auto take = [&, counts, first](uint64_t slot, uint64_t lpa) {
        if (counted != most && tbl_ref_counts_add_in_place(counts, lpa, &first_uses)) {
            counted++;
            return true;
        }
        settle();
        const bool imported = import_entry(first + slot, lpa);
        most = counts != nullptr ? remaining_ : 0;
        return imported;
    };
    const auto expect = [counts](uint64_t lpa) {
        if (counts != nullptr) {
            tbl_ref_counts_expect(counts, lpa);
        }
    };
    const map_walk_end end = for_each_mapped_entry(node, entries, ends_at_unmapped_, take, expect);
    settle();
    return end;
}

map_step map_importer::node(const map_scan_node& node) {
    const uint64_t first = node.number * MAP_NODE_ENTRIES;
    const uint64_t entries = std::min(MAP_NODE_ENTRIES, count_ - first);
    const map_walk_end end = count_entries(node, first, entries);
    if (end.step == map_step::unreadable) {
        scan_progress_pass(&progress_, first, first + end.slot);
        log_err_as("import_map", "Fail to import map, lea %llu\n", ull(first + end.slot));
        return map_step::failed;
    }
    const bool inside = end.step != map_step::go_on;  // the entry that ended it was looked at
    scan_progress_pass(&progress_, first, first + end.slot + (inside ? 1 : 0));
    return end.step;
}

int import_map(int32_t kind, const char* root, tbl_ref_counts* counts) {
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

    map_importer importer(kind, count, mapped, counts);
    const map_range range = {current_map.fd, map_node_count(count), kind == MAP_KIND_UNMAP_BUFFER};
    if (!for_each_map_node(range, &importer)) {
        return -1;
    }
    importer.end_progress();
    (void)save_fri();  // deliberate: a failure is logged and counted
    return 0;
}

int finish_import(tbl_ref_counts* counts) {
    if (counts == nullptr) {
        return 0;
    }
    uint64_t lea = 0;
    const bool reported = tbl_ref_counts_lost(counts, &lea);
    const bool written = tbl_ref_counts_write(counts);
    if (!reported && tbl_ref_counts_lost(counts, &lea)) {
        report_lost_mapping(lea);
    }
    tbl_ref_counts_drop(counts);
    return written ? 0 : -1;
}

int import(const volume_paths* paths, int32_t kind) {
    char root[PATH_TEXT_SIZE] = {};
    if (parse_volume_path(paths->table, root) < 0) {
        log_err("Fail to parse volume path from %s\n", paths->table);
        return -1;
    }
    return with_files(__func__, paths, {KIND_FRI, KIND_TBL, KIND_MAP}, [&] {
        tbl_ref_counts* counts = tbl_ref_counts_open(tarn_fri_set_init_bit);
        const int result = import_map(kind, root, counts);
        return finish_import(counts) == 0 ? result : -1;
    });
}
