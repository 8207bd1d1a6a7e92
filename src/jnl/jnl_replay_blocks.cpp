#include "jnl/jnl_replay_blocks.h"

#include <algorithm>

#include "handles/map_pool.h"
#include "jnl/jnl_replay_items.h"
#include "jnl/jnl_walk.h"
#include "print.h"
#include "store/log.h"

static constexpr uint8_t SETS_REPLAY_FLAG = 1;  // in the flags of MOVES and UNMAP

// Whether `uuid` names the file that gets the changes; false for a type without a file.
static bool is_target(const jnl_replay_block* at, const uint8_t* uuid) {
    const uint8_t* target = jnl_target_uuid(at->walk->type);
    return target != nullptr && uuid_equal(uuid, target);
}

static map_entry emptied_entry(uint8_t flags) {  // of a moved or unmapped lea
    map_entry marker = {};
    map_entry_set_sync(&marker);
    if ((flags & SETS_REPLAY_FLAG) != 0) {
        map_entry_set_flag(&marker);
    }
    return marker;
}

static int check_count(const jnl_replay_block* at, unsigned count, unsigned most) {
    if (count == 0) {
        log_err_as(at->name, "Journal count is zero)\n");
        return -1;
    }
    if (count > most) {
        log_err_as(at->name, "Journal count (%u) exceed maximum (%u)\n", count, most);
        return -1;
    }
    return 0;
}

// Replays the table entries of `count` extents, each in the pool that its map entry names. An
// extent of another pool is skipped; so is one whose pool cannot be resolved, which is counted and
// logged.
static int replay_tbl_slots(const jnl_replay_block* at, const uint8_t* map_uuid,
                            const map_entry* maps, const tbl_entry* images, unsigned count) {
    int result = 0;
    int unresolved = 0;
    for (unsigned i = 0; i < count && result == 0; i++) {
        uint8_t pool[UUID_SIZE];
        if (tarn_map_get_pool_uuid(&maps[i], map_uuid, pool) != 0) {
            unresolved++;
        } else if (is_target(at, pool) && map_entry_is_mapped(&maps[i]) != 0) {
            result = replay_tbl_item(at, map_entry_get_lpa(&maps[i]), images[i], at->rank + i);
        }
    }
    if (unresolved != 0) {
        log_err_as(at->name, "tarn_map_get_pool_uuid error occurs %d times\n", unresolved);
    }
    return result;
}

// Replays the map entries of `count` leas from `first_lea` on; `rank` is that of the first one.
static int replay_map_slots(const jnl_replay_block* at, uint64_t first_lea, const map_entry* images,
                            unsigned count, uint64_t rank) {
    for (unsigned i = 0; i < count; i++) {
        const uint64_t lea = first_lea + i;
        if (lea < first_lea) {  // wrapped: it would be one of the map's first leas
            log_err_as(at->name, "Fail to replay MAP, lea %llu\n", ull(lea));
            return -1;
        }
        if (!replay_is_seen(at, lea, rank + i) && replay_map_image(at, lea, images[i]) != 0) {
            return -1;
        }
    }
    return 0;
}

// The same for leas that a move or an unmap empties, JNL_MOVES_MAX at most.
static int replay_emptied(const jnl_replay_block* at, uint64_t first_lea, uint8_t flags,
                          unsigned count) {
    map_entry images[JNL_MOVES_MAX];
    std::fill_n(images, count, emptied_entry(flags));
    return replay_map_slots(at, first_lea, images, count, at->rank);
}
static_assert(JNL_UNMAP_MAX <= JNL_MOVES_MAX);

int jnl_xcopy_type_replay(const jnl_replay_block* at) {
    const ej_block_history_xcopy& record = at->block->xcopy;
    const unsigned count = std::min<unsigned>(record.count, JNL_XCOPY_MAX);
    if (count == 0) {
        return 0;
    }
    if (at->walk->type == FILE_TYPE_TBL) {
        return replay_tbl_slots(at, record.dst_uuid, record.map, record.tbl, count);
    }
    if (at->walk->type != FILE_TYPE_MAP || !is_target(at, record.dst_uuid)) {
        return 0;
    }
    if (replay_mapped_count(at, record.mapped_count_new) != 0) {
        return -1;
    }
    return replay_map_slots(at, record.dst_lea, record.map, count, at->rank);
}

// Replays the mapped count from the side of the move that is in the map. For a move inside one map,
// neither count is the map's: a newer record must have set it.
static int replay_moves_count(const jnl_replay_block* at, bool to_target, bool from_target) {
    const ej_block_history_moves& record = at->block->moves;
    if (at->walk->mapped_count_set) {
        return 0;
    }
    if (to_target && from_target) {
        return -1;
    }
    if (from_target) {
        return record.src_count == 0 ? 0 : replay_mapped_count(at, record.src_mapped_count_new);
    }
    return record.dst_count == 0 ? 0 : replay_mapped_count(at, record.dst_mapped_count_new);
}

// Sources go first: if a move inside one map overlaps itself, the emptied image is kept.
int jnl_moves_type_replay(const jnl_replay_block* at) {
    const ej_block_history_moves& record = at->block->moves;
    if (record.src_count > JNL_MOVES_MAX || record.dst_count > JNL_MOVES_MAX) {
        log_err_as(at->name, "Journal count (src %u/ dst %u) exceed maximum (%u)\n",
                   record.src_count, record.dst_count, JNL_MOVES_MAX);
        return -1;
    }
    if (at->walk->type != FILE_TYPE_MAP) {
        return 0;
    }
    const bool to_target = is_target(at, record.dst_uuid);
    const bool from_target = is_target(at, record.src_uuid);
    if (!to_target && !from_target) {
        return 0;
    }
    if (to_target && from_target && record.dst_mapped_count_new != record.src_mapped_count_new) {
        log_err_as(at->name, "Conflict mapped_count in same MAP\n");
        return -1;
    }
    if (replay_moves_count(at, to_target, from_target) != 0) {
        return -1;
    }
    if (from_target && replay_emptied(at, record.src_lea, record.flags, record.src_count) != 0) {
        return -1;
    }
    return to_target ? replay_map_slots(at, record.dst_lea, record.map, record.dst_count,
                                        at->rank + record.src_count)
                     : 0;
}

int jnl_unmap_type_replay(const jnl_replay_block* at) {
    const ej_block_history_unmap& record = at->block->unmap;
    if (check_count(at, record.count, JNL_UNMAP_MAX) != 0) {
        return -1;
    }
    if (at->walk->type == FILE_TYPE_TBL) {
        return replay_tbl_slots(at, record.dst_uuid, record.map, record.tbl, record.count);
    }
    if (at->walk->type != FILE_TYPE_MAP || !is_target(at, record.dst_uuid)) {
        return 0;
    }
    if (replay_mapped_count(at, record.mapped_count_new) != 0) {
        return -1;
    }
    return replay_emptied(at, record.dst_lea, record.flags, record.count);
}

static int replay_alloc_into_map(const jnl_replay_block* at) {
    const ej_block_history_alloc& record = at->block->alloc;
    if (replay_mapped_count(at, record.mapped_count_new) != 0) {
        return -1;
    }
    return replay_map_slots(at, record.dst_lea, record.map, record.count, at->rank);
}

static int replay_alloc_into_fri(const jnl_replay_block* at) {
    const ej_block_history_alloc& record = at->block->alloc;
    if (replay_fri_var(at, record.total_free_count, record.group_head) != 0) {
        return -1;
    }
    return replay_fri_item(at, record.group_num, record.ef_old, record.ef_new, at->rank);
}

// Each extent gets its first reference; the mapped bit of its slot is not consulted.
static int replay_alloc_into_tbl(const jnl_replay_block* at) {
    const ej_block_history_alloc& record = at->block->alloc;
    tbl_entry image = {};
    tbl_entry_set_used(&image);
    tbl_entry_set_count(&image, 1);
    for (unsigned i = 0; i < record.count; i++) {
        const map_entry slot = record.map[i];
        if (replay_tbl_item(at, map_entry_get_lpa(&slot), image, at->rank + i) != 0) {
            return -1;
        }
    }
    return 0;
}

int jnl_alloc_type_replay(const jnl_replay_block* at) {
    const ej_block_history_alloc& record = at->block->alloc;
    if (check_count(at, record.count, JNL_ALLOC_MAX) != 0) {
        return -1;
    }
    if (!is_target(at, at->walk->type == FILE_TYPE_MAP ? record.dst_uuid : record.pool_uuid)) {
        return 0;
    }
    switch (at->walk->type) {
        case FILE_TYPE_MAP:
            return replay_alloc_into_map(at);
        case FILE_TYPE_FRI:
            return replay_alloc_into_fri(at);
        case FILE_TYPE_TBL:
            return replay_alloc_into_tbl(at);
        default:
            return 0;
    }
}

// If a newer record has set the lea, the mapped count is not taken from this one either.
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

static int replay_entry(const jnl_replay_block* at, const jnl_file_entry* entry, uint64_t rank) {
    switch (entry->type) {
        case FILE_TYPE_TBL:
            return replay_tbl_item(at, entry->tbl.lpa, entry->tbl.new_entry, rank);
        case FILE_TYPE_FRI:
            return replay_fri_item(at, entry->fri.group_num, entry->fri.old_entry,
                                   entry->fri.new_entry, rank);
        case FILE_TYPE_FRI_VAR0:
            return replay_fri_var(at, entry->fri_var0.new_free_count,
                                  entry->fri_var0.new_index_head);
        case FILE_TYPE_MAP:
            return replay_map_entry(at, &entry->map, rank);
        default:
            return -1;  // not reached: no other type has a file
    }
}

int jnl_file_block_replay(const jnl_replay_block* at) {
    const int entry_count = jnl_entry_count(at->name, at->block);
    if (entry_count < 0) {
        return -1;
    }
    const int failed = jnl_visit_entries(at->name, at->walk->type, at->block, entry_count, at->rank,
                                         [at](const jnl_file_entry* entry, uint64_t its_rank) {
                                             return replay_entry(at, entry, its_rank);
                                         });
    if (failed >= 0) {
        log_err_as(at->name, "Fail to replay %d type file, block_num %llu entry %d\n",
                   at->walk->type, ull(at->block_num), failed);
        return -1;
    }
    return 0;
}
