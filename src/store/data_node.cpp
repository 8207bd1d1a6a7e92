#include "store/data_node.h"

#include "print.h"
#include "store/crc32c.h"
#include "store/file.h"
#include "store/log.h"

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

// A read that stops short before the end of the file would blank the entries behind it. 0 bytes are
// the end itself.
static bool short_of_the_end(int fd, uint64_t offset, int got, size_t len) {
    uint8_t next = 0;
    return got > 0 && static_cast<size_t>(got) < len &&
           read_fd(fd, &next, offset + static_cast<uint64_t>(got), sizeof next) != 0;
}

int tarn_read_data_node(int fd, data_node* node, uint64_t node_num) {
    const uint64_t offset = data_node_offset(node_num);
    const int got = read_fd(fd, node, offset, sizeof *node);
    if (got < 0 || short_of_the_end(fd, offset, got, sizeof *node)) {
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
    if (short_of_the_end(fd, offset, got, len)) {
        return -1;
    }
    return got;
}

patch_result patch_data_node(int fd, uint64_t node_num, size_t at, const void* bytes, size_t len) {
    data_node node{};
    const uint64_t offset = data_node_offset(node_num);
    const int got = read_fd(fd, &node, offset, sizeof node);
    if (got < 0 || short_of_the_end(fd, offset, got, sizeof node)) {
        return patch_result::read_failed;
    }
    memcpy(node.payload + at, bytes, len);
    data_node_seal(&node);
    const int put = write_fd(fd, &node, offset, sizeof node);
    return put < 0 ? patch_result::write_failed : patch_result::done;
}
