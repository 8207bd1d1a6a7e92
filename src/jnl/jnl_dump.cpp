#include "jnl/jnl_dump.h"

#include <algorithm>
#include <cstdio>

#include "fri/fri_entries.h"
#include "jnl/jnl_block.h"
#include "jnl/jnl_kinds.h"
#include "map/map_entries.h"
#include "print.h"
#include "store/log.h"
#include "tbl/tbl_show.h"

// Prints nothing for an unknown tag.
static void print_shutdown_tag(const field_row* row, const uint8_t* bytes) {
    uint32_t tag;
    memcpy(&tag, bytes, sizeof tag);
    const char* text = jnl_status_text(tag);
    if (text != nullptr) {
        printf("TARN_INFO: %s%s\n", row->label, text);
    }
}

int dump_jnl_meta() {
    if (current_jnl.fd == 0) {
        log_err("jnl file descriptor is invalid\n");
        return -1;
    }
    print_fields(JNL_HEADER_ROWS, &current_jnl.header, print_shutdown_tag);
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

static void print_fri_image(const field_row* row, const uint8_t* bytes) {
    fri_entry image;
    memcpy(&image, bytes, sizeof image);
    printf("TARN_INFO: %s\n", row->label);
    show_fri_entry(&image);
}

// One extent of a history block: its leas, and its images in the record.
static void dump_slot(const jnl_slots& slots, const jnl_block* block, unsigned slot) {
    const uint64_t dst_lea = jnl_value_at<uint64_t>(block, slots.dst_lea) + slot;
    if (slots.src_lea != 0) {
        const uint64_t src_lea = jnl_value_at<uint64_t>(block, slots.src_lea) + slot;
        printf("TARN_INFO: [%u] src LEA %llu dst LEA %llu\n", slot, ull(src_lea), ull(dst_lea));
    } else {
        printf("TARN_INFO: [%u] dst LEA %llu\n", slot, ull(dst_lea));
    }
    show_map(jnl_value_at<map_entry>(block, slots.map + slot * sizeof(map_entry)));
    if (slots.tbl != 0) {
        show_tbl(jnl_value_at<tbl_entry>(block, slots.tbl + slot * sizeof(tbl_entry)));
    }
}

void jnl_dump_history(const jnl_kind* kind, const jnl_block* block, int detail) {
    printf("TARN_INFO: [%u] %s TYPE\n", kind->type, kind->name);
    print_fields(kind->fields, block->record, print_fri_image);
    if (detail != 0) {
        printf("TARN_INFO: %s DETAIL\n", kind->name);
        const jnl_count& count = kind->counts[0];
        const unsigned listed =
            std::min<unsigned>(jnl_value_at<uint8_t>(block, count.offset), count.most);
        for (unsigned i = 0; i < listed; i++) {
            dump_slot(kind->slots, block, i);
        }
    }
    print_separator();
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

// No separator follows the last entry.
void jnl_dump_entries(const jnl_kind*, const jnl_block* block, int) {
    const unsigned count = std::min<unsigned>(block->ej_header.jnl_entry_count, JNL_FILE_ENTRY_MAX);
    for (unsigned i = 0; i < count; i++) {
        if (i > 0) {
            print_separator();
        }
        dump_file_entry(i, block->entry[i]);
    }
}

static int dump_block(const jnl_file* jnl, uint64_t block_num, int detail) {
    jnl_block block{};
    if (jnl_block_read(jnl, &block, block_num) < 0) {
        return -1;  // logged there
    }
    print_fields(JNL_BLOCK_ROWS, &block, nullptr);
    if (block.ej_header.jnl_entry_count > JNL_FILE_ENTRY_MAX) {
        printf("\x1b[31m%s\x1b[0m", "TARN_RPT: Invalid entry count\n");
    }
    print_separator();
    const jnl_kind* kind = jnl_kind_of(block.type);
    kind->dump(kind, &block, detail);
    return 0;
}

int dump_jnl_block(uint64_t block_num, int detail) {
    if (current_jnl.fd == 0) {
        log_err("jnl file descriptor is invalid\n");
        return -1;
    }
    return dump_block(&current_jnl, block_num, detail);
}

// One search for a transaction, and what to print about it.
struct transaction_dump {
    const jnl_file* jnl;
    uint32_t trans_id;
    uint64_t total;  // blocks of the ring, not 0
    int dump_blocks;
    int trace_seq;
    int detail;
};

static int print_no_transaction(uint32_t trans_id) {
    printf("TARN_INFO: NO TRANSACTION %u in JOURNAL\n", trans_id);
    return -1;
}

static void dump_if_asked(const transaction_dump& dump, uint64_t pos) {
    if (dump.dump_blocks != 0) {
        (void)dump_block(dump.jnl, pos, dump.detail);  // an unreadable block is logged there
    }
}

// Moves *pos forward to the transaction's first block, one lap at most; *pos may begin outside the
// ring. 0, or -1.
static int find_first_block(const transaction_dump& dump, uint64_t* pos, jnl_block* block) {
    for (uint64_t visited = 0; visited < dump.total; visited++) {
        if (jnl_block_read(dump.jnl, block, *pos) < 0) {
            return -1;  // logged there
        }
        if (block->ej_header.jnl_transid == dump.trans_id && block->ej_header.jnl_seq_num == 0) {
            return 0;
        }
        *pos = jnl_next_block(*pos, dump.total);
    }
    return -1;
}

// Whether `block` at `pos` is the transaction's block number `seq`; printed if it is not.
static bool is_next_block(const transaction_dump& dump, const jnl_block& block, uint16_t seq,
                          uint64_t pos) {
    const jnl_block_header& header = block.ej_header;
    if (header.jnl_transid != dump.trans_id) {
        printf("TARN_INFO: STOP SEARCH TRANSACTION %u DIFF ID %u @block %llu\n", dump.trans_id,
               header.jnl_transid, ull(pos));
        return false;
    }
    if (header.jnl_seq_num != seq) {
        printf("TARN_INFO: STOP SEARCH TRANSACTION %u SEQ %u DIFF SEQ %u @block %llu, \n",
               dump.trans_id, seq, header.jnl_seq_num, ull(pos));
        return false;
    }
    return true;
}

static void print_last(const transaction_dump& dump, uint64_t pos) {
    printf("TARN_INFO: SEARCH TRANSACTION %u LAST @block %llu\n", dump.trans_id, ull(pos));
}

// The blocks after the first one, from `pos` on. 0 at the last one or after a lap, else -1.
static int follow(const transaction_dump& dump, uint64_t pos) {
    uint16_t seq = 1;
    for (uint64_t visited = 0; visited < dump.total; visited++) {
        jnl_block block{};
        if (jnl_block_read(dump.jnl, &block, pos) < 0) {
            return -1;  // logged there
        }
        if (!is_next_block(dump, block, seq, pos)) {
            return -1;
        }
        if (block.ej_header.jnl_flags == JNL_FLAG_LAST) {
            print_last(dump, pos);
            dump_if_asked(dump, pos);
            return 0;
        }
        if (dump.trace_seq != 0) {
            printf("TARN_INFO: SEARCH TRANSACTION %u SEQ %u @block %llu\n", dump.trans_id, seq,
                   ull(pos));
        }
        dump_if_asked(dump, pos);
        seq++;  // 16 bits, as in the blocks
        pos = jnl_next_block(pos, dump.total);
    }
    return 0;
}

int dump_jnl_transaction(uint32_t trans_id, uint64_t from_block, int dump_blocks, int trace_seq,
                         int detail) {
    if (current_jnl.fd == 0) {
        log_err("jnl file descriptor is invalid\n");
        return print_no_transaction(trans_id);
    }
    const transaction_dump dump = {&current_jnl, trans_id,  current_jnl.header.jnl_total_count,
                                   dump_blocks,  trace_seq, detail};
    if (dump.total == 0) {
        log_err("jnl_total_count is 0\n");
        return print_no_transaction(trans_id);
    }
    jnl_block block{};
    uint64_t pos = from_block;
    if (find_first_block(dump, &pos, &block) != 0) {
        return print_no_transaction(trans_id);
    }
    printf("TARN_INFO: SEARCH TRANSACTION %u START @block %llu\n", trans_id, ull(pos));
    dump_if_asked(dump, pos);
    if (block.ej_header.jnl_flags == JNL_FLAG_LAST) {
        print_last(dump, pos);
        return 0;
    }
    return follow(dump, jnl_next_block(pos, dump.total));
}
