// Bytes of the extent table: header, entries, groups, and where an entry lies in the file.
// Includes only the common head and the field rows; everything that knows these bytes includes
// this.
#pragma once

#include "metadata.h"
#include "store/field_rows.h"

constexpr uint32_t TBL_VERSION = 0x00010000;
constexpr int TBL_CONST_NODES = 2;
constexpr int TBL_VAR_NODES = 0;

// The two constant nodes, as they are on disk and in memory.
struct [[gnu::packed]] tbl_header {
    uint32_t checksum0;           //   0
    uint32_t tbl_version;         //   4: TBL_VERSION
    uint64_t tbl_magic_code;      //   8: METADATA_MAGIC_CODE
    uint32_t tbl_type;            //  16: FILE_TYPE_TBL
    uint8_t tbl_uuid[UUID_SIZE];  //  20: identity of the extent pool
    uint64_t tbl_data_offset;     //  36: METADATA_DATA_OFFSET
    uint32_t tbl_create_time;     //  44: seconds since the epoch
    uint8_t reserved0[16];        //  48: zero
    uint32_t checksum1;           //  64
    uint32_t tbl_extent_size;     //  68: bytes
    uint32_t tbl_entry_size;      //  72: sizeof(tbl_entry)
    uint64_t tbl_total_count;     //  76: TBL_TOTAL_COUNT
    uint8_t reserved1[44];        //  84: zero
};
static_assert(offsetof(tbl_header, tbl_version) == 4);
static_assert(offsetof(tbl_header, tbl_magic_code) == 8);
static_assert(offsetof(tbl_header, tbl_type) == 16);
static_assert(offsetof(tbl_header, tbl_uuid) == 20);
static_assert(offsetof(tbl_header, tbl_data_offset) == 36);
static_assert(offsetof(tbl_header, tbl_create_time) == 44);
static_assert(offsetof(tbl_header, checksum1) == 64);
static_assert(offsetof(tbl_header, tbl_extent_size) == TBL_EXTENT_SIZE_OFFSET);
static_assert(offsetof(tbl_header, tbl_entry_size) == 72);
static_assert(offsetof(tbl_header, tbl_total_count) == 76);
static_assert(sizeof(tbl_header) == (TBL_CONST_NODES + TBL_VAR_NODES) * META_NODE_SIZE);
static_assert(std::is_trivially_copyable_v<tbl_header>);
// In the order in which they are printed.
inline constexpr field_row TBL_HEADER_ROWS[] = {
    CHECKSUM_ROW(tbl_header, checksum0),
    FIELD_ROW(tbl_header, tbl_version, "tbl_version     ", number),
    FIELD_ROW(tbl_header, tbl_magic_code, "tbl_magic_code  ", low_hex),
    FIELD_ROW(tbl_header, tbl_type, "tbl_type        ", number),
    FIELD_ROW(tbl_header, tbl_uuid, "tbl_uuid        ", blank_uuid),
    FIELD_ROW(tbl_header, tbl_data_offset, "tbl_data_offset ", number),
    FIELD_ROW(tbl_header, tbl_create_time, "tbl_create_time ", number),
    CHECKSUM_ROW(tbl_header, checksum1),
    FIELD_ROW(tbl_header, tbl_extent_size, "tbl_extent_size ", number),
    FIELD_ROW(tbl_header, tbl_entry_size, "tbl_entry_size  ", number),
    FIELD_ROW(tbl_header, tbl_total_count, "tbl_total_count ", number),
};

// One extent. All zero: free, not the tail, next 0; that is what unwritten space reads as.
struct [[gnu::packed]] tbl_entry {
    // 0-11 reference count of a used extent, or offset in its group of the next free one;
    // 12 last of its group's free list; 13-14 reserved, kept by every update; 15 in use
    uint16_t word;
};
static_assert(sizeof(tbl_entry) == 2 && std::is_trivially_copyable_v<tbl_entry>);

constexpr uint16_t TBL_COUNT_MASK = 0x0FFF;
constexpr uint16_t TBL_TAIL_BIT = 0x1000;
constexpr uint16_t TBL_USED_BIT = 0x8000;
constexpr uint32_t TBL_COUNT_MAX = TBL_COUNT_MASK;

constexpr uint16_t tbl_entry_count(const tbl_entry* entry) {
    return entry->word & TBL_COUNT_MASK;
}
constexpr void tbl_entry_set_count(tbl_entry* entry, uint32_t count) {
    entry->word =
        static_cast<uint16_t>((entry->word & ~unsigned{TBL_COUNT_MASK}) | (count & TBL_COUNT_MASK));
}
constexpr void tbl_entry_set_used(tbl_entry* entry) {  // and no longer a tail
    entry->word = static_cast<uint16_t>((entry->word | TBL_USED_BIT) & ~unsigned{TBL_TAIL_BIT});
}
constexpr void tbl_entry_clear_used(tbl_entry* entry) {
    entry->word = static_cast<uint16_t>(entry->word & ~unsigned{TBL_USED_BIT});
}
constexpr bool tbl_entry_is_used(const tbl_entry* entry) {
    return (entry->word & TBL_USED_BIT) != 0;
}
constexpr bool tbl_entry_is_tail(const tbl_entry* entry) {
    return (entry->word & TBL_TAIL_BIT) != 0;
}
// The bits that a comparison of tables looks at: none of a free entry, used bit and reference count
// of a used one. No branch: it runs for every entry of a table.
constexpr unsigned tbl_word_meaning(uint16_t word) {
    const unsigned used = 0u - (word >> 15);  // all ones or none
    return word & used & (TBL_USED_BIT | TBL_COUNT_MASK);
}
constexpr void tbl_entry_set_tail(tbl_entry* entry) {
    entry->word = static_cast<uint16_t>(entry->word | TBL_TAIL_BIT);
}
constexpr void tbl_entry_clear_tail(tbl_entry* entry) {
    entry->word = static_cast<uint16_t>(entry->word & ~unsigned{TBL_TAIL_BIT});
}

// Groups of 4096 extents; one index entry each.
constexpr uint32_t TBL_GROUP_ENTRIES = 4096;
constexpr unsigned TBL_GROUP_SHIFT = 12;

constexpr uint64_t tbl_group_of(uint64_t lpa) {
    return lpa >> TBL_GROUP_SHIFT;
}
constexpr uint32_t tbl_offset_in_group(uint64_t lpa) {
    return static_cast<uint32_t>(lpa & (TBL_GROUP_ENTRIES - 1));
}
// Wraps for group numbers no table can hold; callers bound the group.
constexpr uint64_t tbl_lpa_of(uint64_t group, uint64_t offset) {
    return (group << TBL_GROUP_SHIFT) + offset;
}

// Placement: 252 entries a block; bytes 504 to 507 of a block are reserved and kept.
constexpr uint64_t TBL_BLOCK_ENTRIES = 252;
constexpr uint64_t TBL_BLOCK_COUNT = uint64_t{1} << 33;
constexpr uint64_t TBL_TOTAL_COUNT = TBL_BLOCK_COUNT * TBL_BLOCK_ENTRIES;
constexpr uint64_t TBL_FILE_SIZE = METADATA_DATA_OFFSET + TBL_BLOCK_COUNT * DATA_NODE_SIZE;
constexpr uint64_t TBL_GROUP_COUNT = TBL_TOTAL_COUNT >> TBL_GROUP_SHIFT;
static_assert(TBL_TOTAL_COUNT == 0x000001F800000000);
static_assert(TBL_FILE_SIZE == 0x40000100000);

constexpr uint64_t tbl_block_of(uint64_t lpa) {
    return lpa / TBL_BLOCK_ENTRIES;
}
constexpr size_t tbl_byte_in_block(uint64_t lpa) {
    return (lpa % TBL_BLOCK_ENTRIES) * sizeof(tbl_entry);
}
