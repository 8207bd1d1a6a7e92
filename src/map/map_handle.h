// Maps open in addition to the current one, with their pool tables, for the handle set.
// Below: map_file.h, node cache. Above: handle set, pool lookup.
#pragma once

#include "map/map_file.h"

// Its owner allocates it zeroed and frees it.
struct map_handle : handle_prefix {
    map_header header;
    uint8_t (*pools)[UUID_SIZE];  // map_pool_cnt rows, owned; null for 0 rows
    node_cache cache;
};

// 0, or -1, logged. A wrong magic code and more than EC_MAX_VOL_NUM pools are only logged; a pool
// table that reaches past the first mebibyte, is short or does not match its checksum fails. After
// a failure nothing stays open, but the descriptor field keeps the number.
int load_map_handle(map_handle* handle, const char* path,
                    file_access access = file_access::read_write);
// The same for an open file; closes it on failure.
int take_map_handle(map_handle* handle, const opened_file* file);
int close_map_handle(map_handle* handle);  // syncs and closes; -1 for null, logged
