// A metadata file being opened for its header, and the end of a handle: what the handles of every
// kind do alike. Below: file.h, descriptor.h, meta_node.h. Above: the files of table, index and
// data.
#pragma once

#include <cstdint>

#include "store/meta_node.h"

// Opens `path` and reads its header of so many nodes into `header`. The descriptor; 0, logged, when
// that fails: nothing stays open. `caller` tells the log who asked, `kind` ("tbl") of what.
int open_with_header(const char* caller, const char* kind, const char* path, void* header,
                     int const_nodes, int var_nodes);
// A file that was opened to see of what kind it is, and what was read of its header.
struct opened_file {
    int fd;
    const char* path;
    meta_header header;
};
// Frees the buffer (of new[]; null is let pass), syncs and closes, and clears both.
void end_handle(int* fd, uint8_t** buffer);
// The same after a failure, without the sync: nothing was written. -1.
int drop_handle(int* fd, uint8_t** buffer);
