// Wrong links and lengths of free lists and of the list of groups: one entry of table or index
// changes, and its block gets a right checksum.
#include <cstdio>
#include <cstring>

#include "lab/damage_choice.h"
#include "lab/damage_kinds.h"
#include "print.h"

namespace lab {

// The group whose free list is to be damaged, and that list. An empty list means that there is no
// such group or a file cannot be read; the reason was printed.
struct list_place {
    uint64_t group;
    std::vector<uint32_t> list;
};

static bool has_used(const pool_entries& pool, uint64_t group) {
    return fri_entry_count(&pool.fri[group]) < TBL_GROUP_ENTRIES;
}

static list_place pick_list(damage_site* site, pool_entries* pool, bool with_used) {
    if (!read_pool(*site, pool)) {
        return {0, {}};
    }
    std::vector<uint64_t> groups;
    for (const uint64_t group : listed_groups(*pool)) {
        if (!free_list(*pool, group).empty() && (!with_used || has_used(*pool, group))) {
            groups.push_back(group);
        }
    }
    if (groups.empty()) {
        (void)refuse(with_used ? "no listed group has both free and used entries"
                               : "no listed group has free entries");
        return {0, {}};
    }
    const uint64_t group = pick(site, groups);
    return {group, free_list(*pool, group)};
}

// Gives a free entry another link and no tail bit.
static std::string relink(const damage_site& site, const pool_entries& pool, uint64_t lpa,
                          uint32_t next) {
    const tbl_entry from = {pool.tbl[lpa]};
    tbl_entry to = from;
    tbl_entry_clear_tail(&to);
    tbl_entry_set_count(&to, next);
    const uint64_t offset = offset_of_tbl(lpa);
    if (!put_sealed(site, table_of(site), offset, &to, sizeof to)) {
        return "";
    }
    char text[160];
    (void)snprintf(
        text, sizeof text,
        ": byte %llu, lpa %llu, offset %u of group %llu: next %u tail %d -> next %u tail 0",
        ull(offset), ull(lpa), tbl_offset_in_group(lpa), ull(tbl_group_of(lpa)),
        tbl_entry_count(&from), tbl_entry_is_tail(&from) ? 1 : 0, next);
    return table_of(site) + text;
}

std::string loop_list(damage_site* site) {
    pool_entries pool;
    const list_place place = pick_list(site, &pool, false);
    if (place.list.empty()) {
        return "";
    }
    const uint64_t last = random_below(&site->random, place.list.size());
    const uint32_t earlier = place.list[random_below(&site->random, last + 1)];
    return relink(*site, pool, tbl_lpa_of(place.group, place.list[last]), earlier);
}

std::string link_list_to_used(damage_site* site) {
    pool_entries pool;
    const list_place place = pick_list(site, &pool, true);
    if (place.list.empty()) {
        return "";
    }
    std::vector<uint64_t> used;
    for (const uint64_t lpa : used_extents(pool)) {
        const tbl_entry entry = {pool.tbl[lpa]};
        if (tbl_group_of(lpa) == place.group && !tbl_entry_is_tail(&entry)) {
            used.push_back(lpa);
        }
    }
    if (used.empty()) {
        return refuse("no suitable used entry in group " + std::to_string(place.group));
    }
    const uint32_t from = place.list[random_below(&site->random, place.list.size())];
    return relink(*site, pool, tbl_lpa_of(place.group, from),
                  tbl_offset_in_group(pick(site, used)));
}

std::string cut_list_tail(damage_site* site) {
    pool_entries pool;
    const list_place place = pick_list(site, &pool, false);
    if (place.list.empty()) {
        return "";
    }
    const uint64_t lpa = tbl_lpa_of(place.group, place.list.back());
    const tbl_entry tail = {pool.tbl[lpa]};
    if (!tbl_entry_is_tail(&tail)) {
        return refuse("the free list of group " + std::to_string(place.group) + " has no tail");
    }
    return relink(*site, pool, lpa, tbl_entry_count(&tail));
}

std::string change_list_count(damage_site* site) {
    pool_entries pool;
    const list_place place = pick_list(site, &pool, false);
    if (place.list.empty()) {
        return "";
    }
    fri_entry entry = pool.fri[place.group];
    const unsigned from = fri_entry_count(&entry);
    const bool up = from < TBL_GROUP_ENTRIES && random_chance(&site->random, 50);
    const unsigned to = up ? from + 1 : from - 1;
    fri_entry_set_count(&entry, to);
    const uint64_t offset = offset_of_fri(place.group);
    if (!put_sealed(*site, index_of(*site), offset, &entry, sizeof entry)) {
        return "";
    }
    char text[128];
    (void)snprintf(text, sizeof text, ": byte %llu, group %llu: free count %u -> %u", ull(offset),
                   ull(place.group), from, to);
    return index_of(*site) + text;
}

std::string loop_group_list(damage_site* site) {
    pool_entries pool;
    std::vector<uint64_t> groups;
    if (!read_listed_groups(*site, &pool, &groups)) {
        return "";
    }
    const uint64_t last = random_below(&site->random, groups.size());
    const uint64_t group = groups[last];
    const uint64_t earlier = groups[random_below(&site->random, last + 1)];
    fri_entry entry = pool.fri[group];
    const uint64_t from = fri_entry_next(&entry);
    fri_entry_set_next(&entry, earlier);
    const uint64_t offset = offset_of_fri(group);
    if (!put_sealed(*site, index_of(*site), offset, &entry, sizeof entry)) {
        return "";
    }
    char text[128];
    (void)snprintf(text, sizeof text, ": byte %llu, group %llu: next %llu -> %llu", ull(offset),
                   ull(group), ull(from), ull(earlier));
    return index_of(*site) + text;
}

}  // namespace lab
