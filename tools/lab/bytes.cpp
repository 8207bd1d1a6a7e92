#include "lab/bytes.h"

#include <cstdio>
#include <cstring>
#include <unistd.h>

#include "store/crc32c.h"

namespace lab {

bool read_all(int fd, void* bytes, size_t length, uint64_t offset) {
    auto* at = static_cast<uint8_t*>(bytes);
    memset(at, 0, length);
    while (length > 0) {
        const ssize_t done = pread(fd, at, length, static_cast<off_t>(offset));
        if (done < 0) {
            return false;
        }
        if (done == 0) {
            return true;
        }
        at += done;
        offset += static_cast<uint64_t>(done);
        length -= static_cast<size_t>(done);
    }
    return true;
}

bool write_all(int fd, const void* bytes, size_t length, uint64_t offset) {
    const auto* at = static_cast<const uint8_t*>(bytes);
    while (length > 0) {
        const ssize_t done = pwrite(fd, at, length, static_cast<off_t>(offset));
        if (done <= 0) {
            return false;
        }
        at += done;
        offset += static_cast<uint64_t>(done);
        length -= static_cast<size_t>(done);
    }
    return true;
}

bool is_zero(const uint8_t* bytes, size_t length) {
    return length == 0 || (bytes[0] == 0 && memcmp(bytes, bytes + 1, length - 1) == 0);
}

uint32_t checksum_of(const uint8_t* bytes, size_t length) {
    uint32_t checksum = 0;
    tarn_crc32c(bytes, static_cast<uint32_t>(length), &checksum);
    return checksum;
}

std::string hex_of(const uint8_t* bytes, size_t length) {
    std::string text;
    for (size_t i = 0; i < length; i++) {
        char digits[3];
        (void)snprintf(digits, sizeof digits, "%02x", bytes[i]);
        text += digits;
    }
    return text;
}

}  // namespace lab
