#include <cstdio>

#include "jnl/jnl_block.h"
#include "jnl/jnl_dump.h"
#include "jnl/jnl_file.h"
#include "print.h"
#include "store/log.h"

struct transaction_dump {
    uint32_t trans_id;
    uint64_t total;  // blocks of the ring, not 0
    int dump_blocks;
    int trace_seq;
    int detail;
};

static int no_transaction(uint32_t trans_id) {
    printf("TARN_INFO: NO TRANSACTION %u in JOURNAL\n", trans_id);
    return -1;
}

static void dump_when_asked(const transaction_dump& dump, uint64_t pos) {
    if (dump.dump_blocks != 0) {
        (void)dump_jnl_block(pos, dump.detail);  // what cannot be read is logged there
    }
}

// Moves *pos forward to the transaction's first block, one lap at most, also from outside the
// ring. 0, or -1.
static int find_first_block(const transaction_dump& dump, uint64_t* pos, jnl_block* block) {
    for (uint64_t visited = 0; visited < dump.total; visited++) {
        if (jnl_block_read(block, *pos) < 0) {
            return -1;  // logged there
        }
        if (block->ej_header.jnl_transid == dump.trans_id && block->ej_header.jnl_seq_num == 0) {
            return 0;
        }
        *pos = jnl_next_block(*pos, dump.total);
    }
    return -1;
}

// Whether `block` at `pos` is the transaction's block number `seq`; told when it is not.
static bool goes_on(const transaction_dump& dump, const jnl_block& block, uint16_t seq,
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

static void tell_last(const transaction_dump& dump, uint64_t pos) {
    printf("TARN_INFO: SEARCH TRANSACTION %u LAST @block %llu\n", dump.trans_id, ull(pos));
}

// The blocks behind the first one, from `pos` on. 0 at the last one or after a lap, else -1.
static int follow(const transaction_dump& dump, uint64_t pos) {
    uint16_t seq = 1;
    for (uint64_t visited = 0; visited < dump.total; visited++) {
        jnl_block block{};
        if (jnl_block_read(&block, pos) < 0) {
            return -1;  // logged there
        }
        if (!goes_on(dump, block, seq, pos)) {
            return -1;
        }
        if (block.ej_header.jnl_flags == JNL_FLAG_LAST) {
            tell_last(dump, pos);
            dump_when_asked(dump, pos);
            return 0;
        }
        if (dump.trace_seq != 0) {
            printf("TARN_INFO: SEARCH TRANSACTION %u SEQ %u @block %llu\n", dump.trans_id, seq,
                   ull(pos));
        }
        dump_when_asked(dump, pos);
        seq++;  // 16 bits, as in the blocks
        pos = jnl_next_block(pos, dump.total);
    }
    return 0;
}

int dump_jnl_transaction(uint32_t trans_id, uint64_t from_block, int dump_blocks, int trace_seq,
                         int detail) {
    if (current_jnl.fd == 0) {
        log_err("jnl file descriptor is invalid\n");
        return no_transaction(trans_id);
    }
    const transaction_dump dump = {trans_id, current_jnl.header.jnl_total_count, dump_blocks,
                                   trace_seq, detail};
    if (dump.total == 0) {
        log_err("jnl_total_count is 0\n");
        return no_transaction(trans_id);
    }
    jnl_block block{};
    uint64_t pos = from_block;
    if (find_first_block(dump, &pos, &block) != 0) {
        return no_transaction(trans_id);
    }
    printf("TARN_INFO: SEARCH TRANSACTION %u START @block %llu\n", trans_id, ull(pos));
    dump_when_asked(dump, pos);
    if (block.ej_header.jnl_flags == JNL_FLAG_LAST) {
        tell_last(dump, pos);
        return 0;
    }
    return follow(dump, jnl_next_block(pos, dump.total));
}
