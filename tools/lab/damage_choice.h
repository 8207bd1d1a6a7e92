// What a damage picks among: maps of the volume and their mapped entries, listed groups, used
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
    std::string path;  // empty: refused, or a file could not be had; told
    uint64_t lea;
};
constexpr unsigned LUN_SNAPSHOT_TRASH =
    role_bit(map_role::lun) | role_bit(map_role::snapshot) | role_bit(map_role::trash);
// A mapped entry of any of the volume's maps, or of those three roles.
map_place pick_mapped_place(damage_site* site, unsigned roles = ALL_ROLES);
// The words of all entries of a map; nothing is checked. False: the file cannot be had; told.
bool read_entries(const damage_site& site, const lun_map& map, std::vector<uint64_t>* words);

uint64_t pick(damage_site* site, const std::vector<uint64_t>& among);  // not of none
// Reads the pool and picks one of its used extents; or reads it and lists its groups. False: a file
// could not be had, or there is none; told.
bool pick_used_extent(damage_site* site, pool_entries* pool, uint64_t* lpa);
bool read_listed_groups(const damage_site& site, pool_entries* pool, std::vector<uint64_t>* groups);

// Initialised groups in the order of the list of groups, until it ends, leaves what the sample
// reached or comes back.
std::vector<uint64_t> listed_groups(const pool_entries& pool);
// Used extents of the initialised groups, ascending.
std::vector<uint64_t> used_extents(const pool_entries& pool);
// Offsets of the group's free list in its order, until it has its length or leaves the free ones.
std::vector<uint32_t> free_list(const pool_entries& pool, uint64_t group);

}  // namespace lab
