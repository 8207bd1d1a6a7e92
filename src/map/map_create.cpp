#include "map/map_create.h"

#include <cstdlib>

#include "map/map_file.h"
#include "print.h"
#include "store/crc32c.h"
#include "store/descriptor.h"
#include "store/file.h"
#include "store/log.h"
#include "store/meta_node.h"

// Copies the table through `pools`, which has room for it. 0, or -1, logged.
static int copy_pools(int new_fd, int old_fd, uint8_t* pools, uint32_t size) {
    const int got = read_fd(old_fd, pools, MAP_POOL_TABLE_OFFSET, size);
    if (got < 0 || static_cast<uint32_t>(got) != size) {
        log_err_as("clone_map_pool_table", "Fail to read the pool table, %u bytes\n", size);
        return -1;
    }
    const int put = write_fd(new_fd, pools, MAP_POOL_TABLE_OFFSET, size);
    if (put < 0 || static_cast<uint32_t>(put) != size) {
        log_err_as("clone_map_pool_table", "Fail to write the pool table, %u bytes\n", size);
        return -1;
    }
    return 0;
}

int clone_map_pool_table(int new_fd, int old_fd, uint32_t pool_count, uint32_t* checksum) {
    if (new_fd == 0) {
        log_err("%s NULL pointer\n", "fd");
        return -1;
    }
    if (old_fd == 0) {
        log_err("%s NULL pointer\n", "ofd");
        return -1;
    }
    if (pool_count > MAP_POOL_TABLE_MAX) {
        log_err("map_pool_cnt %u reaches past the first mebibyte\n", pool_count);
        return -1;
    }
    const auto size = static_cast<uint32_t>(pool_count * UUID_SIZE);
    auto* pools = static_cast<uint8_t*>(calloc(size_t{pool_count} + 1, UUID_SIZE));
    if (pools == nullptr) {
        log_err("%s NULL pointer\n", "p_uuid");
        return -1;
    }
    const int result = copy_pools(new_fd, old_fd, pools, size);
    tarn_crc32c(pools, size, checksum);
    free(pools);
    return result;
}

// Fills the new file from the open old map. 0, or -1, logged.
static int fill_new_map(int new_fd, const char* newpath, uint64_t size) {
    map_header header = current_map.header;
    uint32_t checksum = 0;
    if (clone_map_pool_table(new_fd, current_map.fd, header.map_pool_cnt, &checksum) != 0) {
        return -1;  // logged there
    }
    header.map_pool_cksum = checksum;
    meta_hdr_m2d(&header);
    if (tarn_save_meta_nodes(new_fd, &header, MAP_CONST_NODES, MAP_VAR_NODES) != 0) {
        log_err_as("create_map", "Fail to save new map %s with size %llu\n", newpath, ull(size));
        return -1;
    }
    return 0;
}

int create_map(const char* newpath, const char* oldpath) {
    if (load_map(oldpath) < 0) {
        log_err("Fail to load old map %s\n", oldpath != nullptr ? oldpath : "(null)");
        close_map();
        return -1;
    }
    const int64_t size = io_size(current_map.fd);
    if (size < 0) {
        log_err("Fail to stat old map %s size\n", oldpath);
        close_map();
        return -1;
    }
    if (would_empty(__func__, newpath, oldpath)) {
        log_err("%s and %s are one file\n", newpath, oldpath);
        close_map();
        return -1;
    }
    const int new_fd = create_file(newpath, static_cast<uint64_t>(size));
    const int result = fill_new_map(new_fd, newpath, static_cast<uint64_t>(size));
    close_map();
    close_synced(new_fd);
    return result;
}
