#include "store/descriptor.h"

#include <algorithm>
#include <bitset>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <limits>
#include <sys/file.h>
#include <sys/resource.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include "store/keep_journal.h"
#include "store/overlay.h"

io_fault_hook io_fault = nullptr;

// Descriptors with writes that no sync has covered. Those past the end count as written.
static std::bitset<65536> written;

static void set_written(int fd, bool value) {
    if (fd >= 0 && static_cast<size_t>(fd) < written.size()) {
        written[static_cast<size_t>(fd)] = value;
    }
}

bool io_was_written(int fd) {
    return fd < 0 || static_cast<size_t>(fd) >= written.size() || written[static_cast<size_t>(fd)];
}

// What only the disk could do: with an overlay, these calls fail.
static bool changes_the_disk(io_call call) {
    switch (call) {
        case io_call::truncate:
        case io_call::allocate:
        case io_call::rename:
        case io_call::link:
        case io_call::unlink:
        case io_call::mkdir:
        case io_call::owner:
            return true;
        default:
            return false;
    }
}

// Asks the test's hook, and then the overlay. False: the call fails with the errno that is now set.
static bool allow(io_call call, size_t* len) {
    if (io_fault != nullptr) {
        const io_verdict verdict = io_fault(call, *len);
        *len = std::min(*len, verdict.limit);
        errno = verdict.error;
        if (verdict.error != 0) {
            return false;
        }
    }
    if (io_overlay_on != nullptr && changes_the_disk(call)) {
        errno = EROFS;
        return false;
    }
    return true;
}

bool io_allow(io_call call) {
    size_t nothing = 0;
    return allow(call, &nothing);
}

int io_open(const char* path, int flags, unsigned mode) {
    if (!io_allow(io_call::open)) {
        return -1;
    }
    flags |= O_CLOEXEC;
    const int fd =
        io_overlay_on != nullptr ? io_overlay_on->open(path, flags) : open64(path, flags, mode);
    set_written(fd, false);
    return fd;
}

ssize_t io_read(int fd, void* buf, size_t len) {
    if (!allow(io_call::read, &len)) {
        return -1;
    }
    return io_overlay_on != nullptr ? io_overlay_on->read(fd, buf, len) : read(fd, buf, len);
}

ssize_t io_write(int fd, const void* buf, size_t len) {
    if (!allow(io_call::write, &len)) {
        return -1;
    }
    set_written(fd, true);
    return io_overlay_on != nullptr ? io_overlay_on->write(fd, buf, len) : write(fd, buf, len);
}

static bool is_offset(uint64_t offset) {
    errno = EINVAL;
    return offset <= static_cast<uint64_t>(std::numeric_limits<int64_t>::max());
}

ssize_t io_read_at(int fd, void* buf, size_t len, uint64_t offset) {
    if (!allow(io_call::read, &len) || !is_offset(offset)) {
        return -1;
    }
    return io_overlay_on != nullptr ? io_overlay_on->read_at(fd, buf, len, offset)
                                    : pread64(fd, buf, len, static_cast<off64_t>(offset));
}

ssize_t io_write_at(int fd, const void* buf, size_t len, uint64_t offset) {
    if (!allow(io_call::write, &len) || !is_offset(offset)) {
        return -1;
    }
    set_written(fd, true);
    return io_overlay_on != nullptr ? io_overlay_on->write_at(fd, buf, len, offset)
                                    : pwrite64(fd, buf, len, static_cast<off64_t>(offset));
}

int64_t io_seek(int fd, uint64_t offset) {
    if (!io_allow(io_call::seek)) {
        return -1;
    }
    if (offset > static_cast<uint64_t>(std::numeric_limits<int64_t>::max())) {
        errno = EINVAL;
        return -1;
    }
    return lseek64(fd, static_cast<int64_t>(offset), SEEK_SET);
}

// With an overlay nothing is written that could reach the disk.
static int sync_with(int (*sync)(int fd), int fd) {
    if (!io_allow(io_call::sync)) {
        return -1;
    }
    return io_overlay_on != nullptr ? 0 : sync(fd);
}

int io_sync(int fd) {
    return sync_with(fsync, fd);
}

int io_sync_file_system(int fd) {
    return sync_with(syncfs, fd);
}

int io_truncate(int fd, uint64_t size) {
    if (!io_allow(io_call::truncate)) {
        return -1;
    }
    if (size > static_cast<uint64_t>(std::numeric_limits<int64_t>::max())) {
        errno = EFBIG;
        return -1;
    }
    set_written(fd, true);
    return ftruncate64(fd, static_cast<int64_t>(size));
}

void io_close(int fd) {
    if (fd != 0) {
        set_written(fd, false);
        if (io_overlay_on != nullptr) {
            io_overlay_on->forget_descriptor(fd);
        }
        (void)close(fd);  // what close can still report, the sync before it has reported
    }
}

int64_t io_size(int fd) {
    if (io_overlay_on != nullptr) {
        return io_overlay_on->size(fd);
    }
    struct stat64 status = {};
    return fstat64(fd, &status) == 0 ? status.st_size : -1;
}

int io_set_owner(int fd, uid_t uid, gid_t gid) {
    return io_allow(io_call::owner) ? fchown(fd, uid, gid) : -1;
}

int io_set_mode(int fd, mode_t mode) {
    return io_allow(io_call::owner) ? fchmod(fd, mode) : -1;
}

int io_lock(int fd) {
    if (!io_allow(io_call::lock)) {
        return -1;
    }
    return io_overlay_on != nullptr ? 0 : flock(fd, LOCK_EX | LOCK_NB);
}

static int stat_with(int (*system_call)(const char* path, struct stat64* status), const char* path,
                     struct stat64* status) {
    const int result = io_allow(io_call::stat) ? system_call(path, status) : -1;
    if (result == 0 && io_overlay_on != nullptr) {
        io_overlay_on->correct(status);
    }
    return result;
}

int io_stat(const char* path, struct stat64* status) {
    return stat_with(stat64, path, status);
}

int io_lstat(const char* path, struct stat64* status) {
    return stat_with(lstat64, path, status);
}

int64_t io_available(const char* path) {
    struct statvfs64 status = {};
    if (!io_allow(io_call::stat) || statvfs64(path, &status) != 0) {
        return -1;
    }
    uint64_t bytes = 0;
    const bool fits =
        !__builtin_mul_overflow(uint64_t{status.f_bavail}, uint64_t{status.f_frsize}, &bytes) &&
        bytes <= uint64_t{INT64_MAX};
    return fits ? static_cast<int64_t>(bytes) : INT64_MAX;
}

int io_rename(const char* from, const char* to) {
    return io_allow(io_call::rename) ? rename(from, to) : -1;
}

int io_link(const char* from, const char* to) {
    return io_allow(io_call::link) ? link(from, to) : -1;
}

int io_unlink(const char* path) {
    return io_allow(io_call::unlink) ? unlink(path) : -1;
}

int io_mkdir(const char* path, mode_t mode) {
    return io_allow(io_call::mkdir) ? mkdir(path, mode) : -1;
}

char* io_real_path(const char* path, char* out) {
    return io_allow(io_call::stat) ? realpath(path, out) : nullptr;
}

DIR* io_open_directory(const char* path) {
    return io_allow(io_call::list) ? opendir(path) : nullptr;
}

int io_next_entry(DIR* directory, const char** name) {
    *name = nullptr;
    if (!io_allow(io_call::list)) {
        return -1;
    }
    errno = 0;
    const dirent64* entry = readdir64(directory);
    if (entry == nullptr) {
        return errno == 0 ? 0 : -1;
    }
    *name = entry->d_name;
    return 0;
}

void raise_open_file_limit() {
    struct rlimit limit = {};
    if (getrlimit(RLIMIT_NOFILE, &limit) == 0 && limit.rlim_cur < limit.rlim_max) {
        limit.rlim_cur = limit.rlim_max;
        (void)setrlimit(RLIMIT_NOFILE, &limit);  // deliberate: see the contract
    }
}

io_file_id io_identity(int fd) {
    struct stat64 status = {};
    return fstat64(fd, &status) == 0 ? io_file_id{status.st_dev, status.st_ino} : io_file_id{};
}

int io_same_file(const char* one, const char* other) {
    struct stat64 a = {};
    struct stat64 b = {};
    if (one == nullptr || other == nullptr) {
        return 0;
    }
    if (io_stat(one, &a) != 0 || io_stat(other, &b) != 0) {
        return errno == ENOENT || errno == ENOTDIR || errno == ENAMETOOLONG ? 0 : -1;
    }
    return a.st_dev == b.st_dev && a.st_ino == b.st_ino ? 1 : 0;
}

const char* io_name(int fd, char* out, size_t size) {
    char link[32];
    snprintf(link, sizeof link, "/proc/self/fd/%d", fd);
    const ssize_t length = readlink(link, out, size - 1);
    if (length > 0) {
        out[length] = '\0';
    } else {
        snprintf(out, size, "descriptor %d", fd);
    }
    return out;
}

static uint64_t data_on_disk(int fd, uint64_t offset, uint64_t end) {
    const int64_t found = lseek64(fd, static_cast<int64_t>(offset), SEEK_DATA);
    if (found < 0) {
        return errno == ENXIO ? end : offset;  // ENXIO: nothing but a hole up to the end
    }
    return std::min(static_cast<uint64_t>(found), end);
}

uint64_t io_next_data(int fd, uint64_t offset, uint64_t end) {
    const uint64_t on_disk = data_on_disk(fd, offset, end);
    return io_overlay_on != nullptr ? io_overlay_on->next_data(fd, offset, on_disk) : on_disk;
}

uint64_t io_next_hole(int fd, uint64_t offset, uint64_t end) {
    if (io_overlay_on != nullptr) {
        return io_overlay_on->next_hole(fd, offset, end);
    }
    const int64_t found = lseek64(fd, static_cast<int64_t>(offset), SEEK_HOLE);
    return found < 0 ? end : std::min(static_cast<uint64_t>(found), end);
}

void close_synced(int fd) {
    if (fd == 0) {
        return;
    }
    if (io_was_written(fd) && io_sync(fd) != 0) {
        const int error = errno;
        char name[IO_NAME_SIZE];
        log_keep(keep_reason::failed_write, "Fail to sync %s: %s\n", io_name(fd, name, sizeof name),
                 strerror(error));
    }
    io_close(fd);
}
