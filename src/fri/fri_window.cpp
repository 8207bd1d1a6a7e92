#include "fri/fri_window.h"

#include <algorithm>

#include "store/descriptor.h"
#include "store/file.h"

static bool holds(const fri_window* window, uint64_t block) {
    return block >= window->first && block - window->first < window->count;
}

static bool fill(int fd, fri_window* window, uint64_t block) {
    window->first = block;
    window->count =
        static_cast<uint32_t>(std::min<uint64_t>(FRI_WINDOW_BLOCKS, FRI_BLOCK_COUNT - block));
    if (!read_fd_run(fd, window->blocks, data_node_offset(block),
                     window->count * sizeof(data_node))) {
        window->count = 0;
        return false;
    }
    return true;
}

bool fri_window_read(int fd, fri_window* window, uint64_t group, fri_entry* entry) {
    const uint64_t block = fri_block_of(group);
    if (group >= FRI_GROUP_CAPACITY) {
        return false;
    }
    if (!holds(window, block) && !fill(fd, window, block)) {
        return false;
    }
    memcpy(entry, window->blocks[block - window->first].payload + fri_byte_in_block(group),
           sizeof *entry);
    return true;
}

uint64_t fri_next_group_with_data(int fd, uint64_t group, uint64_t end) {
    const int64_t size = io_size(fd);
    const uint64_t offset = data_node_offset(fri_block_of(group));
    if (size < 0) {
        return group;
    }
    const auto file_end = static_cast<uint64_t>(size);
    const uint64_t data = offset < file_end ? io_next_data(fd, offset, file_end) : file_end;
    if (data >= file_end) {
        return end;
    }
    const uint64_t block = data / DATA_NODE_SIZE - DATA_NODE_BASE;
    return std::min(std::max(group, block * FRI_BLOCK_ENTRIES), end);
}
