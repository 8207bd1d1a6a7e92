#include "map/map_file.h"

#include <cstdio>

#include "store/descriptor.h"
#include "store/file.h"
#include "store/log.h"
#include "store/meta_node.h"

map_file current_map = {0, {}, {{}, NO_NODE}, {}};

int load_map(const char* path) {
    if (path == nullptr) {
        log_err("%s NULL pointer\n", "name");
        return -1;
    }
    current_map.fd = open_file(path);
    if (current_map.fd == 0) {
        log_err("map file descriptor is invalid\n");
        return -1;
    }
    map_header header;
    if (tarn_load_meta_nodes(current_map.fd, &header, MAP_CONST_NODES, MAP_VAR_NODES) != 0) {
        return -1;  // logged there
    }
    (void)meta_hdr_d2m(&header);  // deliberate: a wrong magic code is only logged
    current_map.header = header;
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
    if (current_map.fd == 0) {
        log_err("map file descriptor is invalid\n");
        return -1;
    }
    map_header scratch = current_map.header;
    meta_hdr_m2d(&scratch);
    return tarn_save_meta_nodes(current_map.fd, &scratch, MAP_CONST_NODES, MAP_VAR_NODES) != 0 ? -1
                                                                                               : 0;
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

int dump_map_meta() {
    if (current_map.fd == 0) {
        log_err("map file descriptor is invalid\n");
        return -1;
    }
    print_fields(MAP_HEADER_ROWS, &current_map.header, nullptr);
    return 0;
}
