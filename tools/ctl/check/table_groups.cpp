#include "ctl/check/table_groups.h"

#include "store/crc32c.h"
#include "store/descriptor.h"

uint64_t next_table_group(int fd, uint64_t group, uint64_t end) {
    const uint64_t begin = data_node_offset(tbl_block_of(tbl_lpa_of(group, 0)));
    const uint64_t data = io_next_data(fd, begin, TBL_FILE_SIZE);
    if (data >= TBL_FILE_SIZE) {
        return end;
    }
    const uint64_t block = data / DATA_NODE_SIZE - DATA_NODE_BASE;
    return std::clamp(tbl_group_of(block * TBL_BLOCK_ENTRIES), group, end);
}

bool has_damaged_block(const tbl_group_image& image, const uint32_t* checksums) {
    bool damaged = false;
    for (uint32_t i = 0; i < image.block_count; i++) {
        const uint32_t stored = image.blocks[i].checksum;
        damaged = damaged || (stored != 0 && stored != checksums[i]);
    }
    return damaged;
}

bool load_table_group(int fd, uint64_t group, tbl_group_image* image, uint32_t* checksums) {
    for (int tries = 0; tries < 3; tries++) {
        if (!tbl_group_load(fd, image, group)) {
            return false;
        }
        tarn_crc32c_blocks(image->blocks, image->block_count, checksums);
        if (!has_damaged_block(*image, checksums)) {
            break;
        }
    }
    return true;
}
