#include "jnl/jnl_kinds.h"

#include "jnl/jnl_check.h"
#include "jnl/jnl_dump.h"
#include "jnl/jnl_replay_blocks.h"

// Every kind is checked as a FILE block, deliberate: a history block has no entry of the file.
static constexpr jnl_kind kinds[] = {
    {JNL_BLOCK_XCOPY,
     "XCOPY",
     {{"ej_block_history_xcopy.count", offsetof(jnl_block, xcopy.count), JNL_XCOPY_MAX}},
     JNL_XCOPY_ROWS,
     {offsetof(jnl_block, xcopy.src_lea), offsetof(jnl_block, xcopy.dst_lea),
      offsetof(jnl_block, xcopy.map), offsetof(jnl_block, xcopy.tbl)},
     "__jnl_xcopy_type_replay",
     jnl_xcopy_type_replay,
     jnl_check_entries,
     jnl_dump_history},
    {JNL_BLOCK_MOVES,
     "MOVES",
     {{"ej_block_history_moves.dst_count", offsetof(jnl_block, moves.dst_count), JNL_MOVES_MAX},
      {"ej_block_history_moves.src_count", offsetof(jnl_block, moves.src_count), JNL_MOVES_MAX}},
     JNL_MOVES_ROWS,
     {offsetof(jnl_block, moves.src_lea), offsetof(jnl_block, moves.dst_lea),
      offsetof(jnl_block, moves.map), 0},
     "__jnl_moves_type_replay",
     jnl_moves_type_replay,
     jnl_check_entries,
     jnl_dump_history},
    {JNL_BLOCK_UNMAP,
     "UNMAP",
     {{"ej_block_history_unmap.count", offsetof(jnl_block, unmap.count), JNL_UNMAP_MAX}},
     JNL_UNMAP_ROWS,
     {0, offsetof(jnl_block, unmap.dst_lea), offsetof(jnl_block, unmap.map),
      offsetof(jnl_block, unmap.tbl)},
     "__jnl_unmap_type_replay",
     jnl_unmap_type_replay,
     jnl_check_entries,
     jnl_dump_history},
    {JNL_BLOCK_ALLOC,
     "ALLOC",
     {{"ej_block_history_alloc.count", offsetof(jnl_block, alloc.count), JNL_ALLOC_MAX}},
     JNL_ALLOC_ROWS,
     {0, offsetof(jnl_block, alloc.dst_lea), offsetof(jnl_block, alloc.map), 0},
     "__jnl_alloc_type_replay",
     jnl_alloc_type_replay,
     jnl_check_entries,
     jnl_dump_history},
    {JNL_BLOCK_FILE,
     "FILE",
     {{"ej_header.entry_count", offsetof(jnl_block, ej_header.jnl_entry_count),
       JNL_FILE_ENTRY_MAX}},
     {},
     {},
     "__jnl_file_type_replay",
     jnl_file_block_replay,
     jnl_check_entries,
     jnl_dump_entries},
};

const jnl_kind* jnl_kind_of(uint32_t type) {
    const jnl_kind* kind = kinds;
    while (kind->type != type && kind->type != JNL_BLOCK_FILE) {
        kind++;
    }
    return kind;
}

bool jnl_has_entries(const jnl_kind* kind) {
    return kind->type == JNL_BLOCK_FILE;
}
