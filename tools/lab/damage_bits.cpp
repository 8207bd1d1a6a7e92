// Flipped bits, as a faulty disk makes them. The checksums are not updated.
#include <bit>
#include <cstddef>
#include <cstdio>

#include "lab/damage_choice.h"
#include "lab/damage_kinds.h"
#include "lab/image.h"
#include "print.h"

namespace lab {

static std::string flip(const damage_site& site, const std::string& path, uint64_t offset,
                        unsigned bit, const std::string& place) {
    uint8_t byte = 0;
    if (!get_bytes(site, path, offset, &byte, 1)) {
        return "";
    }
    const auto flipped = static_cast<uint8_t>(byte ^ (1u << bit));
    if (!put_bytes(site, path, offset, &flipped, 1)) {
        return "";
    }
    char text[160];
    (void)snprintf(text, sizeof text, ": byte %llu, %s: bit %u flipped, %02x -> %02x", ull(offset),
                   place.c_str(), bit, byte, flipped);
    return path + text;
}

// Flips a bit that the checksum at the start of the node covers.
static std::string flip_header(damage_site* site, const std::string& path, uint64_t nodes) {
    const uint64_t node = random_below(&site->random, nodes);
    const uint64_t byte = random_between(&site->random, sizeof(uint32_t), META_NODE_SIZE - 1);
    const auto bit = static_cast<unsigned>(random_below(&site->random, 8));
    return flip(*site, path, offset_of_node(node) + byte, bit,
                "header node " + std::to_string(node));
}

std::string flip_index_header(damage_site* site) {
    return flip_header(site, index_of(*site), FRI_CONST_NODES + FRI_VAR_NODES);
}

std::string flip_table_header(damage_site* site) {
    return flip_header(site, table_of(*site), TBL_CONST_NODES + TBL_VAR_NODES);
}

std::string flip_map_header(damage_site* site) {
    return flip_header(site, pick_map_file(site).path, MAP_CONST_NODES + MAP_VAR_NODES);
}

// Flips a bit of the head (bits 36 to 47 of the entry) or of the count (bits 48 to 61).
std::string flip_index_block(damage_site* site) {
    pool_entries pool;
    std::vector<uint64_t> groups;
    if (!read_listed_groups(*site, &pool, &groups)) {
        return "";
    }
    const uint64_t group = pick(site, groups);
    const uint64_t bit = random_between(&site->random, 36, 61);
    return flip(*site, index_of(*site), offset_of_fri(group) + bit / 8,
                static_cast<unsigned>(bit % 8), "group " + std::to_string(group));
}

std::string flip_table_block(damage_site* site) {
    pool_entries pool;
    uint64_t lpa = 0;
    if (!pick_used_extent(site, &pool, &lpa)) {
        return "";
    }
    constexpr uint64_t COUNT_BITS = 12;
    constexpr uint64_t USED_BIT = 15;
    const uint64_t picked = random_below(&site->random, COUNT_BITS + 1);
    const uint64_t bit = picked == COUNT_BITS ? USED_BIT : picked;
    return flip(*site, table_of(*site), offset_of_tbl(lpa) + bit / 8,
                static_cast<unsigned>(bit % 8), "lpa " + std::to_string(lpa));
}

std::string flip_map_node(damage_site* site) {
    const map_place place = pick_mapped_place(site);
    if (place.path.empty()) {
        return "";
    }
    constexpr uint64_t ENTRY_BYTES = MAP_NODE_ENTRIES * sizeof(map_entry);
    const uint64_t node = map_node_of(place.lea);
    const uint64_t byte = random_below(&site->random, ENTRY_BYTES);
    const auto bit = static_cast<unsigned>(random_below(&site->random, 8));
    const uint64_t lea = node * MAP_NODE_ENTRIES + byte / sizeof(map_entry);
    return flip(*site, place.path, METADATA_DATA_OFFSET + node * DATA_NODE_SIZE + byte, bit,
                "data node " + std::to_string(node) + ", lea " + std::to_string(lea));
}

std::string flip_pool_table(damage_site* site) {
    const map_file map = pick_map_file(site);
    const uint64_t row = random_below(&site->random, map.known->pools.size());
    const uint64_t byte = random_below(&site->random, UUID_SIZE);
    const auto bit = static_cast<unsigned>(random_below(&site->random, 8));
    return flip(*site, map.path, MAP_POOL_TABLE_OFFSET + row * UUID_SIZE + byte, bit,
                "row " + std::to_string(row) + " of the pool table");
}

// The blocks of the newest commits, which check and replay read. Skips checksums with a single bit
// set: flipping that bit would make the checksum 0, as in a block that was never written.
static std::vector<uint64_t> recent_blocks(const ring& journal,
                                           const std::vector<jnl_block>& blocks) {
    std::vector<uint64_t> recent;
    for (uint64_t n = 0; n < blocks.size(); n++) {
        const uint32_t age = journal.header.jnl_last_trans_id - blocks[n].ej_header.jnl_transid;
        if (std::popcount(uint32_t{blocks[n].checksum}) > 1 && age < journal.budget) {
            recent.push_back(n);
        }
    }
    return recent;
}

std::string flip_journal_block(damage_site* site) {
    const ring& journal = site->sample->journal;
    std::vector<jnl_block> blocks(journal.blocks.size());
    if (!get_bytes(*site, JOURNAL_PATH, METADATA_DATA_OFFSET, blocks.data(),
                   blocks.size() * sizeof(jnl_block))) {
        return "";
    }
    const std::vector<uint64_t> recent = recent_blocks(journal, blocks);
    if (recent.empty()) {
        return refuse("the journal holds no block that check or replay reads");
    }
    const uint64_t block = pick(site, recent);
    const uint64_t bit = random_below(&site->random, 32);
    const uint64_t checksum =
        METADATA_DATA_OFFSET + block * sizeof(jnl_block) + offsetof(jnl_block, checksum);
    return flip(*site, JOURNAL_PATH, checksum + bit / 8, static_cast<unsigned>(bit % 8),
                "checksum of block " + std::to_string(block));
}

}  // namespace lab
