// Space of files.
#include <fcntl.h>

#include "platform.h"

int ORBAFSFallocate(int fd, int mode, int64_t offset, int64_t length) {
    return fallocate64(fd, mode, offset, length);
}
