#include "volume/discovery.h"

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>
#include <dirent.h>
#include <new>
#include <search.h>
#include <sys/stat.h>

#include "platform.h"
#include "store/descriptor.h"
#include "store/keep_journal.h"

void init_path_list(path_entry* list) {
    list->next = list;
    list->prev = list;
}

int add_path_entry(const char* path, path_entry* list, uint32_t type) {
    path_entry* entry = new (std::nothrow) path_entry{};
    if (entry == nullptr) {
        log_err("no memory for path %s\n", path);
        return -1;
    }
    snprintf(entry->name, sizeof entry->name, "%s", path);
    if (strlen(path) >= sizeof entry->name) {
        // The file with the whole path is skipped.
        log_keep(keep_reason::unread, "path %s is cut to %s\n", path, entry->name);
    }
    entry->type = type;
    insque(entry, list->prev);
    return 0;
}

void free_path_list(path_entry* list) {
    path_entry* entry = list->next;
    while (entry != list) {
        path_entry* next = entry->next;
        delete entry;
        entry = next;
    }
    init_path_list(list);
}

int enum_all_volumes(path_entry* list) {
    ORBASpaceInfo* spaces = nullptr;
    if (ORBASpaceInfoEnum(1, &spaces) < 0) {
        log_err("failed to enum volume info");  // no line end, deliberate
        ORBASpaceInfoFree(spaces);
        return -1;
    }
    int result = 0;
    for (const ORBASpaceInfo* space = spaces; space != nullptr && result == 0;
         space = space->next) {
        if (is_vaai_volume(space->mount_path) == 1 && list != nullptr) {
            result = add_path_entry(space->mount_path, list, MAP_KIND_LUN);
        }
    }
    ORBASpaceInfoFree(spaces);
    return result;
}

static constexpr const char* LISTING = "enum_all_vaai_luns";  // its steps log under its name

// The listing under way.
struct lun_listing {
    const volume_paths* paths;
    path_entry* list;
    char root[PATH_MAX];  // the volume's real path
};

static FILE* start_find(const char* directory, bool files_only) {
    FILE* stream = nullptr;
    if (io_allow(io_call::spawn)) {
        stream = files_only ? OLIBCPopen("/usr/bin/find", "r", directory, "-type", "f", nullptr)
                            : OLIBCPopen("/usr/bin/find", "r", directory, nullptr);
    }
    if (stream == nullptr) {
        log_err_as(LISTING, "fail to OLIBCPopen '/usr/bin/find %s -type f'\n", directory);
    }
    return stream;
}

// Whether one of the components of `path` is "..".
static bool has_parent_component(const char* path) {
    for (const char* at = strstr(path, "/.."); at != nullptr; at = strstr(at + 1, "/..")) {
        if (at[3] == '/' || at[3] == '\0') {
            return true;
        }
    }
    return false;
}

// Whether `path`, a name below the volume, resolves to a file inside it. A dangling link is
// accepted: its load fails, and logs it.
static bool is_inside_volume(const lun_listing* listing, const char* path) {
    char real[PATH_MAX];
    if (io_real_path(path, real) == nullptr) {
        const int error = errno;
        if (error == ENOENT || error == ENOTDIR) {
            return true;
        }
        log_err_as(LISTING, "Fail to get the real path of %s: %s\n", path, strerror(error));
        return false;
    }
    const size_t length = strlen(listing->root);
    if (strncmp(real, listing->root, length) != 0 || real[length] != '/') {
        log_err_as(LISTING, "%s leads out of the volume, to %s\n", path, real);
        return false;
    }
    return true;
}

// Appends a file of the volume. 0, or -1, logged. The name in the list is tested, since a longer
// path is cut there.
static int add_map(const lun_listing* listing, const char* path, uint32_t type) {
    if (add_path_entry(path, listing->list, type) != 0) {
        return -1;
    }
    return is_inside_volume(listing, listing->list->prev->name) ? 0 : -1;
}

// Removes the line end. Returns false, logged, if the line did not fit its buffer or is not a name
// below `directory`: a file name with a line end in it makes two lines, and the second one can name
// any file.
static bool is_listed_name(char* line, size_t size, const char* directory) {
    const size_t length = strlen(line);
    if (length > 0 && line[length - 1] == '\n') {
        line[length - 1] = '\0';
    } else if (length == size - 1) {
        log_err_as(LISTING, "snprintf error %d\n", static_cast<int>(length));
        return false;
    }
    if (strncmp(line, directory, strlen(directory)) != 0 ||
        has_parent_component(line + strlen(directory) - 1)) {
        log_err_as(LISTING, "'/usr/bin/find %s' printed %s, which is not below it\n", directory,
                   line);
        return false;
    }
    return true;
}

// Appends the lines of `stream` that the search keeps. 0, or -1, logged.
static int add_found_lines(const lun_listing* listing, FILE* stream, const lun_search* search,
                           const char* directory) {
    char line[PATH_TEXT_SIZE];
    while (fgets(line, sizeof line, stream) != nullptr) {
        if (!is_listed_name(line, sizeof line, directory)) {
            return -1;
        }
        if (search->keep(strrchr(line, '/') + 1) && add_map(listing, line, MAP_KIND_LUN) != 0) {
            return -1;
        }
    }
    return 0;
}

// A directory that does not exist holds no map; the program exits with an error status then.
static bool exists(const char* path) {
    struct stat64 status = {};
    return io_stat(path, &status) == 0 || errno != ENOENT;
}

// Closes the stream of a search whose lines were `added`. 0, or -1, logged.
static int end_find(FILE* stream, const char* directory, int added) {
    const bool unread = ferror(stream) != 0;
    const int status = OLIBCPclose(stream);
    if (added == 0 && (unread || (status != 0 && exists(directory)))) {
        log_err_as(LISTING, "'/usr/bin/find %s' did not list everything, status %d\n", directory,
                   status);
        return -1;
    }
    return added;
}

// A map file of the volume itself: reported on standard output, and appended if it exists.
static int add_volume_map(const lun_listing* listing, const char* title, const char* path,
                          uint32_t type) {
    const path_kind kind = kind_of_path(LISTING, path);
    if (kind == path_kind::unknown) {
        return -1;  // logged there: without this map its references would be lost
    }
    const bool there = kind == path_kind::file;
    printf("TARN_INFO: %s %s %s\n", title, path, there ? "exists" : "doesn't exist");
    if (there && add_map(listing, path, type) != 0) {
        log_err_as(LISTING, "fail to add %s\n", path);
        return -1;
    }
    return 0;
}

static int add_volume_maps(const lun_listing* listing) {
    if (add_volume_map(listing, "UNMAP", listing->paths->unmap_buffer, MAP_KIND_UNMAP_BUFFER) !=
        0) {
        return -1;
    }
    return add_volume_map(listing, "ROD", listing->paths->rod_map, MAP_KIND_ROD);
}

// The volume's own maps are added after the last search, while its stream is still open.
static int add_found_luns(const lun_listing* listing, const lun_search* search) {
    char directory[PATH_TEXT_SIZE];
    const char* root = listing->paths->root;
    if (form_path(directory, sizeof directory, "%s/%s/", root, search->directory) != 0) {
        return -1;
    }
    FILE* stream = start_find(directory, search->files_only);
    if (stream == nullptr) {
        return -1;
    }
    int added = add_found_lines(listing, stream, search, directory);
    if (added == 0 && search == &lun_searches[LUN_SEARCH_COUNT - 1]) {
        added = add_volume_maps(listing);
    }
    return end_find(stream, directory, added);
}

int enum_all_vaai_luns(const volume_paths* paths, path_entry* list) {
    if (list == nullptr) {
        log_err("NULL pointer\n");
        return -1;
    }
    lun_listing listing;
    listing.paths = paths;
    listing.list = list;
    if (io_real_path(paths->root, listing.root) == nullptr) {
        const int error = errno;
        log_err("Fail to get the real path of %s: %s\n", paths->root, strerror(error));
        return -1;
    }
    for (const lun_search& search : lun_searches) {
        if (add_found_luns(&listing, &search) != 0) {
            return -1;
        }
    }
    return 0;
}

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

int list_volumes(const char* caller, path_list* volumes) {
    const int result = enum_all_volumes(&volumes->head);
    if (result != 0) {
        log_err_as(caller, "Fail to enum all volumes\n");
    }
    return result;
}
