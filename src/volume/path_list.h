// Lists of paths: volumes, and the map files of one volume. Circular, doubly linked, in the order
// of discovery. Below: the log, the count of failed writes.
#pragma once

#include <cstddef>
#include <cstdint>

constexpr size_t PATH_ENTRY_NAME_SIZE = 128;

// The list's head and its elements alike. The head's name is unused.
struct path_entry {
    path_entry* next;  // the two links stand first: the system's queue calls want them there
    path_entry* prev;
    uint32_t type;                    // map_kind_code; 0 in lists of volumes
    char name[PATH_ENTRY_NAME_SIZE];  // cut to 127 characters
};

void init_path_list(path_entry* list);
// Appends. 0, or -1 when memory runs out, logged. A path that is cut is logged and counted as a
// failed write: it may now name another file, and the one that was meant is passed over.
int add_path_entry(const char* path, path_entry* list, uint32_t type);
void free_path_list(path_entry* list);  // and leaves it empty
