#include "lab/rebuilt_entries.h"

#include "lab/choose.h"

namespace lab {

std::vector<uint32_t> count_references(const model& m, size_t volume_index, uint64_t groups) {
    const volume& vol = m.volumes[volume_index];
    std::vector<uint32_t> references(groups * TBL_GROUP_ENTRIES, 0);
    for (const size_t map_index : vol.maps) {
        for (const uint64_t word : m.maps[map_index].entries) {
            if (is_mapped(word)) {
                references[lpa_of(word)]++;
            }
        }
    }
    return references;
}

uint64_t limit_of(const pool_entries& pool) {
    uint64_t limit = pool.fri.size();
    while (limit > 0 && !fri_entry_is_init(&pool.fri[limit - 1])) {
        limit--;
    }
    return limit;
}

static tbl_entry entry_at(const pool_entries& pool, uint64_t lpa) {
    return {pool.tbl[lpa]};
}

static std::string finding(const std::string& path, const char* what, uint64_t number,
                           const std::string& rest) {
    return path + ": " + what + " " + std::to_string(number) + ": " + rest;
}

static std::string in_words(bool used, uint32_t references) {
    return used ? "used with " + std::to_string(references) + " references" : "free";
}

static std::string check_references(const rebuilt_pool& pool) {
    for (uint64_t lpa = 0; lpa < pool.found.tbl.size(); lpa++) {
        const tbl_entry entry = entry_at(pool.found, lpa);
        const uint32_t wanted = pool.references[lpa];
        const bool used = tbl_entry_is_used(&entry);
        if (used != (wanted > 0) || (used && tbl_entry_count(&entry) != wanted)) {
            std::string rest = "expected " + in_words(wanted > 0, wanted);
            rest += ", found " + in_words(used, tbl_entry_count(&entry));
            return finding(pool.table, "lpa", lpa, rest);
        }
    }
    return "";
}

// All groups up to the last initialised one must be initialised, and all later groups must be zero.
static std::string check_initialised(const rebuilt_pool& pool) {
    const uint64_t limit = limit_of(pool.found);
    for (uint64_t group = 0; group < limit; group++) {
        if (!fri_entry_is_init(&pool.found.fri[group])) {
            return finding(pool.index, "group", group, "expected initialised, found uninitialised");
        }
    }
    for (uint64_t lpa = tbl_lpa_of(limit, 0); lpa < pool.found.tbl.size(); lpa++) {
        constexpr unsigned OURS = TBL_USED_BIT | TBL_TAIL_BIT | TBL_COUNT_MASK;
        if (pool.references[lpa] > 0) {
            return finding(pool.index, "group", tbl_group_of(lpa),
                           "expected initialised, found uninitialised");
        }
        if ((pool.found.tbl[lpa] & OURS) != 0) {
            return finding(pool.table, "lpa", lpa, "expected 0 outside initialised groups");
        }
    }
    for (uint64_t group = limit; group < pool.found.fri.size(); group++) {
        const fri_entry& entry = pool.found.fri[group];
        if (fri_entry_count(&entry) != 0 || fri_entry_head(&entry) != 0 ||
            fri_entry_next(&entry) != 0) {
            return finding(pool.index, "group", group, "expected 0, the group is not initialised");
        }
    }
    return "";
}

static uint32_t free_extents(const pool_entries& pool, uint64_t group) {
    uint32_t count = 0;
    for (uint32_t offset = 0; offset < TBL_GROUP_ENTRIES; offset++) {
        const tbl_entry entry = entry_at(pool, tbl_lpa_of(group, offset));
        count += tbl_entry_is_used(&entry) ? 0 : 1;
    }
    return count;
}

// Marks the entries on the list as visited. Terminates even on a loop: it stops at the first offset
// that was visited before.
static std::string walk_list(const pool_entries& pool, uint64_t group, std::vector<bool>* visited) {
    uint32_t offset = fri_entry_head(&pool.fri[group]);
    for (;;) {
        const tbl_entry entry = entry_at(pool, tbl_lpa_of(group, offset));
        if (tbl_entry_is_used(&entry)) {
            return "the free list leads to offset " + std::to_string(offset) + ", which is in use";
        }
        if ((*visited)[offset]) {
            return "the free list loops at offset " + std::to_string(offset);
        }
        (*visited)[offset] = true;
        if (tbl_entry_is_tail(&entry)) {
            return tbl_entry_count(&entry) == 0
                       ? ""
                       : "the tail at offset " + std::to_string(offset) + " has a next link";
        }
        offset = tbl_entry_count(&entry);
    }
}

static std::string check_list(const rebuilt_pool& pool, uint64_t group) {
    std::vector<bool> visited(TBL_GROUP_ENTRIES, false);
    const std::string wrong = walk_list(pool.found, group, &visited);
    if (!wrong.empty()) {
        return finding(pool.table, "group", group, wrong);
    }
    for (uint32_t offset = 0; offset < TBL_GROUP_ENTRIES; offset++) {
        const tbl_entry entry = entry_at(pool.found, tbl_lpa_of(group, offset));
        if (!tbl_entry_is_used(&entry) && !visited[offset]) {
            return finding(pool.table, "group", group,
                           "free offset " + std::to_string(offset) + " is not on the free list");
        }
    }
    return "";
}

static std::string check_group(const rebuilt_pool& pool, uint64_t group) {
    const uint32_t free = free_extents(pool.found, group);
    const uint32_t counted = fri_entry_count(&pool.found.fri[group]);
    if (counted != free) {
        return finding(
            pool.index, "group", group,
            "free count: expected " + std::to_string(free) + ", found " + std::to_string(counted));
    }
    return free == 0 ? "" : check_list(pool, group);
}

static std::string wrong_member(const rebuilt_pool& pool, uint64_t group, uint64_t limit,
                                const std::vector<bool>& visited) {
    const std::string which = ": the list of groups leads to group " + std::to_string(group) + ", ";
    if (group >= limit) {
        return pool.index + which + "which is not initialised, before naming all groups";
    }
    if (visited[group]) {
        return pool.index + which + "which it has already named";
    }
    return fri_entry_count(&pool.found.fri[group]) == 0 ? pool.index + which + "which is full" : "";
}

// The list must name every initialised group with free extents once, and then end at the first
// group that is not initialised. If the last group is full, the last link is not checked: a rebuild
// writes the end of the list only if that group is on the list.
static std::string check_group_list(const rebuilt_pool& pool) {
    const uint64_t limit = limit_of(pool.found);
    std::vector<bool> visited(limit, false);
    uint64_t group = pool.found.group_head;
    uint64_t left = 0;
    for (uint64_t i = 0; i < limit; i++) {
        left += fri_entry_count(&pool.found.fri[i]) > 0 ? 1 : 0;
    }
    const bool any = left > 0;
    for (; left > 0; left--) {
        std::string wrong = wrong_member(pool, group, limit, visited);
        if (!wrong.empty()) {
            return wrong;
        }
        visited[group] = true;
        group = fri_entry_next(&pool.found.fri[group]);
    }
    const bool end_is_open = any && fri_entry_count(&pool.found.fri[limit - 1]) == 0;
    return group == limit || end_is_open
               ? ""
               : pool.index + ": the list of groups ends at group " + std::to_string(group) +
                     ", expected " + std::to_string(limit);
}

std::string check_rebuilt_entries(const rebuilt_pool& pool) {
    std::string difference = check_references(pool);
    if (difference.empty()) {
        difference = check_initialised(pool);
    }
    const uint64_t limit = limit_of(pool.found);
    for (uint64_t group = 0; difference.empty() && group < limit; group++) {
        difference = check_group(pool, group);
    }
    return difference.empty() ? check_group_list(pool) : difference;
}

}  // namespace lab
