// Index windows: runs of index blocks, each read in bulk, for procedures that read the entries of
// many groups in ascending order. Nothing is logged here: where a window cannot be read, the caller
// takes the single-entry path, which logs. Below: file.h, fri_format.h. Above: the group list.
#pragma once

#include "fri/fri_format.h"
#include "store/data_node.h"

constexpr uint32_t FRI_WINDOW_BLOCKS = 64;  // 32 KiB, 4032 groups

struct fri_window {
    uint64_t first;  // block; the window is empty while count is 0
    uint32_t count;  // blocks
    data_node blocks[FRI_WINDOW_BLOCKS];
};

// Reads the entry of `group` in the index open as `fd`. Writes made after the window was read are
// not visible. Returns false if the entry cannot be read, or no index holds that group.
bool fri_window_read(int fd, fri_window* window, uint64_t group, fri_entry* entry);

// The first group from `group` on, at most `end`, whose block is not in a hole of the index open as
// `fd`. The groups before it were never initialised.
uint64_t fri_next_group_with_data(int fd, uint64_t group, uint64_t end);
