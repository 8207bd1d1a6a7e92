// What the workload picks at random: maps, runs of addresses, entry words. Below: model.h.
#pragma once

#include "lab/model.h"

namespace lab {

constexpr size_t NO_MAP = SIZE_MAX;

struct lea_run {
    uint64_t start;
    uint64_t length;  // 0: there is none
};

constexpr unsigned role_bit(map_role role) {
    return 1u << static_cast<unsigned>(role);
}
constexpr unsigned ALL_ROLES = 0x1F;

// A map of the volume whose role has its bit in `roles`, or NO_MAP.
size_t pick_map(model* m, size_t volume_index, unsigned roles);

// A run of 1 to `most` unmapped addresses, from somewhere in the map. The unmap buffer has no gaps:
// its run follows what is mapped.
lea_run pick_target(model* m, const lun_map& map, uint64_t most);
// One mapped address, somewhere in the map.
lea_run pick_mapped(model* m, const lun_map& map);

bool is_mapped(uint64_t word);
uint64_t lpa_of(uint64_t word);
// A mapped entry of this map, now and then with a bit that is not the service's.
uint64_t mapped_word(model* m, const lun_map& map, uint64_t lpa);
uint64_t bare_marker(bool flagged);  // what MOVES and UNMAP leave at the source

}  // namespace lab
