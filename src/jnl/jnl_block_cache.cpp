#include "jnl/jnl_block_cache.h"

#include <cstdlib>
#include <cstring>
#include <utility>

// 8 MiB: the blocks of a full window of large transactions. Block n has one place, n modulo this.
static constexpr uint64_t PLACES = 16384;

jnl_block_cache::jnl_block_cache()
    : places_(static_cast<kept_block*>(calloc(PLACES, sizeof(kept_block)))) {
}

jnl_block_cache::~jnl_block_cache() {
    free(places_);
    close_synced(fd_);
}

int jnl_block_cache::take_file(const char* path) {
    const bool fits = fd_ != 0 && strcmp(path_, path) == 0;
    return fits ? std::exchange(fd_, 0) : 0;
}

bool jnl_block_cache::keep_file(int fd, const char* path) {
    if (fd_ != 0 || strlen(path) >= sizeof path_) {
        return false;
    }
    fd_ = fd;
    memcpy(path_, path, strlen(path) + 1);
    return true;
}

void jnl_block_cache::opened(int fd) {
    const io_file_id file = io_identity(fd);
    if (places_ == nullptr || file == file_) {
        return;
    }
    for (uint64_t i = 0; i < PLACES; i++) {
        places_[i].taken = false;
    }
    file_ = file;
}

bool jnl_block_cache::get(uint64_t n, jnl_block* block) const {
    if (places_ == nullptr) {
        return false;
    }
    const kept_block& place = places_[n % PLACES];
    if (!place.taken || place.number != n) {
        return false;
    }
    *block = place.block;
    return true;
}

void jnl_block_cache::put(uint64_t n, const jnl_block* block) {
    if (places_ != nullptr) {
        places_[n % PLACES] = {true, n, *block};
    }
}
