// Candidates for damage: maps of the volume and their mapped entries, listed groups, used
// extents, all as they are on the disk. Below: damage_site.h. Above: the kinds of damage.
#pragma once

#include "lab/choose.h"
#include "lab/damage_site.h"

namespace lab {

struct map_file {
    std::string path;  // below the sample's directory
    const lun_map* known;
};
// A map that belongs to the volume; every volume has some.
map_file pick_map_file(damage_site* site);

struct map_place {
    std::string path;  // empty: no such place, or a file could not be read; the reason was printed
    uint64_t lea = 0;
    uint64_t word = 0;  // the entry
    const lun_map* known = nullptr;
};
constexpr unsigned LUN_SNAPSHOT_TRASH =
    role_bit(map_role::lun) | role_bit(map_role::snapshot) | role_bit(map_role::trash);
constexpr unsigned ONLY_LUN = role_bit(map_role::lun);
// Picks a mapped entry of the volume's maps with these roles: one of the two sets above, or all.
map_place pick_mapped_place(damage_site* site, unsigned roles = ALL_ROLES);
// Reads the words of all entries of a map without checking them. Returns false if the file cannot
// be read, and prints the reason.
bool read_entries(const damage_site& site, const lun_map& map, std::vector<uint64_t>* words);

uint64_t pick(damage_site* site, const std::vector<uint64_t>& among);  // `among` is not empty
// Read the pool; the first picks one of its used extents, the second lists its groups. Return false
// if a file cannot be read or the pool has no used extent or listed group, and print the reason.
bool pick_used_extent(damage_site* site, pool_entries* pool, uint64_t* lpa);
bool read_listed_groups(const damage_site& site, pool_entries* pool, std::vector<uint64_t>* groups);

// Initialised groups in the order of the list of groups. Stops where the list ends, leaves the
// groups of the sample, or loops.
std::vector<uint64_t> listed_groups(const pool_entries& pool);
// Extents that the table calls free, in the groups that the sample ever used, ascending.
std::vector<uint64_t> free_extents(const pool_entries& pool);
// Used extents of the initialised groups, ascending.
std::vector<uint64_t> used_extents(const pool_entries& pool);
// Offsets of the group's free list, in list order. Stops at the list's length or at a used entry.
std::vector<uint32_t> free_list(const pool_entries& pool, uint64_t group);

}  // namespace lab
