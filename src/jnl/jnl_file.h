// The journal as a file: its meta nodes, its status, its commit budget. The documented operations
// work on one open journal of the process, `current_jnl`; code that reads blocks gets its journal
// as an argument. The program never writes blocks, only the status.
// Below: meta nodes, file primitives, jnl_block_cache.h. Above: blocks, the commit search.
#pragma once

#include <optional>

#include "jnl/jnl_block_cache.h"
#include "jnl/jnl_format.h"

struct jnl_file {
    int fd;  // 0: no journal is open
    jnl_header header;
    char path[PATH_TEXT_SIZE];  // as it was opened, cut to fit
    jnl_block_cache* cache;     // owned by a jnl_keep_blocks object; null: none
};
extern jnl_file current_jnl;

// As long as this object lives, caches the blocks that are read from `jnl` and keeps its file open
// from one use to the next. Does nothing inside another one for the same `jnl`. `jnl` must outlive
// it.
class jnl_keep_blocks {
public:
    explicit jnl_keep_blocks(jnl_file* jnl);
    ~jnl_keep_blocks();
    jnl_keep_blocks(const jnl_keep_blocks&) = delete;
    jnl_keep_blocks& operator=(const jnl_keep_blocks&) = delete;

private:
    jnl_file* jnl_;  // null: inside another one
    std::optional<jnl_block_cache> cache_;
};

// Opens `path`. 0, or -1, logged; after a failure the descriptor that was opened stays set: the
// caller closes.
int load_jnl(const char* path);
// Closes the journal, if one is open. While blocks are cached, the file stays open for the next
// load of the same path.
void close_jnl();

// The shutdown tag as a signed value (JNL_STATUS_ABNORMAL reads as -1); -1, logged, if no journal
// is open.
int32_t journal_status();
// Stores `tag` and writes all four meta nodes. 0, even if the write failed (counted as a failed
// write), deliberate; -1 if no journal is open (logged) or the present tag is unknown.
int set_journal_status(uint32_t tag);
// The text for a shutdown tag; null for an unknown value.
const char* jnl_status_text(uint32_t tag);
// The number of commits that verification and replay walk back: twice jnl_sync_count, 2^32 - 1 at
// most; 128 for a count of 0.
uint32_t jnl_commit_budget(const jnl_header* header);
// That of the open journal; 0, logged, if none is open.
uint32_t journal_sync_count();
