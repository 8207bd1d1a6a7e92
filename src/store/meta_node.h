// Meta nodes: the 64-byte checksummed blocks that hold the header of every metadata file.
// Below: file.h (bytes at an offset), crc32c.h. Above: the kinds of file, which know the fields.
// A header in memory is one array: the constant nodes, then the variable nodes.
#pragma once

#include "metadata.h"

struct [[gnu::packed]] meta_node {
    uint32_t checksum;                    // 0: CRC-32C of the node with this field 0
    uint8_t payload[META_NODE_SIZE - 4];  // 4
};
static_assert(sizeof(meta_node) == META_NODE_SIZE && std::is_trivially_copyable_v<meta_node>);

constexpr uint64_t meta_node_offset(uint32_t node_index) {      // bytes
    return static_cast<uint32_t>(node_index * META_NODE_SIZE);  // computed in 32 bits
}

// The state of a node, from its bytes as they were read.
enum class node_state {
    right,     // its checksum matches its bytes
    wrong,     // its checksum does not match
    unsummed,  // not empty, but without a checksum
    empty,     // all zero: never written
};
node_state meta_node_state(const meta_node* node);

// Node `k` lies at byte 64 * k; constant node i is node i, variable node j is node 64 + j.

// Writes one node with a fresh checksum, which stays in the caller's buffer.
// Returns the bytes written (a short write is not detected here); negative on failure, logged.
int tarn_write_meta_node(int fd, meta_node* node, uint32_t k);
// Documented, only tests call these two.
int tarn_write_const_meta_node(int fd, meta_node* node, uint32_t i);
int tarn_write_var_meta_node(int fd, meta_node* node, uint32_t j);

// Reads one node and leaves its computed checksum in the buffer. Returns the bytes read, 0 for a
// node that was never written (all zero, or past the end of the file); negative, logged, when the
// read fails, the checksum differs, or a node without a checksum is not empty.
int tarn_read_meta_node(int fd, meta_node* node, uint32_t k);
// Documented, only tests call these two: the program reads a header with one transfer.
int tarn_read_const_meta_node(int fd, meta_node* node, uint32_t i);
int tarn_read_var_meta_node(int fd, meta_node* node, uint32_t j);

// The first bytes of a file, enough for the header of any kind, read with one transfer.
constexpr size_t META_HEADER_NODES = META_VAR_NODE_BASE + 3;
struct meta_header {
    size_t got;  // bytes that could be read; the others are zero
    uint8_t bytes[META_HEADER_NODES * META_NODE_SIZE];
};
void meta_header_read(int fd, meta_header* header);
// Like tarn_read_meta_node and tarn_load_meta_nodes, but from bytes already read. `k` is below
// META_HEADER_NODES.
int meta_header_node(const meta_header* header, meta_node* node, uint32_t k);
int meta_header_load(const meta_header* header, void* nodes, int const_nodes, int var_nodes);

// Saves or loads a whole header of `const_nodes` + `var_nodes` nodes at `nodes`. Returns 0; -1 at
// the first node that fails, logged. No sync: the close of the file syncs. At most
// three variable nodes.
int tarn_save_meta_nodes(int fd, void* nodes, int const_nodes, int var_nodes);
int tarn_load_meta_nodes(int fd, void* nodes, int const_nodes, int var_nodes);

// Disk to memory: checks the magic code of a header. 0, or -1, logged. Nothing is converted.
int meta_hdr_d2m(const void* header);
// Memory to disk: does nothing; a big-endian host would swap the fields here.
void meta_hdr_m2d(void* header);
