// Group images: the blocks that hold one group of 4096 table entries, read in bulk, changed in
// memory, the changed ones sealed with fresh checksums and written back. For procedures over whole
// groups. Nothing is logged here: where an image cannot be read or written, the caller takes the
// single-entry path, which logs. Below: file.h, data_node.h, tbl_entries.h. Above: free lists,
// reference counts.
#pragma once

#include <algorithm>

#include "store/data_node.h"
#include "tbl/tbl_entries.h"

// 4096 entries begin anywhere in a block of 252.
constexpr unsigned TBL_GROUP_BLOCKS_MAX =
    (TBL_BLOCK_ENTRIES - 1 + TBL_GROUP_ENTRIES - 1) / TBL_BLOCK_ENTRIES + 1;
static_assert(TBL_GROUP_BLOCKS_MAX == 18);

struct tbl_group_image {
    uint16_t words[TBL_GROUP_ENTRIES];  // the group's entries
    uint32_t changed;                   // bit i: an entry in block i was changed
    uint64_t first_block;
    uint32_t block_count;
    uint32_t first_slot;  // of the group's entry 0, in the first block
    data_node blocks[TBL_GROUP_BLOCKS_MAX];
};

// Reads the blocks of `group` from the table open as `fd`. Past the end of the file entries are
// zero. Returns false if they cannot be read, or no table holds that group.
bool tbl_group_load(int fd, tbl_group_image* image, uint64_t group);
// Writes the changed blocks back with fresh checksums. Returns false if one cannot be written.
bool tbl_group_store(int fd, tbl_group_image* image);
// Marks every block as changed in which the group has a free entry.
void tbl_group_mark_free(tbl_group_image* image);
// Takes the mark off every block whose checksum is right.
void tbl_group_keep_unsound(tbl_group_image* image);

// Entry `offset` (0..4095) of the group.
inline tbl_entry tbl_group_get(const tbl_group_image* image, uint32_t offset) {
    return {image->words[offset]};
}

// The offsets of the group's entries that lie in block `i` of the image: `begin` to `end` - 1.
struct tbl_group_part {
    uint32_t begin;
    uint32_t end;
};
inline tbl_group_part tbl_group_part_of(const tbl_group_image* image, uint32_t i) {
    constexpr auto per_block = static_cast<uint32_t>(TBL_BLOCK_ENTRIES);
    const uint32_t first = i * per_block;
    return {first > image->first_slot ? first - image->first_slot : 0,
            std::min(first + per_block - image->first_slot, TBL_GROUP_ENTRIES)};
}

// The entries of one group for a procedure that only reads: from an image, or entry by entry
// where the image cannot be read.
struct tbl_group_reader {
    bool loaded;
    tbl_group_image image;
};

inline void tbl_group_reader_open(tbl_group_reader* reader, uint64_t group) {
    reader->loaded = tbl_group_load(current_tbl.fd, &reader->image, group);
}

// Reads the entry of `lpa`, which is in that group. Results as tbl_entry_read: negative, logged,
// when it cannot be read.
inline int tbl_group_reader_get(const tbl_group_reader* reader, tbl_entry* entry, uint64_t lpa) {
    if (!reader->loaded) {
        return tbl_entry_read(entry, lpa);
    }
    *entry = tbl_group_get(&reader->image, tbl_offset_in_group(lpa));
    return sizeof *entry;
}
