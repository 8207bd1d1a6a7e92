// Replay of one block of each kind into the loaded file. Below: jnl_replay_items.h, jnl_walk.h.
// Above: the table of kinds.
#pragma once

struct jnl_replay_block;

// 0, even if the block does not concern the file; -1 at the first failure, logged. Only the replay
// of a FILE block also logs which block and entry failed.
int jnl_xcopy_type_replay(const jnl_replay_block* at);
int jnl_moves_type_replay(const jnl_replay_block* at);
int jnl_unmap_type_replay(const jnl_replay_block* at);
int jnl_alloc_type_replay(const jnl_replay_block* at);
int jnl_file_block_replay(const jnl_replay_block* at);
