// Data nodes: the 512-byte checksummed blocks of a metadata file, from byte 1048576 on.
// Below: file.h (bytes at an offset), crc32c.h. Above: the node cache of the maps, the blocks of
// table and index. Nothing in here knows entries, groups or volumes.
#pragma once

#include "metadata.h"

struct [[gnu::packed]] data_node {
    uint8_t payload[DATA_NODE_SIZE - 4];  //   0: entries of the file's kind
    uint32_t checksum;                    // 508: CRC-32C of the node with this field 0; 0: none
};
static_assert(offsetof(data_node, checksum) == 508);
static_assert(sizeof(data_node) == DATA_NODE_SIZE && std::is_trivially_copyable_v<data_node>);

constexpr uint64_t DATA_NODE_BASE = METADATA_DATA_OFFSET / DATA_NODE_SIZE;
// The first node number past what an offset of 63 bits can reach.
constexpr uint64_t DATA_NODE_NUM_END = (uint64_t{1} << 63) / DATA_NODE_SIZE - DATA_NODE_BASE;

// Byte offset of node `node_num` in its file. From DATA_NODE_NUM_END on it is 2^63, which every
// transfer refuses, even with an offset inside the node added: nothing wraps to a valid offset.
constexpr uint64_t data_node_offset(uint64_t node_num) {
    return node_num < DATA_NODE_NUM_END ? (node_num + DATA_NODE_BASE) * DATA_NODE_SIZE
                                        : uint64_t{1} << 63;
}

bool data_node_is_blank(const data_node* node);  // every byte is zero

// Puts a fresh checksum into `node`.
void data_node_seal(data_node* node);

// Writes `node` with a fresh checksum. Returns 0; negative: write_fd's result, logged.
int tarn_write_data_node(int fd, data_node* node, uint64_t node_num);

// Reads data node `node_num` into `node`, which the caller has cleared: a read at the end of the
// file fills less of it and is no error. A stored checksum of 0 means that the node has none, so
// sparse space reads as an empty node. Returns 0 valid or unchecked; 1 checksum mismatch, logged,
// payload kept as read; negative when the read fails or stops short before the end of the file,
// logged. Leaves the checksum field 0.
int tarn_read_data_node(int fd, data_node* node, uint64_t node_num);

// Reads `len` payload bytes at `at` in node `node_num`: a single entry of table or index. The
// checksum is not checked. Returns the bytes read, fewer than `len` only at the end of the file
// (the rest of `bytes` is zero then); negative when the read fails or stops short before the end.
// Only a failing seek is logged: the caller knows what the bytes mean, and logs that.
int read_data_bytes(int fd, uint64_t node_num, size_t at, void* bytes, size_t len);

enum class patch_result { done, read_failed, write_failed };

// Whether the stored checksum of a node, if it has one, differs from that of its bytes.
struct node_mismatch {
    bool found;
    uint32_t stored;
    uint32_t computed;
};
// Checks `node` as it was read; its checksum field is not changed.
node_mismatch mismatch_of(const data_node* node);

// Replaces `len` payload bytes at `at` in node `node_num` and writes the node with a fresh
// checksum: a single entry of table or index. The node's other bytes stay as they are. Logs
// nothing: the caller knows what the bytes mean. The old checksum is compared only for `before`,
// which may be null.
patch_result patch_data_node(int fd, uint64_t node_num, size_t at, const void* bytes, size_t len,
                             node_mismatch* before = nullptr);
