// Builds a transaction block by block and writes it into the ring.
// Below: metadata.h. Above: the kinds of transaction.
#pragma once

#include "lab/model.h"

namespace lab {

struct transaction {
    std::vector<jnl_block> blocks;
    uint64_t most;  // maximum number of blocks
};

// A cleared block. Sometimes the bytes that no reader uses have stale contents.
jnl_block blank_block(model* m);

bool has_room(const transaction& t);
// Adds a block. The transaction must have room.
void add_block(transaction* t, const jnl_block& block);

// Number of entries that still fit, in the FILE block at the end and in new blocks.
uint64_t file_entry_room(const transaction& t);
// The transaction must have room for the entry.
void add_file_entry(model* m, transaction* t, const jnl_file_entry& entry);
// Adds a FILE block without entries.
void add_empty_file_block(model* m, transaction* t);

// Notes that the current record names the map, so that the map is not removed while that record is
// in the budget.
void note_named_map(model* m, size_t map_index);
// As note_named_map, for a record that gives new table entries: UNMAP, and XCOPY to the map. Its
// replay finds the table by the pool table of the map.
void note_pools_use(model* m, size_t map_index);
void copy_uuid(uint8_t* to, const uuid& from);

// Sets id, numbers, last flag and checksums of the blocks, as the newest transaction.
void stamp(model* m, transaction* t);
// Updates the checksum of a changed block.
void seal(jnl_block* block);
// Copies block `i` of the newest transaction into its place in the ring.
void put_in_ring(ring* journal, const transaction& t, uint64_t i);
// Makes the header name this transaction, which starts at next_block.
void name_in_header(ring* journal, const transaction& t);
// Completes the transaction: writes its record, updates the header, and settles writes that leave
// the budget.
void commit(model* m, transaction* t);

}  // namespace lab
