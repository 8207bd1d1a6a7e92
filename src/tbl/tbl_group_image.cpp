#include "tbl/tbl_group_image.h"

#include <algorithm>

#include "store/crc32c.h"
#include "store/file.h"

// The part of a group that lies in one of its blocks.
struct group_piece {
    uint32_t offset;  // of its first entry, in the group
    uint32_t at;      // byte in the block
    uint32_t len;     // bytes
};

static group_piece piece_in_block(const tbl_group_image* image, uint32_t i) {
    constexpr auto entry_size = static_cast<uint32_t>(sizeof(tbl_entry));
    const tbl_group_part part = tbl_group_part_of(image, i);
    const uint32_t slot = i == 0 ? image->first_slot : 0;
    return {part.begin, slot * entry_size, (part.end - part.begin) * entry_size};
}

bool tbl_group_load(int fd, tbl_group_image* image, uint64_t group) {
    if (group >= TBL_TOTAL_COUNT >> TBL_GROUP_SHIFT) {
        return false;
    }
    const uint64_t first = tbl_lpa_of(group, 0);
    const uint64_t last = tbl_lpa_of(group, TBL_GROUP_ENTRIES - 1);
    image->first_block = tbl_block_of(first);
    image->block_count = static_cast<uint32_t>(tbl_block_of(last) - image->first_block + 1);
    image->first_slot = static_cast<uint32_t>(first % TBL_BLOCK_ENTRIES);
    image->changed = 0;
    if (!read_fd_run(fd, image->blocks, data_node_offset(image->first_block),
                     image->block_count * sizeof(data_node))) {
        return false;
    }
    for (uint32_t i = 0; i < image->block_count; i++) {
        const group_piece piece = piece_in_block(image, i);
        memcpy(image->words + piece.offset, image->blocks[i].payload + piece.at, piece.len);
    }
    return true;
}

// Writes blocks `from` up to `to`, which have all changed.
static bool store_run(int fd, tbl_group_image* image, uint32_t from, uint32_t to) {
    for (uint32_t i = from; i < to; i++) {
        const group_piece piece = piece_in_block(image, i);
        memcpy(image->blocks[i].payload + piece.at, image->words + piece.offset, piece.len);
    }
    uint32_t checksums[TBL_GROUP_BLOCKS_MAX];
    tarn_crc32c_blocks(image->blocks + from, to - from, checksums);
    for (uint32_t i = from; i < to; i++) {
        image->blocks[i].checksum = checksums[i - from];
    }
    return write_fd_run(fd, image->blocks + from, data_node_offset(image->first_block + from),
                        (to - from) * sizeof(data_node));
}

bool tbl_group_store(int fd, tbl_group_image* image) {
    uint32_t from = 0;
    while (from < image->block_count) {
        uint32_t to = from;
        while (to < image->block_count && (image->changed >> to & 1) != 0) {
            to++;
        }
        if (to > from && !store_run(fd, image, from, to)) {
            return false;
        }
        from = to + 1;
    }
    image->changed = 0;
    return true;
}

// Whether one of `count` words, taken exclusive-or with `flip`, has a bit of `mask`.
static bool any_bits(const uint16_t* words, size_t count, unsigned flip, unsigned mask) {
    unsigned any = 0;
    for (size_t i = 0; i < count; i++) {
        any |= words[i] ^ flip;
    }
    return (any & mask) != 0;
}

static void mark(tbl_group_image* image, unsigned flip, unsigned mask) {
    for (uint32_t i = 0; i < image->block_count; i++) {
        const group_piece piece = piece_in_block(image, i);
        const size_t count = piece.len / sizeof(tbl_entry);
        if (any_bits(image->words + piece.offset, count, flip, mask)) {
            image->changed |= 1u << i;
        }
    }
}

void tbl_group_mark_free(tbl_group_image* image) {
    mark(image, TBL_USED_BIT, TBL_USED_BIT);
}

void tbl_group_keep_unsound(tbl_group_image* image) {
    uint32_t checksums[TBL_GROUP_BLOCKS_MAX];
    tarn_crc32c_blocks(image->blocks, image->block_count, checksums);
    for (uint32_t i = 0; i < image->block_count; i++) {
        if (image->blocks[i].checksum == checksums[i] && checksums[i] != 0) {
            image->changed &= ~(1u << i);
        }
    }
}
