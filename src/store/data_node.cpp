#include "store/data_node.h"

#include "print.h"
#include "store/crc32c.h"
#include "store/file.h"
#include "store/log.h"

bool data_node_is_blank(const data_node* node) {
    static constexpr data_node BLANK{};
    return memcmp(node, &BLANK, sizeof BLANK) == 0;
}

void data_node_seal(data_node* node) {
    node->checksum = 0;
    uint32_t checksum = 0;
    tarn_crc32c(node, sizeof *node, &checksum);
    node->checksum = checksum;
}

int tarn_write_data_node(int fd, data_node* node, uint64_t node_num) {
    data_node_seal(node);
    const int put = write_fd(fd, node, data_node_offset(node_num), sizeof *node);
    if (put < 0) {
        log_err("write_fd(%d)\n", put);
        return put;
    }
    return 0;
}

node_mismatch mismatch_of(const data_node* node) {
    if (node->checksum == 0) {
        return {};
    }
    data_node sealed = *node;
    data_node_seal(&sealed);
    return {sealed.checksum != node->checksum, node->checksum, sealed.checksum};
}

int tarn_read_data_node(int fd, data_node* node, uint64_t node_num) {
    const uint64_t offset = data_node_offset(node_num);
    const int got = read_fd(fd, node, offset, sizeof *node);
    if (got < 0 || read_stopped_early(fd, offset, got, sizeof *node)) {
        log_err("read_fd(%d)\n", got);
        return got < 0 ? got : -1;
    }
    const uint32_t stored = node->checksum;
    if (stored == 0) {
        return 0;
    }
    node->checksum = 0;
    uint32_t computed = 0;
    tarn_crc32c(node, sizeof *node, &computed);
    if (stored != computed) {
        log_err("data chksum mismatched - on-disk(%08x) != (%08x), node num(%llu)\n", stored,
                computed, ull(node_num));
        return 1;
    }
    return 0;
}

int read_data_bytes(int fd, uint64_t node_num, size_t at, void* bytes, size_t len) {
    memset(bytes, 0, len);
    const uint64_t offset = data_node_offset(node_num) + at;
    const int got = read_fd(fd, bytes, offset, static_cast<uint32_t>(len));
    if (read_stopped_early(fd, offset, got, len)) {
        return -1;
    }
    return got;
}

patch_result patch_data_node(int fd, uint64_t node_num, size_t at, const void* bytes, size_t len,
                             node_mismatch* before) {
    data_node node{};
    const uint64_t offset = data_node_offset(node_num);
    const int got = read_fd(fd, &node, offset, sizeof node);
    if (got < 0 || read_stopped_early(fd, offset, got, sizeof node)) {
        return patch_result::read_failed;
    }
    if (before != nullptr) {
        *before = mismatch_of(&node);
    }
    memcpy(node.payload + at, bytes, len);
    data_node_seal(&node);
    const int put = write_fd(fd, &node, offset, sizeof node);
    return put < 0 ? patch_result::write_failed : patch_result::done;
}
