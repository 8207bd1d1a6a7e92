#include "volume/first_map.h"

#include <cerrno>
#include <cstdio>
#include <dirent.h>

#include "metadata.h"
#include "store/descriptor.h"
#include "store/keep_journal.h"
#include "volume/volume_layout.h"
#include "volume/volume_paths.h"

static constexpr int DEPTH_MAX = 32;  // directories below each other; each holds a descriptor

// A directory being read, and where: `path` has room for PATH_TEXT_SIZE.
struct map_walk_place {
    char* path;
    const lun_search* search;
    int depth;
};

static first_map cannot_read(const char* path, int error) {
    log_keep_as("find_first_map", keep_reason::unread, "Fail to read directory %s: %s\n", path,
                strerror(error));
    return first_map::unknown;
}

static bool is_dot(const char* name) {
    return strcmp(name, ".") == 0 || strcmp(name, "..") == 0;
}

static first_map walk(const map_walk_place* place);

// The entry at `place->path`, whose last component is `name`.
static first_map look_at(const map_walk_place* place, const char* name) {
    struct stat64 status = {};
    if (io_lstat(place->path, &status) != 0) {
        return errno == ENOENT ? first_map::none : cannot_read(place->path, errno);
    }
    const bool counts = !place->search->files_only || S_ISREG(status.st_mode);
    if (counts && place->search->keep(name)) {
        return first_map::found;
    }
    return S_ISDIR(status.st_mode) ? walk(place) : first_map::none;
}

static first_map read_entries(const map_walk_place* place, DIR* directory) {
    const size_t length = strlen(place->path);
    for (;;) {
        const char* name = nullptr;
        if (io_next_entry(directory, &name) != 0) {
            return cannot_read(place->path, errno);
        }
        if (name == nullptr) {
            return first_map::none;
        }
        if (is_dot(name)) {
            continue;
        }
        if (snprintf(place->path + length, PATH_TEXT_SIZE - length, "/%s", name) >=
            static_cast<int>(PATH_TEXT_SIZE - length)) {
            return cannot_read(place->path, ENAMETOOLONG);
        }
        const map_walk_place below = {place->path, place->search, place->depth + 1};
        const first_map found = look_at(&below, place->path + length + 1);
        if (found != first_map::none) {
            return found;
        }
        place->path[length] = '\0';
    }
}

static first_map walk(const map_walk_place* place) {
    if (place->depth > DEPTH_MAX) {
        return cannot_read(place->path, ENAMETOOLONG);
    }
    DIR* directory = io_open_directory(place->path);
    if (directory == nullptr) {
        return errno == ENOENT || errno == ENOTDIR ? first_map::none
                                                   : cannot_read(place->path, errno);
    }
    const first_map found = read_entries(place, directory);
    closedir(directory);
    return found;
}

first_map find_first_map(const char* root, char* path, size_t size) {
    char place_path[PATH_TEXT_SIZE];
    path[0] = '\0';
    for (const char* name : {UNMAP_BUFFER_NAME, ROD_MAP_NAME}) {
        if (form_path(place_path, sizeof place_path, "%s/%s/%s", root, EP_DIR, name) != 0) {
            return first_map::unknown;
        }
        const path_kind kind = kind_of_path("find_first_map", place_path);
        if (kind == path_kind::file || kind == path_kind::unknown) {
            snprintf(path, size, "%s", place_path);
            return kind == path_kind::file ? first_map::found : first_map::unknown;
        }
    }
    for (const lun_search& search : lun_searches) {
        if (form_path(place_path, sizeof place_path, "%s/%s", root, search.directory) != 0) {
            return first_map::unknown;
        }
        const map_walk_place place = {place_path, &search, 0};
        const first_map found = walk(&place);
        if (found != first_map::none) {
            snprintf(path, size, "%s", place_path);
            return found;
        }
    }
    return first_map::none;
}
