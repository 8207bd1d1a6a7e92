// The extents of a volume that are free, and what of them still lies on the disk. Below: the table,
// the data files, the seam. Above: punch.cpp, once everything else agrees that they are free.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "ctl/check/state.h"

// Extents that are all free; the first and the last of them have data.
struct free_range {
    uint64_t first;
    uint64_t count;
    uint64_t bytes;  // that are not holes
};

struct free_space {
    // Ascending. Between any two lies an extent in use, or more than a thousand that are holes.
    std::vector<free_range> ranges;
    uint64_t extents = 0;  // free, in the data files
    uint64_t data = 0;     // bytes of them that are not holes
    uint64_t holes = 0;    // bytes of them that are
};

// False: the table or a data file cannot be read to its end, or the table is damaged; `problem` is
// a sentence that names the file.
bool find_free_space(const volume_check& volume, free_space* space, std::string* problem);
