// Flipped bits, as a faulty disk makes them. The checksums are not updated.
#include <bit>
#include <cstddef>
#include <cstdio>

#include "journal_status.h"
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

// Ages of transactions, in transactions: the newest has age 0.
struct age_range {
    uint32_t newest;  // id of the newest transaction
    uint64_t least;
    uint64_t most;
};

// Skips checksums with a single bit set: flipping that bit would make the checksum 0, as in a block
// that was never written.
static std::vector<uint64_t> blocks_of_ages(const std::vector<jnl_block>& blocks,
                                            const age_range& ages) {
    std::vector<uint64_t> found;
    for (uint64_t n = 0; n < blocks.size(); n++) {
        const uint32_t age = ages.newest - blocks[n].ej_header.jnl_transid;
        if (std::popcount(uint32_t{blocks[n].checksum}) > 1 && age >= ages.least &&
            age <= ages.most) {
            found.push_back(n);
        }
    }
    return found;
}

// Sets the block and returns true, or prints why there is none.
static bool pick_ring_block(damage_site* site, const age_range& ages, uint64_t* block) {
    std::vector<jnl_block> blocks(site->sample->journal.blocks.size());
    if (!get_bytes(*site, JOURNAL_PATH, METADATA_DATA_OFFSET, blocks.data(),
                   blocks.size() * sizeof(jnl_block))) {
        return false;
    }
    const std::vector<uint64_t> found = blocks_of_ages(blocks, ages);
    if (found.empty()) {
        (void)refuse(ages.least == 0
                         ? "the journal holds no block that check or replay reads"
                         : "the journal's window holds no block of an older transaction");
        return false;
    }
    *block = pick(site, found);
    return true;
}

// The blocks of the newest commits are those that check and replay read.
std::string flip_journal_block(damage_site* site) {
    const ring& journal = site->sample->journal;
    uint64_t block = 0;
    if (!pick_ring_block(site, {journal.header.jnl_last_trans_id, 0, journal.budget - 1}, &block)) {
        return "";
    }
    const uint64_t bit = random_below(&site->random, 32);
    const uint64_t checksum =
        METADATA_DATA_OFFSET + block * sizeof(jnl_block) + offsetof(jnl_block, checksum);
    return flip(*site, JOURNAL_PATH, checksum + bit / 8, static_cast<unsigned>(bit % 8),
                "checksum of block " + std::to_string(block));
}

// Returns its part of the line: "" if the status is abnormal already.
static bool set_abnormal(const damage_site& site, std::string* part) {
    const uint64_t offset = offset_of_field(offsetof(jnl_header, jnl_shutdown_tag));
    const uint32_t to = JNL_STATUS_ABNORMAL;
    uint32_t from = 0;
    if (!get_bytes(site, JOURNAL_PATH, offset, &from, sizeof from)) {
        return false;
    }
    if (from == to) {
        return true;
    }
    char text[64];
    (void)snprintf(text, sizeof text, "; byte %llu, status: %08x -> %08x", ull(offset), from, to);
    *part = text;
    return put_sealed(site, JOURNAL_PATH, offset, &to, sizeof to);
}

// Not a block of the newest complete transaction: a replay refuses that, and takes an older one for
// the end of the journal's history.
std::string flip_in_window(damage_site* site) {
    const ring& journal = site->sample->journal;
    uint64_t block = 0;
    std::string status;
    if (!pick_ring_block(site, {journal.next_id - 1, 1, journal.budget - 1}, &block) ||
        !set_abnormal(*site, &status)) {
        return "";
    }
    const uint64_t byte = random_below(&site->random, offsetof(jnl_block, checksum));
    const auto bit = static_cast<unsigned>(random_below(&site->random, 8));
    const std::string line =
        flip(*site, JOURNAL_PATH, METADATA_DATA_OFFSET + block * sizeof(jnl_block) + byte, bit,
             "block " + std::to_string(block));
    return line.empty() ? "" : line + status;
}

}  // namespace lab
