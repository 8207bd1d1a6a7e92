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

// Entries of the current index written in ascending order of their groups: each block is read and
// written once. What cannot be moved as a block is written entry by entry. Zero at start.
struct fri_writer {
    bool is_open;      // a block is in memory
    uint64_t block;    // its number
    uint64_t changed;  // bit of each of its 63 entries
    data_node node;
};

// Reads the entry of `group` as it will be written. False: it cannot be read, logged by
// fri_entry_read, or an entry before it could not be written: *failed is its group then, else
// `group`.
bool fri_writer_get(fri_writer* writer, uint64_t group, fri_entry* entry, uint64_t* failed);
// Writes the entry of `group`, now or later. False: an entry could not be written, logged by
// fri_entry_write; its group goes to *failed.
bool fri_writer_put(fri_writer* writer, uint64_t group, const fri_entry* entry, uint64_t* failed);
// Writes what is in memory. The same result.
bool fri_writer_flush(fri_writer* writer, uint64_t* failed);
