#include "volume/import.h"

#include <algorithm>
#include <cstdio>

#include "fri/fri_entries.h"
#include "fri/fri_file.h"
#include "map/map_file.h"
#include "map/map_scan.h"
#include "print.h"
#include "store/keep_journal.h"
#include "tbl/tbl_entries.h"
#include "tbl/tbl_file.h"
#include "volume/import_list.h"
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

void report_lost_mapping(uint64_t lea) {
    log_err_as("import_map", "Fail to increase mapping, lea %llu\n", ull(lea));
}

// Imports the entries of a scan, or accepts them for a count.
class map_importer : public map_visitor {
public:
    // count: entries to look at; mapped: entries that may be mapped; tally: null to import.
    map_importer(int32_t kind, uint64_t count, uint64_t mapped, import_tally* tally)
        : ends_at_unmapped_(kind == MAP_KIND_UNMAP_BUFFER),
          count_(count),
          remaining_(mapped),
          tally_(tally),
          progress_(scan_progress_of(count)) {}

    void blank_nodes(uint64_t first, uint64_t end) override {
        pass(first * MAP_NODE_ENTRIES, std::min(end * MAP_NODE_ENTRIES, count_));
    }
    map_step node(const map_scan_node& node) override;

    void end_progress() const { scan_progress_end(&progress_); }

private:
    // The entries `from` to `to` - 1 were looked at.
    void pass(uint64_t from, uint64_t to);
    bool import_entry(uint64_t lea, uint64_t lpa);
    bool add_reference(uint64_t lea, uint64_t lpa);

    bool ends_at_unmapped_;
    uint64_t count_;
    uint64_t remaining_;  // mapped entries that the header still allows
    import_tally* tally_;
    scan_progress progress_;
};

void map_importer::pass(uint64_t from, uint64_t to) {
    scan_progress_pass(&progress_, from, to);
    if (tally_ != nullptr) {
        tally_->lea = to;
    }
}

// Whether an import would initialise the group, which raises the index's number of groups.
static bool gets_init_bit(uint64_t group) {
    fri_entry entry{};
    return fri_entry_read(&entry, group) >= 0 && !fri_entry_is_init(&entry);
}

// Marks the group and adds the reference. An extent that no table has fails at its group.
bool map_importer::add_reference(uint64_t lea, uint64_t lpa) {
    const uint64_t group = tbl_group_of(lpa);
    if (tally_ != nullptr && lpa < TBL_TOTAL_COUNT) {
        if (group >= tally_->group_count && gets_init_bit(group)) {
            tally_->group_count = group + 1;
            tally_->raised_at = lea;
            tally_->raised = true;
        }
        return true;
    }
    if (tarn_fri_set_init_bit(group) != 0) {
        log_err_as("import_map", "Fail to init fri group, lea %llu\n", ull(lea));
        return false;
    }
    if (add_single_reference(lpa) != 0) {
        report_lost_mapping(lea);
        return false;
    }
    return true;
}

bool map_importer::import_entry(uint64_t lea, uint64_t lpa) {
    if (remaining_ == 0) {
        log_err_as("import_map", "mapped_cnt is wrong\n");
        return false;
    }
    if (!add_reference(lea, lpa)) {
        return false;
    }
    remaining_--;
    return true;
}

map_step map_importer::node(const map_scan_node& node) {
    const uint64_t first = node.number * MAP_NODE_ENTRIES;
    const uint64_t entries = std::min(MAP_NODE_ENTRIES, count_ - first);
    const auto take = [this, first](uint64_t slot, uint64_t lpa) {
        return import_entry(first + slot, lpa);
    };
    const map_walk_end end = for_each_mapped_entry(node, entries, ends_at_unmapped_, take);
    if (end.step == map_step::unreadable || end.step == map_step::failed) {
        if (tally_ != nullptr) {
            tally_->lea = first + end.slot;
        }
    }
    if (end.step == map_step::unreadable) {
        scan_progress_pass(&progress_, first, first + end.slot);
        log_err_as("import_map", "Fail to import map, lea %llu\n", ull(first + end.slot));
        return map_step::failed;
    }
    if (end.step == map_step::failed) {  // the entry that failed was looked at, and not accepted
        scan_progress_pass(&progress_, first, first + end.slot + 1);
        return end.step;
    }
    pass(first, first + end.slot + (end.step == map_step::finished ? 1 : 0));
    return end.step;
}

int import_map(int32_t kind, const char* root, import_tally* tally) {
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

    map_importer importer(kind, count, mapped, tally);
    const map_range range = {current_map.fd, map_node_count(count), kind == MAP_KIND_UNMAP_BUFFER};
    if (!for_each_map_node(range, &importer)) {
        return -1;
    }
    importer.end_progress();
    if (tally == nullptr) {
        (void)save_fri();  // deliberate: a failure is logged and counted
    }
    return 0;
}

static int import_current(void* context, const path_entry* map, import_tally* tally) {
    return import_map(static_cast<int32_t>(map->type), static_cast<const char*>(context), tally);
}

int import_loaded(const char* map, int32_t kind, const char* root) {
    path_entry list = {};
    path_entry only = {&list, &list, static_cast<uint32_t>(kind), {}};
    list.next = list.prev = &only;
    char context[PATH_TEXT_SIZE];
    snprintf(context, sizeof context, "%s", root);
    return import_listed(
        {&list, root, false, nullptr, false, nullptr, map, context, import_current});
}

int import(const volume_paths* paths, int32_t kind) {
    char root[PATH_TEXT_SIZE] = {};
    if (parse_volume_path(paths->table, root) < 0) {
        log_err("Fail to parse volume path from %s\n", paths->table);
        return -1;
    }
    return with_files(__func__, paths, {KIND_FRI, KIND_TBL, KIND_MAP},
                      [&] { return import_loaded(paths->map, kind, root); });
}
