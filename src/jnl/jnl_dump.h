// Printed forms of the open journal, on standard output. Below: jnl_block.h, the single-entry
// printers of the three kinds. Above: search, the table of kinds.
#pragma once

#include <cstdint>

struct jnl_block;
struct jnl_kind;

int dump_jnl_meta();                                 // 0, or -1, logged
int dump_jnl_block(uint64_t block_num, int detail);  // 0, or -1, logged
// One transaction, searched forward from block `from_block`. 0 at its last block or after a lap of
// the ring; -1 if it is missing or incomplete, printed or logged.
int dump_jnl_transaction(uint32_t trans_id, uint64_t from_block, int dump_blocks, int trace_seq,
                         int detail);

// Print what follows the header in the dump of a block: for a history block the record and, with
// `detail`, the slots; for a FILE block the entries, whatever `detail` is.
void jnl_dump_history(const jnl_kind* kind, const jnl_block* block, int detail);
void jnl_dump_entries(const jnl_kind* kind, const jnl_block* block, int detail);
