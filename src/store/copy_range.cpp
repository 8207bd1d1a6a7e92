// The copy within the system. A file of its own, so that a program that never copies does not link
// the call.
#include <cerrno>
#include <limits>
#include <unistd.h>

#include "store/descriptor.h"

static bool fits_off_t(uint64_t offset) {
    return offset <= static_cast<uint64_t>(std::numeric_limits<int64_t>::max());
}

ssize_t io_copy(int from, uint64_t from_offset, int to, uint64_t to_offset, size_t len) {
    if (!io_allow(io_call::write)) {
        return -1;
    }
    if (!fits_off_t(from_offset) || !fits_off_t(to_offset) || io_overlay_on != nullptr) {
        errno = io_overlay_on != nullptr ? EROFS : EINVAL;
        return -1;
    }
    auto in = static_cast<off64_t>(from_offset);
    auto out = static_cast<off64_t>(to_offset);
    return copy_file_range(from, &in, to, &out, len, 0);
}
