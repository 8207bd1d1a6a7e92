#include "lab/file_bytes.h"

#include <cstring>
#include <fcntl.h>
#include <unistd.h>

#include "lab/bytes.h"
#include "lab/disk.h"
#include "metadata.h"

namespace lab {

static std::string full_path_of(const sample_file& file) {
    return file.directory + "/" + file.path;
}

bool get_bytes(const sample_file& file, uint64_t offset, void* bytes, size_t length) {
    const std::string full_path = full_path_of(file);
    const int fd = open(full_path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        return complain_of_errno(full_path);
    }
    const bool good = read_all(fd, bytes, length, offset) || complain_of_errno(full_path);
    (void)close(fd);
    return good;
}

bool put_bytes(const sample_file& file, uint64_t offset, const void* bytes, size_t length) {
    const std::string full_path = full_path_of(file);
    const int fd = open(full_path.c_str(), O_WRONLY | O_CLOEXEC);
    if (fd < 0) {
        return complain_of_errno(full_path);
    }
    const bool good = write_all(fd, bytes, length, offset) || complain_of_errno(full_path);
    return (close(fd) == 0 || complain_of_errno(full_path)) && good;
}

// A header node has its checksum at its start, a block at its end.
struct sealed_place {
    uint64_t start;
    size_t length;
    size_t checksum;
};

static sealed_place place_of(uint64_t offset) {
    if (offset < METADATA_DATA_OFFSET) {
        return {offset - offset % META_NODE_SIZE, META_NODE_SIZE, 0};
    }
    return {offset - offset % DATA_NODE_SIZE, DATA_NODE_SIZE, DATA_NODE_SIZE - sizeof(uint32_t)};
}

bool put_sealed(const sample_file& file, uint64_t offset, const void* bytes, size_t length) {
    const sealed_place place = place_of(offset);
    uint8_t node[DATA_NODE_SIZE];
    if (!get_bytes(file, place.start, node, place.length)) {
        return false;
    }
    memcpy(node + (offset - place.start), bytes, length);
    memset(node + place.checksum, 0, sizeof(uint32_t));
    const uint32_t checksum = checksum_of(node, place.length);
    memcpy(node + place.checksum, &checksum, sizeof checksum);
    return put_bytes(file, place.start, node, place.length);
}

}  // namespace lab
