#include "jnl/jnl_replay.h"

#include "jnl/jnl_replay_items.h"
#include "jnl/jnl_walk.h"
#include "print.h"
#include "store/log.h"

struct history_kind {
    uint32_t type;        // JNL_BLOCK_*
    const char* name;     // in messages
    const char* failure;  // how the message about a failed block begins
    int (*replay)(const jnl_replay_block* at);
};

static constexpr history_kind history_kinds[] = {
    {JNL_BLOCK_XCOPY, "__jnl_xcopy_type_replay", "Fail to replay XCOPY", jnl_xcopy_type_replay},
    {JNL_BLOCK_MOVES, "__jnl_moves_type_replay", "Fail to replay MOVES", jnl_moves_type_replay},
    {JNL_BLOCK_UNMAP, "__jnl_unmap_type_replay", "Fail to replay UNMAP", jnl_unmap_type_replay},
    {JNL_BLOCK_ALLOC, "__jnl_alloc_type_replay", "Fail to replay ALLOC", jnl_alloc_type_replay},
};

static const history_kind* history_kind_of(uint32_t type) {  // null: a FILE block
    for (const history_kind& kind : history_kinds) {
        if (kind.type == type) {
            return &kind;
        }
    }
    return nullptr;
}

static int replay_block(void* context, const jnl_block* block, uint64_t block_num, uint64_t rank) {
    auto* walk = static_cast<jnl_replay_walk*>(context);
    const history_kind* kind = history_kind_of(block->type);
    const char* name = kind != nullptr ? kind->name : "__jnl_file_type_replay";
    const jnl_replay_block at = {walk, name, block, block_num, rank};
    if (kind == nullptr) {
        return jnl_file_block_replay(&at);
    }
    if (kind->replay(&at) != 0) {
        log_err_as(name, "%s %d type file, block_num %llu entry %d\n", kind->failure, walk->type,
                   ull(block_num), 0);
        return -1;
    }
    return 0;
}

int jnl_file_type_replay_pass(int32_t type, jnl_seen_keys* applied) {
    jnl_replay_walk walk = {type, applied, false, false};
    const int result = jnl_walk_commits("jnl_file_type_replay", replay_block, &walk);
    return applied->full ? -1 : result;
}

int jnl_file_type_replay(int32_t type) {
    jnl_seen_keys seen = {};
    const int result = jnl_file_type_replay_pass(type, &seen);
    jnl_seen_keys_free(&seen);
    return result;
}
