// A transaction being put together, block by block, and its way into the ring.
// Below: metadata.h. Above: the kinds of transaction.
#pragma once

#include "lab/model.h"

namespace lab {

struct transaction {
    std::vector<jnl_block> blocks;
    uint64_t most;  // blocks that it may have
};

// A cleared block. Where the model likes it so, what no reader may look at is stale content.
jnl_block blank_block(model* m);

bool has_room(const transaction& t);
// History blocks; the transaction has room.
void add_block(transaction* t, const jnl_block& block);

// Entries that still fit, in the FILE block at the end and in new ones.
uint64_t file_entry_room(const transaction& t);
// The transaction has room for the entry.
void add_file_entry(model* m, transaction* t, const jnl_file_entry& entry);
// A FILE block of no entries.
void add_empty_file_block(model* m, transaction* t);

// The maps that a record names; noted so that none is removed while the record counts.
void names_map(model* m, size_t map_index);
void copy_uuid(uint8_t* to, const uuid& from);

// Gives the blocks id, numbers, last flag and checksum, as the newest transaction's.
void stamp(model* m, transaction* t);
// The checksum of a block that has just been changed.
void seal(jnl_block* block);
// Block `i` of the newest transaction to its place in the ring.
void put_in_ring(ring* journal, const transaction& t, uint64_t i);
// The header names the transaction that starts at next_block.
void name_in_header(ring* journal, const transaction& t);
// Record, header and the end of the budget: the transaction is complete.
void commit(model* m, transaction* t);

}  // namespace lab
