#include "lab/damage_choice.h"

#include <cstring>

namespace lab {

static const lun_map& map_of(const damage_site& site, size_t number) {
    return site.sample->maps[volume_of(site).maps[number]];
}

map_file pick_map_file(damage_site* site) {
    const size_t number = random_below(&site->random, volume_of(*site).maps.size());
    const lun_map& map = map_of(*site, number);
    return {map.path, &map};
}

bool read_entries(const damage_site& site, const lun_map& map, std::vector<uint64_t>* words) {
    std::vector<uint8_t> nodes(map_node_count(map.entries.size()) * DATA_NODE_SIZE);
    if (!get_bytes(site, map.path, METADATA_DATA_OFFSET, nodes.data(), nodes.size())) {
        return false;
    }
    words->resize(map.entries.size());
    for (uint64_t lea = 0; lea < words->size(); lea++) {
        memcpy(&(*words)[lea], &nodes[offset_of_map(lea) - METADATA_DATA_OFFSET], sizeof(uint64_t));
    }
    return true;
}

static std::vector<uint64_t> mapped_leas(const std::vector<uint64_t>& words) {
    std::vector<uint64_t> leas;
    for (uint64_t lea = 0; lea < words.size(); lea++) {
        if (is_mapped(words[lea])) {
            leas.push_back(lea);
        }
    }
    return leas;
}

static std::string words_for(unsigned roles) {
    switch (roles) {
        case ALL_ROLES:
            return "no map";
        case ONLY_LUN:
            return "no LUN map";
        default:
            return "no LUN, snapshot or trash map";
    }
}

map_place pick_mapped_place(damage_site* site, unsigned roles) {
    const size_t count = volume_of(*site).maps.size();
    const size_t first = random_below(&site->random, count);
    for (size_t i = 0; i < count; i++) {
        const lun_map& map = map_of(*site, (first + i) % count);
        std::vector<uint64_t> words;
        if ((role_bit(map.role) & roles) == 0) {
            continue;
        }
        if (!read_entries(*site, map, &words)) {
            return {};
        }
        const std::vector<uint64_t> leas = mapped_leas(words);
        if (!leas.empty()) {
            const uint64_t lea = pick(site, leas);
            return {map.path, lea, words[lea], &map};
        }
    }
    (void)refuse(words_for(roles) + " of the volume has a mapped entry");
    return {};
}

std::vector<uint64_t> listed_groups(const pool_entries& pool) {
    std::vector<uint64_t> groups;
    std::vector<bool> visited(pool.fri.size(), false);
    uint64_t group = pool.group_head;
    while (group < pool.fri.size() && !visited[group] && fri_entry_is_init(&pool.fri[group])) {
        visited[group] = true;
        groups.push_back(group);
        group = fri_entry_next(&pool.fri[group]);
    }
    return groups;
}

std::vector<uint64_t> free_extents(const pool_entries& pool) {
    std::vector<uint64_t> free;
    for (uint64_t lpa = 0; lpa < pool.tbl.size(); lpa++) {
        const tbl_entry entry = {pool.tbl[lpa]};
        if (!tbl_entry_is_used(&entry)) {
            free.push_back(lpa);
        }
    }
    return free;
}

std::vector<uint64_t> used_extents(const pool_entries& pool) {
    std::vector<uint64_t> used;
    for (uint64_t lpa = 0; lpa < pool.tbl.size(); lpa++) {
        const tbl_entry entry = {pool.tbl[lpa]};
        if (fri_entry_is_init(&pool.fri[tbl_group_of(lpa)]) && tbl_entry_is_used(&entry)) {
            used.push_back(lpa);
        }
    }
    return used;
}

uint64_t pick(damage_site* site, const std::vector<uint64_t>& among) {
    return among[random_below(&site->random, among.size())];
}

bool pick_used_extent(damage_site* site, pool_entries* pool, uint64_t* lpa) {
    if (!read_pool(*site, pool)) {
        return false;
    }
    const std::vector<uint64_t> used = used_extents(*pool);
    if (used.empty()) {
        (void)refuse("no extent is in use");
        return false;
    }
    *lpa = pick(site, used);
    return true;
}

bool read_listed_groups(const damage_site& site, pool_entries* pool,
                        std::vector<uint64_t>* groups) {
    if (!read_pool(site, pool)) {
        return false;
    }
    *groups = listed_groups(*pool);
    if (groups->empty()) {
        (void)refuse("no initialised group is on the list of groups");
    }
    return !groups->empty();
}

std::vector<uint32_t> free_list(const pool_entries& pool, uint64_t group) {
    std::vector<uint32_t> list;
    uint32_t offset = fri_entry_head(&pool.fri[group]);
    const size_t length = fri_entry_count(&pool.fri[group]);
    while (list.size() < length && list.size() < TBL_GROUP_ENTRIES) {
        const tbl_entry entry = {pool.tbl[tbl_lpa_of(group, offset)]};
        if (tbl_entry_is_used(&entry)) {
            break;
        }
        list.push_back(offset);
        if (tbl_entry_is_tail(&entry)) {
            break;
        }
        offset = tbl_entry_count(&entry);
    }
    return list;
}

}  // namespace lab
