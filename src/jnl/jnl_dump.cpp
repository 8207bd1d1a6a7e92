#include "jnl/jnl_dump.h"

#include <algorithm>
#include <cstdio>

#include "fri/fri_entries.h"
#include "jnl/jnl_block.h"
#include "jnl/jnl_file.h"
#include "journal_status.h"
#include "map/map_entries.h"
#include "print.h"
#include "store/log.h"
#include "tbl/tbl_show.h"

// An empty tag line for a value that no shutdown leaves behind: nothing is printed.
static const char* shutdown_text(uint32_t tag) {
    switch (tag) {
        case JNL_STATUS_INIT:
            return "TARN_INFO: jnl_shutdown_tag                Not Initialized\n";
        case JNL_STATUS_SUCCESS:
            return "TARN_INFO: jnl_shutdown_tag                Shutdown Successfully\n";
        case JNL_STATUS_ABNORMAL:
            return "TARN_INFO: jnl_shutdown_tag                Abnormal Shutdown\n";
        case JNL_STATUS_BAD:
            return "TARN_INFO: jnl_shutdown_tag                Status Bad, Inconsistent\n";
        case JNL_STATUS_RO:
            return "TARN_INFO: jnl_shutdown_tag                Status Read-Only Bad\n";
        default:
            return "";
    }
}

int dump_jnl_meta() {
    if (current_jnl.fd == 0) {
        log_err("jnl file descriptor is invalid\n");
        return -1;
    }
    const jnl_header& header = current_jnl.header;
    printf("TARN_INFO: jnl_total_count                 %llu\n", ull(header.jnl_total_count));
    fputs(shutdown_text(header.jnl_shutdown_tag), stdout);
    printf("TARN_INFO: jnl_sync_count                  %u\n", header.jnl_sync_count);
    printf("TARN_INFO: jnl_last_trans_id               %u\n", header.jnl_last_trans_id);
    printf("TARN_INFO: jnl_last_record_start           %llu\n", ull(header.jnl_last_record_start));
    printf("TARN_INFO: jnl_last_flush_errno            %d\n", header.jnl_last_flush_errno);
    printf("TARN_INFO: jnl_last_recovery_error         %d\n", header.jnl_last_recovery_error);
    printf("TARN_INFO: jnl_empty_record_start          %llu\n", ull(header.jnl_empty_record_start));
    return 0;
}

// Entries reach their printers as copies: nothing points into a packed record.
static void show_tbl(tbl_entry entry) {
    show_tbl_entry(&entry);
}

static void show_fri(fri_entry entry) {
    show_fri_entry(&entry);
}

static void show_map(map_entry entry) {
    show_map_entry(&entry);
}

static void print_separator() {
    puts("TARN_INFO: -------------------------");
}

static void print_both_leas(unsigned slot, uint64_t src_lea, uint64_t dst_lea) {
    printf("TARN_INFO: [%u] src LEA %llu dst LEA %llu\n", slot, ull(src_lea + slot),
           ull(dst_lea + slot));
}

static void print_dst_lea(unsigned slot, uint64_t dst_lea) {
    printf("TARN_INFO: [%u] dst LEA %llu\n", slot, ull(dst_lea + slot));
}

static void dump_xcopy_slots(const ej_block_history_xcopy& record) {
    puts("TARN_INFO: XCOPY DETAIL");
    for (unsigned i = 0; i < record.count && i < JNL_XCOPY_MAX; i++) {
        print_both_leas(i, record.src_lea, record.dst_lea);
        show_map(record.map[i]);
        show_tbl(record.tbl[i]);
    }
}

static void dump_xcopy(const ej_block_history_xcopy& record, int detail) {
    printf("TARN_INFO: [%u] XCOPY TYPE\n", record.type);
    printf("TARN_INFO: dst_uuid         " UUID_DASHED_BLANK "\n", UUID_ARGS(record.dst_uuid));
    printf("TARN_INFO: src_uuid         " UUID_DASHED_BLANK "\n", UUID_ARGS(record.src_uuid));
    printf("TARN_INFO: DST LEA %llu\n", ull(record.dst_lea));
    printf("TARN_INFO: SRC LEA %llu\n", ull(record.src_lea));
    printf("TARN_INFO: count %u\n", record.count);
    printf("TARN_INFO: mapped_count_new %llu\n", ull(record.mapped_count_new));
    if (detail != 0) {
        dump_xcopy_slots(record);
    }
}

static void dump_moves_slots(const ej_block_history_moves& record) {
    puts("TARN_INFO: MOVES DETAIL");
    for (unsigned i = 0; i < record.dst_count && i < JNL_MOVES_MAX; i++) {
        print_both_leas(i, record.src_lea, record.dst_lea);
        show_map(record.map[i]);
    }
}

static void dump_moves(const ej_block_history_moves& record, int detail) {
    printf("TARN_INFO: [%u] MOVES TYPE\n", record.type);
    printf("TARN_INFO: dst_uuid         " UUID_DASHED_BLANK "\n", UUID_ARGS(record.dst_uuid));
    printf("TARN_INFO: src_uuid         " UUID_DASHED_BLANK "\n", UUID_ARGS(record.src_uuid));
    printf("TARN_INFO: DST LEA_START %llu\n", ull(record.dst_lea));
    printf("TARN_INFO: SRC LEA_START %llu\n", ull(record.src_lea));
    printf("TARN_INFO: dst_count %u\n", record.dst_count);
    printf("TARN_INFO: src_count %u\n", record.src_count);
    printf("TARN_INFO: dst_mapped_count_new %llu\n", ull(record.dst_mapped_count_new));
    printf("TARN_INFO: src_mapped_count_new %llu\n", ull(record.src_mapped_count_new));
    if (detail != 0) {
        dump_moves_slots(record);
    }
}

static void dump_unmap_slots(const ej_block_history_unmap& record) {
    puts("TARN_INFO: UNMAP DETAIL");
    for (unsigned i = 0; i < record.count && i < JNL_UNMAP_MAX; i++) {
        print_dst_lea(i, record.dst_lea);
        show_map(record.map[i]);
        show_tbl(record.tbl[i]);
    }
}

static void dump_unmap(const ej_block_history_unmap& record, int detail) {
    printf("TARN_INFO: [%u] UNMAP TYPE\n", record.type);
    printf("TARN_INFO: dst_uuid         " UUID_DASHED_BLANK "\n", UUID_ARGS(record.dst_uuid));
    printf("TARN_INFO: DST LEA_START %llu\n", ull(record.dst_lea));
    printf("TARN_INFO: count %u\n", record.count);
    printf("TARN_INFO: mapped_count_new %llu\n", ull(record.mapped_count_new));
    if (detail != 0) {
        dump_unmap_slots(record);
    }
}

static void dump_alloc_slots(const ej_block_history_alloc& record) {
    puts("TARN_INFO: ALLOC DETAIL");
    for (unsigned i = 0; i < record.count && i < JNL_ALLOC_MAX; i++) {
        print_dst_lea(i, record.dst_lea);
        show_map(record.map[i]);
    }
}

static void dump_alloc(const ej_block_history_alloc& record, int detail) {
    printf("TARN_INFO: [%u] ALLOC TYPE\n", record.type);
    // One blank less than in the other types, deliberate.
    printf("TARN_INFO: dst_uuid        " UUID_DASHED_BLANK "\n", UUID_ARGS(record.dst_uuid));
    printf("TARN_INFO: DST LEA_START %llu\n", ull(record.dst_lea));
    printf("TARN_INFO: count %u\n", record.count);
    printf("TARN_INFO: mapped_count_new %llu\n", ull(record.mapped_count_new));
    printf("TARN_INFO: pool_uuid        " UUID_DASHED_BLANK "\n", UUID_ARGS(record.pool_uuid));
    printf("TARN_INFO: group_num %llu\n", ull(record.group_num));
    puts("TARN_INFO: ef_old:");
    show_fri(record.ef_old);
    puts("TARN_INFO: ef_new:");
    show_fri(record.ef_new);
    printf("TARN_INFO: total_free_count %llu\n", ull(record.total_free_count));
    printf("TARN_INFO: group_head %llu\n", ull(record.group_head));
    if (detail != 0) {
        dump_alloc_slots(record);
    }
}

static void dump_tbl_record(unsigned slot, const jnl_tbl_record& record) {
    printf("TARN_INFO: [%u] TBL - lpa %llu\n", slot, ull(record.lpa));
    puts("TARN_INFO: OLD TBL");
    show_tbl(record.old_entry);
    puts("TARN_INFO: NEW TBL");
    show_tbl(record.new_entry);
}

static void dump_fri_record(unsigned slot, const jnl_fri_record& record) {
    printf("TARN_INFO: [%u] FRI - group_num %llu\n", slot, ull(record.group_num));
    puts("TARN_INFO: OLD FRI");
    show_fri(record.old_entry);
    puts("TARN_INFO: NEW FRI");
    show_fri(record.new_entry);
}

static void dump_fri_var0_record(unsigned slot, const jnl_fri_var0_record& record) {
    printf("TARN_INFO: [%u] FRI_VAR0\n", slot);
    printf("TARN_INFO: OLD FRI index_head %llu free_count %llu\n", ull(record.old_index_head),
           ull(record.old_free_count));
    printf("TARN_INFO: NEW FRI index_head %llu free_count %llu\n", ull(record.new_index_head),
           ull(record.new_free_count));
}

static void dump_map_record(unsigned slot, const jnl_map_record& record) {
    printf("TARN_INFO: [%u] MAP - lea %llu old_mapped_count %llu new_mapped_count %llu\n", slot,
           ull(record.lea), ull(record.old_mapped_count), ull(record.new_mapped_count));
    puts("TARN_INFO: OLD MAP");
    show_map(record.old_entry);
    puts("TARN_INFO: NEW MAP");
    show_map(record.new_entry);
}

static void dump_file_entry(unsigned slot, const jnl_file_entry& entry) {
    switch (entry.type) {
        case FILE_TYPE_TBL:
            return dump_tbl_record(slot, entry.tbl);
        case FILE_TYPE_FRI:
            return dump_fri_record(slot, entry.fri);
        case FILE_TYPE_FRI_VAR0:
            return dump_fri_var0_record(slot, entry.fri_var0);
        case FILE_TYPE_MAP:
            return dump_map_record(slot, entry.map);
        default:
            printf("TARN_INFO: [%u] UNKNOWN TYPE\n", slot);
    }
}

static void dump_file_entries(const jnl_block& block) {
    const unsigned count = std::min<unsigned>(block.ej_header.jnl_entry_count, JNL_FILE_ENTRY_MAX);
    for (unsigned i = 0; i < count; i++) {
        if (i > 0) {
            print_separator();
        }
        dump_file_entry(i, block.entry[i]);
    }
}

static void dump_block_header(const jnl_block_header& header) {
    printf("TARN_INFO: jnl_transid      %u\n", header.jnl_transid);
    printf("TARN_INFO: jnl_seq_num      %u\n", header.jnl_seq_num);
    printf("TARN_INFO: jnl_flags        %u\n", header.jnl_flags);
    printf("TARN_INFO: jnl_commit_time  %u\n", header.jnl_commit_time);
    printf("TARN_INFO: jnl_entry_count  %u\n", header.jnl_entry_count);
    if (header.jnl_entry_count > JNL_FILE_ENTRY_MAX) {
        printf("\x1b[31m%s\x1b[0m", "TARN_RPT: Invalid entry count\n");
    }
    print_separator();
}

int dump_jnl_block(uint64_t block_num, int detail) {
    if (current_jnl.fd == 0) {
        log_err("jnl file descriptor is invalid\n");
        return -1;
    }
    jnl_block block{};
    if (jnl_block_read(&block, block_num) < 0) {
        return -1;  // logged there
    }
    dump_block_header(block.ej_header);
    switch (block.type) {
        case JNL_BLOCK_XCOPY:
            dump_xcopy(block.xcopy, detail);
            break;
        case JNL_BLOCK_MOVES:
            dump_moves(block.moves, detail);
            break;
        case JNL_BLOCK_UNMAP:
            dump_unmap(block.unmap, detail);
            break;
        case JNL_BLOCK_ALLOC:
            dump_alloc(block.alloc, detail);
            break;
        default:
            dump_file_entries(block);
            return 0;  // no separator behind the last entry
    }
    print_separator();
    return 0;
}
