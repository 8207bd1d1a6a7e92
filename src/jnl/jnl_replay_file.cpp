// Replay of FILE blocks. Belongs to jnl_replay_items.h.
#include "jnl/jnl_replay_items.h"
#include "jnl/jnl_target.h"
#include "print.h"
#include "store/log.h"

// A lea that a newer record has set says nothing of the mapped count either.
static int replay_map_entry(const jnl_replay_block* at, const jnl_map_record* record,
                            uint64_t rank) {
    if (replay_is_seen(at, record->lea, rank)) {
        return 0;
    }
    if (replay_map_image(at, record->lea, record->new_entry) != 0) {
        return -1;
    }
    return replay_mapped_count(at, record->new_mapped_count);
}

static int replay_own_entry(const jnl_replay_block* at, const jnl_file_entry* entry,
                            uint64_t rank) {
    const auto type = static_cast<int32_t>(entry->type);
    if (type == FILE_TYPE_FRI_VAR0 &&
        (at->walk->type == FILE_TYPE_FRI || at->walk->type == FILE_TYPE_FRI_VAR0)) {
        return replay_fri_var(at, entry->fri_var0.new_free_count, entry->fri_var0.new_index_head);
    }
    if (type != at->walk->type) {
        return 0;
    }
    switch (type) {
        case FILE_TYPE_TBL:
            return replay_tbl_item(at, entry->tbl.lpa, entry->tbl.new_entry, rank);
        case FILE_TYPE_FRI:
            return replay_fri_item(at, entry->fri.group_num, entry->fri.old_entry,
                                   entry->fri.new_entry, rank);
        case FILE_TYPE_MAP:
            return replay_map_entry(at, &entry->map, rank);
        default:
            return -1;  // a type without a file: refused before
    }
}

static int replay_entry(const jnl_replay_block* at, const jnl_file_entry* entry, uint64_t rank) {
    const uint8_t* uuid = jnl_target_uuid(at->walk->type);
    if (uuid == nullptr) {
        log_err_as(at->name, "Not support %d type file jnl check\n", at->walk->type);
        return -1;
    }
    return uuid_equal(entry->uuid, uuid) ? replay_own_entry(at, entry, rank) : 0;
}

int jnl_file_block_replay(const jnl_replay_block* at) {
    const int entry_count = at->block->ej_header.jnl_entry_count;
    if (entry_count > int{JNL_FILE_ENTRY_MAX}) {
        log_err_as(at->name, "entry count %d large than %d\n", entry_count,
                   int{JNL_FILE_ENTRY_MAX});
        return -1;
    }
    uint64_t rank = at->rank;
    for (int i = entry_count - 1; i >= 0; i--) {  // the newest stands last
        if (replay_entry(at, &at->block->entry[i], rank++) != 0) {
            log_err_as(at->name, "Fail to replay %d type file, block_num %llu entry %d\n",
                       at->walk->type, ull(at->block_num), i);
            return -1;
        }
    }
    return 0;
}
