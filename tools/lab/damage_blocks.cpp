// Blocks with a wrong checksum: two flipped bits, garbled entries, and a block that was only partly
// written.
#include <algorithm>
#include <bit>
#include <cstdio>
#include <cstring>

#include "lab/damage_choice.h"
#include "lab/damage_kinds.h"
#include "lab/damage_lines.h"
#include "lab/image.h"
#include "lab/sample.h"
#include "print.h"

namespace lab {

using block_bytes = std::array<uint8_t, DATA_NODE_SIZE>;
constexpr size_t CHECKSUM_AT = DATA_NODE_SIZE - sizeof(uint32_t);

static uint32_t stored_checksum(const block_bytes& block) {
    uint32_t checksum = 0;
    memcpy(&checksum, &block[CHECKSUM_AT], sizeof checksum);
    return checksum;
}

// A block of the volume.
struct block_place {
    std::string path;  // empty: no such place; the reason was printed
    uint64_t start = 0;
};

static uint64_t start_of_block(uint64_t offset) {
    return offset - offset % DATA_NODE_SIZE;
}

static block_place pick_table_block(damage_site* site) {
    pool_entries pool;
    uint64_t lpa = 0;
    if (!pick_used_extent(site, &pool, &lpa)) {
        return {};
    }
    return {table_of(*site), start_of_block(offset_of_tbl(lpa))};
}

static block_place pick_index_block(damage_site* site) {
    pool_entries pool;
    std::vector<uint64_t> groups;
    if (!read_listed_groups(*site, &pool, &groups)) {
        return {};
    }
    return {index_of(*site), start_of_block(offset_of_fri(pick(site, groups)))};
}

static block_place pick_map_block(damage_site* site) {
    const map_place place = pick_mapped_place(site);
    return {place.path, start_of_block(offset_of_map(place.lea))};
}

static std::string flip_in(block_bytes* block, uint64_t start, uint64_t bit) {
    const uint8_t from = (*block)[bit / 8];
    const auto to = static_cast<uint8_t>(from ^ (1u << bit % 8));
    (*block)[bit / 8] = to;
    char text[96];
    (void)snprintf(text, sizeof text, "byte %llu: bit %u flipped, %02x -> %02x",
                   ull(start + bit / 8), static_cast<unsigned>(bit % 8), from, to);
    return text;
}

// Any bits of the block. The checksum itself stays as it is if the flips could make it 0, which
// would mean that the block has none.
std::string flip_two_bits(damage_site* site) {
    constexpr block_place (*PICKS[])(damage_site*) = {pick_table_block, pick_index_block,
                                                      pick_map_block};
    const block_place place = PICKS[random_below(&site->random, std::size(PICKS))](site);
    block_bytes block;
    if (place.path.empty() ||
        !get_bytes(*site, place.path, place.start, block.data(), block.size())) {
        return "";
    }
    const bool with_checksum = std::popcount(stored_checksum(block)) > 2;
    const uint64_t bits = (with_checksum ? DATA_NODE_SIZE : CHECKSUM_AT) * 8;
    const uint64_t one = random_below(&site->random, bits);
    const uint64_t other = (one + random_between(&site->random, 1, bits - 1)) % bits;
    const std::string line = place.path + ": " + flip_in(&block, place.start, one) + "; " +
                             flip_in(&block, place.start, other);
    return put_bytes(*site, place.path, place.start, block.data(), block.size()) ? line : "";
}

// Gives an entry of the node a random value. Returns its part of the line.
static std::string garble(damage_site* site, block_bytes* block, uint64_t node, uint64_t slot) {
    const uint64_t lea = node * MAP_NODE_ENTRIES + slot;
    uint64_t from = 0;
    memcpy(&from, &(*block)[slot * sizeof from], sizeof from);
    uint64_t to = random_next(&site->random);
    to ^= to == from ? 1 : 0;
    memcpy(&(*block)[slot * sizeof to], &to, sizeof to);
    char text[128];
    (void)snprintf(text, sizeof text, "byte %llu, lea %llu: %016llx -> %016llx",
                   ull(offset_of_map(lea)), ull(lea), ull(from), ull(to));
    return text;
}

// One to three different entries of the node, not those behind the end of the map.
static std::vector<uint64_t> pick_slots(damage_site* site, uint64_t entries) {
    constexpr uint64_t MOST = 3;
    const uint64_t count = random_between(&site->random, 1, std::min(MOST, entries));
    std::vector<uint64_t> slots;
    while (slots.size() < count) {
        const uint64_t slot = random_below(&site->random, entries);
        if (std::find(slots.begin(), slots.end(), slot) == slots.end()) {
            slots.push_back(slot);
        }
    }
    return slots;
}

std::string garble_entries(damage_site* site) {
    const map_place place = pick_mapped_place(site);
    const uint64_t node = map_node_of(place.lea);
    const uint64_t start = METADATA_DATA_OFFSET + node * DATA_NODE_SIZE;
    block_bytes block;
    if (place.path.empty() || !get_bytes(*site, place.path, start, block.data(), block.size())) {
        return "";
    }
    const uint64_t left = place.known->entries.size() - node * MAP_NODE_ENTRIES;
    std::string parts;
    for (const uint64_t slot : pick_slots(site, std::min(left, MAP_NODE_ENTRIES))) {
        parts += (parts.empty() ? ": " : "; ") + garble(site, &block, node, slot);
    }
    return put_bytes(*site, place.path, start, block.data(), block.size()) ? place.path + parts
                                                                           : "";
}

// A node, and what it held before the write that was torn.
struct torn_node {
    uint64_t node;
    block_bytes now;
    block_bytes before;
    std::string what;  // that the last part is
};

// The same map after a random earlier transaction; no bytes if it did not exist then.
static std::vector<uint8_t> earlier_nodes(damage_site* site, const lun_map& map, uint64_t* moment) {
    const uint64_t commits = commits_of_make(*site->sample);
    *moment = commits == 0 ? 0 : random_below(&site->random, commits);
    const model past = make_past(site->sample->sample, *moment);
    const auto number = static_cast<size_t>(&map - site->sample->maps.data());
    if (number >= past.maps.size() || past.maps[number].entries.size() != map.entries.size()) {
        return {};
    }
    return image_of(past, {file_kind::map, number, 0}).chunks.back().bytes;
}

// Finds a node of the map that held something else earlier. Returns false if there is none.
static bool pick_changed_node(damage_site* site, const lun_map& map,
                              const std::vector<uint8_t>& now, torn_node* out) {
    uint64_t moment = 0;
    const std::vector<uint8_t> before = earlier_nodes(site, map, &moment);
    std::vector<uint64_t> changed;
    for (uint64_t node = 0; node * DATA_NODE_SIZE < before.size(); node++) {
        const uint64_t at = node * DATA_NODE_SIZE;
        if (memcmp(&now[at], &before[at], CHECKSUM_AT) != 0) {
            changed.push_back(node);
        }
    }
    if (changed.empty()) {
        return false;
    }
    out->node = pick(site, changed);
    memcpy(out->now.data(), &now[out->node * DATA_NODE_SIZE], DATA_NODE_SIZE);
    memcpy(out->before.data(), &before[out->node * DATA_NODE_SIZE], DATA_NODE_SIZE);
    out->what = "as after transaction " + std::to_string(moment);
    return true;
}

static torn_node pick_torn_node(damage_site* site, const map_place& place,
                                const std::vector<uint8_t>& now) {
    torn_node torn = {map_node_of(place.lea), {}, {}, "zero"};
    if (random_chance(&site->random, 50) && pick_changed_node(site, *place.known, now, &torn)) {
        return torn;
    }
    memcpy(torn.now.data(), &now[torn.node * DATA_NODE_SIZE], DATA_NODE_SIZE);
    return torn;
}

// Keeps at least one new byte in front of the cut. The checksum is behind it.
static std::string tear_at(damage_site* site, const std::string& path, const torn_node& torn) {
    const uint64_t start = METADATA_DATA_OFFSET + torn.node * DATA_NODE_SIZE;
    const auto first = std::mismatch(torn.now.begin(), torn.now.end(), torn.before.begin()).first;
    const auto kept = static_cast<uint64_t>(first - torn.now.begin()) + 1;
    if (kept > CHECKSUM_AT || stored_checksum(torn.now) == stored_checksum(torn.before)) {
        return refuse("data node " + std::to_string(torn.node) + " of " + path +
                      " cannot be torn so that it shows");
    }
    const uint64_t cut = random_between(&site->random, kept, CHECKSUM_AT);
    if (!put_bytes(*site, path, start + cut, &torn.before[cut], DATA_NODE_SIZE - cut)) {
        return "";
    }
    char text[192];
    (void)snprintf(text, sizeof text,
                   ": byte %llu, data node %llu: the last %llu bytes are %s, checksum: "
                   "%08x -> %08x",
                   ull(start + cut), ull(torn.node), ull(DATA_NODE_SIZE - cut), torn.what.c_str(),
                   stored_checksum(torn.now), stored_checksum(torn.before));
    return path + text;
}

std::string tear_node(damage_site* site) {
    const map_place place = pick_mapped_place(site);
    if (place.path.empty()) {
        return "";
    }
    std::vector<uint8_t> now(map_node_count(place.known->entries.size()) * DATA_NODE_SIZE);
    if (!get_bytes(*site, place.path, METADATA_DATA_OFFSET, now.data(), now.size())) {
        return "";
    }
    return tear_at(site, place.path, pick_torn_node(site, place, now));
}

}  // namespace lab
