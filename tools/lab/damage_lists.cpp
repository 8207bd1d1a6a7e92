// Wrong links and lengths of free lists and of the list of groups, and a leaked extent. The blocks
// get right checksums.
#include <cstddef>
#include <cstdio>
#include <cstring>

#include "lab/damage_choice.h"
#include "lab/damage_kinds.h"
#include "lab/damage_lines.h"
#include "print.h"

namespace lab {

// The group whose free list is to be damaged, and that list. An empty list means that there is no
// such group or a file cannot be read; the reason was printed.
struct list_place {
    uint64_t group;
    std::vector<uint32_t> list;
};

// What the group must have apart from a free list.
enum class list_need { nothing, used_entry, second_entry };

static bool has(const pool_entries& pool, uint64_t group, list_need need) {
    const size_t least = need == list_need::second_entry ? 2 : 1;
    const bool used = fri_entry_count(&pool.fri[group]) < TBL_GROUP_ENTRIES;
    return free_list(pool, group).size() >= least && (used || need != list_need::used_entry);
}

static const char* words_for(list_need need) {
    switch (need) {
        case list_need::used_entry:
            return "no listed group has both free and used entries";
        case list_need::second_entry:
            return "no listed group has two free entries";
        case list_need::nothing:
            break;
    }
    return "no listed group has free entries";
}

static list_place pick_list(damage_site* site, pool_entries* pool, list_need need) {
    if (!read_pool(*site, pool)) {
        return {0, {}};
    }
    std::vector<uint64_t> groups;
    for (const uint64_t group : listed_groups(*pool)) {
        if (has(*pool, group, need)) {
            groups.push_back(group);
        }
    }
    if (groups.empty()) {
        (void)refuse(words_for(need));
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
    const list_place place = pick_list(site, &pool, list_need::nothing);
    if (place.list.empty()) {
        return "";
    }
    const uint64_t last = random_below(&site->random, place.list.size());
    const uint32_t earlier = place.list[random_below(&site->random, last + 1)];
    return relink(*site, pool, tbl_lpa_of(place.group, place.list[last]), earlier);
}

std::string link_list_to_used(damage_site* site) {
    pool_entries pool;
    const list_place place = pick_list(site, &pool, list_need::used_entry);
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
    const list_place place = pick_list(site, &pool, list_need::nothing);
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
    const list_place place = pick_list(site, &pool, list_need::nothing);
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

// Links a group to another one.
static std::string relink_group(const damage_site& site, const pool_entries& pool, uint64_t group,
                                uint64_t next) {
    fri_entry entry = pool.fri[group];
    const uint64_t from = fri_entry_next(&entry);
    fri_entry_set_next(&entry, next);
    const uint64_t offset = offset_of_fri(group);
    if (!put_sealed(site, index_of(site), offset, &entry, sizeof entry)) {
        return "";
    }
    char text[128];
    (void)snprintf(text, sizeof text, ": byte %llu, group %llu: next %llu -> %llu", ull(offset),
                   ull(group), ull(from), ull(next));
    return index_of(site) + text;
}

std::string loop_group_list(damage_site* site) {
    pool_entries pool;
    std::vector<uint64_t> groups;
    if (!read_listed_groups(*site, &pool, &groups)) {
        return "";
    }
    const uint64_t last = random_below(&site->random, groups.size());
    const uint64_t earlier = groups[random_below(&site->random, last + 1)];
    return relink_group(*site, pool, groups[last], earlier);
}

static std::vector<uint64_t> initialised_groups(const pool_entries& pool) {
    std::vector<uint64_t> groups;
    for (uint64_t group = 0; group < pool.fri.size(); group++) {
        if (fri_entry_is_init(&pool.fri[group])) {
            groups.push_back(group);
        }
    }
    return groups;
}

// A rebuild leaves the last link as it was if the last initialised group is full: it may then lead
// to any group, listed or full.
std::string open_group_list(damage_site* site) {
    pool_entries pool;
    std::vector<uint64_t> groups;
    if (!read_listed_groups(*site, &pool, &groups)) {
        return "";
    }
    const uint64_t next = pick(site, initialised_groups(pool));
    return fri_entry_next(&pool.fri[groups.back()]) == next
               ? refuse("the list of groups goes on already")
               : relink_group(*site, pool, groups.back(), next);
}

// Takes the head of the list, as an allocation does.
static std::string take_head(const damage_site& site, const pool_entries& pool,
                             const list_place& place) {
    const fri_entry from = pool.fri[place.group];
    fri_entry to = from;
    fri_entry_set_head(&to, place.list[1]);
    fri_entry_set_count(&to, fri_entry_count(&from) - 1u);
    const uint64_t offset = offset_of_fri(place.group);
    if (!put_sealed(site, index_of(site), offset, &to, sizeof to)) {
        return "";
    }
    char text[160];
    (void)snprintf(text, sizeof text,
                   ": byte %llu, group %llu: head %u free count %u -> head %u free count %u",
                   ull(offset), ull(place.group), fri_entry_head(&from), fri_entry_count(&from),
                   fri_entry_head(&to), fri_entry_count(&to));
    return index_of(site) + text;
}

static std::string lower_free_count(const damage_site& site) {
    const uint64_t offset = offset_of_field(offsetof(fri_header, fri_free_count));
    uint64_t count = 0;
    if (!get_bytes(site, index_of(site), offset, &count, sizeof count)) {
        return "";
    }
    const uint64_t to = count - 1;
    return put_sealed(site, index_of(site), offset, &to, sizeof to)
               ? change_line(index_of(site), offset, "free count", count, to)
               : "";
}

static std::string use_once(const damage_site& site, const pool_entries& pool, uint64_t lpa) {
    const tbl_entry to = {TBL_USED_BIT | 1};
    const uint64_t offset = offset_of_tbl(lpa);
    return put_sealed(site, table_of(site), offset, &to, sizeof to)
               ? word_line(table_of(site), offset, "lpa " + std::to_string(lpa), pool.tbl[lpa],
                           to.word)
               : "";
}

// Lists and counts stay right: a group whose last free extent is taken would leave the list of
// groups.
std::string leak_extent(damage_site* site) {
    pool_entries pool;
    const list_place place = pick_list(site, &pool, list_need::second_entry);
    if (place.list.empty()) {
        return "";
    }
    const std::string index = take_head(*site, pool, place);
    const std::string count = index.empty() ? "" : lower_free_count(*site);
    const std::string table =
        count.empty() ? "" : use_once(*site, pool, tbl_lpa_of(place.group, place.list[0]));
    return table.empty() ? "" : index + "; " + count + "; " + table;
}

}  // namespace lab
