// Wrong numbers with right checksums.
#include <cstddef>

#include "lab/damage_choice.h"
#include "lab/damage_kinds.h"
#include "lab/damage_lines.h"

namespace lab {

// Adds or subtracts one, within the bounds.
static uint64_t off_by_one(damage_site* site, uint64_t value, uint64_t least, uint64_t most) {
    const bool up = value <= least || (value < most && random_chance(&site->random, 50));
    return up ? value + 1 : value - 1;
}

std::string change_references(damage_site* site) {
    pool_entries pool;
    uint64_t lpa = 0;
    if (!pick_used_extent(site, &pool, &lpa)) {
        return "";
    }
    tbl_entry entry = {pool.tbl[lpa]};
    const uint64_t from = tbl_entry_count(&entry);
    const uint64_t to = off_by_one(site, from, 1, TBL_COUNT_MAX);
    tbl_entry_set_count(&entry, static_cast<uint32_t>(to));
    const uint64_t offset = offset_of_tbl(lpa);
    if (!put_sealed(*site, table_of(*site), offset, &entry, sizeof entry)) {
        return "";
    }
    return change_line(table_of(*site), offset, "lpa " + std::to_string(lpa) + ", references", from,
                       to);
}

// Changes one of the counts in a header.
static std::string change_count(damage_site* site, const std::string& path, uint64_t offset,
                                uint64_t most, const char* what) {
    uint64_t from = 0;
    if (!get_bytes(*site, path, offset, &from, sizeof from)) {
        return "";
    }
    const uint64_t to = off_by_one(site, from, 0, most);
    return put_sealed(*site, path, offset, &to, sizeof to)
               ? change_line(path, offset, what, from, to)
               : "";
}

std::string change_free_count(damage_site* site) {
    constexpr uint64_t IN_NODE = offsetof(fri_header, fri_free_count) - 2 * META_NODE_SIZE;
    return change_count(site, index_of(*site), offset_of_node(2) + IN_NODE, FRI_NEW_FREE_COUNT,
                        "free count");
}

std::string change_mapped_count(damage_site* site) {
    constexpr uint64_t IN_NODE = offsetof(map_header, map_mapped_count) - 2 * META_NODE_SIZE;
    const map_file map = pick_map_file(site);
    return change_count(site, map.path, offset_of_node(2) + IN_NODE, map.known->entries.size(),
                        "mapped count");
}

}  // namespace lab
