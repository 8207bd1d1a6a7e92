#include "volume/discovery.h"

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>
#include <sys/stat.h>

#include "options.h"
#include "platform.h"
#include "store/descriptor.h"
#include "store/log.h"
#include "volume/path_list.h"
#include "volume/volume_paths.h"

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

static constexpr const char* LISTING = "enum_all_vaai_luns";  // whose lines these are

// The listing under way: the volume of opt_ctx.volpath.
struct lun_listing {
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

// Whether `path`, a name below the volume, leads to nothing outside it, through whatever links. One
// that leads nowhere passes: its load fails, and reports it.
static bool stays_in_volume(const lun_listing* listing, const char* path) {
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

// Appends a file of the volume. 0, or -1, logged. What is tested is the name that the list keeps:
// a longer path is cut there.
static int add_map(const lun_listing* listing, const char* path, uint32_t type) {
    if (add_path_entry(path, listing->list, type) != 0) {
        return -1;
    }
    return stays_in_volume(listing, listing->list->prev->name) ? 0 : -1;
}

// Takes the line end off. False, logged: the line did not fit its buffer, or it is no name below
// `directory`: a file's name with a line end in it makes two lines, and the second one names
// whatever it likes.
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
        log_err_as(LISTING, "'/usr/bin/find %s' gave the line %s, no name below it\n", directory,
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

// A directory that is not there holds nothing; its program ends with a status of its own then.
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

// A map file of the volume itself, in @EP: noted on standard output, appended when it is there.
static int add_volume_map(const lun_listing* listing, const char* title, const char* name,
                          uint32_t type) {
    char path[PATH_TEXT_SIZE];
    if (form_path(path, sizeof path, "%s/%s/%s", opt_ctx.volpath, EP_DIR, name) != 0) {
        return -1;
    }
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
    if (add_volume_map(listing, "UNMAP", UNMAP_BUFFER_NAME, MAP_KIND_UNMAP_BUFFER) != 0) {
        return -1;
    }
    return add_volume_map(listing, "ROD", ROD_MAP_NAME, MAP_KIND_ROD);
}

// After the last search, with its stream still open, come the volume's own maps.
static int add_found_luns(const lun_listing* listing, const lun_search* search) {
    char directory[PATH_TEXT_SIZE];
    if (form_path(directory, sizeof directory, "%s/%s/", opt_ctx.volpath, search->directory) != 0) {
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

int enum_all_vaai_luns(path_entry* list) {
    if (list == nullptr) {
        log_err("NULL pointer\n");
        return -1;
    }
    lun_listing listing;
    listing.list = list;
    if (io_real_path(opt_ctx.volpath, listing.root) == nullptr) {
        const int error = errno;
        log_err("Fail to get the real path of %s: %s\n", opt_ctx.volpath, strerror(error));
        return -1;
    }
    for (const lun_search& search : lun_searches) {
        if (add_found_luns(&listing, &search) != 0) {
            return -1;
        }
    }
    return 0;
}

int for_each_volume(const char* caller, volume_step step, int argc, char** argv) {
    path_entry volumes = {};
    init_path_list(&volumes);
    int result = enum_all_volumes(&volumes);
    if (result != 0) {
        log_err_as(caller, "Fail to enum all volumes\n");
    }
    for (const path_entry* volume = volumes.next; volume != &volumes && result == 0;
         volume = volume->next) {
        result = step(volume->name, argc, argv);
    }
    free_path_list(&volumes);
    return result;
}
