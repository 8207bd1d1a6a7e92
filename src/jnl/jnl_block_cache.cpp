#include "jnl/jnl_block_cache.h"

#include <cstdlib>

#include "store/descriptor.h"

// 8 MiB: the blocks of a full window of large transactions. Block n has one place, n modulo this.
static constexpr uint64_t PLACES = 16384;

struct kept_block {
    uint64_t number;  // plus 1; 0: the place is empty
    jnl_block block;
};

static struct {
    int depth;
    kept_block* places;
    io_file_id file;
} cache;

jnl_block_cache_scope::jnl_block_cache_scope() {
    if (cache.depth++ == 0) {
        cache.places = static_cast<kept_block*>(calloc(PLACES, sizeof(kept_block)));
        cache.file = {};
    }
}

jnl_block_cache_scope::~jnl_block_cache_scope() {
    if (--cache.depth == 0) {
        free(cache.places);
        cache.places = nullptr;
    }
}

void jnl_block_cache_opened(int fd) {
    if (cache.places == nullptr) {
        return;
    }
    const io_file_id file = io_identity(fd);
    if (file == cache.file) {
        return;
    }
    for (uint64_t i = 0; i < PLACES; i++) {
        cache.places[i].number = 0;
    }
    cache.file = file;
}

bool jnl_block_cache_get(uint64_t block_num, jnl_block* block) {
    if (cache.places == nullptr) {
        return false;
    }
    const kept_block& place = cache.places[block_num % PLACES];
    if (place.number != block_num + 1) {
        return false;
    }
    *block = place.block;
    return true;
}

void jnl_block_cache_put(uint64_t block_num, const jnl_block* block) {
    if (cache.places != nullptr) {
        cache.places[block_num % PLACES] = {block_num + 1, *block};
    }
}
