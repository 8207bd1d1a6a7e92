#include "ctl/check/window_names.h"

#include <algorithm>
#include <cstring>

#include "map/map_format.h"

// Entries that are remembered. Past that a record counts as the newest one of its entry, so that a
// map may look fuller than it is, and never emptier.
static constexpr size_t SEEN_MAX = size_t{1} << 18;

window_map* window_names::note_map(const uint8_t* uuid) {
    window_map* map = &maps_[uuid_bytes_of(uuid)];
    map->newest_id = std::max(map->newest_id, id_);
    return map;
}

void window_names::note_entry(const uint8_t* uuid, uint64_t lea, bool mapped) {
    window_map* map = note_map(uuid);
    if (known_.contains(uuid_bytes_of(uuid))) {
        return;
    }
    const bool newest = seen_.size() >= SEEN_MAX || seen_.emplace(uuid_bytes_of(uuid), lea).second;
    map->still_maps = map->still_maps || (newest && mapped);
}

void window_names::note_filled(const uint8_t* uuid, uint64_t lea, const map_entry* entries,
                               unsigned count) {
    (void)note_map(uuid);
    for (unsigned i = 0; i < count; i++) {
        map_entry entry;
        memcpy(&entry, entries + i, sizeof entry);
        note_entry(uuid, lea + i, map_entry_is_mapped(&entry) != 0);
    }
}

void window_names::note_emptied(const uint8_t* uuid, uint64_t lea, unsigned count) {
    (void)note_map(uuid);
    for (unsigned i = 0; i < count; i++) {
        note_entry(uuid, lea + i, false);
    }
}

void window_names::note_file(const jnl_block& block) {
    const unsigned count = std::min<unsigned>(block.ej_header.jnl_entry_count, JNL_FILE_ENTRY_MAX);
    for (unsigned i = count; i-- > 0;) {
        const jnl_file_entry& entry = block.entry[i];
        switch (entry.type) {
            case FILE_TYPE_TBL:
            case FILE_TYPE_FRI:
            case FILE_TYPE_FRI_VAR0:
                tables_.insert(uuid_bytes_of(entry.uuid));
                break;
            case FILE_TYPE_MAP:
                note_entry(entry.uuid, entry.map.lea,
                           map_entry_is_mapped(&entry.map.new_entry) != 0);
                break;
            default:
                break;  // a damaged count shows bytes that are no entry
        }
    }
}

void window_names::note(const jnl_block& block) {
    id_ = block.ej_header.jnl_transid;
    switch (block.type) {
        case JNL_BLOCK_XCOPY:
            note_filled(block.xcopy.dst_uuid, block.xcopy.dst_lea, block.xcopy.map,
                        std::min<unsigned>(block.xcopy.count, JNL_XCOPY_MAX));
            (void)note_map(block.xcopy.src_uuid);
            break;
        case JNL_BLOCK_MOVES:
            note_filled(block.moves.dst_uuid, block.moves.dst_lea, block.moves.map,
                        std::min<unsigned>(block.moves.dst_count, JNL_MOVES_MAX));
            note_emptied(block.moves.src_uuid, block.moves.src_lea,
                         std::min<unsigned>(block.moves.src_count, JNL_MOVES_MAX));
            break;
        case JNL_BLOCK_UNMAP:
            note_emptied(block.unmap.dst_uuid, block.unmap.dst_lea,
                         std::min<unsigned>(block.unmap.count, JNL_UNMAP_MAX));
            break;
        case JNL_BLOCK_ALLOC:
            note_filled(block.alloc.dst_uuid, block.alloc.dst_lea, block.alloc.map,
                        std::min<unsigned>(block.alloc.count, JNL_ALLOC_MAX));
            tables_.insert(uuid_bytes_of(block.alloc.pool_uuid));
            break;
        default:
            note_file(block);
    }
}
