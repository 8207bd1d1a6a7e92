#include "lab/rebuilt.h"

#include <cerrno>
#include <cstddef>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>

#include "lab/bytes.h"
#include "lab/compare.h"
#include "lab/rebuilt_entries.h"

namespace lab {

// One of the two files: its expected image, and its contents on the disk.
struct rebuilt_file {
    file_image image;
    content header;
    std::vector<uint8_t> found;  // from the start to the end of the last block that may be written
    std::string difference;
};

static std::string read_file(const std::string& path, std::vector<uint8_t>* bytes) {
    const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    const bool good = fd >= 0 && read_all(fd, bytes->data(), bytes->size(), 0);
    std::string wrong = good ? "" : std::string("cannot be read: ") + strerror(errno);
    if (fd >= 0) {
        (void)close(fd);
    }
    return wrong;
}

// Reads the first `length` bytes and checks that the rest of the file is zero.
static rebuilt_file open_file(const std::string& directory, file_image image, content header,
                              uint64_t length) {
    rebuilt_file file = {std::move(image), header, std::vector<uint8_t>(length), ""};
    const file_image frame = {
        file.image.path, file.image.size, {{0, content::bytes, std::vector<uint8_t>(length)}}};
    file.difference = compare_frame(directory, frame);
    if (file.difference.empty()) {
        const std::string wrong = read_file(directory + "/" + file.image.path, &file.found);
        file.difference = wrong.empty() ? "" : file.image.path + ": " + wrong;
    }
    return file;
}

// Excludes a header field from the comparison: copies the value on the disk into the expected
// image.
static void accept_field(rebuilt_file* file, uint64_t offset, size_t width) {
    for (chunk& part : file->image.chunks) {
        if (part.kind != file->header || offset < part.offset ||
            offset >= part.offset + part.bytes.size()) {
            continue;
        }
        const uint64_t at = offset - part.offset;
        memcpy(&part.bytes[at], &file->found[offset], width);
        uint8_t* node = &part.bytes[at - at % META_NODE_SIZE];
        memset(node, 0, sizeof(uint32_t));
        const uint32_t checksum = checksum_of(node, META_NODE_SIZE);
        memcpy(node, &checksum, sizeof checksum);
    }
}

static std::string compare_header(const rebuilt_file& file) {
    for (const chunk& part : file.image.chunks) {
        if (part.kind != file.header) {
            continue;
        }
        const auto start = file.found.begin() + static_cast<std::ptrdiff_t>(part.offset);
        const auto length = static_cast<std::ptrdiff_t>(part.bytes.size());
        const std::string difference = compare_chunk(part, {start, start + length});
        if (!difference.empty()) {
            return file.image.path + ": " + difference;
        }
    }
    return "";
}

static std::string check_checksums(const rebuilt_file& file) {
    constexpr size_t CHECKSUM = DATA_NODE_SIZE - sizeof(uint32_t);
    for (uint64_t at = METADATA_DATA_OFFSET; at < file.found.size(); at += DATA_NODE_SIZE) {
        uint8_t block[DATA_NODE_SIZE];
        memcpy(block, &file.found[at], sizeof block);
        uint32_t stored = 0;
        memcpy(&stored, block + CHECKSUM, sizeof stored);
        memset(block + CHECKSUM, 0, sizeof stored);
        const bool never_written = stored == 0 && is_zero(block, sizeof block);
        if (!never_written && stored != checksum_of(block, sizeof block)) {
            return file.image.path + ": block " +
                   std::to_string((at - METADATA_DATA_OFFSET) / DATA_NODE_SIZE) +
                   ": its checksum is wrong";
        }
    }
    return "";
}

// Excludes the fields that a rebuild sets. The group count must be the limit or, once the lists are
// linked, the number of all groups.
static void accept_unchecked_fields(rebuilt_file* index, rebuilt_file* table, uint64_t limit) {
    accept_field(table, offsetof(tbl_header, tbl_create_time), sizeof(uint32_t));
    accept_field(index, offsetof(fri_header, fri_create_time), sizeof(uint32_t));
    accept_field(index,
                 offset_of_node(2) + offsetof(fri_header, fri_group_head) - 2 * META_NODE_SIZE,
                 sizeof(uint64_t));  // the walk along the list has checked it
    uint64_t count = 0;
    memcpy(&count, &index->found[offsetof(fri_header, fri_group_count)], sizeof count);
    if (count == limit || count == FRI_GROUP_CAPACITY) {
        accept_field(index, offsetof(fri_header, fri_group_count), sizeof count);
    }
}

// The number of groups in all index blocks that the sample may have written, including the whole
// last block. This is at least one group more than the sample used, and so covers all its table
// writes.
static uint64_t groups_to_read(const file_image& index) {
    return index.chunks.back().bytes.size() / DATA_NODE_SIZE * FRI_BLOCK_ENTRIES;
}

std::string compare_rebuilt(const model& m, size_t volume_index, const std::string& directory) {
    const file_image index_image = image_of(m, {file_kind::fri, volume_index, 0});
    const uint64_t groups = groups_to_read(index_image);
    rebuilt_file index =
        open_file(directory, index_image, content::fri_header, index_length(groups));
    rebuilt_file table = open_file(directory, image_of(m, {file_kind::tbl, volume_index, 0}),
                                   content::tbl_header, table_length(groups));
    if (!index.difference.empty() || !table.difference.empty()) {
        return index.difference.empty() ? table.difference : index.difference;
    }
    const rebuilt_pool pool = {index.image.path, table.image.path,
                               decode_pool(index.found, table.found, groups),
                               count_references(m, volume_index, groups)};
    std::string difference = check_rebuilt_entries(pool);
    accept_unchecked_fields(&index, &table, limit_of(pool.found));
    for (const auto check : {compare_header, check_checksums}) {
        for (const rebuilt_file* file : {&index, &table}) {
            difference = difference.empty() ? check(*file) : difference;
        }
    }
    return difference;
}

}  // namespace lab
