#include "lab/aging.h"

#include <algorithm>

#include "journal_status.h"
#include "lab/choose.h"
#include "lab/crash.h"
#include "lab/file_records.h"
#include "lab/history.h"
#include "lab/maps.h"
#include "lab/workload.h"

namespace lab {

// The name of a deleted LUN whose successor does not exist yet.
struct vacant_name {
    size_t volume;
    std::string path;
};

// The one that is empty soonest. NO_MAP if there is none.
static size_t pick_mapped_trash(const model& m, size_t volume_index) {
    size_t picked = NO_MAP;
    for (const size_t map : m.volumes[volume_index].maps) {
        const uint64_t count = m.maps[map].mapped_count;
        if (m.maps[map].role == map_role::trash && count > 0 &&
            (picked == NO_MAP || count < m.maps[picked].mapped_count)) {
            picked = map;
        }
    }
    return picked;
}

// Unmaps entries of one map until the transaction is full: some of those with another reference in
// place, the others by way of the unmap buffer. The last ones all go to the buffer.
static void drain(model* m, transaction* t, size_t map_index) {
    constexpr uint64_t LAST_ONES = 200;
    const lun_map& map = m->maps[map_index];
    while (has_room(*t) && map.mapped_count > 0) {
        const bool in_place = map.mapped_count > LAST_ONES && random_chance(&m->work, 30) &&
                              unmap_shared_of(m, t, map_index);
        if (!in_place && !move_from(m, t, map_index) && !free_from_buffer(m, t, map.volume)) {
            return;
        }
    }
}

// Picks a map with entries to unmap: usually a deleted one, sometimes a LUN, which is trimmed.
static size_t pick_map_to_drain(model* m, size_t volume_index) {
    const size_t deleted = pick_mapped_trash(*m, volume_index);
    return deleted == NO_MAP || random_chance(&m->work, 20)
               ? pick_map(m, volume_index, role_bit(map_role::lun))
               : deleted;
}

static transaction next_aging_transaction(model* m) {
    transaction t = {{}, random_between(&m->work, 1, m->journal.largest)};
    const size_t volume_index = random_below(&m->work, m->volumes.size());
    switch (random_below(&m->work, 6)) {
        case 0:
        case 1: {
            const size_t map_index = pick_map_to_drain(m, volume_index);
            if (map_index != NO_MAP) {
                drain(m, &t, map_index);
            }
            break;
        }
        case 2:
            while (has_room(t) && free_from_buffer(m, &t, volume_index)) {
            }
            break;
        case 3:
            while (has_room(t) && allocate(m, &t, volume_index)) {
            }
            break;
        default:
            break;
    }
    return t.blocks.empty() ? next_transaction(m) : t;
}

// Half of the time the LUN with the fewest mapped entries, which is empty soon.
static size_t pick_lun_to_delete(model* m, size_t volume_index) {
    size_t picked = pick_map(m, volume_index, role_bit(map_role::lun));
    if (picked == NO_MAP || random_chance(&m->work, 50)) {
        return picked;
    }
    for (const size_t map : m->volumes[volume_index].maps) {
        const bool fewer = m->maps[map].mapped_count < m->maps[picked].mapped_count;
        picked = m->maps[map].role == map_role::lun && fewer ? map : picked;
    }
    return picked;
}

static void delete_lun(model* m, size_t volume_index, std::vector<vacant_name>* vacant) {
    const size_t map_index = pick_lun_to_delete(m, volume_index);
    if (map_index != NO_MAP) {
        vacant->push_back({volume_index, m->maps[map_index].path});
        move_to_numbered_trash(m, map_index);
    }
}

static void make_anew(model* m, std::vector<vacant_name>* vacant) {
    const vacant_name name = vacant->front();
    vacant->erase(vacant->begin());
    const size_t map_index = add_map(m, name.volume, map_role::lun);
    m->maps[map_index].path = name.path;
}

// The file goes although records inside the budget still name the map, unless replay needs its pool
// table. Its entries stay in the model: writes inside the budget refer to them.
static void remove_empty(model* m, size_t volume_index) {
    std::vector<size_t>& maps = m->volumes[volume_index].maps;
    const auto removable = [m](size_t index) {
        const lun_map& map = m->maps[index];
        const bool pools_unused =
            map.last_pools_use == 0 || map.last_pools_use + m->journal.budget <= m->journal.commits;
        return map.role == map_role::trash && map.mapped_count == 0 && pools_unused;
    };
    maps.erase(std::remove_if(maps.begin(), maps.end(), removable), maps.end());
}

static void age_maps(model* m, std::vector<vacant_name>* vacant) {
    const size_t volume_index = random_below(&m->work, m->volumes.size());
    remove_empty(m, volume_index);
    if (random_chance(&m->work, 8) && pick_mapped_trash(*m, volume_index) == NO_MAP) {
        delete_lun(m, volume_index, vacant);
    }
    if (!vacant->empty() && random_chance(&m->work, 30)) {
        make_anew(m, vacant);
    }
    change_maps(m);
}

// Half of the time the last transactions need a new group.
static uint64_t plan_burst(model* m, uint64_t transactions) {
    const uint64_t length = random_between(&m->work, 1, m->journal.budget + 1);
    return random_chance(&m->work, 50)
               ? NO_BURST
               : m->journal.commits + transactions - std::min(length, transactions);
}

void age_model(model* m, const run_notes& notes) {
    constexpr uint64_t STREAM_AGE = 6;
    const bool crashes = notes.kind == NOTES_AGED;
    m->work = random_of(notes.seed, STREAM_AGE);
    m->plan = crashes ? plan_crash(notes.seed) : crash_plan{};
    m->burst_from = plan_burst(m, notes.done);
    m->aged = true;
    m->crashed = crashes;
    m->journal.header.jnl_shutdown_tag = crashes ? JNL_STATUS_ABNORMAL : JNL_STATUS_SUCCESS;
    std::vector<vacant_name> vacant;
    for (uint64_t i = 1; i <= notes.done; i++) {
        transaction t = next_aging_transaction(m);
        if (i == notes.done && m->plan.torn != torn_kind::none) {
            tear(m, &t);
            return;
        }
        commit(m, &t);
        age_maps(m, &vacant);
    }
}

uint64_t removed_but_named(const model& m) {
    std::vector<bool> exists(m.maps.size(), false);
    for (const volume& vol : m.volumes) {
        for (const size_t map : vol.maps) {
            exists[map] = true;
        }
    }
    uint64_t count = 0;
    for (size_t map = 0; map < m.maps.size(); map++) {
        const bool named = m.maps[map].last_commit + m.journal.budget > m.journal.commits;
        count += !exists[map] && named ? 1 : 0;
    }
    return count;
}

}  // namespace lab
