// The one-node write-through cache that every map entry passes through: a scan over consecutive
// entries reads each node once, and every change is written to the file before the call returns.
// One cache belongs to one open map and its descriptor. Below: data_node.h.
#pragma once

#include "store/data_node.h"

constexpr uint64_t NO_NODE = ~uint64_t{0};

struct node_cache {
    data_node buffer;
    uint64_t node_num;  // NO_NODE: empty
};

// Empties the cache. Nothing needs writing: every change was written when it was made.
void tarn_cache_node_init(node_cache* cache);

// Makes `node_num` the current node; no I/O if it already is. Returns 0; 1 for a checksum mismatch,
// logged, node kept; negative on a read failure, logged: `node_num` then keeps its old value
// although the buffer was overwritten, deliberate: the caller abandons its operation.
int tarn_cache_node_load(node_cache* cache, int fd, uint64_t node_num);

// Copies `len` bytes at byte `offset` of node `node_num`. Returns 0, even if the node's checksum
// does not match, or negative, logged. offset + len is at most 508.
int tarn_cache_node_read(node_cache* cache, int fd, void* dst, uint64_t node_num, size_t offset,
                         size_t len);

// Changes `len` bytes and writes the whole node with a fresh checksum. Returns 0 or negative,
// logged.
int tarn_cache_node_write(node_cache* cache, int fd, const void* src, uint64_t node_num,
                          size_t offset, size_t len);

// Writes the current node. Returns 0, or negative, logged; -1 for an empty cache.
int tarn_cache_node_flush(node_cache* cache, int fd);

// Blanks the current node and writes it. Same results as tarn_cache_node_flush.
int tarn_cache_node_zero(node_cache* cache, int fd);
