#include "store/overlay.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <limits>
#include <new>
#include <unistd.h>

#include "store/zero_memory.h"

io_overlay* io_overlay_on = nullptr;

// Descriptors past the end are looked up at each call.
static constexpr size_t DESCRIPTORS = 65536;

static bool has_place(int fd) {
    return fd >= 0 && static_cast<size_t>(fd) < DESCRIPTORS;
}

size_t io_overlay::hash_of_id::operator()(const io_file_id& id) const {
    return (id.inode ^ id.device << 32) * 0x9E3779B97F4A7C15;
}

// Without memory for the descriptors it is on all the same: nothing may reach the disk.
io_overlay::io_overlay(size_t max_blocks)
    : max_blocks_(max_blocks),
      descriptors_(static_cast<opened*>(zero_memory(DESCRIPTORS * sizeof(opened)))) {
    io_overlay_on = this;
}

io_overlay::~io_overlay() {
    io_overlay_on = nullptr;
    zero_memory_free(descriptors_, DESCRIPTORS * sizeof(opened));
}

// -1, with the errno of a call that got no memory.
int io_overlay::fail_without_memory() {
    ran_out_ = true;
    errno = ENOMEM;
    return -1;
}

// Keeps what `fd` was opened as. `fd`; -1 if that fails, and it is closed.
int io_overlay::keep_descriptor(int fd, bool writable) {
    struct stat64 status = {};
    const bool found = fstat64(fd, &status) == 0;
    if (!found || (writable && S_ISDIR(status.st_mode))) {
        const int error = found ? EISDIR : errno;
        (void)close(fd);
        errno = error;
        return -1;
    }
    if (has_place(fd)) {
        descriptors_[fd] = {
            {status.st_dev, status.st_ino}, true, S_ISREG(status.st_mode), writable};
    }
    return fd;
}

int io_overlay::open(const char* path, int flags) {
    if (descriptors_ == nullptr) {
        return fail_without_memory();
    }
    if ((flags & (O_TRUNC | O_APPEND)) != 0 || (flags & O_TMPFILE) == O_TMPFILE) {
        errno = EROFS;
        return -1;
    }
    const bool creates = (flags & O_CREAT) != 0;
    const int fd = open64(path, (flags & ~(O_ACCMODE | O_CREAT | O_EXCL)) | O_RDONLY);
    if (fd < 0) {
        errno = creates && errno == ENOENT ? EROFS : errno;
        return -1;
    }
    if (creates && (flags & O_EXCL) != 0) {
        (void)close(fd);
        errno = EEXIST;
        return -1;
    }
    return keep_descriptor(fd, (flags & O_ACCMODE) != O_RDONLY);
}

void io_overlay::forget_descriptor(int fd) {
    if (descriptors_ != nullptr && has_place(fd)) {
        descriptors_[fd] = {};
    }
}

// False: there is no such descriptor; errno is set.
bool io_overlay::find_opened(int fd, opened* found) const {
    if (descriptors_ != nullptr && has_place(fd) && descriptors_[fd].known) {
        *found = descriptors_[fd];
        return true;
    }
    struct stat64 status = {};
    const int flags = fcntl(fd, F_GETFL);
    if (flags < 0 || fstat64(fd, &status) != 0) {
        return false;
    }
    const bool writable = (flags & O_ACCMODE) != O_RDONLY;
    *found = {{status.st_dev, status.st_ino}, false, S_ISREG(status.st_mode), writable};
    return true;
}

// Null: nothing was written to the file, and the system answers.
const io_overlay::file* io_overlay::find_file(int fd) const {
    opened found = {};
    if (files_.empty() || !find_opened(fd, &found)) {
        return nullptr;
    }
    const auto at = files_.find(found.id);
    return at != files_.end() ? &at->second : nullptr;
}

// Null without memory.
io_overlay::file* io_overlay::make_file(const io_file_id& id) {
    try {
        return &files_[id];
    } catch (const std::bad_alloc&) {
        (void)fail_without_memory();
        return nullptr;
    }
}

// Fills a block with what the disk has of it; zeros past the end of the file.
static bool read_block(int fd, uint64_t number, uint8_t* bytes) {
    size_t done = 0;
    while (done < OVERLAY_BLOCK_SIZE) {
        const ssize_t got = pread64(fd, bytes + done, OVERLAY_BLOCK_SIZE - done,
                                    static_cast<off64_t>(number * OVERLAY_BLOCK_SIZE + done));
        if (got < 0) {
            return false;
        }
        if (got == 0) {
            break;
        }
        done += static_cast<size_t>(got);
    }
    return true;
}

// Adds a block, which begins as it is on disk unless it will be written as a `whole`.
bool io_overlay::add_block(int fd, file* to, uint64_t number, bool whole) {
    if (block_count_ >= max_blocks_) {
        (void)fail_without_memory();
        return false;
    }
    block fresh = {};
    if (!whole && !read_block(fd, number, fresh.bytes)) {
        return false;
    }
    try {
        to->blocks.emplace(number, fresh);
    } catch (const std::bad_alloc&) {
        (void)fail_without_memory();
        return false;
    }
    block_count_++;
    return true;
}

// Writes bytes of one block.
bool io_overlay::put(int fd, file* to, uint64_t offset, const uint8_t* bytes, size_t len) {
    const uint64_t number = offset / OVERLAY_BLOCK_SIZE;
    auto at = to->blocks.find(number);
    if (at == to->blocks.end()) {
        if (!add_block(fd, to, number, len == OVERLAY_BLOCK_SIZE)) {
            return false;
        }
        at = to->blocks.find(number);
    }
    memcpy(at->second.bytes + offset % OVERLAY_BLOCK_SIZE, bytes, len);
    to->end = std::max(to->end, offset + len);
    return true;
}

// The transfers at the position of a descriptor: `move` at that place, and the position after it.
template <class Move>
static ssize_t at_position(int fd, Move move) {
    const int64_t position = lseek64(fd, 0, SEEK_CUR);
    if (position < 0) {
        return -1;
    }
    const ssize_t moved = move(static_cast<uint64_t>(position));
    if (moved > 0 && lseek64(fd, position + moved, SEEK_SET) < 0) {
        return -1;
    }
    return moved;
}

ssize_t io_overlay::write(int fd, const void* buf, size_t len) {
    return at_position(fd, [&](uint64_t position) { return write_at(fd, buf, len, position); });
}

// The file to write `len` bytes of at `offset`, made if it is new. Null: errno is set.
io_overlay::file* io_overlay::file_to_write(int fd, size_t len, uint64_t offset) {
    opened found = {};
    if (!find_opened(fd, &found)) {
        return nullptr;
    }
    if (!found.writable || !found.regular) {
        errno = found.writable ? EROFS : EBADF;
        return nullptr;
    }
    if (len > static_cast<uint64_t>(std::numeric_limits<int64_t>::max()) - offset) {
        errno = EFBIG;
        return nullptr;
    }
    return make_file(found.id);
}

ssize_t io_overlay::write_at(int fd, const void* buf, size_t len, uint64_t offset) {
    file* const to = file_to_write(fd, len, offset);
    if (to == nullptr) {
        return -1;
    }
    const auto* bytes = static_cast<const uint8_t*>(buf);
    size_t done = 0;
    while (done < len) {
        const uint64_t at = offset + done;
        const size_t part = std::min(len - done, OVERLAY_BLOCK_SIZE - at % OVERLAY_BLOCK_SIZE);
        if (!put(fd, to, at, bytes + done, part)) {
            return done > 0 ? static_cast<ssize_t>(done) : -1;
        }
        done += part;
    }
    return static_cast<ssize_t>(done);
}

// The bytes that the disk has; -1 on failure.
static int64_t size_on_disk(int fd) {
    struct stat64 status = {};
    return fstat64(fd, &status) == 0 ? status.st_size : -1;
}

// `len` bytes at `offset`, which the file is known to have, from the disk: zeros past its end
// there. Fewer if the transfer ends before it.
static ssize_t read_disk(int fd, uint8_t* bytes, size_t len, uint64_t offset, uint64_t disk_size) {
    const size_t stored = offset < disk_size ? std::min(len, disk_size - offset) : 0;
    const ssize_t got = stored == 0 ? 0 : pread64(fd, bytes, stored, static_cast<off64_t>(offset));
    if (got < 0 || static_cast<size_t>(got) < stored) {
        return got;
    }
    memset(bytes + stored, 0, len - stored);
    return static_cast<ssize_t>(len);
}

using block_number = uint64_t;

// Whether every block of a range is kept; `at` is the first one that is, from the range's begin on.
template <class Iterator>
static bool covers(Iterator at, Iterator end, block_number first, block_number last) {
    block_number number = first;
    while (number <= last && at != end && at->first == number) {
        ++at;
        ++number;
    }
    return number > last;
}

// Copies the part of one kept block that lies in the range of `len` bytes at `offset`.
static void lay_over(const uint8_t* block, block_number number, uint8_t* bytes, size_t len,
                     uint64_t offset) {
    const uint64_t begin = std::max(offset, number * OVERLAY_BLOCK_SIZE);
    const uint64_t end = std::min(offset + len, (number + 1) * OVERLAY_BLOCK_SIZE);
    memcpy(bytes + (begin - offset), block + (begin - number * OVERLAY_BLOCK_SIZE), end - begin);
}

ssize_t io_overlay::read(int fd, void* buf, size_t len) const {
    if (find_file(fd) == nullptr) {
        return ::read(fd, buf, len);
    }
    return at_position(fd, [&](uint64_t position) { return read_at(fd, buf, len, position); });
}

ssize_t io_overlay::read_at(int fd, void* buf, size_t len, uint64_t offset) const {
    const file* const from = find_file(fd);
    if (from == nullptr) {
        return pread64(fd, buf, len, static_cast<off64_t>(offset));
    }
    const int64_t disk_size = size_on_disk(fd);
    if (disk_size < 0) {
        return -1;
    }
    const uint64_t end = std::max(static_cast<uint64_t>(disk_size), from->end);
    if (len == 0 || offset >= end) {
        return 0;
    }
    len = std::min(len, end - offset);
    auto* bytes = static_cast<uint8_t*>(buf);
    const block_number last = (offset + len - 1) / OVERLAY_BLOCK_SIZE;
    auto at = from->blocks.lower_bound(offset / OVERLAY_BLOCK_SIZE);
    if (!covers(at, from->blocks.end(), offset / OVERLAY_BLOCK_SIZE, last)) {
        const ssize_t got = read_disk(fd, bytes, len, offset, static_cast<uint64_t>(disk_size));
        if (got <= 0) {
            return got;
        }
        len = static_cast<size_t>(got);
    }
    for (; at != from->blocks.end() && at->first * OVERLAY_BLOCK_SIZE < offset + len; ++at) {
        lay_over(at->second.bytes, at->first, bytes, len, offset);
    }
    return static_cast<ssize_t>(len);
}

int64_t io_overlay::size(int fd) const {
    const int64_t disk_size = size_on_disk(fd);
    const file* const found = disk_size < 0 ? nullptr : find_file(fd);
    return found == nullptr ? disk_size : std::max(disk_size, static_cast<int64_t>(found->end));
}

void io_overlay::correct(struct stat64* status) const {
    const auto at = files_.find({status->st_dev, status->st_ino});
    if (at != files_.end()) {
        status->st_size = std::max(status->st_size, static_cast<off64_t>(at->second.end));
    }
}

uint64_t io_overlay::next_data(int fd, uint64_t offset, uint64_t on_disk) const {
    const file* const found = find_file(fd);
    if (found == nullptr) {
        return on_disk;
    }
    const auto at = found->blocks.lower_bound(offset / OVERLAY_BLOCK_SIZE);
    if (at == found->blocks.end()) {
        return on_disk;
    }
    const uint64_t kept = std::max(offset, at->first * OVERLAY_BLOCK_SIZE);
    return kept < on_disk && static_cast<int64_t>(kept) < size(fd) ? kept : on_disk;
}

// The first byte from `offset` on that the disk has in a hole or not at all.
static uint64_t hole_on_disk(int fd, uint64_t offset, uint64_t disk_size) {
    if (offset >= disk_size) {
        return offset;
    }
    const int64_t found = lseek64(fd, static_cast<off64_t>(offset), SEEK_HOLE);
    return found < 0 ? disk_size : static_cast<uint64_t>(found);
}

uint64_t io_overlay::next_hole(int fd, uint64_t offset, uint64_t end) const {
    const file* const found = find_file(fd);
    const int64_t disk_size = size_on_disk(fd);
    const uint64_t kept_end = found == nullptr ? 0 : found->end;
    const uint64_t size =
        std::max(static_cast<uint64_t>(std::max<int64_t>(disk_size, 0)), kept_end);
    if (disk_size < 0 || offset >= size) {
        return end;
    }
    uint64_t at = offset;
    while (at < std::min(size, end)) {
        if (found != nullptr && found->blocks.count(at / OVERLAY_BLOCK_SIZE) != 0) {
            at += OVERLAY_BLOCK_SIZE - at % OVERLAY_BLOCK_SIZE;
            continue;
        }
        const uint64_t hole = hole_on_disk(fd, at, static_cast<uint64_t>(disk_size));
        if (hole == at) {
            return at;
        }
        at = hole;
    }
    return std::min({at, size, end});
}
