#include "volume/expected_volumes.h"

#include <cerrno>
#include <cstring>

#include "store/descriptor.h"
#include "store/log.h"

static constexpr const char* NAME = "vaai_startup_replay";  // a step of it, logged under its name

// 1 if it is empty, 0 if not; -1, logged, if it cannot be read.
static int is_empty_directory(const char* path) {
    DIR* directory = io_open_directory(path);
    const char* name = ".";
    bool read = directory != nullptr;
    while (read && name != nullptr && (strcmp(name, ".") == 0 || strcmp(name, "..") == 0)) {
        read = io_next_entry(directory, &name) == 0;
    }
    if (!read) {
        log_err_as(NAME, "Fail to read directory %s: %s\n", path, strerror(errno));
    }
    if (directory != nullptr) {
        closedir(directory);
    }
    return !read ? -1 : name == nullptr ? 1 : 0;
}

// Whether a volume that the configuration names exists and is not an empty mount point.
static bool volume_is_present(const char* root) {
    struct stat64 status = {};
    if (io_stat(root, &status) != 0) {
        if (errno == ENOENT || errno == ENOTDIR) {
            log_err_as(NAME, "volume %s is not there\n", root);
        } else {
            log_err_as(NAME, "Fail to get the status of volume %s: %s\n", root, strerror(errno));
        }
        return false;
    }
    const int empty = S_ISDIR(status.st_mode) ? is_empty_directory(root) : 0;
    if (empty == 1) {
        log_err_as(NAME, "volume %s is an empty directory: is it mounted?\n", root);
    }
    return empty == 0;
}

bool all_volumes_there(int listed, const ORBASpaceInfo* spaces) {
    if (listed != ORBA_SPACES_NAMED) {
        const bool none = listed >= 0 && spaces == nullptr;
        if (none) {
            log_err_as(NAME, "no volume is mounted\n");
        }
        return !none;
    }
    for (const ORBASpaceInfo* at = spaces; at != nullptr; at = at->next) {
        if (!volume_is_present(at->mount_path)) {
            return false;
        }
    }
    return true;
}
