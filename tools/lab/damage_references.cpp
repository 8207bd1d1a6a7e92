// Entries of maps that name the wrong extent. The checksums are right.
#include <set>

#include "lab/damage_choice.h"
#include "lab/damage_kinds.h"
#include "lab/damage_lines.h"
#include "lab/data_files.h"
#include "lab/image.h"

namespace lab {

static uint64_t with_lpa(uint64_t word, uint64_t lpa) {
    return (word & ~MAP_LPA_MASK) | lpa;
}

// A mapped entry of another map whose extent the first map does not name.
struct foreign_extent {
    std::string path;
    uint64_t lea;
    uint64_t lpa;
};

static std::set<uint64_t> extents_of(const std::vector<uint64_t>& words) {
    std::set<uint64_t> lpas;
    for (const uint64_t word : words) {
        if (is_mapped(word)) {
            lpas.insert(lpa_of(word));
        }
    }
    return lpas;
}

// Appends the map's entries whose extents are not among `own`.
static bool add_foreign(const damage_site& site, const lun_map& map, const std::set<uint64_t>& own,
                        std::vector<foreign_extent>* found) {
    std::vector<uint64_t> words;
    if (!read_entries(site, map, &words)) {
        return false;
    }
    for (uint64_t lea = 0; lea < words.size(); lea++) {
        if (is_mapped(words[lea]) && own.count(lpa_of(words[lea])) == 0) {
            found->push_back({map.path, lea, lpa_of(words[lea])});
        }
    }
    return true;
}

static std::string point_at(damage_site* site, const map_place& place,
                            const std::vector<foreign_extent>& foreign) {
    if (foreign.empty()) {
        return refuse("no other LUN map of the volume has an extent of its own");
    }
    const foreign_extent& other = foreign[random_below(&site->random, foreign.size())];
    const std::string line =
        put_map_word(*site, place.path, place.lea, with_lpa(place.word, other.lpa));
    return line.empty()
               ? ""
               : line + ", the extent of " + other.path + " lea " + std::to_string(other.lea);
}

std::string alias_extent(damage_site* site) {
    const map_place place = pick_mapped_place(site, ONLY_LUN);
    std::vector<uint64_t> words;
    if (place.path.empty() || !read_entries(*site, *place.known, &words)) {
        return "";
    }
    const std::set<uint64_t> own = extents_of(words);
    std::vector<foreign_extent> foreign;
    for (const size_t map : volume_of(*site).maps) {
        const lun_map& other = site->sample->maps[map];
        if (other.role == map_role::lun && !add_foreign(*site, other, own, &foreign)) {
            return "";
        }
    }
    return point_at(site, place, foreign);
}

std::string dangle_entry(damage_site* site) {
    pool_entries pool;
    const map_place place = pick_mapped_place(site, LUN_SNAPSHOT_TRASH);
    if (place.path.empty() || !read_pool(*site, &pool)) {
        return "";
    }
    const std::vector<uint64_t> free = free_extents(pool);
    return free.empty()
               ? refuse("no extent is free")
               : put_map_word(*site, place.path, place.lea, with_lpa(place.word, pick(site, free)));
}

// An address past the data files: close to their end, anywhere in the table, or past the table.
static uint64_t pick_far_lpa(damage_site* site) {
    constexpr uint64_t CLOSE = 4096;
    const uint64_t end = DATA_FILES * extents_a_data_file(volume_of(*site));
    switch (random_below(&site->random, 3)) {
        case 0:
            return end + random_below(&site->random, CLOSE);
        case 1:
            return random_between(&site->random, end, TBL_TOTAL_COUNT - 1);
        default:
            return random_between(&site->random, TBL_TOTAL_COUNT, MAP_LPA_MASK);
    }
}

std::string point_far_away(damage_site* site) {
    const map_place place = pick_mapped_place(site, LUN_SNAPSHOT_TRASH);
    return place.path.empty() ? ""
                              : put_map_word(*site, place.path, place.lea,
                                             with_lpa(place.word, pick_far_lpa(site)));
}

}  // namespace lab
