#include "volume/work_dir.h"

#include <sys/stat.h>

#include "options.h"
#include "platform.h"
#include "store/log.h"
#include "volume/volume_paths.h"

static constexpr size_t WORK_PATH_SIZE = 256;

static bool is_symbolic_link(const char* path) {
    struct stat64 status = {};
    return lstat64(path, &status) == 0 && S_ISLNK(status.st_mode);
}

void remove_work_dir(const char* dir_name) {
    char dir[WORK_PATH_SIZE];
    if (form_path(dir, sizeof dir, "%s/%s", opt_ctx.volpath, dir_name) != 0) {
        return;
    }
    if (is_symbolic_link(dir)) {
        log_err("%s is a symbolic link and stays\n", dir);
        return;
    }
    (void)OLIBCExec("/bin/rm", "-rf", dir, static_cast<char*>(nullptr));  // deliberate
}
