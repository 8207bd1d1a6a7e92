#include "map/map_file.h"

#include <cstdio>
#include <cstdlib>

#include "print.h"
#include "store/crc32c.h"
#include "store/descriptor.h"
#include "store/log.h"

map_file current_map = {0, {}, {{}, NO_NODE}, {}};

int load_map(const char* path) {
    if (log_missing(path == nullptr, "name")) {
        return -1;
    }
    if (load_header_file(__func__, MAP_KIND, magic_rule::only_logged, path, &current_map.fd,
                         &current_map.header) != 0) {
        return -1;  // logged there
    }
    snprintf(current_map.path, sizeof current_map.path, "%s", path);
    tarn_cache_node_init(&current_map.cache);
    return 0;
}

void close_map() {
    if (current_map.fd != 0) {
        tarn_cache_node_init(&current_map.cache);
        close_synced(current_map.fd);
        current_map.fd = 0;
    }
}

int save_map() {
    map_header scratch = current_map.header;  // its checksums stay as they were loaded
    return save_header_file(__func__, MAP_KIND, current_map.fd, &scratch);
}

uint64_t tarn_map_lea_total_cnt() {
    if (current_map.fd == 0) {
        log_err("map file descriptor is invalid\n");
        return NO_MAP_COUNT;
    }
    return current_map.header.map_total_count;
}

uint64_t tarn_map_lea_mapped_cnt() {
    if (current_map.fd == 0) {
        log_err("map file descriptor is invalid\n");
        return NO_MAP_COUNT;
    }
    return current_map.header.map_mapped_count;
}

int get_map_count(const char* path, uint64_t* out) {
    if (path == nullptr) {
        log_err("NULL pointer of path\n");
        return -1;
    }
    if (out == nullptr) {
        log_err("NULL pointer of pCount\n");
        return -1;
    }
    if (load_map(path) != 0) {
        log_err("%s %s\n", MAP_LOAD_FAILED, path);
        return -1;
    }
    *out = current_map.header.map_mapped_count;
    return 0;
}

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
    if (log_missing(new_fd == 0, "fd") || log_missing(old_fd == 0, "ofd")) {
        return -1;
    }
    if (pool_count > MAP_POOL_TABLE_MAX) {
        log_err("map_pool_cnt %u reaches past the first mebibyte\n", pool_count);
        return -1;
    }
    const auto size = static_cast<uint32_t>(pool_count * UUID_SIZE);
    auto* pools = static_cast<uint8_t*>(calloc(size_t{pool_count} + 1, UUID_SIZE));
    if (log_missing(pools == nullptr, "p_uuid")) {
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
    if (save_header_file("create_map", MAP_KIND, new_fd, &header) != 0) {
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
        log_err("%s and %s are the same file\n", newpath, oldpath);
        close_map();
        return -1;
    }
    const int new_fd = create_file(newpath, static_cast<uint64_t>(size));
    const int result = fill_new_map(new_fd, newpath, static_cast<uint64_t>(size));
    close_map();
    close_synced(new_fd);
    return result;
}

int dump_map_meta() {
    if (current_map.fd == 0) {
        log_err("map file descriptor is invalid\n");
        return -1;
    }
    print_fields(MAP_HEADER_ROWS, &current_map.header, nullptr);
    return 0;
}
