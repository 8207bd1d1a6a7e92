// Index windows: runs of index blocks read with one transfer, for procedures that look at the
// entries of many groups in ascending order. Reads only; nothing is logged here: who finds that a
// window cannot be read takes the entry road, and that road tells. Below: file.h, fri_format.h.
#pragma once

#include "fri/fri_format.h"
#include "store/data_node.h"

constexpr uint32_t FRI_WINDOW_BLOCKS = 64;  // 32 KiB, 4032 groups

struct fri_window {
    uint64_t first;  // block; the window is empty while count is 0
    uint32_t count;  // blocks
    data_node blocks[FRI_WINDOW_BLOCKS];
};

// The entry of `group` in the current index. A window shows its blocks as they were when it was
// read: what is written behind the group that is looked at is not seen. False: not to be had.
bool fri_window_read(fri_window* window, uint64_t group, fri_entry* entry);

// The first group from `group` on, `end` at the most, whose block is not in a hole of the current
// index: those before it were never initialised.
uint64_t fri_next_group_with_data(uint64_t group, uint64_t end);
