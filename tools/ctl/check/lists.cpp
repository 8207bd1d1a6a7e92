// The index of a volume: the checksums of its blocks, and the list of groups with free extents.
#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <set>

#include "ctl/check/state.h"
#include "fri/fri_window.h"
#include "store/crc32c.h"
#include "store/file.h"

static constexpr uint32_t RUN_BLOCKS = 128;  // of one read
static constexpr uint64_t NEAR_GROUPS_MIN = 4096;
static constexpr uint64_t NEAR_GROUPS_MAX = 1 << 22;  // 32 MiB of entries

static std::string index_name(const volume_check* volume) {
    return below_root(volume, volume->files->index);
}

static void take_entries(volume_check* volume, const data_node* node, uint64_t block) {
    for (uint64_t slot = 0; slot < FRI_BLOCK_ENTRIES; slot++) {
        fri_entry entry;
        memcpy(&entry, node->payload + slot * sizeof entry, sizeof entry);
        const uint64_t group = block * FRI_BLOCK_ENTRIES + slot;
        if (group < volume->near_groups.size()) {
            volume->near_groups[group] = entry;
        }
        if (fri_entry_is_init(&entry)) {
            volume->index_end = group + 1;
            volume->initialised++;
        }
    }
}

// Whether a block that did not match does so when it is read again: a service may be writing it.
static bool matches_now(int fd, data_node* node, uint64_t block) {
    for (int tries = 0; tries < 2; tries++) {
        if (!read_fd_run(fd, node, data_node_offset(block), sizeof *node)) {
            return false;
        }
        if (!mismatch_of(node).found) {
            return true;
        }
    }
    return false;
}

static void look_at_blocks(check_state* state, volume_check* volume, int fd, data_node* nodes,
                           uint64_t first, uint32_t count) {
    uint32_t computed[RUN_BLOCKS];
    tarn_crc32c_blocks(nodes, count, computed);
    for (uint32_t i = 0; i < count; i++) {
        if (nodes[i].checksum != 0 && nodes[i].checksum != computed[i] &&
            !matches_now(fd, &nodes[i], first + i)) {
            (void)add_damaged_block(state, volume, &volume->bad_index_blocks, finding_code::F01,
                                    volume->files->index, first + i);
        }
        take_entries(volume, &nodes[i], first + i);
    }
}

void check_index_blocks(check_state* state, volume_check* volume) {
    volume->near_groups.assign(
        std::clamp((volume->extents + TBL_GROUP_ENTRIES - 1) / TBL_GROUP_ENTRIES, NEAR_GROUPS_MIN,
                   NEAR_GROUPS_MAX),
        fri_entry{});
    const int opened = io_open(volume->files->index.c_str(), O_RDONLY | O_NONBLOCK, 0);
    if (opened <= 0) {
        add_unread(state, volume, volume->files->index, errno);
        volume->has_index = false;
        return;
    }
    const scoped_fd fd(opened);
    std::vector<data_node> nodes(RUN_BLOCKS);
    for (uint64_t block = 0; block < FRI_BLOCK_COUNT;) {
        const uint64_t group =
            fri_next_group_with_data(opened, block * FRI_BLOCK_ENTRIES, FRI_GROUP_CAPACITY);
        block = std::max(block, fri_block_of(group));
        if (block >= FRI_BLOCK_COUNT) {
            break;
        }
        const auto count =
            static_cast<uint32_t>(std::min<uint64_t>(RUN_BLOCKS, FRI_BLOCK_COUNT - block));
        if (!read_fd_run(opened, nodes.data(), data_node_offset(block),
                         count * sizeof(data_node))) {
            add_unread(state, volume, volume->files->index, errno != 0 ? errno : EIO);
            volume->has_index = false;
            return;
        }
        look_at_blocks(state, volume, opened, nodes.data(), block, count);
        block += count;
    }
}

static constexpr size_t FULL_GROUPS_MAX = 100000;

// The walk along the list of groups.
struct group_walk {
    check_state* state;
    volume_check* volume;
    int fd;
    fri_window window;
    std::vector<uint64_t> wanted;  // bit of each group that the list should still pass
    uint64_t wanted_count;
    std::set<uint64_t> full;  // groups without a free extent that the list passed
    int cause;
    bool unread;
};

static fri_entry entry_of(group_walk* walk, uint64_t group) {
    fri_entry entry = {};
    if (group < walk->volume->near_groups.size()) {
        entry = walk->volume->near_groups[group];
    } else if (group < walk->volume->index_end &&
               !fri_window_read(walk->fd, &walk->window, group, &entry)) {
        walk->unread = true;
    }
    return entry;
}

static bool is_initialised(group_walk* walk, uint64_t group) {
    const fri_entry entry = entry_of(walk, group);
    return group < walk->volume->index_end && fri_entry_is_init(&entry);
}

static bool is_wanted(const group_walk* walk, uint64_t group) {
    return (walk->wanted[group / 64] >> group % 64 & 1) != 0;
}

static void collect_wanted(group_walk* walk) {
    walk->wanted.assign(walk->volume->index_end / 64 + 1, 0);
    for (uint64_t group = 0; group < walk->volume->index_end; group++) {
        if (group >= walk->volume->near_groups.size() && group % FRI_BLOCK_ENTRIES == 0) {
            group = fri_next_group_with_data(walk->fd, group, walk->volume->index_end);
            if (group == walk->volume->index_end) {
                break;
            }
        }
        const fri_entry entry = entry_of(walk, group);
        if (fri_entry_is_init(&entry) && fri_entry_count(&entry) > 0) {
            walk->wanted[group / 64] |= uint64_t{1} << group % 64;
            walk->wanted_count++;
        }
    }
}

static void report_group(group_walk* walk, finding_code code, uint64_t group, severity level) {
    add_finding(walk->state, code, walk->volume, index_name(walk->volume));
    finding* added = &walk->state->findings.back();
    added->level = level;
    added->place = place_kind::group;
    added->first = group;
    added->count = 1;
    added->because = walk->cause;
}

// What the list does not pass afterwards is a consequence.
static void explain_the_rest(group_walk* walk) {
    if (walk->cause == NO_CAUSE) {
        walk->cause = static_cast<int>(walk->state->findings.size()) - 1;
    }
}

static void report_loop(group_walk* walk, uint64_t group) {
    report_group(walk, finding_code::F07, group, finding_row_of(finding_code::F07)->level);
    explain_the_rest(walk);
}

// A full group, or one that no index has.
static void report_bad_link(group_walk* walk, uint64_t group) {
    report_group(walk, finding_code::F08, group,
                 group > FRI_GROUP_CAPACITY ? severity::damage : severity::count);
    walk->state->findings.back().detail = group > FRI_GROUP_CAPACITY
                                              ? "No index has a group of this number."
                                              : "The group has no free extent.";
}

// Follows the list from its head. Every step either clears a wanted group, or is one of the full
// groups, of which there are no more than initialised ones.
static void follow(group_walk* walk) {
    uint64_t group = walk->volume->index.fri_group_head;
    uint64_t steps = 0;
    while (group < FRI_GROUP_CAPACITY && is_initialised(walk, group)) {
        if (walk->wanted_count == 0) {
            if (steps > 0) {
                report_group(walk, finding_code::F12, group, severity::note);
            }
            return;
        }
        if (is_wanted(walk, group)) {
            walk->wanted[group / 64] &= ~(uint64_t{1} << group % 64);
            walk->wanted_count--;
        } else {
            const fri_entry entry = entry_of(walk, group);
            if (fri_entry_count(&entry) > 0 || !walk->full.insert(group).second ||
                walk->full.size() > FULL_GROUPS_MAX) {
                report_loop(walk, group);
                return;
            }
            report_bad_link(walk, group);
        }
        const fri_entry entry = entry_of(walk, group);
        group = fri_entry_next(&entry);
        steps++;
    }
    if (group > FRI_GROUP_CAPACITY) {
        report_bad_link(walk, group);
        explain_the_rest(walk);
    }
}

static void report_unlisted(group_walk* walk) {
    for (uint64_t group = 0; group < walk->volume->index_end && walk->wanted_count > 0; group++) {
        if (is_wanted(walk, group)) {
            add_place(&walk->volume->runs[finding_code::F09],
                      {group, 1, NO_VALUE, NO_VALUE, walk->cause});
        }
    }
}

static void check_counts(check_state* state, const volume_check* volume, int cause) {
    const bool node2 = (volume->index_view.bad_nodes >> 2 & 1) != 0;
    const uint64_t free_count = TBL_TOTAL_COUNT - volume->used_extents;
    if (!node2 && volume->has_table && volume->table_read &&
        volume->index.fri_free_count != free_count) {
        add_finding(state, finding_code::F10, volume, index_name(volume));
        finding* added = &state->findings.back();
        added->was = std::to_string(volume->index.fri_free_count);
        added->ought = std::to_string(free_count);
        added->because = cause;
    }
    if ((volume->index_view.bad_nodes >> 1 & 1) == 0 &&
        volume->index.fri_group_count < volume->index_end) {
        add_finding(state, finding_code::F11, volume, index_name(volume));
        finding* added = &state->findings.back();
        added->was = std::to_string(volume->index.fri_group_count);
        added->ought = std::to_string(volume->index_end);
        added->because =
            cause_of_block(volume->bad_index_blocks, fri_block_of(volume->index_end - 1));
        added->level = severity::note;
    }
}

void check_group_list(check_state* state, volume_check* volume) {
    const int opened = io_open(volume->files->index.c_str(), O_RDONLY | O_NONBLOCK, 0);
    if (opened <= 0) {
        add_unread(state, volume, volume->files->index, errno);
        return;
    }
    const scoped_fd fd(opened);
    group_walk walk = {state, volume, opened, {}, {}, 0, {}, NO_CAUSE, false};
    if (!volume->bad_index_blocks.empty()) {
        walk.cause = volume->bad_index_blocks.begin()->second.finding;
    }
    collect_wanted(&walk);
    if ((volume->index_view.bad_nodes >> 2 & 1) == 0) {
        follow(&walk);
        report_unlisted(&walk);
    }
    if (walk.unread) {
        add_unread(state, volume, volume->files->index, EIO);
    }
    check_counts(state, volume,
                 volume->bad_table_blocks.empty()
                     ? NO_CAUSE
                     : volume->bad_table_blocks.begin()->second.finding);
}
