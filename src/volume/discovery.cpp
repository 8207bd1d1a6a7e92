#include "volume/discovery.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <sys/stat.h>

#include "options.h"
#include "platform.h"
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

static FILE* start_find(const char* directory, bool files_only) {
    FILE* stream = files_only ? OLIBCPopen("/usr/bin/find", "r", directory, "-type", "f", nullptr)
                              : OLIBCPopen("/usr/bin/find", "r", directory, nullptr);
    if (stream == nullptr) {
        log_err("fail to OLIBCPopen '/usr/bin/find %s -type f'\n", directory);
    }
    return stream;
}

// Appends the lines of `stream` that the search keeps. 0, or -1, logged.
static int add_found_lines(FILE* stream, const lun_search* search, path_entry* list) {
    char line[4096];
    while (fgets(line, sizeof line, stream) != nullptr) {
        const size_t length = strlen(line);
        if (length > 0 && line[length - 1] == '\n') {
            line[length - 1] = '\0';
        } else if (length == sizeof line - 1) {
            log_err("snprintf error %d\n", static_cast<int>(length));
            return -1;
        }
        const char* slash = strrchr(line, '/');
        if (search->keep(slash != nullptr ? slash + 1 : line) &&
            add_path_entry(line, list, MAP_KIND_LUN) != 0) {
            return -1;
        }
    }
    return 0;
}

// A directory that is not there holds nothing; its program ends with a status of its own then.
static bool exists(const char* path) {
    struct stat64 status = {};
    return stat64(path, &status) == 0 || errno != ENOENT;
}

static int add_found_luns(const lun_search* search, path_entry* list) {
    char directory[PATH_TEXT_SIZE];
    if (form_path(directory, sizeof directory, "%s/%s/", opt_ctx.volpath, search->directory) != 0) {
        return -1;
    }
    FILE* stream = start_find(directory, search->files_only);
    if (stream == nullptr) {
        return -1;
    }
    const int added = add_found_lines(stream, search, list);
    const bool unread = ferror(stream) != 0;
    const int status = OLIBCPclose(stream);
    if (added == 0 && (unread || (status != 0 && exists(directory)))) {
        log_err("'/usr/bin/find %s' did not list everything, status %d\n", directory, status);
        return -1;
    }
    return added;
}

// A map file of the volume itself, in @EP: noted on standard output, appended when it is there.
static int add_volume_map(const char* title, const char* name, uint32_t type, path_entry* list) {
    char path[PATH_TEXT_SIZE];
    if (form_path(path, sizeof path, "%s/%s/%s", opt_ctx.volpath, EP_DIR, name) != 0) {
        return -1;
    }
    const bool there = is_regular_file(path) == 1;
    printf("TARN_INFO: %s %s %s\n", title, path, there ? "exists" : "doesn't exist");
    if (there && add_path_entry(path, list, type) != 0) {
        log_err("fail to add %s\n", path);
        return -1;
    }
    return 0;
}

int enum_all_vaai_luns(path_entry* list) {
    if (list == nullptr) {
        log_err("NULL pointer\n");
        return -1;
    }
    for (const lun_search& search : lun_searches) {
        if (add_found_luns(&search, list) != 0) {
            return -1;
        }
    }
    if (add_volume_map("UNMAP", UNMAP_BUFFER_NAME, MAP_KIND_UNMAP_BUFFER, list) != 0) {
        return -1;
    }
    return add_volume_map("ROD", ROD_MAP_NAME, MAP_KIND_ROD, list);
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
