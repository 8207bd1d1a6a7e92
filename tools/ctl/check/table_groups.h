// Groups of a volume's table, as every command reads them. Below: tbl_group_image.h, the seam.
// Above: the check, and whoever asks which extents are in use.
#pragma once

#include <cstdint>

#include "tbl/tbl_group_image.h"

// The first group from `group` on, at most `end`, that has data in the table open as `fd`.
uint64_t next_table_group(int fd, uint64_t group, uint64_t end);

// Reads the blocks of a group, and computes what their checksums (TBL_GROUP_BLOCKS_MAX) should be.
// What does not match is read again, twice: a running service may be writing it. False: it cannot
// be read.
bool load_table_group(int fd, uint64_t group, tbl_group_image* image, uint32_t* checksums);

// Whether a block of the image does not match its checksum.
bool has_damaged_block(const tbl_group_image& image, const uint32_t* checksums);
