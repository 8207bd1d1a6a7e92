#include "lab/compare.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "lab/bytes.h"
#include "lab/difference.h"

namespace lab {

// An empty block that has been written: zero, with the checksum of zeros.
static bool is_written_empty_block(const uint8_t* block) {
    uint8_t zeros[DATA_NODE_SIZE] = {};
    const uint32_t checksum = checksum_of(zeros, sizeof zeros);
    memcpy(zeros + sizeof zeros - sizeof checksum, &checksum, sizeof checksum);
    return memcmp(block, zeros, sizeof zeros) == 0;
}

static bool is_entry_part(const chunk& part) {
    return part.kind == content::tbl_blocks || part.kind == content::fri_blocks ||
           part.kind == content::map_nodes;
}

std::string compare_chunk(const chunk& part, const std::vector<uint8_t>& found) {
    constexpr size_t STEP = DATA_NODE_SIZE;
    for (size_t at = 0; at < found.size(); at += STEP) {
        const size_t length = std::min(STEP, found.size() - at);
        if (memcmp(&part.bytes[at], &found[at], length) == 0) {
            continue;
        }
        if (is_entry_part(part) && is_zero(&part.bytes[at], length) &&
            is_written_empty_block(&found[at])) {
            continue;
        }
        size_t differs = at;
        while (part.bytes[differs] == found[differs]) {
            differs++;
        }
        return describe_difference(part, found, differs);
    }
    return "";
}

static std::string compare_chunks(int fd, const file_image& expected) {
    for (const chunk& part : expected.chunks) {
        std::vector<uint8_t> found(part.bytes.size());
        if (!read_all(fd, found.data(), found.size(), part.offset)) {
            return std::string("cannot be read: ") + strerror(errno);
        }
        if (part.may_be_zero && is_zero(found.data(), found.size())) {
            continue;
        }
        std::string difference = compare_chunk(part, found);
        if (!difference.empty()) {
            return difference;
        }
    }
    return "";
}

// No chunk covers the bytes from `start` up to `end`.
static std::string expect_zeros(int fd, uint64_t start, uint64_t end) {
    constexpr uint64_t MOST_AT_ONCE = uint64_t{1} << 16;
    std::vector<uint8_t> buffer(start < end ? std::min(end - start, MOST_AT_ONCE) : 0);
    while (start < end) {
        const uint64_t length = std::min<uint64_t>(buffer.size(), end - start);
        if (!read_all(fd, buffer.data(), length, start)) {
            return std::string("cannot be read: ") + strerror(errno);
        }
        for (uint64_t i = 0; i < length; i++) {
            if (buffer[i] != 0) {
                return "byte " + std::to_string(start + i) + ": expected 0, found " +
                       std::to_string(buffer[i]);
            }
        }
        start += length;
    }
    return "";
}

static std::string expect_zeros_between_chunks(int fd, const file_image& expected, uint64_t start,
                                               uint64_t end) {
    const auto ends_before = [](const chunk& part, uint64_t byte) {
        return part.offset + part.bytes.size() <= byte;
    };
    auto part =
        std::lower_bound(expected.chunks.begin(), expected.chunks.end(), start, ends_before);
    for (; part != expected.chunks.end() && part->offset < end; ++part) {
        std::string difference = expect_zeros(fd, start, part->offset);
        if (!difference.empty()) {
            return difference;
        }
        start = part->offset + part->bytes.size();
    }
    return expect_zeros(fd, start, end);
}

// Reads only ranges that the file system has data for: a table has four tebibytes, mostly holes.
static std::string compare_rest(int fd, const file_image& expected) {
    off_t at = 0;
    for (;;) {
        const off_t data = lseek(fd, at, SEEK_DATA);
        if (data < 0) {
            return errno == ENXIO ? "" : std::string("cannot be searched: ") + strerror(errno);
        }
        at = lseek(fd, data, SEEK_HOLE);
        if (at < 0) {
            return std::string("cannot be searched: ") + strerror(errno);
        }
        std::string difference = expect_zeros_between_chunks(
            fd, expected, static_cast<uint64_t>(data), static_cast<uint64_t>(at));
        if (!difference.empty()) {
            return difference;
        }
    }
}

enum class depth { frame, whole };

static std::string compare_open_file(int fd, const file_image& expected, depth how_deep) {
    struct stat status = {};
    if (fstat(fd, &status) != 0 || !S_ISREG(status.st_mode)) {
        return "not a regular file";
    }
    const auto size = static_cast<uint64_t>(status.st_size);
    if (size != expected.size && (size < expected.size || !expected.may_be_longer)) {
        return "size: expected " + std::to_string(expected.size) + ", found " +
               std::to_string(status.st_size);
    }
    std::string difference = how_deep == depth::whole ? compare_chunks(fd, expected) : "";
    return difference.empty() ? compare_rest(fd, expected) : difference;
}

static std::string compare(const std::string& directory, const file_image& expected,
                           depth how_deep) {
    const std::string path = directory + "/" + expected.path;
    const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    std::string difference = fd < 0 ? std::string("cannot be opened: ") + strerror(errno)
                                    : compare_open_file(fd, expected, how_deep);
    if (fd >= 0) {
        (void)close(fd);
    }
    return difference.empty() ? "" : expected.path + ": " + difference;
}

std::string compare_file(const std::string& directory, const file_image& expected) {
    return compare(directory, expected, depth::whole);
}

std::string compare_frame(const std::string& directory, const file_image& expected) {
    return compare(directory, expected, depth::frame);
}

}  // namespace lab
