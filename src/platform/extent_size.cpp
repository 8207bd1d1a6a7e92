// The extent size of a volume: configured for all, or as its extent table's header says.
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <unistd.h>

#include "platform.h"
#include "platform/config.h"
#include "tbl/tbl_format.h"

static constexpr uint32_t SHIFT_MIN = 9;
static constexpr uint32_t SHIFT_MAX = 30;

// The extent size, in bytes, of the table of the volume at `root`. False: it cannot be read.
static bool read_extent_size(const char* root, uint32_t* size) {
    char path[PATH_TEXT_SIZE];
    const int length = snprintf(path, sizeof path, "%s/@EP/EP_TBL", root);
    if (length < 0 || static_cast<size_t>(length) >= sizeof path) {
        return false;
    }
    const int fd = open(path, O_RDONLY | O_CLOEXEC | O_NONBLOCK);  // a pipe has no one to wait for
    if (fd < 0) {
        return false;
    }
    tbl_header header{};
    const bool whole = pread(fd, &header, sizeof header, 0) == static_cast<ssize_t>(sizeof header);
    close(fd);
    *size = header.tbl_extent_size;
    return whole;
}

int ORBAiSCSIVAAIExtentSizeAndShiftGet(const char* root, uint32_t* size, uint32_t* shift) {
    const platform_config* config = platform_config_get();
    if (config == nullptr || root == nullptr || size == nullptr || shift == nullptr) {
        return -1;
    }
    if (config->extent_shift.given) {
        *shift = static_cast<uint32_t>(strtoul(config->extent_shift.value, nullptr, 10));
        *size = uint32_t{1} << *shift;
        return 0;
    }
    uint32_t read_size = 0;
    if (!read_extent_size(root, &read_size)) {
        return -1;
    }
    for (uint32_t s = SHIFT_MIN; s <= SHIFT_MAX; s++) {
        if (read_size == uint32_t{1} << s) {
            *size = read_size;
            *shift = s;
            return 0;
        }
    }
    return -1;
}
