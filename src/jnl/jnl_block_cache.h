// A cache of the good blocks of one journal, and of its open file between two uses. It is kept
// while the files of a whole volume are checked or replayed, each with the same blocks. A block
// with anything to report is not cached: it is read and reported again each time.
// Below: descriptor.h. Above: jnl_file.h, jnl_block.h.
#pragma once

#include "jnl/jnl_format.h"
#include "store/descriptor.h"

class jnl_block_cache {
public:
    jnl_block_cache();   // without memory, no block is cached
    ~jnl_block_cache();  // closes the kept file
    jnl_block_cache(const jnl_block_cache&) = delete;
    jnl_block_cache& operator=(const jnl_block_cache&) = delete;

    // Returns the file that was kept open as `path`, which the caller then owns; 0 if there is
    // none.
    int take_file(const char* path);
    // Keeps the open file `fd` for the next use and then owns it. Returns false if it does not.
    bool keep_file(int fd, const char* path);

    // Blocks are read from `fd` from now on. If that is another file, all cached blocks are
    // dropped.
    void opened(int fd);
    // Copies block `n` to `block`. Returns false if it is not cached; `block` is then unchanged.
    bool get(uint64_t n, jnl_block* block) const;
    void put(uint64_t n, const jnl_block* block);

private:
    struct kept_block {
        bool taken;  // false: the place is empty
        uint64_t number;
        jnl_block block;
    };
    kept_block* places_;    // null: no memory
    io_file_id file_ = {};  // the file of the blocks
    int fd_ = 0;            // 0: no file is kept
    char path_[PATH_TEXT_SIZE] = {};
};
