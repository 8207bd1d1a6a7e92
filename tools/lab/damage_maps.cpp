// Maps with right checksums and wrong contents: identities, pool rows, entries behind the end. And
// a node that has lost its checksum.
#include <cstddef>
#include <cstdio>

#include "lab/bytes.h"
#include "lab/damage_choice.h"
#include "lab/damage_kinds.h"
#include "lab/damage_lines.h"
#include "print.h"

namespace lab {

constexpr uint64_t UUID_OFFSET = offsetof(map_header, map_uuid);
constexpr uint64_t POOL_ROWS = 4096;  // that an entry can name
constexpr unsigned POOL_SHIFT = 48;

static std::string hex_of(const uuid& id) {
    return hex_of(id.data(), id.size());
}

std::string repeat_uuid(damage_site* site) {
    const std::vector<size_t>& maps = volume_of(*site).maps;
    const size_t first = random_below(&site->random, maps.size());
    const size_t second = (first + 1 + random_below(&site->random, maps.size() - 1)) % maps.size();
    const std::string& path = site->sample->maps[maps[second]].path;
    const std::string& other = site->sample->maps[maps[first]].path;
    uuid from;
    uuid to;
    if (!get_bytes(*site, path, UUID_OFFSET, from.data(), from.size()) ||
        !get_bytes(*site, other, UUID_OFFSET, to.data(), to.size())) {
        return "";
    }
    if (from == to) {
        return refuse(path + " and " + other + " have the same uuid already");
    }
    if (!put_sealed(*site, path, UUID_OFFSET, to.data(), to.size())) {
        return "";
    }
    return path + ": byte " + std::to_string(UUID_OFFSET) + ", uuid: " + hex_of(from) + " -> " +
           hex_of(to) + ", that of " + other;
}

// The number of rows of the map's pool table; false also if the table cannot be that long.
static bool read_pool_count(const damage_site& site, const std::string& path, uint32_t* count) {
    if (!get_bytes(site, path, offset_of_field(offsetof(map_header, map_pool_cnt)), count,
                   sizeof *count)) {
        return false;
    }
    if (*count == 0 || *count > MAP_POOL_TABLE_MAX) {
        (void)refuse("the header of " + path + " has no valid number of pools");
        return false;
    }
    return true;
}

// Brings the checksum of the pool table up to date. Returns its part of the line.
static std::string seal_pools(const damage_site& site, const std::string& path, uint32_t count) {
    std::vector<uint8_t> rows(size_t{count} * UUID_SIZE);
    const uint64_t offset = offset_of_field(offsetof(map_header, map_pool_cksum));
    uint32_t from = 0;
    if (!get_bytes(site, path, MAP_POOL_TABLE_OFFSET, rows.data(), rows.size()) ||
        !get_bytes(site, path, offset, &from, sizeof from)) {
        return "";
    }
    const uint32_t to = checksum_of(rows.data(), rows.size());
    if (!put_sealed(site, path, offset, &to, sizeof to)) {
        return "";
    }
    char text[80];
    (void)snprintf(text, sizeof text, "; byte %llu, checksum of the pool table: %08x -> %08x",
                   ull(offset), from, to);
    return text;
}

std::string rename_pool(damage_site* site) {
    const map_place place = pick_mapped_place(site);
    uint32_t count = 0;
    if (place.path.empty() || !read_pool_count(*site, place.path, &count)) {
        return "";
    }
    const uint64_t row = place.word >> POOL_SHIFT & (POOL_ROWS - 1);
    if (row >= count) {
        return refuse("a mapped entry of " + place.path + " uses a row that is not there");
    }
    const uint64_t offset = MAP_POOL_TABLE_OFFSET + row * UUID_SIZE;
    uuid from;
    uuid to;
    for (uint8_t& byte : to) {
        byte = static_cast<uint8_t>(random_next(&site->random));
    }
    if (!get_bytes(*site, place.path, offset, from.data(), from.size()) ||
        !put_bytes(*site, place.path, offset, to.data(), to.size())) {
        return "";
    }
    const std::string sealed = seal_pools(*site, place.path, count);
    return sealed.empty()
               ? ""
               : place.path + ": byte " + std::to_string(offset) + ", row " + std::to_string(row) +
                     " of the pool table: " + hex_of(from) + " -> " + hex_of(to) + sealed;
}

std::string use_foreign_row(damage_site* site) {
    const map_place place = pick_mapped_place(site);
    uint32_t count = 0;
    if (place.path.empty() || !read_pool_count(*site, place.path, &count)) {
        return "";
    }
    if (count >= POOL_ROWS) {
        return refuse(place.path + " has every row that an entry can name");
    }
    const uint64_t row = random_between(&site->random, count, POOL_ROWS - 1);
    const uint64_t kept = place.word & ~((POOL_ROWS - 1) << POOL_SHIFT);
    return put_map_word(*site, place.path, place.lea, kept | row << POOL_SHIFT);
}

// The entry is a copy of a mapped one.
std::string map_behind_end(damage_site* site) {
    const map_place place = pick_mapped_place(site, LUN_SNAPSHOT_TRASH);
    if (place.path.empty()) {
        return "";
    }
    const uint64_t end = place.known->entries.size();
    const uint64_t unused = map_node_count(end) * MAP_NODE_ENTRIES - end;
    return unused == 0 ? refuse("the last node of " + place.path + " has no unused entry")
                       : put_map_word(*site, place.path, end + random_below(&site->random, unused),
                                      place.word);
}

std::string lose_checksum(damage_site* site) {
    const map_place place = pick_mapped_place(site);
    if (place.path.empty()) {
        return "";
    }
    constexpr uint64_t IN_NODE = DATA_NODE_SIZE - sizeof(uint32_t);
    const uint64_t node = map_node_of(place.lea);
    const uint64_t offset = METADATA_DATA_OFFSET + node * DATA_NODE_SIZE + IN_NODE;
    const uint32_t to = 0;
    uint32_t from = 0;
    if (!get_bytes(*site, place.path, offset, &from, sizeof from)) {
        return "";
    }
    if (from == to) {
        return refuse("data node " + std::to_string(node) + " of " + place.path +
                      " has no checksum");
    }
    if (!put_bytes(*site, place.path, offset, &to, sizeof to)) {
        return "";
    }
    char text[96];
    (void)snprintf(text, sizeof text, ": byte %llu, checksum of data node %llu: %08x -> %08x",
                   ull(offset), ull(node), from, to);
    return place.path + text;
}

}  // namespace lab
