#include "jnl/jnl_block_cache.h"

#include <cstdlib>
#include <cstring>
#include <utility>

#include "store/descriptor.h"

// 8 MiB: the blocks of a full window of large transactions. Block n has one place, n modulo this.
static constexpr uint64_t PLACES = 16384;

struct kept_block {
    bool taken;  // false: the place is empty
    uint64_t number;
    jnl_block block;
};

static struct {
    int depth;
    kept_block* places;
    io_file_id file;
    int fd;  // of the journal while nobody uses it; 0: none
    char path[PATH_TEXT_SIZE];
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
        close_synced(cache.fd);
        cache.fd = 0;
    }
}

int jnl_kept_file_take(const char* path) {
    const bool fits = cache.fd != 0 && strcmp(cache.path, path) == 0;
    return fits ? std::exchange(cache.fd, 0) : 0;
}

bool jnl_kept_file_put(int fd, const char* path) {
    if (cache.depth == 0 || cache.fd != 0 || strlen(path) >= sizeof cache.path) {
        return false;
    }
    cache.fd = fd;
    memcpy(cache.path, path, strlen(path) + 1);
    return true;
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
        cache.places[i].taken = false;
    }
    cache.file = file;
}

bool jnl_block_cache_get(uint64_t block_num, jnl_block* block) {
    if (cache.places == nullptr) {
        return false;
    }
    const kept_block& place = cache.places[block_num % PLACES];
    if (!place.taken || place.number != block_num) {
        return false;
    }
    *block = place.block;
    return true;
}

void jnl_block_cache_put(uint64_t block_num, const jnl_block* block) {
    if (cache.places != nullptr) {
        cache.places[block_num % PLACES] = {true, block_num, *block};
    }
}
