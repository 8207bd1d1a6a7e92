// Bytes of the group index: header, entries, and where an entry lies in the file.
// Includes only the common head and the field rows; everything that knows these bytes includes
// this.
#pragma once

#include "metadata.h"
#include "store/field_rows.h"

constexpr uint32_t FRI_VERSION = 0x00010000;
constexpr int FRI_CONST_NODES = 2;
constexpr int FRI_VAR_NODES = 1;

// Two constant nodes and one variable node (at byte 4096 of the file), as they are in memory.
struct [[gnu::packed]] fri_header {
    uint32_t checksum0;           //   0
    uint32_t fri_version;         //   4: FRI_VERSION
    uint64_t fri_magic_code;      //   8: METADATA_MAGIC_CODE
    uint32_t fri_type;            //  16: FILE_TYPE_FRI
    uint8_t fri_uuid[UUID_SIZE];  //  20: pool identity, shared with the volume's extent table
    uint64_t fri_data_offset;     //  36: METADATA_DATA_OFFSET
    uint32_t fri_create_time;     //  44: seconds since the epoch
    uint8_t reserved0[16];        //  48: zero
    uint32_t checksum1;           //  64
    uint32_t fri_entry_size;      //  68: sizeof(fri_entry)
    uint64_t fri_group_count;     //  72: one more than the highest initialised group
    uint8_t reserved1[48];        //  80: zero
    uint32_t checksum2;           // 128: of variable node 0
    uint64_t fri_free_count;      // 132: free extents of the volume
    uint64_t fri_group_head;      // 140: first group of the list of groups with free extents
    uint8_t reserved2[44];        // 148: zero
};
static_assert(offsetof(fri_header, fri_version) == 4);
static_assert(offsetof(fri_header, fri_magic_code) == 8);
static_assert(offsetof(fri_header, fri_type) == 16);
static_assert(offsetof(fri_header, fri_uuid) == 20);
static_assert(offsetof(fri_header, fri_data_offset) == 36);
static_assert(offsetof(fri_header, fri_create_time) == 44);
static_assert(offsetof(fri_header, checksum1) == 64);
static_assert(offsetof(fri_header, fri_entry_size) == 68);
static_assert(offsetof(fri_header, fri_group_count) == 72);
static_assert(offsetof(fri_header, checksum2) == 128);
static_assert(offsetof(fri_header, fri_free_count) == 132);
static_assert(offsetof(fri_header, fri_group_head) == 140);
static_assert(sizeof(fri_header) == (FRI_CONST_NODES + FRI_VAR_NODES) * META_NODE_SIZE);
static_assert(std::is_trivially_copyable_v<fri_header>);
// In the order in which they are printed.
inline constexpr field_row FRI_HEADER_ROWS[] = {
    CHECKSUM_ROW(fri_header, checksum0),
    FIELD_ROW(fri_header, fri_version, "fri_version     ", number),
    FIELD_ROW(fri_header, fri_magic_code, "fri_magic_code  ", low_hex),
    FIELD_ROW(fri_header, fri_type, "fri_type        ", number),
    FIELD_ROW(fri_header, fri_uuid, "fri_uuid        ", blank_uuid),
    FIELD_ROW(fri_header, fri_data_offset, "fri_data_offset ", number),
    FIELD_ROW(fri_header, fri_create_time, "fri_create_time ", number),
    CHECKSUM_ROW(fri_header, checksum1),
    FIELD_ROW(fri_header, fri_entry_size, "fri_entry_size  ", number),
    FIELD_ROW(fri_header, fri_group_count, "fri_group_count ", number),
    CHECKSUM_ROW(fri_header, checksum2),
    FIELD_ROW(fri_header, fri_free_count, "fri_free_count  ", number),
    FIELD_ROW(fri_header, fri_group_head, "fri_group_head  ", number),
};

// One group of 4096 extents. All zero: a group that was never initialised.
struct [[gnu::packed]] fri_entry {
    uint32_t ef_next1;               //  0: next listed group, bits 0-31 of its number
    uint16_t ef_next2_freelisthead;  //  4: 0-3 next group, bits 32-35; 4-15 head, offset in group
    uint16_t ef_count_attr;          //  6: 0-13 free extents, 0..4096; 14 reserved; 15 initialised
};
static_assert(offsetof(fri_entry, ef_next1) == 0);
static_assert(offsetof(fri_entry, ef_next2_freelisthead) == 4);
static_assert(offsetof(fri_entry, ef_count_attr) == 6);
static_assert(sizeof(fri_entry) == 8 && std::is_trivially_copyable_v<fri_entry>);

constexpr uint16_t FRI_COUNT_MASK = 0x3FFF;
constexpr uint16_t FRI_ATTR_BIT = 0x4000;  // reserved: kept by every update
constexpr uint16_t FRI_INIT_BIT = 0x8000;

constexpr bool fri_entry_is_init(const fri_entry* entry) {
    return (entry->ef_count_attr & FRI_INIT_BIT) != 0;
}
constexpr void fri_entry_set_init(fri_entry* entry) {
    entry->ef_count_attr = static_cast<uint16_t>(entry->ef_count_attr | FRI_INIT_BIT);
}
constexpr uint16_t fri_entry_count(const fri_entry* entry) {
    return entry->ef_count_attr & FRI_COUNT_MASK;
}
// Sets the free count (0..4096). Bits 14 and 15 stay as they are: every update keeps reserved bits.
constexpr void fri_entry_set_count(fri_entry* entry, uint32_t free_count) {
    const unsigned kept = entry->ef_count_attr & ~unsigned{FRI_COUNT_MASK};
    entry->ef_count_attr = static_cast<uint16_t>(kept | (free_count & FRI_COUNT_MASK));
}
constexpr uint16_t fri_entry_head(const fri_entry* entry) {
    return static_cast<uint16_t>(entry->ef_next2_freelisthead >> 4);
}
constexpr void fri_entry_set_head(fri_entry* entry, uint32_t offset) {
    const unsigned kept = entry->ef_next2_freelisthead & 0xFu;
    entry->ef_next2_freelisthead = static_cast<uint16_t>(kept | ((offset & 0xFFFu) << 4));
}
constexpr uint64_t fri_entry_next(const fri_entry* entry) {
    return entry->ef_next1 | (uint64_t{entry->ef_next2_freelisthead & 0xFu} << 32);
}
constexpr void fri_entry_set_next(fri_entry* entry, uint64_t group) {  // 36 bits
    entry->ef_next1 = static_cast<uint32_t>(group);
    const unsigned kept = entry->ef_next2_freelisthead & 0xFFF0u;
    entry->ef_next2_freelisthead = static_cast<uint16_t>(kept | ((group >> 32) & 0xFu));
}

// Placement: 63 entries a block; bytes 504 to 507 of a block are reserved and kept.
constexpr uint64_t FRI_BLOCK_ENTRIES = 63;
constexpr uint64_t FRI_BLOCK_COUNT = uint64_t{1} << 23;
constexpr uint64_t FRI_GROUP_CAPACITY = FRI_BLOCK_COUNT * FRI_BLOCK_ENTRIES;
constexpr uint64_t FRI_FILE_SIZE = METADATA_DATA_OFFSET + FRI_BLOCK_COUNT * DATA_NODE_SIZE;
constexpr uint64_t FRI_NEW_FREE_COUNT = 0x000001F800000000;  // a new volume: every extent is free
static_assert(FRI_GROUP_CAPACITY == 0x1F800000);
static_assert(FRI_FILE_SIZE == 0x100100000);

constexpr uint64_t fri_block_of(uint64_t group) {
    return group / FRI_BLOCK_ENTRIES;
}
constexpr size_t fri_byte_in_block(uint64_t group) {
    return (group % FRI_BLOCK_ENTRIES) * sizeof(fri_entry);
}
