#include "fri/fri_window.h"

#include <algorithm>
#include <bit>

#include "fri/fri_entries.h"
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

static fri_entry entry_in(const fri_writer* writer, uint64_t slot) {
    fri_entry entry;
    memcpy(&entry, writer->node.payload + slot * sizeof entry, sizeof entry);
    return entry;
}

// The changed entries of the block, one by one.
static bool write_by_entries(fri_writer* writer, uint64_t* failed) {
    while (writer->changed != 0) {
        const auto slot = static_cast<uint64_t>(std::countr_zero(writer->changed));
        const fri_entry entry = entry_in(writer, slot);
        *failed = writer->block * FRI_BLOCK_ENTRIES + slot;
        if (fri_entry_write(&entry, *failed) != 0) {
            return false;
        }
        writer->changed &= writer->changed - 1;
    }
    return true;
}

bool fri_writer_flush(fri_writer* writer, uint64_t* failed) {
    if (writer->changed == 0) {
        return true;
    }
    data_node_seal(&writer->node);
    if (!write_fd_run(current_fri.fd, &writer->node, data_node_offset(writer->block),
                      sizeof writer->node)) {
        return write_by_entries(writer, failed);
    }
    writer->changed = 0;
    return true;
}

// Makes the block of `group` the one in memory. False: it could not be read; nothing is open then.
static bool open_block(fri_writer* writer, uint64_t group) {
    if (!writer->is_open || writer->block != fri_block_of(group)) {
        writer->block = fri_block_of(group);
        writer->is_open = group < FRI_GROUP_CAPACITY &&
                          read_fd_run(current_fri.fd, &writer->node,
                                      data_node_offset(writer->block), sizeof writer->node);
    }
    return writer->is_open;
}

static bool leaves_block(const fri_writer* writer, uint64_t group) {
    return writer->is_open && writer->block != fri_block_of(group);
}

bool fri_writer_get(fri_writer* writer, uint64_t group, fri_entry* entry, uint64_t* failed) {
    if (leaves_block(writer, group) && !fri_writer_flush(writer, failed)) {
        return false;
    }
    *failed = group;
    if (!open_block(writer, group)) {
        return fri_entry_read(entry, group) >= 0;
    }
    *entry = entry_in(writer, group % FRI_BLOCK_ENTRIES);
    return true;
}

bool fri_writer_put(fri_writer* writer, uint64_t group, const fri_entry* entry, uint64_t* failed) {
    if (leaves_block(writer, group) && !fri_writer_flush(writer, failed)) {
        return false;
    }
    *failed = group;
    const bool is_open = open_block(writer, group);
    const uint64_t slot = group % FRI_BLOCK_ENTRIES;
    memcpy(writer->node.payload + slot * sizeof *entry, entry, sizeof *entry);
    if (!is_open) {
        return fri_entry_write(entry, group) == 0;
    }
    writer->changed |= uint64_t{1} << slot;
    return true;
}
