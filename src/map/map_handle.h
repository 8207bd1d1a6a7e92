// Maps open beside the current one, with their pool tables, for the handle set.
// Below: meta nodes, node cache, file primitives. Above: handle set, pool lookup.
#pragma once

#include "map/map_format.h"
#include "store/handle_prefix.h"
#include "store/header_file.h"
#include "store/node_cache.h"

// Its owner allocates it zeroed and frees it. It begins like handle_prefix.
struct map_handle {
    int fd;
    char path[PATH_TEXT_SIZE];
    list_link link;
    map_header header;
    uint8_t (*pools)[UUID_SIZE];  // map_pool_cnt rows, owned; null when there are none
    node_cache cache;
};
static_assert(offsetof(map_handle, path) == offsetof(handle_prefix, path));
static_assert(offsetof(map_handle, link) == offsetof(handle_prefix, link));
static_assert(offsetof(map_handle, header) == offsetof(handle_prefix, head));

// 0, or -1, logged. A wrong magic code and more than EC_MAX_VOL_NUM pools are only logged; a pool
// table that reaches past the first mebibyte, is short or does not match its checksum fails.
int load_map_handle(map_handle* handle, const char* path);
// The same of a file that is open already; closes it on failure.
int take_map_handle(map_handle* handle, const opened_file* file);
int close_map_handle(map_handle* handle);  // syncs and closes; -1 for null, logged
