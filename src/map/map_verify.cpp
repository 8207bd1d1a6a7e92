#include "map/map_verify.h"

#include <cstdio>

#include "map/map_file.h"
#include "print.h"
#include "store/log.h"

int tarn_map_data_node_check(uint64_t node_num) {
    if (current_map.fd == 0) {
        log_err("map file descriptor is invalid\n");
        return -1;
    }
    return tarn_cache_node_load(&current_map.cache, current_map.fd, node_num);
}

int tarn_map_data_node_check_and_repair(uint64_t node_num) {
    int result = tarn_map_data_node_check(node_num);
    if (result < 1) {
        return result;
    }
    if (tarn_cache_node_zero(&current_map.cache, current_map.fd) < 0) {
        log_err("tarn_cache_node_flush is failed\n");
        result = -1;
    }
    printf("TARN_INFO: repair: node_num(%llu)\n", ull(node_num));  // also when it failed
    return result;
}
