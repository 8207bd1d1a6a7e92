#include "ctl/space/volume_space.h"

#include <algorithm>
#include <fcntl.h>

#include "ctl/check/map_nodes.h"
#include "ctl/check/maps.h"
#include "ctl/check/table_groups.h"
#include "ctl/check/tables.h"
#include "ctl/space/extent_owners.h"

constexpr uint64_t REGION_GROUPS = (uint64_t{1} << OWNER_REGION_SHIFT) / TBL_GROUP_ENTRIES;

// The maps of a volume in the order of their numbers: those of the set come first.
using map_order = std::vector<const map_check*>;

static map_order order_of(const volume_check& volume, const std::vector<const map_check*>& set) {
    map_order order;
    for (const map_check& map : volume.maps) {
        order.push_back(&map);
    }
    std::stable_partition(order.begin(), order.end(), [&set](const map_check* map) {
        return std::find(set.begin(), set.end(), map) != set.end();
    });
    return order;
}

static void begin_maps(const map_order& order, uint32_t in_set, volume_space* space) {
    for (const map_check* map : order) {
        const finding_owner owner = owner_of(*map);
        map_space one;
        one.name = owner.lun;
        one.kind = owner.kind;
        one.file = owner.file;
        one.known = map->readable;
        one.complete = map->readable && !map->damaged;
        one.in_set = space->maps.size() < in_set;
        one.size_known = map->readable && (map->view.bad_nodes >> 1 & 1) == 0;
        one.entries = one.size_known ? map->entries : 0;
        space->maps.push_back(one);
    }
}

static void scan_map(const map_check& map, progress_line* progress, map_space* one,
                     extent_owners* owners) {
    const auto add_node = [owners](const map_node_view& node) {
        if (!node.damaged) {
            owners->add_node(node.bytes, node.entries);
        }
    };
    const map_reading reading = read_map_nodes(map, add_node, progress);
    one->complete = one->complete && reading.error == 0 && reading.damaged == 0;
}

// What one pass over the table adds, for the regions that the scan before it settled.
class table_pass {
public:
    table_pass(const volume_check* volume, const extent_owners* owners, volume_space* space,
               progress_part* progress)
        : volume_(volume), owners_(owners), space_(space), progress_(progress) {}

    // False: not everything can be read.
    bool run(int fd);

private:
    bool take_group(int fd, uint64_t group);
    void take_extent(uint64_t lpa, uint16_t word, bool owned);

    const volume_check* volume_;
    const extent_owners* owners_;
    volume_space* space_;
    progress_part* progress_;
    tbl_group_image image_ = {};
    uint32_t checksums_[TBL_GROUP_BLOCKS_MAX] = {};
    bool owned_[TBL_GROUP_ENTRIES] = {};
};

void table_pass::take_extent(uint64_t lpa, uint16_t word, bool owned) {
    const bool used = (word & TBL_USED_BIT) != 0;
    space_->in_use += used ? 1 : 0;
    if (used && owned) {
        space_->counted += word & TBL_COUNT_MASK;
    } else if (used && lpa < volume_->extents) {
        space_->in_no_map++;
    } else if (owned) {
        space_->mapped_free++;
    }
}

bool table_pass::take_group(int fd, uint64_t group) {
    if (!load_table_group(fd, group, &image_, checksums_)) {
        return false;
    }
    if (!owners_->owned_in_group(group, owned_)) {
        std::fill(std::begin(owned_), std::end(owned_), false);
    }
    for (uint32_t offset = 0; offset < TBL_GROUP_ENTRIES; offset++) {
        take_extent(tbl_lpa_of(group, offset), image_.words[offset], owned_[offset]);
    }
    return !has_damaged_block(image_, checksums_);
}

// Only groups that have data in the table, or extents that maps refer to, are looked at.
bool table_pass::run(int fd) {
    bool read = true;
    uint64_t with_data = 0;
    for (uint64_t group = 0; group < TBL_GROUP_COUNT; group++) {
        with_data = with_data > group ? with_data : next_table_group(fd, group, TBL_GROUP_COUNT);
        const uint64_t referred = owners_->next_region(group / REGION_GROUPS) * REGION_GROUPS;
        group = std::min(with_data, std::max(group, referred));
        if (group >= TBL_GROUP_COUNT) {
            break;
        }
        progress_->reached(tbl_block_of(tbl_lpa_of(group, 0)));
        const uint64_t region = group / REGION_GROUPS;
        if (!owners_->settled(region)) {
            group = (region + 1) * REGION_GROUPS - 1;
        } else if (group == with_data || owners_->owned_in_group(group, owned_)) {
            read = take_group(fd, group) && read;
        }
    }
    return read;
}

// Every region is settled by one scan, and its groups of the table are looked at after it.
static void scan_volume(const volume_check* volume, const map_order& order, progress_line* progress,
                        extent_owners* owners, volume_space* space) {
    const int opened =
        volume->has_table ? io_open(volume->files->table.c_str(), O_RDONLY | O_NONBLOCK, 0) : 0;
    const scoped_fd table(std::max(opened, 0));
    space->table_known = opened > 0;
    progress_part tables(progress, table_words(*volume), table_blocks(*volume));
    table_pass pass(volume, owners, space, &tables);
    for (bool first_scan = true; owners->begin_scan(); first_scan = false) {
        if (!first_scan) {
            plan_map_scan(*volume, progress);
        }
        for (size_t i = 0; i < order.size(); i++) {
            if (order[i]->readable) {
                owners->begin_map(static_cast<uint32_t>(i + 1));
                scan_map(*order[i], progress, &space->maps[i], owners);
            }
        }
        owners->end_scan();
        if (table.get() > 0) {
            space->table_known = pass.run(table.get()) && space->table_known;
        }
    }
}

// A copy map may be shorter than its entries reach; then only its count shows that it was cut.
static bool lacks_entries(const map_check& map, uint64_t mapped) {
    const bool is_counted = (map.view.bad_nodes & 0b110) == 0;
    return is_cut_short(map, mapped) || (map.file->place == map_place::copy_map && is_counted &&
                                         map.header.map_mapped_count > mapped);
}

static void take_figures(const map_order& order, const extent_owners& owners, volume_space* space) {
    for (size_t i = 0; i < space->maps.size(); i++) {
        map_space* one = &space->maps[i];
        const auto number = static_cast<uint32_t>(i + 1);
        const owner_figures figures = owners.of_map(number);
        one->mapped.extents = owners.mapped(number);
        one->past_end = owners.past_end(number);
        one->exclusive.extents = figures.exclusive;
        one->shared.extents = figures.referred - figures.exclusive;
        one->complete = one->complete && !lacks_entries(*order[i], one->mapped.extents);
        space->in_one_map += figures.exclusive;
        space->references += one->mapped.extents - one->past_end;
    }
    space->in_several = owners.shared();
    space->freed.extents = owners.of_set();
}

// What is referred to by some maps and no others: entries that were not read can add to it if they
// are those of `some`, and take away from it if they are others'.
static figure_worth worth_of(bool some_complete, bool others_complete) {
    return some_complete ? (others_complete ? figure_worth::exact : figure_worth::at_most)
                         : (others_complete ? figure_worth::at_least : figure_worth::unsure);
}

// `hidden`: there may be maps that were not even found.
static void judge_worth(bool hidden, volume_space* space) {
    uint64_t incomplete = 0;
    uint64_t incomplete_in_set = 0;
    for (const map_space& one : space->maps) {
        incomplete += one.complete ? 0 : 1;
        incomplete_in_set += !one.complete && one.in_set ? 1 : 0;
    }
    space->complete = incomplete == 0 && !hidden;
    for (map_space& one : space->maps) {
        const bool others = !hidden && incomplete == (one.complete ? 0 : 1);
        one.mapped.worth = one.complete ? figure_worth::exact : figure_worth::at_least;
        one.exclusive.worth = worth_of(one.complete, others);
        one.shared.worth = space->complete ? figure_worth::exact : figure_worth::at_least;
    }
    space->freed.worth =
        worth_of(incomplete_in_set == 0, !hidden && incomplete == incomplete_in_set);
}

// The files are not what a replay makes of them: nothing is sure.
static void doubt_everything(volume_space* space) {
    for (map_space& one : space->maps) {
        one.complete = false;
        for (space_figure* figure : {&one.mapped, &one.exclusive, &one.shared}) {
            figure->worth = figure_worth::unsure;
        }
    }
    space->freed.worth = figure_worth::unsure;
    space->complete = false;
    space->table_known = false;
    space->free_known = false;
}

static void count_free(check_state* state, volume_check* volume, volume_space* space) {
    if (!volume->has_index) {
        return;
    }
    check_index_blocks(state, volume);
    const uint64_t handed_out = volume->initialised * TBL_GROUP_ENTRIES;
    space->free_known = volume->has_index && volume->bad_index_blocks.empty() &&
                        space->table_known && handed_out >= space->in_use;
    space->free = space->free_known ? handed_out - space->in_use : 0;
}

bool measure_volume(check_state* state, volume_check* volume,
                    const std::vector<const map_check*>& set, uint64_t memory, bool sure,
                    volume_space* space) {
    const map_order order = order_of(*volume, set);
    const auto in_set = static_cast<uint32_t>(
        std::count_if(volume->maps.begin(), volume->maps.end(), [&set](const map_check& map) {
            return std::find(set.begin(), set.end(), &map) != set.end();
        }));
    *space = {};
    space->root = volume->files->root;
    space->extent_size = extent_bytes(volume);
    space->strangers = volume->files->stranger_maps;
    for (const view_gap& gap : volume->files->gaps) {
        space->unread.push_back(gap.path);
    }
    begin_maps(order, in_set, space);
    const auto owners =
        count_owners({static_cast<uint32_t>(order.size()), in_set, volume->extents, memory});
    if (owners == nullptr) {
        return false;
    }
    scan_volume(volume, order, state->request->progress, owners.get(), space);
    take_figures(order, *owners, space);
    judge_worth(!volume->files->gaps.empty(), space);
    count_free(state, volume, space);
    space->adds_up =
        space->table_known && space->mapped_free == 0 && space->counted == space->references;
    for (const view_data_file& file : volume->files->data_files) {
        space->data_bytes += file.size;
    }
    if (!sure) {
        doubt_everything(space);
    }
    return true;
}
