#include "lab/transaction.h"

#include <cstring>

#include "lab/metadata.h"
#include "store/crc32c.h"

namespace lab {

constexpr uint32_t FIRST_COMMIT_TIME = 1700000000;

static bool is_file_block(const jnl_block& block) {
    const uint32_t type = block.type;
    return type < JNL_BLOCK_XCOPY || type > JNL_BLOCK_ALLOC;
}

// History blocks have entry count 0. A FILE block without entries keeps type 0, which marks it as a
// FILE block.
jnl_block blank_block(model* m) {
    jnl_block block;
    memset(&block, 0, sizeof block);
    if (random_chance(&m->work, 20)) {
        memset(block.ej_header.reserved, static_cast<int>(random_below(&m->work, 256)),
               sizeof block.ej_header.reserved);
        memset(block.record + sizeof block.type, static_cast<int>(random_below(&m->work, 256)),
               sizeof block.record - sizeof block.type);
    }
    return block;
}

bool has_room(const transaction& t) {
    return t.blocks.size() < t.most;
}

void add_block(transaction* t, const jnl_block& block) {
    t->blocks.push_back(block);
}

static uint64_t slots_at_end(const transaction& t) {
    if (t.blocks.empty() || !is_file_block(t.blocks.back())) {
        return 0;
    }
    return JNL_FILE_ENTRY_MAX - t.blocks.back().ej_header.jnl_entry_count;
}

uint64_t file_entry_room(const transaction& t) {
    return (t.most - t.blocks.size()) * JNL_FILE_ENTRY_MAX + slots_at_end(t);
}

void add_empty_file_block(model* m, transaction* t) {
    add_block(t, blank_block(m));
}

void add_file_entry(model* m, transaction* t, const jnl_file_entry& entry) {
    if (slots_at_end(*t) == 0) {
        add_empty_file_block(m, t);
    }
    jnl_block& block = t->blocks.back();
    block.entry[block.ej_header.jnl_entry_count] = entry;
    block.ej_header.jnl_entry_count++;
}

void note_named_map(model* m, size_t map_index) {
    m->maps[map_index].last_commit = m->journal.commits + 1;
}

void note_pools_use(model* m, size_t map_index) {
    note_named_map(m, map_index);
    m->maps[map_index].last_pools_use = m->journal.commits + 1;
}

void copy_uuid(uint8_t* to, const uuid& from) {
    memcpy(to, from.data(), from.size());
}

void seal(jnl_block* block) {
    block->checksum = 0;
    uint32_t checksum = 0;
    tarn_crc32c(block, sizeof *block, &checksum);
    block->checksum = checksum;
}

void stamp(model* m, transaction* t) {
    for (size_t i = 0; i < t->blocks.size(); i++) {
        jnl_block& block = t->blocks[i];
        block.ej_header.jnl_transid = m->journal.next_id;
        block.ej_header.jnl_seq_num = static_cast<uint16_t>(i);
        block.ej_header.jnl_flags = i + 1 == t->blocks.size() ? JNL_FLAG_LAST : 0;
        block.ej_header.jnl_commit_time =
            FIRST_COMMIT_TIME + static_cast<uint32_t>(m->journal.commits);
        seal(&block);
    }
}

void put_in_ring(ring* journal, const transaction& t, uint64_t i) {
    journal->blocks[(journal->next_block + i) % journal->blocks.size()] = t.blocks[i];
}

void name_in_header(ring* journal, const transaction& t) {
    journal->header.jnl_last_trans_id = journal->next_id;
    journal->header.jnl_last_record_start = journal->next_block;
    journal->header.jnl_empty_record_start =
        (journal->next_block + t.blocks.size()) % journal->blocks.size();
}

void commit(model* m, transaction* t) {
    ring& journal = m->journal;
    stamp(m, t);
    for (uint64_t i = 0; i < t->blocks.size(); i++) {
        put_in_ring(&journal, *t, i);
    }
    name_in_header(&journal, *t);
    journal.next_block = (journal.next_block + t->blocks.size()) % journal.blocks.size();
    journal.next_id++;
    journal.commits++;
    settle_writes(m);
}

}  // namespace lab
