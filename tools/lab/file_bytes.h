// Bytes of the files of a sample: read, written, and written with the checksum of their node.
// Below: bytes.h, the format headers. Above: damage and the running service.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace lab {

// A file of a sample.
struct sample_file {
    const std::string& directory;  // the sample's
    const std::string& path;       // below it
};

// Return false if the file cannot be read or written, and print the reason on standard error.
// Bytes past the end of the file read as zero.
bool get_bytes(const sample_file& file, uint64_t offset, void* bytes, size_t length);
bool put_bytes(const sample_file& file, uint64_t offset, const void* bytes, size_t length);
// As put_bytes, and also updates the checksum of the header node or block that holds the bytes. The
// node is written whole.
bool put_sealed(const sample_file& file, uint64_t offset, const void* bytes, size_t length);

}  // namespace lab
