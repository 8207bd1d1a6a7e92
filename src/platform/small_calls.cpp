// The calls that need neither a configuration nor a program: the remembered error code, how a
// volume is mounted, and space of files.
#include <cstdio>
#include <fcntl.h>
#include <sys/statvfs.h>

#include "platform.h"

static int remembered = 0;

void OLIBCErrSet(int code) {
    remembered = code;
}

int OLIBCErrGet(void) {
    return remembered;
}

int ORBAMountVolInfoGet(const char* volume_path, struct ORBAMountVolInfo* info) {
    struct statvfs status = {};
    if (volume_path == nullptr || info == nullptr || statvfs(volume_path, &status) != 0) {
        return -1;
    }
    snprintf(info->mount_path, sizeof info->mount_path, "%s", volume_path);
    info->writable = (status.f_flag & ST_RDONLY) == 0 ? 1 : 0;
    return 0;
}

int ORBAFSFallocate(int fd, int mode, int64_t offset, int64_t length) {
    return fallocate64(fd, mode, offset, length);
}
