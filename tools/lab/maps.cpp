#include "lab/maps.h"

#include <algorithm>
#include <cstring>

namespace lab {

// Least number of entries of the unmap buffer and the copy map, and the most for the copy map: with
// extents of 1 MiB, no more of it are scanned.
constexpr uint64_t LEAST_SPECIAL_ENTRIES = 128;
constexpr uint64_t MOST_COPY_ENTRIES = 540672;

uuid new_uuid(model* m) {
    const uint64_t words[2] = {random_next(&m->work), random_next(&m->work)};
    uuid id;
    memcpy(id.data(), words, sizeof words);
    return id;
}

static std::string path_of(const volume& vol, map_role role, size_t number) {
    const std::string text = std::to_string(number);
    switch (role) {
        case map_role::lun:
            return vol.root + "/@iSCSITrg/LUN_" + text + "/LUN_" + text + "_Extent_0";
        case map_role::snapshot:  // some have their own directory
            return vol.root + (number % 3 == 0 ? "/@Snapshot/S" + text : "/@Snapshot") +
                   "/FAMILY_" + text;
        case map_role::trash:
            return vol.root + "/@EP_trash/" + text;
        case map_role::buffer:
            return vol.root + "/@EP/EP_BUF";
        case map_role::rod:
            break;
    }
    return vol.root + "/@EP/EP_ROD";
}

// One to five rows. Entries use only the row of the map's own volume.
static void make_pools(model* m, lun_map* map) {
    const uint64_t rows = random_between(&m->work, 1, 5);
    map->own_row = static_cast<uint32_t>(random_below(&m->work, rows));
    for (uint64_t row = 0; row < rows; row++) {
        const size_t other = random_below(&m->work, m->volumes.size());
        const bool names_volume = row == map->own_row;
        if (names_volume) {
            map->pools.push_back(m->volumes[map->volume].pool);
        } else if (other != map->volume && random_chance(&m->work, 50)) {
            map->pools.push_back(m->volumes[other].pool);
        } else {
            map->pools.push_back(new_uuid(m));
        }
    }
}

static uint64_t entries_of(const parameters& sample, map_role role) {
    switch (role) {
        case map_role::buffer:
            return std::max(sample.extents, LEAST_SPECIAL_ENTRIES);
        case map_role::rod:
            return std::clamp(sample.extents, LEAST_SPECIAL_ENTRIES, MOST_COPY_ENTRIES);
        default:
            return sample.extents;
    }
}

size_t add_map(model* m, size_t volume_index, map_role role) {
    volume& vol = m->volumes[volume_index];
    lun_map map = {};
    map.id = new_uuid(m);
    map.role = role;
    map.volume = volume_index;
    map.path = path_of(vol, role, m->maps.size());
    map.entries.resize(entries_of(m->sample, role), 0);
    map.noise = random_next(&m->work);
    make_pools(m, &map);
    m->maps.push_back(map);
    vol.maps.push_back(m->maps.size() - 1);
    return m->maps.size() - 1;
}

void move_to_trash(lun_map* map) {
    const size_t slash = map->path.rfind('/');
    const size_t root = map->path.find('/');
    map->role = map_role::trash;
    map->path = map->path.substr(0, root) + "/@EP_trash/" + map->path.substr(slash + 1);
}

void move_to_numbered_trash(model* m, size_t map_index) {
    lun_map& map = m->maps[map_index];
    map.role = map_role::trash;
    map.path = path_of(m->volumes[map.volume], map_role::trash, map_index);
}

}  // namespace lab
