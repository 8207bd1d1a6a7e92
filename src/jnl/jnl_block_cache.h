// Blocks of one journal that were read and found good, and its open file between two uses: kept
// while the files of a whole volume are walked through the same blocks one after the other. A block
// with anything to report is never kept: it is read and reported again each time.
// Below: descriptor.h. Above: jnl_file.h, whose journal has one of these at times, and jnl_block.
#pragma once

#include "jnl/jnl_format.h"
#include "store/descriptor.h"

class jnl_block_cache {
public:
    jnl_block_cache();   // without memory no block is kept
    ~jnl_block_cache();  // closes the file if it is here
    jnl_block_cache(const jnl_block_cache&) = delete;
    jnl_block_cache& operator=(const jnl_block_cache&) = delete;

    // The file that was kept open under `path`: the caller owns it then. 0: it is not here.
    int take_file(const char* path);
    // Keeps the open file `fd` for the next use and owns it then. False: it does not.
    bool keep_file(int fd, const char* path);

    // Blocks are read from `fd` from now on. If that is another file, all kept blocks are dropped.
    void opened(int fd);
    // Copies block `n` to `block`. False: it is not kept, and `block` is unchanged.
    bool get(uint64_t n, jnl_block* block) const;
    void put(uint64_t n, const jnl_block* block);

private:
    struct kept_block {
        bool taken;  // false: the place is empty
        uint64_t number;
        jnl_block block;
    };
    kept_block* places_;    // null: no memory
    io_file_id file_ = {};  // that the blocks are of
    int fd_ = 0;            // 0: in use, or never kept
    char path_[PATH_TEXT_SIZE] = {};
};
