// The open journal, and its blocks that were read and found good, kept while a whole volume's files
// are walked through the same blocks one after the other. A block about which there was anything to
// report is never kept: it is read and reported again each time. Below: jnl_format.h.
#pragma once

#include "jnl/jnl_format.h"

// Blocks are kept while one of these lives; scopes may be nested. Without memory nothing is kept.
class jnl_block_cache_scope {
public:
    jnl_block_cache_scope();
    ~jnl_block_cache_scope();
    jnl_block_cache_scope(const jnl_block_cache_scope&) = delete;
    jnl_block_cache_scope& operator=(const jnl_block_cache_scope&) = delete;
};

// The journal that was kept open at the end of its last use, when its path was `path`: the caller's
// now; else 0.
int jnl_kept_file_take(const char* path);
// Keeps the open journal `fd` for the next use, and owns it then. False: nothing is kept.
bool jnl_kept_file_put(int fd, const char* path);

// The journal that is open from now on: blocks of another file are let go.
void jnl_block_cache_opened(int fd);
bool jnl_block_cache_get(uint64_t block_num, jnl_block* block);
void jnl_block_cache_put(uint64_t block_num, const jnl_block* block);
