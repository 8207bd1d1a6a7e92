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

int tarn_read_meta_node(int fd, meta_node* node, uint32_t k) {
    *node = {};
    int result = read_fd(fd, node, meta_node_offset(k), sizeof *node);
    if (result < 0) {
        log_err("tarn_read_meta_node(%d)\n", result);
        node->checksum = 0;
        return result;
    }
    const uint32_t stored = node->checksum;
    const uint32_t computed = node_checksum(node);
    if (stored != 0 && stored != computed) {
        log_err("tarn_read_meta_node checksum error !\n");
        result = -1;
    } else if (stored == 0 && node_is_empty(node)) {
        result = 0;
    } else if (stored == 0) {
        log_err("tarn_read_meta_node(%d) checksum error (checksum corrupted) !\n", -1);
        result = -1;
    }
    node->checksum = computed;
    return result;
}

int tarn_read_const_meta_node(int fd, meta_node* node, uint32_t i) {
    return tarn_read_meta_node(fd, node, i);
}

int tarn_read_var_meta_node(int fd, meta_node* node, uint32_t j) {
    return tarn_read_meta_node(fd, node, static_cast<uint32_t>(META_VAR_NODE_BASE) + j);
}

// The header's own record is no array of meta_node: its nodes go in and out as bytes.
static meta_node take_node(const uint8_t* at) {
    meta_node node;
    memcpy(&node, at, sizeof node);
    return node;
}

int tarn_save_meta_nodes(int fd, void* nodes, int const_nodes, int var_nodes) {
    if (fd == 0) {
        log_err("%s NULL pointer\n", "fd");
        return -1;
    }
    if (nodes == nullptr) {
        log_err("%s NULL pointer\n", "nodes");
        return -1;
    }
    auto* at = static_cast<uint8_t*>(nodes);
    for (int i = 0; i < const_nodes; i++, at += META_NODE_SIZE) {
        meta_node node = take_node(at);
        const int put = tarn_write_const_meta_node(fd, &node, static_cast<uint32_t>(i));
        memcpy(at, &node, sizeof node);
        if (put < 0) {
            log_err("const meta node[%d] save fail\n", i);
            return -1;
        }
    }
    for (int j = 0; j < var_nodes; j++, at += META_NODE_SIZE) {
        meta_node node = take_node(at);
        const int put = tarn_write_var_meta_node(fd, &node, static_cast<uint32_t>(j));
        memcpy(at, &node, sizeof node);
        if (put < 0) {
            log_err("var meta node[%d] save fail\n", j);
            return -1;
        }
    }
    return 0;
}

int tarn_load_meta_nodes(int fd, void* nodes, int const_nodes, int var_nodes) {
    if (fd == 0) {
        log_err("%s NULL pointer\n", "fd");
        return -1;
    }
    if (nodes == nullptr) {
        log_err("%s NULL pointer\n", "nodes");
        return -1;
    }
    auto* at = static_cast<uint8_t*>(nodes);
    for (int i = 0; i < const_nodes; i++, at += META_NODE_SIZE) {
        meta_node node;
        const int got = tarn_read_const_meta_node(fd, &node, static_cast<uint32_t>(i));
        memcpy(at, &node, sizeof node);
        if (got < 0) {
            log_err("const meta node[%d] read fail\n", i);
            return -1;
        }
    }
    for (int j = 0; j < var_nodes; j++, at += META_NODE_SIZE) {
        meta_node node;
        const int got = tarn_read_var_meta_node(fd, &node, static_cast<uint32_t>(j));
        memcpy(at, &node, sizeof node);
        if (got < 0) {
            log_err("var meta node[%d] read fail\n", j);
            return -1;
        }
    }
    return 0;
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
