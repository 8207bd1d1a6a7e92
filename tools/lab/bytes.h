// Complete reads and writes on an open file, and the checksum of a node. Below: the checksum.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace lab {

// Bytes past the end of the file read as zero, as they do in the tool. Return false with errno set
// if the call fails.
bool read_all(int fd, void* bytes, size_t length, uint64_t offset);
bool write_all(int fd, const void* bytes, size_t length, uint64_t offset);

bool is_zero(const uint8_t* bytes, size_t length);
uint32_t checksum_of(const uint8_t* bytes, size_t length);
std::string hex_of(const uint8_t* bytes, size_t length);

}  // namespace lab
