#include "lab/workload.h"

#include <algorithm>

#include "lab/choose.h"
#include "lab/extents.h"
#include "lab/file_records.h"
#include "lab/history.h"
#include "lab/maps.h"

namespace lab {

using transaction_kind = bool (*)(model* m, transaction* t, size_t volume_index);

constexpr struct {
    transaction_kind add;
    unsigned weight;
} KINDS[] = {
    {allocate, 28},     {copy, 20},         {move_to_map, 6},       {move_to_buffer, 16},
    {unmap_shared, 12}, {move_inside, 4},   {free_from_buffer, 16}, {touch_entry, 3},
    {share_extent, 4},  {prepare_group, 1},
};

static transaction_kind pick_kind(model* m) {
    unsigned total = 0;
    for (const auto& kind : KINDS) {
        total += kind.weight;
    }
    uint64_t ticket = random_below(&m->work, total);
    for (const auto& kind : KINDS) {
        if (ticket < kind.weight) {
            return kind.add;
        }
        ticket -= kind.weight;
    }
    return touch_entry;
}

// An unmap buffer that is more than two thirds full is emptied first.
static bool buffer_is_full(const model& m, size_t volume_index) {
    for (const size_t map_index : m.volumes[volume_index].maps) {
        const lun_map& map = m.maps[map_index];
        if (map.role == map_role::buffer && map.mapped_count * 3 > map.entries.size() * 2) {
            return true;
        }
    }
    return false;
}

// Before the burst the service keeps a few extents free in the initialised groups, so that the
// burst soon needs a new group: allocations that move to a new group inside the budget test the
// most.
static bool allocates(model* m, size_t volume_index, transaction_kind picked) {
    constexpr uint64_t FEW = 15;
    if (m->journal.commits >= m->burst_from) {
        return picked == allocate || random_chance(&m->work, 50);
    }
    const bool held_back =
        m->burst_from != NO_BURST && spare_extents(m->volumes[volume_index]) < FEW;
    return picked == allocate && !held_back;
}

static void add_part(model* m, transaction* t) {
    const size_t volume_index = random_below(&m->work, m->volumes.size());
    if (buffer_is_full(*m, volume_index) && free_from_buffer(m, t, volume_index)) {
        return;
    }
    const transaction_kind picked = pick_kind(m);
    if (allocates(m, volume_index, picked)) {
        (void)allocate(m, t, volume_index);
    } else if (picked != allocate) {
        (void)picked(m, t, volume_index);
    }  // deliberate: if no place is suitable, the caller tries again
}

transaction next_transaction(model* m) {
    constexpr int ATTEMPTS = 8;
    transaction t = {{}, random_between(&m->work, 1, m->journal.largest)};
    uint64_t parts = random_chance(&m->work, 60) ? 1 : random_between(&m->work, 2, 5);
    for (int i = 0; i < ATTEMPTS && parts > 0 && has_room(t); i++) {
        const size_t blocks_before = t.blocks.size();
        add_part(m, &t);
        parts -= t.blocks.size() > blocks_before ? 1 : 0;
    }
    if (t.blocks.empty()) {
        if (random_chance(&m->work, 10)) {
            add_empty_file_block(m, &t);
        } else {
            (void)touch_entry(m, &t, random_below(&m->work, m->volumes.size()));
        }
    }
    return t;
}

// Removes a trash map that has no mapped entries and that no record in the budget names.
static void remove_one(model* m, volume* vol) {
    for (size_t i = 0; i < vol->maps.size(); i++) {
        lun_map& map = m->maps[vol->maps[i]];
        const bool gone_from_budget =
            map.last_commit == 0 || map.last_commit + m->journal.budget <= m->journal.commits;
        if (map.role == map_role::trash && map.mapped_count == 0 && gone_from_budget) {
            map.entries = std::vector<uint64_t>();
            vol->maps.erase(vol->maps.begin() + static_cast<std::ptrdiff_t>(i));
            return;
        }
    }
}

static void trash_one(model* m, size_t volume_index) {
    const size_t map_index = pick_map(m, volume_index, role_bit(map_role::snapshot));
    if (map_index != NO_MAP) {
        move_to_trash(&m->maps[map_index]);
    }
}

static uint64_t snapshots_of(const model& m, const volume& vol) {
    uint64_t count = 0;
    for (const size_t map_index : vol.maps) {
        count += m.maps[map_index].role == map_role::snapshot ? 1 : 0;
    }
    return count;
}

void change_maps(model* m) {
    if (!random_chance(&m->work, 4)) {
        return;
    }
    const size_t volume_index = random_below(&m->work, m->volumes.size());
    volume& vol = m->volumes[volume_index];
    switch (random_below(&m->work, 3)) {
        case 0:
            remove_one(m, &vol);
            break;
        case 1:
            if (snapshots_of(*m, vol) > 1) {  // at least one snapshot map stays
                trash_one(m, volume_index);
            }
            break;
        default:
            (void)add_map(m, volume_index, map_role::snapshot);
            break;
    }
}

}  // namespace lab
