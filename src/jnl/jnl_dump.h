// Printed forms of the open journal, on standard output. Below: jnl_block.h, the single-entry
// printers of the three kinds. Above: search.
#pragma once

#include <cstdint>

int dump_jnl_meta();                                 // 0, or -1, logged
int dump_jnl_block(uint64_t block_num, int detail);  // 0, or -1, logged
// One transaction, looked for forward from `from_block`. 0 at its last block or after a lap.
int dump_jnl_transaction(uint32_t trans_id, uint64_t from_block, int dump_blocks, int trace_seq,
                         int detail);
