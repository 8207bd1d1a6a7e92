#include "map/map_handle.h"

#include <cstdlib>

#include "store/crc32c.h"
#include "store/descriptor.h"
#include "store/log.h"

static const char* pool_word(uint32_t count) {
    return count < 2 ? "pool" : "pools";
}

// Reads and checks the pool table into handle->pools. 0, or -1, logged as load_map_handle.
static int load_pools(map_handle* handle, uint32_t count, const char* path) {
    constexpr const char* name = "load_map_handle";
    const size_t size = size_t{count} * UUID_SIZE;
    const char* word = pool_word(count);
    const auto shown = static_cast<int>(count);
    if (count > MAP_POOL_TABLE_MAX) {
        log_err_as(name, "Fail to load %d %s for MAP %s\n", shown, word, path);
        return -1;
    }
    handle->pools = static_cast<uint8_t(*)[UUID_SIZE]>(malloc(size));
    if (handle->pools == nullptr) {
        log_err_as(name, "Fail to allocate %d %s for MAP %s\n", shown, word, path);
        return -1;
    }
    const int got =
        read_fd(handle->fd, handle->pools, MAP_POOL_TABLE_OFFSET, static_cast<uint32_t>(size));
    if (got < 0 || static_cast<size_t>(got) != size) {
        log_err_as(name, "Fail to load %d %s for MAP %s\n", shown, word, path);
        return -1;
    }
    uint32_t checksum = 0;
    tarn_crc32c(handle->pools, static_cast<uint32_t>(size), &checksum);
    if (checksum != handle->header.map_pool_cksum) {
        log_err_as(name, "cksum error, %d %s for MAP %s\n", shown, word, path);
        return -1;
    }
    return 0;
}

// Loads everything from the open file. 0, or -1, logged.
static int load_contents(map_handle* handle, const opened_file* file) {
    if (take_header(MAP_KIND, handle, &handle->header, file) != 0) {
        return -1;  // logged there
    }
    const uint32_t count = handle->header.map_pool_cnt;
    if (count > EC_MAX_VOL_NUM) {
        log_err_as("load_map_handle", "map_pool_cnt %u exceed EC_MAX_VOL_NUM (%u)\n", count,
                   EC_MAX_VOL_NUM);  // deliberate: a warning only
    }
    if (count != 0 && load_pools(handle, count, file->path) != 0) {
        return -1;  // logged there
    }
    tarn_cache_node_init(&handle->cache);
    return 0;
}

int load_map_handle(map_handle* handle, const char* path, file_access access) {
    if (log_missing(path == nullptr, "name") || log_missing(handle == nullptr, "handle")) {
        return -1;
    }
    opened_file file;
    file.path = path;
    file.fd = open_kind(__func__, MAP_KIND, path, access);
    if (file.fd == 0) {
        return -1;  // logged there
    }
    meta_header_read(file.fd, &file.header);
    return take_map_handle(handle, &file);
}

int take_map_handle(map_handle* handle, const opened_file* file) {
    handle->pools = nullptr;
    handle->fd = file->fd;
    if (load_contents(handle, file) != 0) {
        free(handle->pools);
        handle->pools = nullptr;
        io_close(handle->fd);  // deliberate: the field keeps the number, as documented
        return -1;
    }
    return 0;
}

int close_map_handle(map_handle* handle) {
    if (log_missing(handle == nullptr, "handle")) {
        return -1;
    }
    free(handle->pools);
    handle->pools = nullptr;
    if (handle->fd != 0) {
        tarn_cache_node_init(&handle->cache);
        close_synced(handle->fd);
        handle->fd = 0;
    }
    return 0;
}
