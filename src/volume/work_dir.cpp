#include "volume/work_dir.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>

#include "platform.h"
#include "store/descriptor.h"
#include "store/keep_journal.h"
#include "volume/volume_paths.h"

static constexpr size_t WORK_PATH_SIZE = 256;

// Whether `dir` may be removed; why not is logged.
static bool may_be_removed(const char* dir) {
    constexpr const char* name = "remove_work_dir";
    struct stat64 status = {};
    if (io_lstat(dir, &status) != 0) {
        if (errno == ENOENT) {
            return true;  // the program finds nothing to remove
        }
        log_err_as(name, "Fail to get the status of %s: %s\n", dir, strerror(errno));
        return false;
    }
    if (S_ISLNK(status.st_mode)) {
        log_err_as(name, "%s is a symbolic link and is not removed\n", dir);
        return false;
    }
    return true;
}

void remove_work_dir(const char* root, const char* dir_name) {
    char dir[WORK_PATH_SIZE];
    if (form_path(dir, sizeof dir, "%s/%s", root, dir_name) != 0 || !may_be_removed(dir)) {
        return;
    }
    const int status = io_allow(io_call::spawn)
                           ? OLIBCExec("/bin/rm", "-rf", dir, static_cast<char*>(nullptr))
                           : -1;
    if (status != 0) {
        log_err("Fail to remove %s: '/bin/rm' gave %d\n", dir, status);
    }
}

int sync_directory(const char* path) {
    const int fd = io_open(path, O_RDONLY | O_DIRECTORY, 0);
    const scoped_fd directory(fd > 0 ? fd : 0);
    if (fd <= 0 || io_sync(fd) != 0) {
        const int error = errno;
        log_keep(keep_reason::failed_write, "Fail to sync directory %s: %s\n", path,
                 strerror(error));
        return -1;
    }
    return 0;
}
