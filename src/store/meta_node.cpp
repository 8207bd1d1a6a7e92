#include "store/meta_node.h"

#include "print.h"
#include "store/crc32c.h"
#include "store/file.h"
#include "store/log.h"

static uint32_t node_checksum(const meta_node* node) {  // of the node with its checksum field 0
    meta_node blank = *node;
    blank.checksum = 0;
    uint32_t checksum = 0;
    tarn_crc32c(&blank, sizeof blank, &checksum);
    return checksum;
}

static bool node_is_empty(const meta_node* node) {
    const meta_node empty{};
    return memcmp(node, &empty, sizeof empty) == 0;
}

int tarn_write_meta_node(int fd, meta_node* node, uint32_t k) {
    node->checksum = node_checksum(node);
    const int put = write_fd(fd, node, meta_node_offset(k), sizeof *node);
    if (put < 0) {
        log_err("tarn_write_meta_node(%d)\n", put);
    }
    return put;
}

int tarn_write_const_meta_node(int fd, meta_node* node, uint32_t i) {
    return tarn_write_meta_node(fd, node, i);
}

int tarn_write_var_meta_node(int fd, meta_node* node, uint32_t j) {
    return tarn_write_meta_node(fd, node, static_cast<uint32_t>(META_VAR_NODE_BASE) + j);
}

static node_state state_of(const meta_node* node, uint32_t computed) {
    if (node->checksum != 0) {
        return node->checksum == computed ? node_state::right : node_state::wrong;
    }
    return node_is_empty(node) ? node_state::empty : node_state::unsummed;
}

node_state meta_node_state(const meta_node* node) {
    return state_of(node, node_checksum(node));
}

// The result of tarn_read_meta_node after a read of `got` bytes into `node`.
static int judge_node(meta_node* node, int got) {
    constexpr const char* name = "tarn_read_meta_node";
    const uint32_t computed = node_checksum(node);
    const node_state state = state_of(node, computed);
    node->checksum = computed;
    switch (state) {
        case node_state::right:
            return got;
        case node_state::empty:
            return 0;
        case node_state::wrong:
            log_err_as(name, "tarn_read_meta_node checksum error !\n");
            return -1;
        case node_state::unsummed:
            log_err_as(name, "tarn_read_meta_node(%d) checksum error (checksum corrupted) !\n", -1);
            return -1;
    }
    return -1;  // not reached: every state has returned
}

int tarn_read_meta_node(int fd, meta_node* node, uint32_t k) {
    *node = {};
    const int got = read_fd(fd, node, meta_node_offset(k), sizeof *node);
    if (got < 0) {
        log_err("tarn_read_meta_node(%d)\n", got);
        node->checksum = 0;
        return got;
    }
    return judge_node(node, got);
}

int tarn_read_const_meta_node(int fd, meta_node* node, uint32_t i) {
    return tarn_read_meta_node(fd, node, i);
}

int tarn_read_var_meta_node(int fd, meta_node* node, uint32_t j) {
    return tarn_read_meta_node(fd, node, static_cast<uint32_t>(META_VAR_NODE_BASE) + j);
}

// Where node `n` of a header in memory lies in the file, and what a log line calls it.
struct node_place {
    uint32_t k;
    const char* word;
    int index;
};
static node_place place_of(int n, int const_nodes) {
    if (n < const_nodes) {
        return {static_cast<uint32_t>(n), "const", n};
    }
    const int j = n - const_nodes;
    return {static_cast<uint32_t>(META_VAR_NODE_BASE) + static_cast<uint32_t>(j), "var", j};
}

// A header's own record is not an array of meta_node: its nodes are copied as bytes.
static meta_node take_node(const uint8_t* at) {
    meta_node node;
    memcpy(&node, at, sizeof node);
    return node;
}

int tarn_save_meta_nodes(int fd, void* nodes, int const_nodes, int var_nodes) {
    if (log_missing(fd == 0, "fd") || log_missing(nodes == nullptr, "nodes")) {
        return -1;
    }
    auto* at = static_cast<uint8_t*>(nodes);
    for (int n = 0; n < const_nodes + var_nodes; n++, at += META_NODE_SIZE) {
        const node_place place = place_of(n, const_nodes);
        meta_node node = take_node(at);
        const int put = tarn_write_meta_node(fd, &node, place.k);
        memcpy(at, &node, sizeof node);
        if (put < 0) {
            log_err("%s meta node[%d] save fail\n", place.word, place.index);
            return -1;
        }
    }
    return 0;
}

void meta_header_read(int fd, meta_header* header) {
    *header = {};
    while (header->got < sizeof header->bytes) {
        const int got = read_fd(fd, header->bytes + header->got, header->got,
                                static_cast<uint32_t>(sizeof header->bytes - header->got));
        if (got < 0) {
            return;  // the first node that is missing reports it
        }
        header->got = got == 0 ? sizeof header->bytes : header->got + static_cast<size_t>(got);
    }
}

int meta_header_node(const meta_header* header, meta_node* node, uint32_t k) {
    const uint64_t offset = meta_node_offset(k);
    *node = {};
    if (offset + sizeof *node > header->got) {
        log_err_as("tarn_read_meta_node", "tarn_read_meta_node(%d)\n", -1);
        return -1;
    }
    *node = take_node(header->bytes + offset);
    return judge_node(node, static_cast<int>(sizeof *node));
}

int meta_header_load(const meta_header* header, void* nodes, int const_nodes, int var_nodes) {
    constexpr const char* name = "tarn_load_meta_nodes";
    auto* at = static_cast<uint8_t*>(nodes);
    for (int n = 0; n < const_nodes + var_nodes; n++, at += META_NODE_SIZE) {
        const node_place place = place_of(n, const_nodes);
        meta_node node;
        const int got = meta_header_node(header, &node, place.k);
        memcpy(at, &node, sizeof node);
        if (got < 0) {
            log_err_as(name, "%s meta node[%d] read fail\n", place.word, place.index);
            return -1;
        }
    }
    return 0;
}

int tarn_load_meta_nodes(int fd, void* nodes, int const_nodes, int var_nodes) {
    if (log_missing(fd == 0, "fd") || log_missing(nodes == nullptr, "nodes")) {
        return -1;
    }
    meta_header header;
    meta_header_read(fd, &header);
    return meta_header_load(&header, nodes, const_nodes, var_nodes);
}

int meta_hdr_d2m(const void* header) {
    metadata_head head;
    memcpy(&head, header, sizeof head);
    if (head.magic_code != METADATA_MAGIC_CODE) {
        log_err("mismatched MAGIC_CODE, hdr->magic_code(%016llx)\n", ull(head.magic_code));
        return -1;
    }
    return 0;
}

void meta_hdr_m2d(void* /*header*/) {
}
