#include "jnl/jnl_replay.h"

#include "jnl/jnl_kinds.h"
#include "jnl/jnl_replay_items.h"
#include "jnl/jnl_walk.h"
#include "print.h"
#include "store/log.h"

static int replay_block(void* context, const jnl_block* block, uint64_t block_num, uint64_t rank) {
    auto* walk = static_cast<jnl_replay_walk*>(context);
    const jnl_kind* kind = jnl_kind_of(block->type);
    const jnl_replay_block at = {walk, kind->replay_name, block, block_num, rank};
    if (kind->replay(&at) == 0) {
        return 0;
    }
    if (!jnl_has_entries(kind)) {  // a FILE block's replay logs its entry
        log_err_as(kind->replay_name, "Fail to replay %s %d type file, block_num %llu entry %d\n",
                   kind->name, walk->type, ull(block_num), 0);
    }
    return -1;
}

int jnl_file_type_replay_pass(int32_t type, jnl_seen_keys* applied) {
    jnl_replay_walk walk = {type, applied, false, false};
    const uint32_t budget = journal_sync_count();
    const int result =
        jnl_walk_commits(&current_jnl, budget, "jnl_file_type_replay", replay_block, &walk);
    return applied->full ? -1 : result;
}

int jnl_file_type_replay(int32_t type) {
    jnl_seen_keys seen = {};
    const int result = jnl_file_type_replay_pass(type, &seen);
    jnl_seen_keys_free(&seen);
    return result;
}
