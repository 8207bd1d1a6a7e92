#include "lab/lun_image.h"

#include <iterator>
#include <map>
#include <set>

#include "lab/bytes.h"
#include "lab/choose.h"
#include "lab/data_files.h"
#include "lab/disk.h"

namespace lab {

static std::string path_of_name(const std::string& name) {
    const size_t colon = name.find(':');
    if (colon == std::string::npos) {
        return name;
    }
    const std::string lun = name.substr(colon + 1);
    return name.substr(0, colon) + "/@iSCSITrg/" + lun + "/" + lun + "_Extent_0";
}

// Null if the volume has no such map.
static const lun_map* find_map(const model& m, const std::string& path) {
    for (const volume& vol : m.volumes) {
        for (const size_t map : vol.maps) {
            if (m.maps[map].path == path) {
                return &m.maps[map];
            }
        }
    }
    return nullptr;
}

static file_image image_of_lun(const model& m, const lun_map& map, const std::string& file) {
    const uint64_t extent_size = m.volumes[map.volume].extent_size;
    file_image image = {file, map.entries.size() * extent_size, {}};
    for (uint64_t lea = 0; lea < map.entries.size(); lea++) {
        if (!is_mapped(map.entries[lea])) {
            continue;
        }
        for (chunk& part : data_of(m, map.volume, lpa_of(map.entries[lea]))) {
            part.offset += lea * extent_size;
            image.chunks.push_back(std::move(part));
        }
    }
    return image;
}

bool write_lun_image(const expected_states& states, const std::string& name,
                     const std::string& file) {
    const std::string path = path_of_name(name);
    const lun_map* map = find_map(states.first, path);
    if (states.two) {
        const lun_map* also = find_map(states.also, path);
        if ((map == nullptr) != (also == nullptr) ||
            (map != nullptr && (map->id != also->id || map->entries != also->entries))) {
            return complain_of(name, "two states are possible: the run was killed in a step");
        }
    }
    return map == nullptr ? complain_of(name, "the sample has no such map")
                          : create_elsewhere(image_of_lun(states.first, *map, file));
}

static const char* word_of(map_role role) {
    constexpr const char* WORDS[] = {"lun", "snapshot", "trash", "buffer", "copy"};
    static_assert(std::size(WORDS) == static_cast<size_t>(map_role::rod) + 1);
    return WORDS[static_cast<size_t>(role)];
}

using extent_set = std::set<uint64_t>;

static extent_set extents_of(const lun_map& map) {
    extent_set extents;
    for (const uint64_t word : map.entries) {
        if (is_mapped(word)) {
            extents.insert(lpa_of(word));
        }
    }
    return extents;
}

std::string list_maps(const model& m) {
    std::string text;
    for (const volume& vol : m.volumes) {
        std::map<uint64_t, uint64_t> holders;  // of an extent: the number of maps
        for (const size_t map : vol.maps) {
            for (const uint64_t lpa : extents_of(m.maps[map])) {
                holders[lpa]++;
            }
        }
        for (const size_t number : vol.maps) {
            const lun_map& map = m.maps[number];
            uint64_t counts[2] = {0, 0};  // exclusive, shared
            for (const uint64_t lpa : extents_of(map)) {
                counts[holders[lpa] > 1 ? 1 : 0]++;
            }
            text += vol.root + " " + map.path + " " + word_of(map.role) + " " +
                    hex_of(map.id.data(), map.id.size());
            for (const uint64_t count :
                 {uint64_t{map.entries.size()}, map.mapped_count, counts[0], counts[1]}) {
                text += " " + std::to_string(count);
            }
            text += "\n";
        }
    }
    return text;
}

}  // namespace lab
