#include "lab/history.h"

#include <algorithm>

#include "lab/choose.h"
#include "lab/extents.h"
#include "lab/file_records.h"
#include "lab/metadata.h"

namespace lab {

constexpr unsigned SERVING_ROLES = role_bit(map_role::lun) | role_bit(map_role::snapshot);

// Adds one block with extents of one group, possibly fewer than the run needs. Returns their
// number.
static uint64_t add_alloc_block(model* m, transaction* t, size_t map_index, const lea_run& run) {
    const lun_map& map = m->maps[map_index];
    volume& vol = m->volumes[map.volume];
    const uint64_t group = vol.group_head;
    reach_group(&vol, group);
    jnl_block block = blank_block(m);
    block.alloc.ef_old = vol.fri[group];
    const std::vector<uint64_t> taken =
        take_extents(m, map.volume, std::min<uint64_t>(run.length, JNL_ALLOC_MAX));
    for (size_t i = 0; i < taken.size(); i++) {
        set_map(m, map_index, run.start + i, mapped_word(m, map, taken[i]));
        block.alloc.map[i].word = map.entries[run.start + i];
    }
    set_mapped_count(m, map_index, map.mapped_count + taken.size());

    block.alloc.type = JNL_BLOCK_ALLOC;
    copy_uuid(block.alloc.dst_uuid, map.id);
    block.alloc.dst_lea = run.start;
    block.alloc.count = static_cast<uint8_t>(taken.size());
    block.alloc.mapped_count_new = map.mapped_count;
    copy_uuid(block.alloc.pool_uuid, vol.pool);
    block.alloc.group_num = group;
    block.alloc.ef_new = vol.fri[group];
    block.alloc.total_free_count = vol.free_count;
    block.alloc.group_head = vol.group_head;
    add_block(t, block);
    note_named_map(m, map_index);
    return taken.size();
}

bool allocate(model* m, transaction* t, size_t volume_index) {
    const size_t map_index = pick_map(m, volume_index, SERVING_ROLES);
    const uint64_t most = random_between(&m->work, 1, random_chance(&m->work, 30) ? 150 : 20);
    lea_run run = pick_target(m, m->maps[map_index], most);
    if (run.length == 0) {
        return false;
    }
    while (run.length > 0 && has_room(*t)) {
        const uint64_t done = add_alloc_block(m, t, map_index, run);
        run = {run.start + done, run.length - done};
    }
    return true;
}

// Copies up to `count` entries and returns how many it copied. Stops at an extent that already has
// the maximum number of references.
static uint64_t add_copies(model* m, size_t to, uint64_t to_lea, size_t from, uint64_t from_lea,
                           uint64_t count) {
    const lun_map& source = m->maps[from];
    const lun_map& target = m->maps[to];
    for (uint64_t i = 0; i < count; i++) {
        const uint64_t word = source.entries[from_lea + i];
        if (!is_mapped(word)) {
            set_map(m, to, to_lea + i, word);  // a hole, or its marker
            continue;
        }
        if (references(m->volumes[source.volume], lpa_of(word)) == TBL_COUNT_MAX) {
            return i;
        }
        add_reference(m, source.volume, lpa_of(word));
        set_map(m, to, to_lea + i, mapped_word(m, target, lpa_of(word)));
        set_mapped_count(m, to, target.mapped_count + 1);
    }
    return count;
}

static bool disjoint(uint64_t a, uint64_t b, uint64_t length) {
    return a + length <= b || b + length <= a;
}

bool copy(model* m, transaction* t, size_t volume_index) {
    const size_t from = pick_map(m, volume_index, SERVING_ROLES | role_bit(map_role::rod));
    const size_t to = random_chance(&m->work, 15)
                          ? from
                          : pick_map(m, volume_index, SERVING_ROLES | role_bit(map_role::rod));
    const lun_map& source = m->maps[from];
    const lun_map& target = m->maps[to];
    const uint64_t longest = random_chance(&m->work, 3) ? 0 : JNL_XCOPY_MAX;
    const lea_run target_run = pick_target(m, target, longest == 0 ? 1 : longest);
    const lea_run source_run = pick_mapped(m, source);
    if (target_run.length == 0 || source_run.length == 0) {
        return false;
    }
    uint64_t count =
        std::min({longest, target_run.length, source.entries.size() - source_run.start});
    count = count == 0 ? 0 : random_between(&m->work, 1, count);
    if (to == from && !disjoint(source_run.start, target_run.start, count)) {
        return false;
    }
    jnl_block block = blank_block(m);
    count = add_copies(m, to, target_run.start, from, source_run.start, count);
    block.xcopy.type = JNL_BLOCK_XCOPY;
    copy_uuid(block.xcopy.dst_uuid, target.id);
    copy_uuid(block.xcopy.src_uuid, source.id);
    block.xcopy.dst_lea = target_run.start;
    block.xcopy.src_lea = source_run.start;
    block.xcopy.count = static_cast<uint8_t>(count);
    block.xcopy.mapped_count_new = target.mapped_count;
    for (uint64_t i = 0; i < count; i++) {
        const uint64_t word = target.entries[target_run.start + i];
        block.xcopy.map[i].word = word;
        if (is_mapped(word)) {
            block.xcopy.tbl[i].word = m->volumes[volume_index].tbl[lpa_of(word)];
        }
    }
    add_block(t, block);
    note_named_map(m, from);
    note_pools_use(m, to);
    return true;
}

struct move_plan {
    size_t from;
    size_t to;
    uint64_t from_lea;
    uint64_t to_lea;
    uint64_t from_count;
    uint64_t to_count;
};

static void move_entries(model* m, const move_plan& plan, bool flagged) {
    const lun_map& source = m->maps[plan.from];
    const lun_map& target = m->maps[plan.to];
    for (uint64_t i = 0; i < plan.to_count; i++) {
        const uint64_t word = i < plan.from_count ? source.entries[plan.from_lea + i] : 0;
        if (is_mapped(word)) {
            set_map(m, plan.to, plan.to_lea + i, mapped_word(m, target, lpa_of(word)));
            set_mapped_count(m, plan.from, source.mapped_count - 1);
            set_mapped_count(m, plan.to, target.mapped_count + 1);
        } else {
            set_map(m, plan.to, plan.to_lea + i, 0);
        }
    }
    for (uint64_t i = 0; i < plan.from_count; i++) {
        set_map(m, plan.from, plan.from_lea + i, bare_marker(flagged));
    }
}

static void add_moves_block(model* m, transaction* t, const move_plan& plan) {
    const lun_map& source = m->maps[plan.from];
    const lun_map& target = m->maps[plan.to];
    const bool flagged = random_chance(&m->work, 40);
    jnl_block block = blank_block(m);
    move_entries(m, plan, flagged);
    block.moves.type = JNL_BLOCK_MOVES;
    copy_uuid(block.moves.dst_uuid, target.id);
    copy_uuid(block.moves.src_uuid, source.id);
    block.moves.dst_lea = plan.to_lea;
    block.moves.src_lea = plan.from_lea;
    block.moves.dst_count = static_cast<uint8_t>(plan.to_count);
    block.moves.src_count = static_cast<uint8_t>(plan.from_count);
    block.moves.flags = static_cast<uint8_t>((block.moves.flags & 0xFE) | (flagged ? 1 : 0));
    block.moves.dst_mapped_count_new = target.mapped_count;
    block.moves.src_mapped_count_new = source.mapped_count;
    for (uint64_t i = 0; i < plan.to_count; i++) {
        block.moves.map[i].word = target.entries[plan.to_lea + i];
    }
    add_block(t, block);
    note_named_map(m, plan.from);
    note_named_map(m, plan.to);
}

// Plans a move of entries from `source_run`, limited by the target run and the block. Sometimes the
// source range is extended by unmapped entries that need no target, or the target range by one
// entry.
static move_plan plan_move(model* m, size_t from, size_t to, const lea_run& source_run,
                           const lea_run& target_run) {
    const lun_map& source = m->maps[from];
    const uint64_t most =
        std::min<uint64_t>({target_run.length, source_run.length, uint64_t{JNL_MOVES_MAX}});
    const uint64_t count = random_between(&m->work, 1, most);
    move_plan plan = {from, to, source_run.start, target_run.start, count, count};
    while (plan.from_count < JNL_MOVES_MAX && random_chance(&m->work, 50) &&
           source_run.start + plan.from_count < source.entries.size() &&
           !is_mapped(source.entries[source_run.start + plan.from_count])) {
        plan.from_count++;
    }
    const bool to_buffer = m->maps[to].role == map_role::buffer;
    if (plan.from_count == count && count < most && !to_buffer && random_chance(&m->work, 10)) {
        plan.to_count++;
    }
    return plan;
}

// A run that starts at a mapped entry and is as long as a block allows. It may include unmapped
// entries, unless the target is the unmap buffer, which has no gaps.
static lea_run run_to_move(model* m, const lun_map& source, const lun_map& target) {
    lea_run run = pick_mapped(m, source);
    const bool to_buffer = target.role == map_role::buffer;
    while (run.length > 0 && run.length < JNL_MOVES_MAX &&
           run.start + run.length < source.entries.size() &&
           (!to_buffer || is_mapped(source.entries[run.start + run.length]))) {
        run.length++;
    }
    return run;
}

static bool move_between(model* m, transaction* t, size_t from, size_t to) {
    if (from == NO_MAP || to == NO_MAP || from == to) {
        return false;
    }
    const lea_run source_run = run_to_move(m, m->maps[from], m->maps[to]);
    const lea_run target_run = pick_target(m, m->maps[to], JNL_MOVES_MAX);
    if (random_chance(&m->work, 2)) {  // nothing moves: both counts are 0
        add_moves_block(m, t, {from, to, source_run.start, target_run.start, 0, 0});
        return true;
    }
    if (source_run.length == 0 || target_run.length == 0) {
        return false;
    }
    add_moves_block(m, t, plan_move(m, from, to, source_run, target_run));
    return true;
}

bool move_to_map(model* m, transaction* t, size_t volume_index) {
    const size_t from = pick_map(m, volume_index, ALL_ROLES & ~role_bit(map_role::buffer));
    return move_between(m, t, from, pick_map(m, volume_index, SERVING_ROLES));
}

bool move_to_buffer(model* m, transaction* t, size_t volume_index) {
    const unsigned roles = random_chance(&m->work, 50) ? role_bit(map_role::trash)
                                                       : ALL_ROLES & ~role_bit(map_role::buffer);
    return move_between(m, t, pick_map(m, volume_index, roles),
                        pick_map(m, volume_index, role_bit(map_role::buffer)));
}

bool move_from(model* m, transaction* t, size_t map_index) {
    const size_t volume_index = m->maps[map_index].volume;
    return move_between(m, t, map_index, pick_map(m, volume_index, role_bit(map_role::buffer)));
}

bool move_inside(model* m, transaction* t, size_t volume_index) {
    const size_t map_index = pick_map(m, volume_index, SERVING_ROLES);
    const lun_map& map = m->maps[map_index];
    const lea_run source_run = run_to_move(m, map, map);
    const lea_run target_run = pick_target(m, map, JNL_MOVES_MAX);
    if (t->most - t->blocks.size() < 2 || source_run.length == 0 || target_run.length == 0) {
        return false;
    }
    const move_plan plan = plan_move(m, map_index, map_index, source_run, target_run);
    if (!disjoint(plan.from_lea, plan.to_lea, std::max(plan.from_count, plan.to_count))) {
        return false;
    }
    add_moves_block(m, t, plan);
    touch_entry_of(m, t, map_index);
    return true;
}

// Unmapped entries in the range become markers too. Stops at an extent with only one reference.
// Returns the length of the range.
static uint64_t unmap_range(model* m, size_t map_index, uint64_t start, uint64_t most, bool flagged,
                            jnl_block* block) {
    const lun_map& map = m->maps[map_index];
    uint64_t i = 0;
    for (; i < most; i++) {
        const uint64_t word = map.entries[start + i];
        if (is_mapped(word)) {
            if (references(m->volumes[map.volume], lpa_of(word)) < 2) {
                break;
            }
            drop_reference(m, map.volume, lpa_of(word));
            set_mapped_count(m, map_index, map.mapped_count - 1);
        }
        block->unmap.map[i].word = word;
        set_map(m, map_index, start + i, bare_marker(flagged));
    }
    return i;
}

// Picks an entry whose extent has another reference. Length 0 if there is none.
static lea_run pick_shared(model* m, const lun_map& map) {
    const uint64_t first = random_below(&m->work, map.entries.size());
    for (uint64_t i = 0; i < map.entries.size(); i++) {
        const uint64_t lea = (first + i) % map.entries.size();
        const uint64_t word = map.entries[lea];
        if (is_mapped(word) && references(m->volumes[map.volume], lpa_of(word)) >= 2) {
            return {lea, 1};
        }
    }
    return {0, 0};
}

bool unmap_shared_of(model* m, transaction* t, size_t map_index) {
    const lun_map& map = m->maps[map_index];
    const lea_run shared = pick_shared(m, map);
    if (shared.length == 0) {
        return false;
    }
    const uint64_t most = std::min<uint64_t>(JNL_UNMAP_MAX, map.entries.size() - shared.start);
    const bool flagged = random_chance(&m->work, 40);
    jnl_block block = blank_block(m);
    const uint64_t count =
        unmap_range(m, map_index, shared.start, random_between(&m->work, 1, most), flagged, &block);
    block.unmap.type = JNL_BLOCK_UNMAP;
    copy_uuid(block.unmap.dst_uuid, map.id);
    block.unmap.dst_lea = shared.start;
    block.unmap.count = static_cast<uint8_t>(count);
    block.unmap.flags = static_cast<uint8_t>((block.unmap.flags & 0xFE) | (flagged ? 1 : 0));
    block.unmap.mapped_count_new = map.mapped_count;
    for (uint64_t i = 0; i < count; i++) {
        const uint64_t word = block.unmap.map[i].word;
        if (is_mapped(word)) {
            block.unmap.tbl[i].word = m->volumes[map.volume].tbl[lpa_of(word)];
        }
    }
    add_block(t, block);
    note_pools_use(m, map_index);
    return true;
}

bool unmap_shared(model* m, transaction* t, size_t volume_index) {
    return unmap_shared_of(m, t,
                           pick_map(m, volume_index, ALL_ROLES & ~role_bit(map_role::buffer)));
}

}  // namespace lab
