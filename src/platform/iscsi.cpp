// Settings of the iSCSI service: the directory of its journal, and the extent size of a volume,
// which is configured for all volumes or read from the header of the volume's table. A
// configuration that contradicts the table is refused.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>

#include "metadata.h"
#include "platform.h"
#include "platform/config.h"

static constexpr uint32_t SHIFT_MIN = 9;
static constexpr uint32_t SHIFT_MAX = 30;

int ORBAiSCSIConfJournalRootPathGet(char* buffer, uint32_t size, int /*flags*/) {
    const platform_config* config = platform_config_get();
    if (config == nullptr || buffer == nullptr) {
        return -1;
    }
    const char* root = config->journal_root.value;
    const size_t length = strlen(root);
    if (length == 0 || length >= size) {
        return -1;
    }
    memcpy(buffer, root, length + 1);
    return 0;
}

static int table_path(char* path, size_t size, const char* root) {
    const int length = snprintf(path, size, "%s/@EP/EP_TBL", root);
    return length < 0 || static_cast<size_t>(length) >= size ? -1 : 0;
}

// Reads the extent size, in bytes, from the table at `path`. Returns false if it cannot be read.
static bool read_extent_size(const char* path, uint32_t* size) {
    const int fd =
        open(path, O_RDONLY | O_CLOEXEC | O_NONBLOCK);  // a pipe has no writer to wait for
    if (fd < 0) {
        return false;
    }
    uint8_t header[2 * META_NODE_SIZE];
    const bool whole = pread(fd, header, sizeof header, 0) == static_cast<ssize_t>(sizeof header);
    close(fd);
    if (whole) {
        memcpy(size, header + TBL_EXTENT_SIZE_OFFSET, sizeof *size);
    }
    return whole;
}

// The extent shift of the table of the volume at `root`. 0 if its extent size cannot be read or is
// not a power of two in range.
static uint32_t shift_of_table(const char* root) {
    char path[PATH_TEXT_SIZE];
    uint32_t size = 0;
    if (table_path(path, sizeof path, root) != 0 || !read_extent_size(path, &size)) {
        return 0;
    }
    for (uint32_t shift = SHIFT_MIN; shift <= SHIFT_MAX; shift++) {
        if (size == uint32_t{1} << shift) {
            return shift;
        }
    }
    return 0;
}

int ORBAiSCSIVAAIExtentSizeAndShiftGet(const char* root, uint32_t* size, uint32_t* shift) {
    const platform_config* config = platform_config_get();
    if (config == nullptr || root == nullptr || size == nullptr || shift == nullptr) {
        return -1;
    }
    const uint32_t of_table = shift_of_table(root);
    uint32_t wanted = of_table;
    if (config->extent_shift.given) {
        wanted = static_cast<uint32_t>(strtoul(config->extent_shift.value, nullptr, 10));
    }
    if (of_table != 0 && of_table != wanted) {
        platform_report("extent_shift = %u, but the table of %s says %u\n", wanted, root, of_table);
        return -1;
    }
    if (wanted == 0) {
        return -1;
    }
    *shift = wanted;
    *size = uint32_t{1} << wanted;
    return 0;
}
