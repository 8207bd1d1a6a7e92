// The header of any metadata file, with the state of each of its nodes. Below: the seam,
// meta_node.h. Above: everything that looks at a file.
#pragma once

#include <cstdint>
#include <string>

#include "store/descriptor.h"
#include "store/meta_node.h"

// What of a header cannot be right.
struct header_view {
    int error = 0;            // errno of the open or the read; 0: both succeeded
    size_t got = 0;           // bytes of the header's place that the file has
    uint64_t file_size = 0;   // bytes
    uint32_t bad_nodes = 0;   // bit i: the checksum of node i (constant ones first) is wrong
    uint32_t node_count = 0;  // of this kind of file
};

// Opens the file read-only and reads the header of `const_nodes` constant and `var_nodes` variable
// nodes into `header`, as it is in memory. Returns the descriptor; 0 when the file cannot be opened
// or read, is no regular file, or is empty: `error` says which (EINVAL, ENODATA for the last two).
scoped_fd open_header(const std::string& path, int const_nodes, int var_nodes, void* header,
                      header_view* view);
