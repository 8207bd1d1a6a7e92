#include "lab/fill.h"

#include <algorithm>

#include "lab/choose.h"
#include "lab/extents.h"
#include "lab/metadata.h"

namespace lab {

static std::vector<size_t> maps_with(const model& m, const volume& vol, unsigned roles) {
    std::vector<size_t> found;
    for (const size_t map_index : vol.maps) {
        if ((role_bit(m.maps[map_index].role) & roles) != 0) {
            found.push_back(map_index);
        }
    }
    return found;
}

static void map_lea(model* m, size_t map_index, uint64_t lea, uint64_t lpa) {
    const lun_map& map = m->maps[map_index];
    set_map(m, map_index, lea, mapped_word(m, map, lpa));
    set_mapped_count(m, map_index, map.mapped_count + 1);
}

static void map_run(model* m, size_t map_index, uint64_t start, uint64_t length) {
    uint64_t done = 0;
    while (done < length) {
        for (const uint64_t lpa : take_extents(m, m->maps[map_index].volume, length - done)) {
            map_lea(m, map_index, start + done, lpa);
            done++;
        }
    }
}

// Maps exactly `quota` addresses, in runs with gaps between them.
static void fill_map(model* m, size_t map_index, uint64_t quota) {
    constexpr uint64_t LONGEST_RUN = 48;
    constexpr uint64_t LONGEST_GAP = 24;
    const uint64_t total = m->maps[map_index].entries.size();
    uint64_t lea = 0;
    while (quota > 0) {
        const uint64_t spare = total - lea - quota;
        lea += random_below(&m->work, std::min(spare, LONGEST_GAP) + 1);
        const uint64_t run = std::min(quota, random_between(&m->work, 1, LONGEST_RUN));
        map_run(m, map_index, lea, run);
        lea += run;
        quota -= run;
    }
}

// Picks how many extents to use: often so many that the next allocations cross the end of a group.
static uint64_t pick_used_count(model* m, uint64_t addresses) {
    const uint64_t most = addresses / 4 * 3;
    const uint64_t groups = most / TBL_GROUP_ENTRIES;
    const uint64_t choice = random_below(&m->work, 10);
    if (choice == 0) {
        return 0;
    }
    if (choice < 7 && groups > 0) {
        return groups * TBL_GROUP_ENTRIES - random_below(&m->work, 80);
    }
    return random_below(&m->work, most + 1);
}

static void use_extents(model* m, const std::vector<size_t>& maps) {
    uint64_t addresses = 0;
    for (const size_t map_index : maps) {
        addresses += m->maps[map_index].entries.size();
    }
    uint64_t left = pick_used_count(m, addresses);
    for (size_t i = 0; i < maps.size(); i++) {
        const uint64_t quota = std::min<uint64_t>((left + maps.size() - i - 1) / (maps.size() - i),
                                                  m->maps[maps[i]].entries.size());
        fill_map(m, maps[i], quota);
        left -= quota;
    }
}

static void share_some(model* m, size_t volume_index) {
    const unsigned sources = role_bit(map_role::lun) | role_bit(map_role::trash);
    const uint64_t count = random_below(&m->work, 200);
    for (uint64_t i = 0; i < count; i++) {
        const lun_map& source = m->maps[pick_map(m, volume_index, sources)];
        const size_t to = pick_map(m, volume_index, ALL_ROLES);
        const lea_run source_run = pick_mapped(m, source);
        const lea_run target_run = pick_target(m, m->maps[to], 1);
        if (source_run.length == 0 || target_run.length == 0) {
            return;
        }
        const uint64_t lpa = lpa_of(source.entries[source_run.start]);
        if (references(m->volumes[volume_index], lpa) < TBL_COUNT_MAX) {
            add_reference(m, volume_index, lpa);
            map_lea(m, to, target_run.start, lpa);
        }
    }
}

static void free_some(model* m, size_t volume_index) {
    const uint64_t count = random_below(&m->work, random_chance(&m->work, 50) ? 10 : 200);
    for (uint64_t i = 0; i < count; i++) {
        const size_t map_index = pick_map(m, volume_index, role_bit(map_role::lun));
        const lun_map& map = m->maps[map_index];
        const lea_run source_run = pick_mapped(m, map);
        if (source_run.length == 0) {
            continue;
        }
        const uint64_t lpa = lpa_of(map.entries[source_run.start]);
        if (references(m->volumes[volume_index], lpa) == 1) {
            free_extent(m, volume_index, lpa);
            set_map(m, map_index, source_run.start,
                    random_chance(&m->work, 50) ? bare_marker(false) : 0);
            set_mapped_count(m, map_index, map.mapped_count - 1);
        }
    }
}

// Sets reserved bits of table and index entries, including the next group's. Changes that do not
// overwrite the whole entry keep them.
static void set_reserved_bits(model* m, volume* vol) {
    const uint64_t next = end_group(*vol);
    reach_group(vol, next);
    for (int i = 0; i < 40; i++) {
        const uint64_t first = i % 2 == 0 ? 0 : tbl_lpa_of(next, 0);
        uint16_t& word = vol->tbl[first + random_below(&m->work, vol->tbl.size() - first)];
        word = static_cast<uint16_t>(word | (random_next(&m->work) & TBL_KEPT_BITS));
    }
    if (random_chance(&m->work, 50)) {
        fri_entry& entry = vol->fri[random_below(&m->work, vol->fri.size())];
        entry.ef_count_attr = static_cast<uint16_t>(entry.ef_count_attr | FRI_ATTR_BIT);
    }
}

// Some free extents were in use before the sample's first transaction, and still hold data.
static void remember_old_data(volume* vol) {
    for (uint64_t lpa = 0; lpa < end_group(*vol) * TBL_GROUP_ENTRIES; lpa++) {
        const bool used = (vol->tbl[lpa] & TBL_USED_BIT) != 0;
        if (!used && scramble(scramble(vol->noise, 70), lpa) % 4 == 0) {
            vol->taken.push_back(lpa);
        }
    }
}

void fill_volume(model* m, size_t volume_index) {
    volume& vol = m->volumes[volume_index];
    use_extents(m, maps_with(*m, vol,
                             role_bit(map_role::lun) | role_bit(map_role::snapshot) |
                                 role_bit(map_role::trash)));
    share_some(m, volume_index);
    free_some(m, volume_index);
    set_reserved_bits(m, &vol);
    remember_old_data(&vol);
    vol.noisy_blocks = tbl_block_of(vol.tbl.size()) + 4;
}

}  // namespace lab
