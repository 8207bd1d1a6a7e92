#include "volume/run_lock.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>

#include "metadata.h"
#include "platform.h"
#include "store/log.h"
#include "volume/volume_paths.h"

static const run_lock_dir* find(const run_lock* lock, io_file_id id) {
    for (uint32_t i = 0; i < lock->count; i++) {
        if (lock->dirs[i].id == id) {
            return &lock->dirs[i];
        }
    }
    return nullptr;
}

static bool make_room(run_lock* lock) {
    if (lock->count < lock->room) {
        return true;
    }
    const uint32_t room = std::max(8u, 2 * lock->room);
    auto* dirs = static_cast<run_lock_dir*>(realloc(lock->dirs, room * sizeof(run_lock_dir)));
    if (dirs == nullptr) {
        log_err_as("run_lock", "no memory for %u locks\n", room);
        return false;
    }
    lock->dirs = dirs;
    lock->room = room;
    return true;
}

static bool is_absent(int error) {
    return error == ENOENT || error == ENOTDIR || error == ENAMETOOLONG;
}

// EBADF: a network file system may need a writable descriptor, and a directory cannot have one.
static bool has_no_locks(int error) {
    return error == ENOLCK || error == ENOSYS || error == EOPNOTSUPP || error == EINVAL ||
           error == EBADF;
}

static int take_lock(int fd, const char* directory) {
    if (io_lock(fd) == 0) {
        return 0;
    }
    const int error = errno;
    if (error == EWOULDBLOCK) {
        log_err_as("run_lock", "%s is in use by another run of tarn\n", directory);
        return -1;
    }
    if (has_no_locks(error)) {
        log_err_as("run_lock", "%s cannot be locked, continuing without: %s\n", directory,
                   strerror(error));
        return 0;
    }
    log_err_as("run_lock", "Fail to lock %s: %s\n", directory, strerror(error));
    return -1;
}

int run_lock_add(run_lock* lock, const char* directory, int* fd) {
    int ignored = 0;
    int* const out = fd != nullptr ? fd : &ignored;
    *out = 0;
    const int opened = io_open(directory, O_RDONLY | O_DIRECTORY | O_NONBLOCK, 0);
    if (opened <= 0) {
        if (is_absent(errno)) {
            return 0;
        }
        log_err("Fail to open %s to lock it: %s\n", directory, strerror(errno));
        return -1;
    }
    scoped_fd dir(opened);
    const io_file_id id = io_identity(opened);
    const run_lock_dir* held = find(lock, id);
    if (held != nullptr) {
        *out = held->fd;
        return 0;
    }
    if (!make_room(lock) || take_lock(opened, directory) != 0) {
        return -1;  // logged there
    }
    *out = dir.release();
    lock->dirs[lock->count++] = {*out, id};
    return 0;
}

int run_lock_all_volumes(run_lock* lock) {
    ORBASpaceInfo* spaces = nullptr;
    if (ORBASpaceInfoEnum(1, &spaces) < 0) {
        return 0;  // the command fails in the same way and logs it
    }
    int result = 0;
    for (const ORBASpaceInfo* space = spaces; space != nullptr && result == 0;
         space = space->next) {
        if (may_be_vaai_volume(space->mount_path)) {
            result = run_lock_add(lock, space->mount_path, nullptr);
        }
    }
    ORBASpaceInfoFree(spaces);
    return result;
}

// Cuts `path` after the component that names its volume. Returns false if it is in no volume.
static bool cut_to_volume(char* path) {
    const int number = ORBAVolIDParse(path);
    if (number <= 0) {
        return false;
    }
    char word[32];
    const int length = snprintf(word, sizeof word, "/volume%d", number);
    for (char* at = strstr(path, word); at != nullptr; at = strstr(at + 1, word)) {
        if (at[length] == '/' || at[length] == '\0') {
            at[length] = '\0';
            return true;
        }
    }
    return false;
}

// Writes the directory part of `path` into `out`.
static void directory_of(const char* path, char* out) {
    const char* slash = strrchr(path, '/');
    if (slash == nullptr) {
        snprintf(out, PATH_TEXT_SIZE, ".");
        return;
    }
    const auto length = static_cast<int>(slash == path ? 1 : slash - path);
    snprintf(out, PATH_TEXT_SIZE, "%.*s", length, path);
}

int run_lock_file(run_lock* lock, const char* path) {
    if (path == nullptr || path[0] == '\0' || strlen(path) >= PATH_TEXT_SIZE) {
        return 0;
    }
    char directory[PATH_TEXT_SIZE];
    char real[PATH_MAX];
    directory_of(path, directory);
    bool found = io_real_path(path, real) != nullptr;
    if (!found && is_absent(errno)) {
        found = io_real_path(directory, real) != nullptr;
    }
    if (!found && !is_absent(errno)) {
        log_err_as("run_lock", "Fail to find the volume of %s: %s\n", path, strerror(errno));
        return -1;
    }
    if (found && cut_to_volume(real)) {
        return run_lock_add(lock, real, nullptr);
    }
    snprintf(directory, sizeof directory, "%s", path);  // a volume that is a link to elsewhere
    return cut_to_volume(directory) ? run_lock_add(lock, directory, nullptr) : 0;
}

int run_lock_journal(run_lock* lock, const char* path, int* fd) {
    if (fd != nullptr) {
        *fd = 0;
    }
    if (path[0] == '\0') {
        return 0;
    }
    char directory[PATH_TEXT_SIZE];
    char real[PATH_MAX];
    const bool found = io_real_path(path, real) != nullptr;  // the journal may be a link
    directory_of(found ? real : path, directory);
    return run_lock_add(lock, directory, fd);
}

void run_lock_release(run_lock* lock) {
    for (uint32_t i = 0; i < lock->count; i++) {
        io_close(lock->dirs[i].fd);
    }
    free(lock->dirs);
    *lock = {};
}
