// Bytes of a LUN map: header, pool table, entries, and where an entry lies in the file.
// Includes only the common head and the field rows; everything that knows these bytes includes
// this.
#pragma once

#include "metadata.h"
#include "store/field_rows.h"

constexpr int MAP_CONST_NODES = 2;
constexpr int MAP_VAR_NODES = 3;
constexpr uint32_t EC_MAX_VOL_NUM = 1024;         // the most pools that a map should name
constexpr uint64_t MAP_POOL_TABLE_OFFSET = 8192;  // bytes; one uuid of 16 bytes a pool
// The pool table may not reach past the first mebibyte, where the entries begin.
constexpr uint32_t MAP_POOL_TABLE_MAX =
    static_cast<uint32_t>((METADATA_DATA_OFFSET - MAP_POOL_TABLE_OFFSET) / UUID_SIZE);

// Two constant nodes and three variable nodes (from byte 4096 of the file), as they are in memory.
// Fields marked "shown" are printed and otherwise kept unchanged.
struct [[gnu::packed]] map_header {
    uint32_t checksum0;                  //   0
    uint32_t map_version;                //   4: shown
    uint64_t map_magic_code;             //   8: METADATA_MAGIC_CODE
    uint32_t map_type;                   //  16: FILE_TYPE_MAP
    uint8_t map_uuid[UUID_SIZE];         //  20: identity of this map, also in the journal
    uint8_t unused0[28];                 //  36
    uint32_t checksum1;                  //  64
    uint32_t map_attribute;              //  68: shown
    uint32_t map_lb_size;                //  72: shown
    uint64_t map_total_count;            //  76: entries of the LUN
    uint8_t map_parent_uuid[UUID_SIZE];  //  84: shown
    uint64_t map_parent_total_count;     // 100: shown
    uint8_t unused1[20];                 // 108
    uint32_t checksum2;                  // 128
    uint64_t map_mapped_count;           // 132: entries whose mapped bit is set
    uint8_t unused2[52];                 // 140
    uint32_t checksum3;                  // 192
    uint32_t map_pool_cksum;             // 196: CRC-32C of the pool table
    uint32_t map_pool_cnt;               // 200: rows of the pool table
    uint8_t unused3[52];                 // 204
    uint32_t checksum4;                  // 256
    uint64_t map_sync_count;             // 260: shown
    uint32_t map_child_attr;             // 268: shown
    uint8_t unused4[48];                 // 272
};
static_assert(offsetof(map_header, map_version) == 4);
static_assert(offsetof(map_header, map_magic_code) == 8);
static_assert(offsetof(map_header, map_type) == 16);
static_assert(offsetof(map_header, map_uuid) == 20);
static_assert(offsetof(map_header, checksum1) == 64);
static_assert(offsetof(map_header, map_attribute) == 68);
static_assert(offsetof(map_header, map_lb_size) == 72);
static_assert(offsetof(map_header, map_total_count) == 76);
static_assert(offsetof(map_header, map_parent_uuid) == 84);
static_assert(offsetof(map_header, map_parent_total_count) == 100);
static_assert(offsetof(map_header, checksum2) == 128);
static_assert(offsetof(map_header, map_mapped_count) == 132);
static_assert(offsetof(map_header, checksum3) == 192);
static_assert(offsetof(map_header, map_pool_cksum) == 196);
static_assert(offsetof(map_header, map_pool_cnt) == 200);
static_assert(offsetof(map_header, checksum4) == 256);
static_assert(offsetof(map_header, map_sync_count) == 260);
static_assert(offsetof(map_header, map_child_attr) == 268);
static_assert(sizeof(map_header) == (MAP_CONST_NODES + MAP_VAR_NODES) * META_NODE_SIZE);
static_assert(std::is_trivially_copyable_v<map_header>);
// In the order in which they are printed. The magic code is printed as its low half, deliberate.
inline constexpr field_row MAP_HEADER_ROWS[] = {
    CHECKSUM_ROW(map_header, checksum0),
    FIELD_ROW(map_header, map_version, "map_version              ", number),
    FIELD_ROW(map_header, map_magic_code, "map_magic_code           ", low_hex),
    FIELD_ROW(map_header, map_type, "map_type                 ", number),
    CHECKSUM_ROW(map_header, checksum1),
    FIELD_ROW(map_header, map_attribute, "map_attribute            ", hex),
    FIELD_ROW(map_header, map_uuid, "map_uuid                 ", uuid),
    FIELD_ROW(map_header, map_lb_size, "map_lb_size              ", number),
    FIELD_ROW(map_header, map_total_count, "map_total_count          ", number),
    FIELD_ROW(map_header, map_parent_uuid, "map_parent_uuid          ", uuid),
    FIELD_ROW(map_header, map_parent_total_count, "map_parent_total_count   ", number),
    CHECKSUM_ROW(map_header, checksum2),
    FIELD_ROW(map_header, map_mapped_count, "map_mapped_count         ", number),
    CHECKSUM_ROW(map_header, checksum3),
    FIELD_ROW(map_header, map_pool_cksum, nullptr, number),
    FIELD_ROW(map_header, map_pool_cnt, nullptr, number),
    CHECKSUM_ROW(map_header, checksum4),
    FIELD_ROW(map_header, map_sync_count, "map_sync_count           ", number),
    FIELD_ROW(map_header, map_child_attr, "map_child_attr           ", bare_hex),
};

// One logical extent. All zero: unmapped.
struct [[gnu::packed]] map_entry {
    // 0-47 lpa; 48-59 row of the pool table; 60 sync, set by journal replay; 61 reserved;
    // 62 replay flag; 63 mapped
    uint64_t word;
};
static_assert(sizeof(map_entry) == 8 && std::is_trivially_copyable_v<map_entry>);

constexpr uint64_t MAP_LPA_MASK = (uint64_t{1} << 48) - 1;
constexpr uint64_t MAP_SYNC_BIT = uint64_t{1} << 60;
constexpr uint64_t MAP_FLAG_BIT = uint64_t{1} << 62;
constexpr uint64_t MAP_MAPPED_BIT = uint64_t{1} << 63;

constexpr uint64_t map_entry_get_lpa(const map_entry* entry) {
    return entry->word & MAP_LPA_MASK;
}
constexpr uint32_t map_entry_get_poolnum(const map_entry* entry) {  // 0..4095
    return static_cast<uint32_t>((entry->word >> 48) & 0xFFF);
}
constexpr int map_entry_is_mapped(const map_entry* entry) {
    return (entry->word & MAP_MAPPED_BIT) != 0 ? 1 : 0;
}
constexpr int map_entry_is_sync(const map_entry* entry) {
    return (entry->word & MAP_SYNC_BIT) != 0 ? 1 : 0;
}
constexpr void map_entry_set_sync(map_entry* entry) {
    entry->word |= MAP_SYNC_BIT;
}
constexpr void map_entry_set_flag(map_entry* entry) {
    entry->word |= MAP_FLAG_BIT;
}

// Number of entries of a ROD map on a volume with extents of 2^shift bytes, whatever the map's
// header says. The power is computed in 32 bits and is 0 if bit 5 of its exponent is set.
constexpr uint64_t rod_entry_count(uint32_t shift) {
    const uint32_t exponent = 30 - shift;
    const uint32_t power = (exponent & 32) != 0 ? 0 : uint32_t{1} << (exponent & 31);
    return (uint64_t{power} + 32) * 512;
}
static_assert(rod_entry_count(20) == 540672);

// Placement: 63 entries a data node; bytes 504 to 507 of a node are reserved and kept.
constexpr uint64_t MAP_NODE_ENTRIES = 63;

constexpr uint64_t map_node_of(uint64_t lea) {
    return lea / MAP_NODE_ENTRIES;
}
constexpr size_t map_byte_in_node(uint64_t lea) {
    return (lea % MAP_NODE_ENTRIES) * sizeof(map_entry);
}
// Data nodes that hold `entries` entries. Does not wrap.
constexpr uint64_t map_node_count(uint64_t entries) {
    return entries / MAP_NODE_ENTRIES + (entries % MAP_NODE_ENTRIES != 0 ? 1 : 0);
}
