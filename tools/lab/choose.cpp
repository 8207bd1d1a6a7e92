#include "lab/choose.h"

#include <algorithm>

namespace lab {

constexpr uint64_t MAP_KEPT_BIT = uint64_t{1} << 61;

size_t pick_map(model* m, size_t volume_index, unsigned roles) {
    const std::vector<size_t>& maps = m->volumes[volume_index].maps;
    const uint64_t first = random_below(&m->work, maps.size());
    for (size_t i = 0; i < maps.size(); i++) {
        const size_t candidate = maps[(first + i) % maps.size()];
        if ((role_bit(m->maps[candidate].role) & roles) != 0) {
            return candidate;
        }
    }
    return NO_MAP;
}

bool is_mapped(uint64_t word) {
    return (word & MAP_MAPPED_BIT) != 0;
}

uint64_t lpa_of(uint64_t word) {
    return word & MAP_LPA_MASK;
}

// Finds the first address from a random one on whose entry is mapped, or unmapped.
static lea_run pick_first(model* m, const lun_map& map, bool mapped) {
    const uint64_t total = map.entries.size();
    const uint64_t first = random_below(&m->work, total);
    for (uint64_t i = 0; i < total; i++) {
        const uint64_t lea = (first + i) % total;
        if (is_mapped(map.entries[lea]) == mapped) {
            return {lea, 1};
        }
    }
    return {0, 0};
}

lea_run pick_mapped(model* m, const lun_map& map) {
    return pick_first(m, map, true);
}

lea_run pick_target(model* m, const lun_map& map, uint64_t most) {
    if (map.role == map_role::buffer) {
        return {map.mapped_count, std::min<uint64_t>(most, map.entries.size() - map.mapped_count)};
    }
    lea_run run = pick_first(m, map, false);
    while (run.length > 0 && run.length < most && run.start + run.length < map.entries.size() &&
           !is_mapped(map.entries[run.start + run.length])) {
        run.length++;
    }
    return run;
}

uint64_t mapped_word(model* m, const lun_map& map, uint64_t lpa) {
    const uint64_t kept = random_chance(&m->work, 3) ? MAP_KEPT_BIT : 0;
    return MAP_MAPPED_BIT | kept | (uint64_t{map.own_row} << 48) | lpa;
}

uint64_t bare_marker(bool flagged) {
    return MAP_SYNC_BIT | (flagged ? MAP_FLAG_BIT : 0);
}

}  // namespace lab
