// What the workload picks at random: maps, runs of addresses, entry words. Below: model.h.
#pragma once

#include "lab/model.h"

namespace lab {

constexpr size_t NO_MAP = SIZE_MAX;

struct lea_run {
    uint64_t start;
    uint64_t length;  // 0: no run
};

constexpr unsigned role_bit(map_role role) {
    return 1u << static_cast<unsigned>(role);
}
constexpr unsigned ALL_ROLES = 0x1F;

// Picks a map of the volume whose role has its bit in `roles`. NO_MAP if there is none.
size_t pick_map(model* m, size_t volume_index, unsigned roles);

// Picks a run of 1 to `most` unmapped addresses, anywhere in the map. The unmap buffer has no gaps:
// its run follows the mapped entries.
lea_run pick_target(model* m, const lun_map& map, uint64_t most);
// Picks one mapped address, anywhere in the map.
lea_run pick_mapped(model* m, const lun_map& map);

bool is_mapped(uint64_t word);
uint64_t lpa_of(uint64_t word);
// Makes a mapped entry for this map, sometimes with a reserved bit set.
uint64_t mapped_word(model* m, const lun_map& map, uint64_t lpa);
uint64_t bare_marker(bool flagged);  // what MOVES and UNMAP leave at the source

}  // namespace lab
