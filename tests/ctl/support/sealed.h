// Writes into metadata files in place, with right checksums. Below: lab_sample.h.
#pragma once

#include <cstring>
#include <string>
#include <vector>

#include "store/crc32c.h"
#include "support/scratch_file.h"
#include "system/support/lab_sample.h"

// Writes bytes that lie within one header node or one block, and gives that its checksum.
inline void put_sealed(const std::string& path, uint64_t offset, const void* bytes, size_t len) {
    const node_place place = node_of(offset);
    std::vector<uint8_t> node = file_bytes(path, place.start, place.length);
    memcpy(&node[offset - place.start], bytes, len);
    memset(&node[place.checksum], 0, sizeof(uint32_t));
    uint32_t checksum = 0;
    tarn_crc32c(node.data(), static_cast<uint32_t>(node.size()), &checksum);
    memcpy(&node[place.checksum], &checksum, sizeof checksum);
    write_file_bytes(path, place.start, node.data(), node.size());
}

// The byte of an entry of a map: 63 words of 8 bytes a block.
constexpr uint64_t byte_of_lea(uint64_t lea) {
    return 1048576 + lea / 63 * 512 + lea % 63 * 8;
}
