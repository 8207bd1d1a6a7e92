#include "ctl/check/maps.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>

#include "map/map_scan.h"
#include "tbl/tbl_format.h"

uint64_t map_entries_of_file(const header_view& view) {
    return view.file_size <= METADATA_DATA_OFFSET
               ? 0
               : (view.file_size - METADATA_DATA_OFFSET + DATA_NODE_SIZE - 1) / DATA_NODE_SIZE *
                     MAP_NODE_ENTRIES;
}

static uint64_t word_at(const data_node* node, uint64_t slot) {
    uint64_t word = 0;
    memcpy(&word, node->payload + slot * sizeof word, sizeof word);
    return word;
}

static bool is_mapped(uint64_t word) {
    return (word & MAP_MAPPED_BIT) != 0;
}

static uint32_t row_of(uint64_t word) {
    return static_cast<uint32_t>(word >> 48) & 0xFFF;
}

// Leas of one map with one kind of fault, as runs.
struct lea_list {
    std::vector<lea_range> ranges;
    uint64_t entries = 0;
};

static void add_lea(lea_list* list, uint64_t lea) {
    list->entries++;
    if (!list->ranges.empty() && list->ranges.back().lea + list->ranges.back().count == lea) {
        list->ranges.back().count++;
    } else if (list->ranges.size() < RUNS_MAX) {
        list->ranges.push_back({lea, 1});
    }
}

// One scan over a map: counts references, and in the first one looks for what is wrong with it.
class map_scanner : public map_visitor {
public:
    map_scanner(check_state* state, volume_check* volume, map_check* map, ref_counts* counts,
                int fd, bool first_scan, progress_part* progress)
        : state_(state),
          volume_(volume),
          map_(map),
          counts_(counts),
          fd_(fd),
          first_scan_(first_scan),
          progress_(progress) {}

    void blank_nodes(uint64_t first, uint64_t) override {
        if (map_->file->kind == MAP_KIND_UNMAP_BUFFER && !ended_) {
            end_at(first * MAP_NODE_ENTRIES, NO_CAUSE);
        }
    }
    map_step node(const map_scan_node& node) override;
    void report();

private:
    void end_at(uint64_t lea, int cause) {  // the first blank entry of an unmap buffer
        ended_ = true;
        end_cause_ = cause;
        map_->looked_at = std::min(map_->looked_at, lea);
    }
    void count(const data_node* node, uint64_t number);
    void look_at(const data_node* node, uint64_t number, bool damaged);
    void look_at_entries(const data_node* node, uint64_t first, uint64_t here, int cause);
    void look_at_entry(uint64_t word, uint64_t lea, int cause);
    void look_behind(const data_node* node, uint64_t number, uint64_t here);
    int report_damaged(uint64_t number);
    void suspect(uint64_t word, int cause);
    void report_leas(finding_code code, const lea_list& leas);

    check_state* state_;
    volume_check* volume_;
    map_check* map_;
    ref_counts* counts_;
    int fd_;
    bool first_scan_;
    progress_part* progress_;
    data_node own_ = {};
    bool unread_ = false;
    uint64_t damaged_end_ = 0;  // node after the last damaged one
    int damaged_finding_ = NO_CAUSE;
    int after_end_finding_ = NO_CAUSE;
    bool ended_ = false;        // an unmap buffer: its first blank was met
    int end_cause_ = NO_CAUSE;  // that blank may be damage
    lea_list unsummed_;         // nodes, not leas
    lea_list past_data_;
    lea_list past_table_;
    lea_list bad_row_;
    lea_list after_end_;
    lea_list behind_;
};

int read_node_alone(int fd, uint64_t number, data_node* node, bool* damaged) {
    for (int tries = 0; tries < 3; tries++) {
        *node = {};
        size_t got = 0;
        while (got < sizeof *node) {
            const ssize_t part = io_read_at(fd, reinterpret_cast<uint8_t*>(node) + got,
                                            sizeof *node - got, data_node_offset(number) + got);
            if (part < 0) {
                return errno;
            }
            if (part == 0) {
                break;
            }
            got += static_cast<size_t>(part);
        }
        *damaged = mismatch_of(node).found;
        if (!*damaged) {
            break;
        }
    }
    return 0;
}

void map_scanner::count(const data_node* node, uint64_t number) {
    const uint64_t first = number * MAP_NODE_ENTRIES;
    uint64_t end = map_->entries;
    if (map_->file->kind == MAP_KIND_UNMAP_BUFFER) {
        end = std::min(end, map_->looked_at);
    }
    if (first < end) {
        (void)ref_counts_add_node(counts_, node,
                                  static_cast<uint32_t>(std::min(MAP_NODE_ENTRIES, end - first)));
    }
}

void map_scanner::suspect(uint64_t word, int cause) {
    if (volume_->suspects.size() < SUSPECTS_MAX) {
        volume_->suspects.emplace(word & MAP_LPA_MASK, cause);
    }
}

int map_scanner::report_damaged(uint64_t number) {
    map_->damaged = true;
    if (number == damaged_end_ && damaged_finding_ != NO_CAUSE) {
        finding* last = &state_->findings[static_cast<size_t>(damaged_finding_)];
        last->count++;
        last->owners[0].ranges[0].count += MAP_NODE_ENTRIES;
    } else {
        damaged_finding_ = add_finding(state_, finding_code::M01, volume_, map_->file->below);
        finding* added = &state_->findings.back();
        added->place = place_kind::node;
        added->first = number;
        added->count = 1;
        added->owners = {owner_of(*map_)};
        added->owners[0].ranges = {{number * MAP_NODE_ENTRIES, MAP_NODE_ENTRIES}};
    }
    damaged_end_ = number + 1;
    map_->damaged_finding =
        map_->damaged_finding == NO_CAUSE ? damaged_finding_ : map_->damaged_finding;
    return damaged_finding_;
}

void map_scanner::look_at_entry(uint64_t word, uint64_t lea, int cause) {
    const uint64_t lpa = word & MAP_LPA_MASK;
    const uint32_t row = row_of(word);
    if (cause == NO_CAUSE) {
        map_->rows_used[row] = true;
    }
    if (lpa >= TBL_TOTAL_COUNT && cause == NO_CAUSE) {
        add_lea(&past_table_, lea);
    } else if (lpa >= volume_->extents && cause == NO_CAUSE) {
        add_lea(&past_data_, lea);
    }
    if (cause != NO_CAUSE) {
        suspect(word, cause);
    }
}

// The entries that count. Most nodes hold entries of one pool row, all of them in the data files.
void map_scanner::look_at_entries(const data_node* node, uint64_t first, uint64_t here, int cause) {
    constexpr uint64_t ROW_BITS = uint64_t{0xFFF} << 48;
    uint64_t common = ~uint64_t{0};
    uint64_t any = 0;
    uint64_t past = 0;  // its highest bit: an extent is past the last one
    for (uint64_t slot = 0; slot < here; slot++) {
        const uint64_t word = word_at(node, slot);
        common &= word;
        any |= word;
        past |= volume_->extents - 1 - (word & MAP_LPA_MASK);
    }
    if (any == 0) {
        return;
    }
    const bool one_row = ((common ^ any) & ROW_BITS) == 0;
    if (cause == NO_CAUSE && one_row && is_mapped(common) && past >> 63 == 0 && !ended_ &&
        map_->file->kind != MAP_KIND_UNMAP_BUFFER) {
        map_->mapped += here;
        map_->rows_used[row_of(any)] = true;
        return;
    }
    for (uint64_t slot = 0; slot < here; slot++) {
        const uint64_t word = word_at(node, slot);
        if (!is_mapped(word)) {
            if (map_->file->kind == MAP_KIND_UNMAP_BUFFER && !ended_) {
                end_at(first + slot, cause);
            }
            continue;
        }
        map_->mapped++;
        if (ended_) {
            add_lea(&after_end_, first + slot);
            if (after_end_finding_ == NO_CAUSE) {
                after_end_finding_ =
                    add_finding(state_, finding_code::M08, volume_, map_->file->below);
                state_->findings.back().because = end_cause_;
            }
            suspect(word, after_end_finding_);
        } else {
            look_at_entry(word, first + slot, cause);
        }
    }
}

// Entries behind the last one: in its node, which a check of the map counts too, or in later nodes.
void map_scanner::look_behind(const data_node* node, uint64_t number, uint64_t here) {
    for (uint64_t slot = here; slot < MAP_NODE_ENTRIES; slot++) {
        if (is_mapped(word_at(node, slot))) {
            add_lea(&behind_, number * MAP_NODE_ENTRIES + slot);
            map_->behind += here > 0 ? 1 : 0;
        }
    }
}

void map_scanner::look_at(const data_node* node, uint64_t number, bool damaged) {
    const uint64_t first = number * MAP_NODE_ENTRIES;
    const uint64_t here = std::min(MAP_NODE_ENTRIES, map_->entries - first);
    const uint64_t before = map_->mapped;
    look_at_entries(node, first, here, damaged ? report_damaged(number) : NO_CAUSE);
    if (here < MAP_NODE_ENTRIES) {
        look_behind(node, number, here);
    }
    const bool whole = data_node_offset(number + 1) <= map_->view.file_size;
    if (node->checksum == 0 && map_->mapped > before && whole) {
        add_lea(&unsummed_, number);
    }
}

map_step map_scanner::node(const map_scan_node& node) {
    progress_->reached(node.number);
    const data_node* bytes = node.bytes;
    bool damaged = false;
    int error = 0;
    if (bytes == nullptr) {
        error = read_node_alone(fd_, node.number, &own_, &damaged);
        bytes = &own_;
    }
    if (node.number >= map_node_count(map_->entries)) {
        if (error == 0) {
            look_behind(bytes, node.number, 0);
        }
        return map_step::go_on;
    }
    if (error != 0) {
        if (first_scan_ && !unread_) {
            add_unread(state_, volume_, map_->file->path, error);
            finding* added = &state_->findings.back();
            added->place = place_kind::node;
            added->first = node.number;
            added->count = 1;
            added->owners = {owner_of(*map_)};
        }
        unread_ = true;
        map_->complete = false;
        return map_step::go_on;  // the rest may be readable
    }
    if (first_scan_) {
        look_at(bytes, node.number, damaged);
    }
    count(bytes, node.number);
    return map_step::go_on;
}

void map_scanner::report_leas(finding_code code, const lea_list& leas) {
    if (leas.entries == 0) {
        return;
    }
    add_finding(state_, code, volume_, map_->file->below);
    finding* added = &state_->findings.back();
    added->number = leas.entries;
    added->owners = {owner_of(*map_)};
    if (code == finding_code::M02) {
        added->place = place_kind::node;
        for (const lea_range& nodes : leas.ranges) {
            added->owners[0].ranges.push_back(
                {nodes.lea * MAP_NODE_ENTRIES, nodes.count * MAP_NODE_ENTRIES});
        }
    } else {
        added->place = place_kind::lea;
        added->owners[0].ranges = leas.ranges;
    }
    added->first = leas.ranges[0].lea;
    added->count = leas.ranges[0].count;
}

void map_scanner::report() {
    volume_->has_far = volume_->has_far || past_data_.entries + past_table_.entries > 0;
    report_leas(finding_code::M02, unsummed_);
    report_leas(finding_code::M04, behind_);
    report_leas(finding_code::R07, past_table_);
    if (!volume_->files->data_files.empty()) {
        report_leas(finding_code::R06, past_data_);
    }
    if (after_end_finding_ != NO_CAUSE) {
        finding* added = &state_->findings[static_cast<size_t>(after_end_finding_)];
        added->number = after_end_.entries;
        added->place = place_kind::lea;
        added->first = after_end_.ranges[0].lea;
        added->count = after_end_.ranges[0].count;
        added->owners = {owner_of(*map_)};
        added->owners[0].ranges = after_end_.ranges;
        map_->after_end = after_end_.entries;
    }
}

uint64_t scan_blocks(const map_check& map) {
    const uint64_t entries = std::min(map.entries, map_entries_of_file(map.view));
    return map.readable ? map_node_count(entries) : 0;
}

void plan_map_scan(const volume_check& volume, progress_line* progress) {
    for (const map_check& map : volume.maps) {
        if (progress != nullptr) {
            progress->plan(scan_blocks(map));
        }
    }
}

bool is_cut_short(const map_check& map, uint64_t mapped) {
    const uint64_t nodes = map_node_count(map.entries);
    return (map.view.bad_nodes & 0b110) == 0 && map.file->place != map_place::copy_map &&
           map.view.file_size < METADATA_DATA_OFFSET + nodes * DATA_NODE_SIZE &&
           map.header.map_mapped_count > mapped;
}

static void check_length_and_count(check_state* state, const volume_check* volume, map_check* map) {
    if ((map->view.bad_nodes & 0b110) != 0) {
        return;  // one of the two counts is not what it was
    }
    const uint64_t stored = map->header.map_mapped_count;
    const uint64_t nodes = map_node_count(map->entries);
    int cause = map->damaged_finding;
    if (is_cut_short(*map, map->mapped)) {
        cause = add_finding(state, finding_code::M05, volume, map->file->below);
        map->damaged = true;
        finding* added = &state->findings.back();
        added->was = std::to_string(map->view.file_size);
        added->ought = std::to_string(METADATA_DATA_OFFSET + nodes * DATA_NODE_SIZE);
        added->owners = {owner_of(*map)};
    }
    // What a check of the map with a repair writes is right too: it counts the rest of the last
    // node, and of an unmap buffer nothing after the first blank entry.
    const uint64_t before_end = map->mapped - map->after_end;
    if (stored != map->mapped && stored != map->mapped + map->behind && stored != before_end) {
        add_finding(state, finding_code::M03, volume, map->file->below);
        finding* added = &state->findings.back();
        added->was = std::to_string(stored);
        added->ought = std::to_string(before_end);
        added->because = cause;
        added->owners = {owner_of(*map)};
    }
}

static bool is_pool(const check_state* state, const uuid_bytes& uuid) {
    return std::find(state->pool_uuids.begin(), state->pool_uuids.end(), uuid) !=
           state->pool_uuids.end();
}

static void check_rows(check_state* state, const volume_check* volume, const map_check* map) {
    if ((map->view.bad_nodes >> 3 & 1) != 0 ||
        (map->pools.empty() && map->header.map_pool_cnt > 0)) {
        return;  // how many rows it has is unknown
    }
    for (uint32_t row = 0; row < map->rows_used.size(); row++) {
        const bool missing = row >= map->pools.size();
        if (!map->rows_used[row] ||
            (!missing && (state->pools_unknown || is_pool(state, map->pools[row])))) {
            continue;
        }
        add_finding(state, finding_code::M07, volume, map->file->below);
        finding* added = &state->findings.back();
        added->was = std::to_string(row);
        added->because = map->pool_finding;
        added->detail = missing ? "The map's pool table has no such row."
                                : "No volume of this server has the uuid in that row.";
        added->owners = {owner_of(*map)};
    }
}

static void scan_map(check_state* state, volume_check* volume, map_check* map, ref_counts* counts,
                     bool first_scan) {
    const int opened = io_open(map->file->path.c_str(), O_RDONLY | O_NONBLOCK, 0);
    if (opened <= 0) {
        if (first_scan) {
            add_unread(state, volume, map->file->path, errno);
        }
        map->complete = false;
        return;
    }
    const scoped_fd fd(opened);
    if (first_scan) {
        map->complete = !map->damaged;
        map->looked_at = map->entries;
        map->rows_used.assign(0x1000, false);
    }
    progress_part progress(state->request->progress, map_words(*map), scan_blocks(*map));
    map_scanner scanner(state, volume, map, counts, fd.get(), first_scan, &progress);
    uint64_t nodes = map_node_count(map->entries);
    if (first_scan) {
        const uint64_t of_file = map_node_count(map_entries_of_file(map->view));
        nodes = std::max(nodes, std::min(of_file, DATA_NODE_NUM_END));
    }
    (void)for_each_map_node({fd.get(), nodes, false}, &scanner);
    if (first_scan) {
        scanner.report();
        check_length_and_count(state, volume, map);
        check_rows(state, volume, map);
        map->complete = map->complete && !map->damaged;
    }
}

void scan_maps(check_state* state, volume_check* volume, ref_counts* counts, bool first_scan) {
    for (map_check& map : volume->maps) {
        if (map.readable) {
            scan_map(state, volume, &map, counts, first_scan);
        }
        volume->all_maps_read = volume->all_maps_read && map.readable && map.complete;
    }
    if (first_scan) {
        volume->all_maps_read = volume->all_maps_read && volume->files->gaps.empty();
    }
}
