#include "tbl/tbl_compare.h"

#include <algorithm>
#include <new>

#include "store/data_node.h"
#include "store/descriptor.h"
#include "store/file.h"
#include "tbl/tbl_format.h"

static constexpr uint32_t RUN_BLOCKS = 256;  // 128 KiB of each table

struct block_run {
    data_node one[RUN_BLOCKS];
    data_node other[RUN_BLOCKS];
};

static unsigned meaning(const uint8_t* payload, size_t slot) {
    uint16_t word = 0;
    memcpy(&word, payload + slot * sizeof word, sizeof word);
    return tbl_word_meaning(word);
}

static bool blocks_agree(const data_node& one, const data_node& other) {
    if (memcmp(one.payload, other.payload, TBL_BLOCK_ENTRIES * sizeof(tbl_entry)) == 0) {
        return true;
    }
    unsigned differences = 0;
    for (size_t slot = 0; slot < TBL_BLOCK_ENTRIES; slot++) {
        differences |= meaning(one.payload, slot) ^ meaning(other.payload, slot);
    }
    return differences == 0;
}

static uint64_t first_slot_that_differs(const data_node& one, const data_node& other) {
    uint64_t slot = 0;
    while (slot < TBL_BLOCK_ENTRIES && meaning(one.payload, slot) == meaning(other.payload, slot)) {
        slot++;
    }
    return slot;
}

// First block from `block` on in which one of the tables has data.
static uint64_t next_block_with_data(int one_fd, int other_fd, uint64_t block) {
    const uint64_t offset = data_node_offset(block);
    const uint64_t data = std::min(io_next_data(one_fd, offset, TBL_FILE_SIZE),
                                   io_next_data(other_fd, offset, TBL_FILE_SIZE));
    return std::max(block, data / DATA_NODE_SIZE - DATA_NODE_BASE);
}

// Compares the blocks `block` to `end` - 1, which are within the tables' capacity.
static uint64_t blocks_up_to(int one_fd, int other_fd, uint64_t block, uint64_t end,
                             block_run* run) {
    while (block < end) {
        block = next_block_with_data(one_fd, other_fd, block);
        if (block >= end) {
            break;
        }
        const auto count = static_cast<uint32_t>(std::min<uint64_t>(RUN_BLOCKS, end - block));
        const size_t size = count * sizeof(data_node);
        if (!read_fd_run(one_fd, run->one, data_node_offset(block), size) ||
            !read_fd_run(other_fd, run->other, data_node_offset(block), size)) {
            return block * TBL_BLOCK_ENTRIES;
        }
        for (uint32_t i = 0; i < count; i++) {
            if (!blocks_agree(run->one[i], run->other[i])) {
                return (block + i) * TBL_BLOCK_ENTRIES +
                       first_slot_that_differs(run->one[i], run->other[i]);
            }
        }
        block += count;
    }
    return end * TBL_BLOCK_ENTRIES;
}

uint64_t tbl_agree_up_to(int one_fd, int other_fd, uint64_t lpa, uint64_t end) {
    if (lpa % TBL_BLOCK_ENTRIES != 0 || end > TBL_TOTAL_COUNT) {
        return lpa;  // inside a block: single entries up to the next one
    }
    auto* run = new (std::nothrow) block_run;
    if (run == nullptr) {
        return lpa;
    }
    const uint64_t end_block = (end + TBL_BLOCK_ENTRIES - 1) / TBL_BLOCK_ENTRIES;
    const uint64_t agreed = blocks_up_to(one_fd, other_fd, tbl_block_of(lpa), end_block, run);
    delete run;
    return std::min(agreed, end);
}
