// Comparison of two tables, in runs of blocks. Nothing is logged here: what differs or cannot be
// read the caller compares entry by entry. Below: tbl_format.h, file.h. Above: the full check.
#pragma once

#include <cstdint>

// Compares the entries `lpa` to `end` - 1 of the tables open as the two descriptors: free in both,
// or used with the same count. Returns `end` if all agree, else an lpa that the caller compares
// entry by entry: it differs, or its block cannot be read, or `lpa` is not the first entry of a
// block.
uint64_t tbl_agree_up_to(int one_fd, int other_fd, uint64_t lpa, uint64_t end);
