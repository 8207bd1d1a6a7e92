// How a volume is mounted.
#include <cstdio>
#include <sys/statvfs.h>

#include "platform.h"

int ORBAMountVolInfoGet(const char* volume_path, struct ORBAMountVolInfo* info) {
    struct statvfs status = {};
    if (volume_path == nullptr || info == nullptr || statvfs(volume_path, &status) != 0) {
        return -1;
    }
    snprintf(info->mount_path, sizeof info->mount_path, "%s", volume_path);
    info->writable = (status.f_flag & ST_RDONLY) == 0 ? 1 : 0;
    return 0;
}
