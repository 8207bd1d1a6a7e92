#include "jnl/jnl_block.h"

#include <algorithm>

#include "jnl/jnl_kinds.h"
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

static bool count_fits(const jnl_block* block, const jnl_count& count) {
    return count.name == nullptr || jnl_value_at<uint8_t>(block, count.offset) <= count.most;
}

static bool is_known_entry(uint32_t type) {
    return type >= FILE_TYPE_TBL && type <= FILE_TYPE_MAP;
}

// The entries that d2m examines: none of a history block.
static unsigned entries_of(const jnl_kind* kind, const jnl_block* block) {
    const unsigned count = block->ej_header.jnl_entry_count;
    return jnl_has_entries(kind) ? std::min(count, JNL_FILE_ENTRY_MAX) : 0;
}

// Whether tarn_jnl_block_d2m has nothing to log about this block.
static bool nothing_to_report(const jnl_block* block) {
    const jnl_kind* kind = jnl_kind_of(block->type);
    return std::all_of(std::begin(kind->counts), std::end(kind->counts),
                       [block](const jnl_count& count) { return count_fits(block, count); }) &&
           std::all_of(block->entry, block->entry + entries_of(kind, block),
                       [](const jnl_file_entry& entry) { return is_known_entry(entry.type); });
}

// Reads the block's bytes. Returns false, logged, if it got fewer than the file has: what the block
// records may then not be replayed.
static bool read_bytes(int fd, jnl_block* block, uint64_t n) {
    const uint64_t offset = data_node_offset(n);
    const int got = read_fd(fd, block, offset, sizeof *block);
    if (got >= 0 && !read_stopped_early(fd, offset, got, sizeof *block)) {
        return true;
    }
    log_keep_as("jnl_block_read", keep_reason::unread, "jnl read error, block_num[%llu]\n", ull(n));
    return false;
}

jnl_block_state jnl_block_get(const jnl_file* jnl, jnl_block* block, uint64_t n) {
    constexpr const char* name = "jnl_block_read";
    *block = {};
    if (jnl->cache != nullptr && jnl->cache->get(n, block)) {
        return jnl_block_state::good;
    }
    const bool read = read_bytes(jnl->fd, block, n);
    if (read) {
        tarn_jnl_block_d2m(block);
    }
    if (read && block->checksum == block_checksum(block)) {
        if (jnl->cache != nullptr && nothing_to_report(block)) {
            jnl->cache->put(n, block);
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

int jnl_block_read(const jnl_file* jnl, jnl_block* block, uint64_t n) {
    const jnl_block_state state = jnl_block_get(jnl, block, n);
    return state == jnl_block_state::good ? static_cast<int>(sizeof *block) : -1;
}

static void report_counts(const char* name, const jnl_kind* kind, const jnl_block* block) {
    for (const jnl_count& count : kind->counts) {
        if (!count_fits(block, count)) {
            log_err_as(name, "blk->%s %u is overflow\n", count.name,
                       jnl_value_at<uint8_t>(block, count.offset));
        }
    }
}

void tarn_jnl_block_d2m(const jnl_block* block) {
    const jnl_kind* kind = jnl_kind_of(block->type);
    report_counts(__func__, kind, block);
    for (unsigned i = 0; i < entries_of(kind, block); i++) {
        (void)tarn_jnl_block_entry_d2m(&block->entry[i]);  // only logs
    }
}

void tarn_jnl_block_m2d(const jnl_block* block) {
    const jnl_kind* kind = jnl_kind_of(block->type);
    if (!jnl_has_entries(kind)) {
        return;
    }
    report_counts(__func__, kind, block);
    for (const jnl_file_entry& entry : block->entry) {
        (void)tarn_jnl_block_entry_m2d(&entry);  // only logs
    }
}

static int check_entry_type(const char* name, const jnl_file_entry* entry) {
    if (!is_known_entry(entry->type)) {
        log_err_as(name, "jnl block type %u isn't reconginzed\n", entry->type);
        return -1;
    }
    return 0;
}

int tarn_jnl_block_entry_d2m(const jnl_file_entry* entry) {
    return check_entry_type(__func__, entry);
}

int tarn_jnl_block_entry_m2d(const jnl_file_entry* entry) {
    return check_entry_type(__func__, entry);
}
