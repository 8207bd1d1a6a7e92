// Finding volumes, and the map files of a volume: as lists of paths in the order of discovery.
// Below: volume_paths.h, the platform, the seam. Above: the procedures over volumes and maps.
#pragma once

#include <cstddef>
#include <cstdint>

#include "volume/volume_paths.h"

constexpr size_t PATH_ENTRY_NAME_SIZE = 128;

// The head or an element of a circular, doubly linked list. The head's name is unused.
struct path_entry {
    path_entry* next;  // the two links come first, as insque(3) needs them
    path_entry* prev;
    uint32_t type;                    // map_kind_code; 0 in lists of volumes
    char name[PATH_ENTRY_NAME_SIZE];  // cut to 127 characters
};

void init_path_list(path_entry* list);
// Appends. 0, or -1 when memory runs out, logged. A path that is cut is logged, and is a reason to
// keep the journal: it may now name another file, and the one that was meant is skipped.
int add_path_entry(const char* path, path_entry* list, uint32_t type);
void free_path_list(path_entry* list);  // and leaves it empty

// A list that is freed at the end of its scope.
struct path_list {
    path_list() { init_path_list(&head); }
    path_list(const path_list&) = delete;
    path_list& operator=(const path_list&) = delete;
    ~path_list() { free_path_list(&head); }
    path_entry head = {};
};

// Appends the root of every volume that has LUN metadata. 0, or -1, logged. With a null list, the
// volumes are tested and nothing is appended.
int enum_all_volumes(path_entry* list);
// Appends every map file of the volume: LUNs, trash, snapshots, then the unmap buffer (type 1) and
// the ROD map (type 2). 0; -1, logged. It also fails for a name that is not below the searched
// directory, for a file whose real path is outside the volume, and if it is unknown whether the
// buffer or the ROD map exists: no map outside the volume may be changed, and no map of it missed.
int enum_all_vaai_luns(const volume_paths* paths, path_entry* list);

enum class first_map {
    none,
    found,
    unknown,  // a directory cannot be read, or is too deep: logged, a reason to keep the journal
};
// Whether the volume at `root` has any map. Prints nothing, starts no program and stops at the
// first map, whose path goes to `path`, cut to `size`.
first_map find_first_map(const char* root, char* path, size_t size);

// Runs `step` on each entry until one does not return 0. Returns the last result, 0 for an empty
// list.
template <class Step>
int for_each_entry(const path_entry* list, Step step) {
    int result = 0;
    for (const path_entry* at = list->next; at != list && result == 0; at = at->next) {
        result = step(at);
    }
    return result;
}

// Lists the volumes. 0, or -1, logged there and for `caller`.
int list_volumes(const char* caller, path_list* volumes);

// Runs `step` on the root of every volume that has LUN metadata, as for_each_entry does.
template <class Step>
int for_each_volume(const char* caller, Step step) {
    path_list volumes;
    const int result = list_volumes(caller, &volumes);
    return result != 0 ? result : for_each_entry(&volumes.head, [&](const path_entry* at) {
        return step(at->name);
    });
}
