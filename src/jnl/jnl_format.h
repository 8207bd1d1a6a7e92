// Bytes of the journal: its meta nodes and the ring of 512-byte blocks. Includes only the format
// headers of the three kinds whose entries its records hold.
#pragma once

#include "fri/fri_format.h"
#include "map/map_format.h"
#include "metadata.h"
#include "tbl/tbl_format.h"

constexpr int JNL_CONST_NODES = 2;
constexpr int JNL_VAR_NODES = 2;

// Two constant and two variable nodes (from byte 4096 of the file), as they are in memory.
struct [[gnu::packed]] jnl_header {
    metadata_head head;               //   0
    uint32_t checksum1;               //  64
    uint64_t jnl_total_count;         //  68: blocks of the ring
    uint8_t unused1[52];              //  76
    uint32_t checksum2;               // 128
    uint32_t jnl_shutdown_tag;        // 132: one of JNL_STATUS_*
    uint32_t jnl_sync_count;          // 136: half the number of commits to walk back; 0 means 64
    uint8_t unused2[52];              // 140
    uint32_t checksum3;               // 192
    uint32_t jnl_last_trans_id;       // 196: the last transaction that the writer recorded
    uint64_t jnl_last_record_start;   // 200: block where that transaction's record lies
    int32_t jnl_last_flush_errno;     // 208
    int32_t jnl_last_recovery_error;  // 212
    uint64_t jnl_empty_record_start;  // 216: first unused block
    uint8_t unused3[32];              // 224
};
static_assert(offsetof(jnl_header, checksum1) == 64);
static_assert(offsetof(jnl_header, jnl_total_count) == 64 + 4);
static_assert(offsetof(jnl_header, checksum2) == 128);
static_assert(offsetof(jnl_header, jnl_shutdown_tag) == 128 + 4);
static_assert(offsetof(jnl_header, jnl_sync_count) == 128 + 8);
static_assert(offsetof(jnl_header, checksum3) == 192);
static_assert(offsetof(jnl_header, jnl_last_trans_id) == 192 + 4);
static_assert(offsetof(jnl_header, jnl_last_record_start) == 192 + 8);
static_assert(offsetof(jnl_header, jnl_last_flush_errno) == 192 + 16);
static_assert(offsetof(jnl_header, jnl_last_recovery_error) == 192 + 20);
static_assert(offsetof(jnl_header, jnl_empty_record_start) == 192 + 24);
static_assert(sizeof(jnl_header) == (JNL_CONST_NODES + JNL_VAR_NODES) * META_NODE_SIZE);
static_assert(std::is_trivially_copyable_v<jnl_header>);
inline constexpr field_row JNL_HEADER_ROWS[] = {
    CHECKSUM_ROW(jnl_header, checksum1),
    FIELD_ROW(jnl_header, jnl_total_count, "jnl_total_count                 ", number),
    CHECKSUM_ROW(jnl_header, checksum2),
    FIELD_ROW(jnl_header, jnl_shutdown_tag, "jnl_shutdown_tag                ", words),
    FIELD_ROW(jnl_header, jnl_sync_count, "jnl_sync_count                  ", number),
    CHECKSUM_ROW(jnl_header, checksum3),
    FIELD_ROW(jnl_header, jnl_last_trans_id, "jnl_last_trans_id               ", number),
    FIELD_ROW(jnl_header, jnl_last_record_start, "jnl_last_record_start           ", number),
    FIELD_ROW(jnl_header, jnl_last_flush_errno, "jnl_last_flush_errno            ", signed_number),
    FIELD_ROW(jnl_header, jnl_last_recovery_error, "jnl_last_recovery_error         ",
              signed_number),
    FIELD_ROW(jnl_header, jnl_empty_record_start, "jnl_empty_record_start          ", number),
};

// The first 32 bytes of every block.
struct [[gnu::packed]] jnl_block_header {
    uint32_t jnl_transid;      //  0: ids grow by 1 a transaction
    uint16_t jnl_seq_num;      //  4: position of the block inside its transaction, from 0
    uint16_t jnl_flags;        //  6: JNL_FLAG_LAST on the last block of the transaction
    uint32_t jnl_commit_time;  //  8: shown only
    uint8_t jnl_entry_count;   // 12: entries of a FILE block, 0..7
    uint8_t reserved[19];      // 13
};
static_assert(offsetof(jnl_block_header, jnl_seq_num) == 4);
static_assert(offsetof(jnl_block_header, jnl_flags) == 6);
static_assert(offsetof(jnl_block_header, jnl_commit_time) == 8);
static_assert(offsetof(jnl_block_header, jnl_entry_count) == 12);
static_assert(sizeof(jnl_block_header) == 32);
constexpr uint16_t JNL_FLAG_LAST = 1;

// Block type at byte 32. Any other value: a FILE block, whose first entry begins there.
constexpr uint32_t JNL_BLOCK_XCOPY = 5;
constexpr uint32_t JNL_BLOCK_MOVES = 6;
constexpr uint32_t JNL_BLOCK_UNMAP = 7;
constexpr uint32_t JNL_BLOCK_ALLOC = 8;

constexpr unsigned JNL_FILE_ENTRY_MAX = 7;
constexpr unsigned JNL_XCOPY_MAX = 40;
constexpr unsigned JNL_MOVES_MAX = 50;
constexpr unsigned JNL_UNMAP_MAX = 43;
constexpr unsigned JNL_ALLOC_MAX = 47;

struct [[gnu::packed]] jnl_tbl_record {
    uint64_t lpa;         // 20
    tbl_entry old_entry;  // 28
    tbl_entry new_entry;  // 30
};
struct [[gnu::packed]] jnl_fri_record {
    uint64_t group_num;   // 20
    fri_entry old_entry;  // 28
    fri_entry new_entry;  // 36
};
struct [[gnu::packed]] jnl_fri_var0_record {
    uint64_t old_free_count;  // 20
    uint64_t new_free_count;  // 28
    uint64_t old_index_head;  // 36
    uint64_t new_index_head;  // 44
};
struct [[gnu::packed]] jnl_map_record {
    uint64_t lea;               // 20
    map_entry old_entry;        // 28
    map_entry new_entry;        // 36
    uint64_t old_mapped_count;  // 44
    uint64_t new_mapped_count;  // 52
};

// One entry of a FILE block: 64 bytes at byte 32 + 64 * i.
struct [[gnu::packed]] jnl_file_entry {
    uint32_t type;            //  0: metadata_file_type, 1..4
    uint8_t uuid[UUID_SIZE];  //  4: of the file that the entry belongs to
    union {
        jnl_tbl_record tbl;
        jnl_fri_record fri;
        jnl_fri_var0_record fri_var0;
        jnl_map_record map;
        uint8_t bytes[44];
    };
};
static_assert(offsetof(jnl_file_entry, uuid) == 4);
static_assert(offsetof(jnl_file_entry, tbl.lpa) == 20);
static_assert(offsetof(jnl_file_entry, tbl.old_entry) == 28);
static_assert(offsetof(jnl_file_entry, tbl.new_entry) == 30);
static_assert(offsetof(jnl_file_entry, fri.group_num) == 20);
static_assert(offsetof(jnl_file_entry, fri.old_entry) == 28);
static_assert(offsetof(jnl_file_entry, fri.new_entry) == 36);
static_assert(offsetof(jnl_file_entry, fri_var0.old_free_count) == 20);
static_assert(offsetof(jnl_file_entry, fri_var0.new_free_count) == 28);
static_assert(offsetof(jnl_file_entry, fri_var0.old_index_head) == 36);
static_assert(offsetof(jnl_file_entry, fri_var0.new_index_head) == 44);
static_assert(offsetof(jnl_file_entry, map.lea) == 20);
static_assert(offsetof(jnl_file_entry, map.old_entry) == 28);
static_assert(offsetof(jnl_file_entry, map.new_entry) == 36);
static_assert(offsetof(jnl_file_entry, map.old_mapped_count) == 44);
static_assert(offsetof(jnl_file_entry, map.new_mapped_count) == 52);
static_assert(sizeof(jnl_file_entry) == 64);

// The history records begin at byte 32 of the block; offsets below count from the block's start.
struct [[gnu::packed]] ej_block_history_xcopy {
    uint32_t type;                 //  32: JNL_BLOCK_XCOPY
    uint8_t dst_uuid[UUID_SIZE];   //  36
    uint8_t src_uuid[UUID_SIZE];   //  52
    uint64_t dst_lea;              //  68
    uint64_t src_lea;              //  76
    uint8_t count;                 //  84: 0..40
    uint8_t unused[3];             //  85
    uint64_t mapped_count_new;     //  88: of the destination
    map_entry map[JNL_XCOPY_MAX];  //  96: for destination lea dst_lea + i
    tbl_entry tbl[JNL_XCOPY_MAX];  // 416: of the extent in slot i
};
struct [[gnu::packed]] ej_block_history_moves {
    uint32_t type;                  //  32: JNL_BLOCK_MOVES
    uint8_t dst_uuid[UUID_SIZE];    //  36
    uint8_t src_uuid[UUID_SIZE];    //  52
    uint64_t dst_lea;               //  68
    uint64_t src_lea;               //  76
    uint8_t dst_count;              //  84: 0..50
    uint8_t src_count;              //  85: 0..50
    uint8_t flags;                  //  86: bit 0: the emptied entries get the replay flag
    uint8_t unused;                 //  87
    uint64_t dst_mapped_count_new;  //  88
    uint64_t src_mapped_count_new;  //  96
    map_entry map[JNL_MOVES_MAX];   // 104: for destination lea dst_lea + i
};
struct [[gnu::packed]] ej_block_history_unmap {
    uint32_t type;                 //  32: JNL_BLOCK_UNMAP
    uint8_t dst_uuid[UUID_SIZE];   //  36
    uint64_t dst_lea;              //  52
    uint8_t count;                 //  60: 1..43
    uint8_t flags;                 //  61: bit 0: the emptied entries get the replay flag
    uint8_t unused0[2];            //  62
    uint64_t mapped_count_new;     //  64
    map_entry map[JNL_UNMAP_MAX];  //  72: what lea dst_lea + i held before
    tbl_entry tbl[JNL_UNMAP_MAX];  // 416: of the extent in slot i, after
};
struct [[gnu::packed]] ej_block_history_alloc {
    uint32_t type;                 //  32: JNL_BLOCK_ALLOC
    uint8_t dst_uuid[UUID_SIZE];   //  36
    uint64_t dst_lea;              //  52
    uint8_t count;                 //  60: 1..47
    uint8_t unused[3];             //  61
    uint64_t mapped_count_new;     //  64
    uint8_t pool_uuid[UUID_SIZE];  //  72: pool whose group was allocated from
    uint64_t group_num;            //  88
    fri_entry ef_old;              //  96
    fri_entry ef_new;              // 104
    uint64_t total_free_count;     // 112: of the index, after
    uint64_t group_head;           // 120: of the index, after
    map_entry map[JNL_ALLOC_MAX];  // 128: for lea dst_lea + i
};
constexpr size_t JNL_RECORD_OFFSET = sizeof(jnl_block_header);
static_assert(JNL_RECORD_OFFSET + offsetof(ej_block_history_xcopy, dst_uuid) == 36);
static_assert(JNL_RECORD_OFFSET + offsetof(ej_block_history_xcopy, src_uuid) == 52);
static_assert(JNL_RECORD_OFFSET + offsetof(ej_block_history_xcopy, dst_lea) == 68);
static_assert(JNL_RECORD_OFFSET + offsetof(ej_block_history_xcopy, src_lea) == 76);
static_assert(JNL_RECORD_OFFSET + offsetof(ej_block_history_xcopy, count) == 84);
static_assert(JNL_RECORD_OFFSET + offsetof(ej_block_history_xcopy, mapped_count_new) == 88);
static_assert(JNL_RECORD_OFFSET + offsetof(ej_block_history_xcopy, map) == 96);
static_assert(JNL_RECORD_OFFSET + offsetof(ej_block_history_xcopy, tbl) == 416);
static_assert(JNL_RECORD_OFFSET + offsetof(ej_block_history_moves, dst_uuid) == 36);
static_assert(JNL_RECORD_OFFSET + offsetof(ej_block_history_moves, src_uuid) == 52);
static_assert(JNL_RECORD_OFFSET + offsetof(ej_block_history_moves, dst_lea) == 68);
static_assert(JNL_RECORD_OFFSET + offsetof(ej_block_history_moves, src_lea) == 76);
static_assert(JNL_RECORD_OFFSET + offsetof(ej_block_history_moves, dst_count) == 84);
static_assert(JNL_RECORD_OFFSET + offsetof(ej_block_history_moves, src_count) == 85);
static_assert(JNL_RECORD_OFFSET + offsetof(ej_block_history_moves, flags) == 86);
static_assert(JNL_RECORD_OFFSET + offsetof(ej_block_history_moves, dst_mapped_count_new) == 88);
static_assert(JNL_RECORD_OFFSET + offsetof(ej_block_history_moves, src_mapped_count_new) == 96);
static_assert(JNL_RECORD_OFFSET + offsetof(ej_block_history_moves, map) == 104);
static_assert(JNL_RECORD_OFFSET + offsetof(ej_block_history_unmap, dst_uuid) == 36);
static_assert(JNL_RECORD_OFFSET + offsetof(ej_block_history_unmap, dst_lea) == 52);
static_assert(JNL_RECORD_OFFSET + offsetof(ej_block_history_unmap, count) == 60);
static_assert(JNL_RECORD_OFFSET + offsetof(ej_block_history_unmap, flags) == 61);
static_assert(JNL_RECORD_OFFSET + offsetof(ej_block_history_unmap, mapped_count_new) == 64);
static_assert(JNL_RECORD_OFFSET + offsetof(ej_block_history_unmap, map) == 72);
static_assert(JNL_RECORD_OFFSET + offsetof(ej_block_history_unmap, tbl) == 416);
static_assert(JNL_RECORD_OFFSET + offsetof(ej_block_history_alloc, dst_uuid) == 36);
static_assert(JNL_RECORD_OFFSET + offsetof(ej_block_history_alloc, dst_lea) == 52);
static_assert(JNL_RECORD_OFFSET + offsetof(ej_block_history_alloc, count) == 60);
static_assert(JNL_RECORD_OFFSET + offsetof(ej_block_history_alloc, mapped_count_new) == 64);
static_assert(JNL_RECORD_OFFSET + offsetof(ej_block_history_alloc, pool_uuid) == 72);
static_assert(JNL_RECORD_OFFSET + offsetof(ej_block_history_alloc, group_num) == 88);
static_assert(JNL_RECORD_OFFSET + offsetof(ej_block_history_alloc, ef_old) == 96);
static_assert(JNL_RECORD_OFFSET + offsetof(ej_block_history_alloc, ef_new) == 104);
static_assert(JNL_RECORD_OFFSET + offsetof(ej_block_history_alloc, total_free_count) == 112);
static_assert(JNL_RECORD_OFFSET + offsetof(ej_block_history_alloc, group_head) == 120);
static_assert(JNL_RECORD_OFFSET + offsetof(ej_block_history_alloc, map) == 128);

// One block of the ring.
struct [[gnu::packed]] jnl_block {
    jnl_block_header ej_header;  // 0
    union {
        uint32_t type;  // 32
        jnl_file_entry entry[JNL_FILE_ENTRY_MAX];
        struct ej_block_history_xcopy xcopy;
        struct ej_block_history_moves moves;
        struct ej_block_history_unmap unmap;
        struct ej_block_history_alloc alloc;
        uint8_t record[476];
    };
    uint32_t checksum;  // 508: CRC-32C of the block with this field 0
};
static_assert(offsetof(jnl_block, type) == 32);
static_assert(offsetof(jnl_block, checksum) == 508);
static_assert(sizeof(jnl_block) == DATA_NODE_SIZE && std::is_trivially_copyable_v<jnl_block>);

// Offsets count from the block's start. In the order of the dump.
inline constexpr field_row JNL_BLOCK_ROWS[] = {
    FIELD_ROW(jnl_block_header, jnl_transid, "jnl_transid      ", number),
    FIELD_ROW(jnl_block_header, jnl_seq_num, "jnl_seq_num      ", number),
    FIELD_ROW(jnl_block_header, jnl_flags, "jnl_flags        ", number),
    FIELD_ROW(jnl_block_header, jnl_commit_time, "jnl_commit_time  ", number),
    FIELD_ROW(jnl_block_header, jnl_entry_count, "jnl_entry_count  ", number),
    FIELD_ROW(jnl_block, type, nullptr, number),
    CHECKSUM_ROW(jnl_block, checksum),
};
// Offsets count from byte JNL_RECORD_OFFSET of the block.
inline constexpr field_row JNL_XCOPY_ROWS[] = {
    FIELD_ROW(ej_block_history_xcopy, dst_uuid, "dst_uuid         ", blank_uuid),
    FIELD_ROW(ej_block_history_xcopy, src_uuid, "src_uuid         ", blank_uuid),
    FIELD_ROW(ej_block_history_xcopy, dst_lea, "DST LEA ", number),
    FIELD_ROW(ej_block_history_xcopy, src_lea, "SRC LEA ", number),
    FIELD_ROW(ej_block_history_xcopy, count, "count ", number),
    FIELD_ROW(ej_block_history_xcopy, mapped_count_new, "mapped_count_new ", number),
    IMAGES_ROW(ej_block_history_xcopy, map),
    IMAGES_ROW(ej_block_history_xcopy, tbl),
};
inline constexpr field_row JNL_MOVES_ROWS[] = {
    FIELD_ROW(ej_block_history_moves, dst_uuid, "dst_uuid         ", blank_uuid),
    FIELD_ROW(ej_block_history_moves, src_uuid, "src_uuid         ", blank_uuid),
    FIELD_ROW(ej_block_history_moves, dst_lea, "DST LEA_START ", number),
    FIELD_ROW(ej_block_history_moves, src_lea, "SRC LEA_START ", number),
    FIELD_ROW(ej_block_history_moves, dst_count, "dst_count ", number),
    FIELD_ROW(ej_block_history_moves, src_count, "src_count ", number),
    FIELD_ROW(ej_block_history_moves, flags, nullptr, number),
    FIELD_ROW(ej_block_history_moves, dst_mapped_count_new, "dst_mapped_count_new ", number),
    FIELD_ROW(ej_block_history_moves, src_mapped_count_new, "src_mapped_count_new ", number),
    IMAGES_ROW(ej_block_history_moves, map),
};
inline constexpr field_row JNL_UNMAP_ROWS[] = {
    FIELD_ROW(ej_block_history_unmap, dst_uuid, "dst_uuid         ", blank_uuid),
    FIELD_ROW(ej_block_history_unmap, dst_lea, "DST LEA_START ", number),
    FIELD_ROW(ej_block_history_unmap, count, "count ", number),
    FIELD_ROW(ej_block_history_unmap, flags, nullptr, number),
    FIELD_ROW(ej_block_history_unmap, mapped_count_new, "mapped_count_new ", number),
    IMAGES_ROW(ej_block_history_unmap, map),
    IMAGES_ROW(ej_block_history_unmap, tbl),
};
inline constexpr field_row JNL_ALLOC_ROWS[] = {
    // One blank less than in the other kinds, deliberate.
    FIELD_ROW(ej_block_history_alloc, dst_uuid, "dst_uuid        ", blank_uuid),
    FIELD_ROW(ej_block_history_alloc, dst_lea, "DST LEA_START ", number),
    FIELD_ROW(ej_block_history_alloc, count, "count ", number),
    FIELD_ROW(ej_block_history_alloc, mapped_count_new, "mapped_count_new ", number),
    FIELD_ROW(ej_block_history_alloc, pool_uuid, "pool_uuid        ", blank_uuid),
    FIELD_ROW(ej_block_history_alloc, group_num, "group_num ", number),
    FIELD_ROW(ej_block_history_alloc, ef_old, "ef_old:", image),
    FIELD_ROW(ej_block_history_alloc, ef_new, "ef_new:", image),
    FIELD_ROW(ej_block_history_alloc, total_free_count, "total_free_count ", number),
    FIELD_ROW(ej_block_history_alloc, group_head, "group_head ", number),
    IMAGES_ROW(ej_block_history_alloc, map),
};
