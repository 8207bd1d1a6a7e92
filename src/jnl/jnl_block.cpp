#include "jnl/jnl_block.h"

#include <algorithm>

#include "jnl/jnl_block_cache.h"
#include "jnl/jnl_file.h"
#include "print.h"
#include "store/crc32c.h"
#include "store/data_node.h"
#include "store/file.h"
#include "store/keep_journal.h"

static uint32_t block_checksum(const jnl_block* block) {  // of the block with its checksum field 0
    jnl_block blank = *block;
    blank.checksum = 0;
    uint32_t checksum = 0;
    tarn_crc32c(&blank, sizeof blank, &checksum);
    return checksum;
}

static bool block_is_empty(const jnl_block* block) {
    static constexpr uint8_t empty[sizeof *block] = {};
    const void* bytes = block;  // the record is packed: no byte of it is padding
    return memcmp(bytes, empty, sizeof empty) == 0;
}

static bool is_known_entry(uint32_t type) {
    return type >= FILE_TYPE_TBL && type <= FILE_TYPE_MAP;
}

// Whether tarn_jnl_block_d2m stays silent about this block.
static bool nothing_to_report(const jnl_block* block) {
    switch (block->type) {
        case JNL_BLOCK_XCOPY:
            return block->xcopy.count <= JNL_XCOPY_MAX;
        case JNL_BLOCK_MOVES:
            return block->moves.dst_count <= JNL_MOVES_MAX &&
                   block->moves.src_count <= JNL_MOVES_MAX;
        case JNL_BLOCK_UNMAP:
            return block->unmap.count <= JNL_UNMAP_MAX;
        case JNL_BLOCK_ALLOC:
            return block->alloc.count <= JNL_ALLOC_MAX;
        default:
            break;
    }
    const jnl_file_entry* end =
        block->entry + std::min<unsigned>(block->ej_header.jnl_entry_count, JNL_FILE_ENTRY_MAX);
    return block->ej_header.jnl_entry_count <= JNL_FILE_ENTRY_MAX &&
           std::all_of(block->entry, end,
                       [](const jnl_file_entry& entry) { return is_known_entry(entry.type); });
}

// Reads the block's bytes. False: not all that the file has of it. What the block records may go
// unwritten then.
static bool read_bytes(jnl_block* block, uint64_t n) {
    const uint64_t offset = data_node_offset(n);
    const int got = read_fd(current_jnl.fd, block, offset, sizeof *block);
    if (got >= 0 && !read_stopped_early(current_jnl.fd, offset, got, sizeof *block)) {
        return true;
    }
    log_keep_as("jnl_block_read", keep_reason::unread, "jnl read error, block_num[%llu]\n", ull(n));
    return false;
}

jnl_block_state jnl_block_get(jnl_block* block, uint64_t n) {
    constexpr const char* name = "jnl_block_read";
    *block = {};
    if (jnl_block_cache_get(n, block)) {
        return jnl_block_state::good;
    }
    const bool read = read_bytes(block, n);
    if (read) {
        tarn_jnl_block_d2m(block);
    }
    if (read && block->checksum == block_checksum(block)) {
        if (nothing_to_report(block)) {
            jnl_block_cache_put(n, block);
        }
        return jnl_block_state::good;
    }
    const bool empty = block_is_empty(block);
    if (empty) {
        log_note_as(name, "jnl block all zero value @block %llu\n", ull(n));
    } else {
        log_err_as(name, "jnl checksum error @block %llu\n", ull(n));
    }
    if (!read) {
        return jnl_block_state::unread;
    }
    return empty ? jnl_block_state::empty : jnl_block_state::damaged;
}

int jnl_block_read(jnl_block* block, uint64_t n) {
    return jnl_block_get(block, n) == jnl_block_state::good ? static_cast<int>(sizeof *block) : -1;
}

void tarn_jnl_block_d2m(const jnl_block* block) {
    switch (block->type) {
        case JNL_BLOCK_XCOPY:
            if (block->xcopy.count > JNL_XCOPY_MAX) {
                log_err("blk->ej_block_history_xcopy.count %u is overflow\n", block->xcopy.count);
            }
            return;
        case JNL_BLOCK_MOVES:
            if (block->moves.dst_count > JNL_MOVES_MAX) {
                log_err("blk->ej_block_history_moves.dst_count %u is overflow\n",
                        block->moves.dst_count);
            }
            if (block->moves.src_count > JNL_MOVES_MAX) {
                log_err("blk->ej_block_history_moves.src_count %u is overflow\n",
                        block->moves.src_count);
            }
            return;
        case JNL_BLOCK_UNMAP:
            if (block->unmap.count > JNL_UNMAP_MAX) {
                log_err("blk->ej_block_history_unmap.count %u is overflow\n", block->unmap.count);
            }
            return;
        case JNL_BLOCK_ALLOC:
            if (block->alloc.count > JNL_ALLOC_MAX) {
                log_err("blk->ej_block_history_alloc.count %u is overflow\n", block->alloc.count);
            }
            return;
        default:
            break;
    }
    const unsigned entry_count = block->ej_header.jnl_entry_count;
    if (entry_count > JNL_FILE_ENTRY_MAX) {
        log_err("blk->ej_header.entry_count %u is overflow\n", entry_count);
    }
    for (unsigned i = 0; i < std::min(entry_count, JNL_FILE_ENTRY_MAX); i++) {
        (void)tarn_jnl_block_entry_d2m(&block->entry[i]);  // a report, nothing more
    }
}

static bool is_history(uint32_t type) {
    return type == JNL_BLOCK_XCOPY || type == JNL_BLOCK_MOVES || type == JNL_BLOCK_UNMAP ||
           type == JNL_BLOCK_ALLOC;
}

void tarn_jnl_block_m2d(const jnl_block* block) {
    if (is_history(block->type)) {
        return;
    }
    const unsigned entry_count = block->ej_header.jnl_entry_count;
    if (entry_count > JNL_FILE_ENTRY_MAX) {
        log_err("blk->ej_header.entry_count %u is overflow\n", entry_count);
    }
    for (unsigned i = 0; i < JNL_FILE_ENTRY_MAX; i++) {
        (void)tarn_jnl_block_entry_m2d(&block->entry[i]);  // a report, nothing more
    }
}

int tarn_jnl_block_entry_d2m(const jnl_file_entry* entry) {
    if (!is_known_entry(entry->type)) {
        log_err("jnl block type %u isn't reconginzed\n", entry->type);
        return -1;
    }
    return 0;
}

int tarn_jnl_block_entry_m2d(const jnl_file_entry* entry) {
    if (!is_known_entry(entry->type)) {
        log_err("jnl block type %u isn't reconginzed\n", entry->type);
        return -1;
    }
    return 0;
}
