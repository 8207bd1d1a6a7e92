#include "store/descriptor.h"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <limits>
#include <sys/stat.h>
#include <unistd.h>

io_fault_hook io_fault = nullptr;

static uint64_t failed_writes = 0;

// Asks the test's hook. False: the call fails with the errno that is now set.
static bool let_through(io_call call, size_t* len) {
    if (io_fault == nullptr) {
        return true;
    }
    const io_verdict verdict = io_fault(call, *len);
    *len = std::min(*len, verdict.limit);
    errno = verdict.error;
    return verdict.error == 0;
}

static bool let_through(io_call call) {
    size_t nothing = 0;
    return let_through(call, &nothing);
}

int io_open(const char* path, int flags, unsigned mode) {
    if (!let_through(io_call::open)) {
        return -1;
    }
    return open64(path, flags | O_CLOEXEC, mode);
}

ssize_t io_read(int fd, void* buf, size_t len) {
    if (!let_through(io_call::read, &len)) {
        return -1;
    }
    return read(fd, buf, len);
}

ssize_t io_write(int fd, const void* buf, size_t len) {
    const size_t wanted = len;
    const ssize_t done = let_through(io_call::write, &len) ? write(fd, buf, len) : -1;
    if (done < 0 || static_cast<size_t>(done) != wanted) {
        io_count_failed_write();
    }
    return done;
}

int64_t io_seek(int fd, uint64_t offset) {
    if (!let_through(io_call::seek)) {
        return -1;
    }
    if (offset > static_cast<uint64_t>(std::numeric_limits<int64_t>::max())) {
        errno = EINVAL;
        return -1;
    }
    return lseek64(fd, static_cast<int64_t>(offset), SEEK_SET);
}

int io_sync(int fd) {
    const int result = let_through(io_call::sync) ? fsync(fd) : -1;
    if (result != 0) {
        io_count_failed_write();
    }
    return result;
}

int io_truncate(int fd, uint64_t size) {
    if (!let_through(io_call::truncate)) {
        return -1;
    }
    if (size > static_cast<uint64_t>(std::numeric_limits<int64_t>::max())) {
        errno = EFBIG;
        return -1;
    }
    return ftruncate64(fd, static_cast<int64_t>(size));
}

void io_close(int fd) {
    if (fd != 0) {
        (void)close(fd);  // what close can still report, the sync before it has reported
    }
}

int64_t io_size(int fd) {
    struct stat64 status = {};
    return fstat64(fd, &status) == 0 ? status.st_size : -1;
}

io_file_id io_identity(int fd) {
    struct stat64 status = {};
    return fstat64(fd, &status) == 0 ? io_file_id{status.st_dev, status.st_ino} : io_file_id{};
}

bool io_same_file(const char* one, const char* other) {
    struct stat64 a = {};
    struct stat64 b = {};
    return one != nullptr && other != nullptr && stat64(one, &a) == 0 && stat64(other, &b) == 0 &&
           a.st_dev == b.st_dev && a.st_ino == b.st_ino;
}

uint64_t io_next_data(int fd, uint64_t offset, uint64_t end) {
    const int64_t found = lseek64(fd, static_cast<int64_t>(offset), SEEK_DATA);
    if (found < 0) {
        return errno == ENXIO ? end : offset;  // ENXIO: nothing but a hole up to the end
    }
    return std::min(static_cast<uint64_t>(found), end);
}

uint64_t io_next_hole(int fd, uint64_t offset, uint64_t end) {
    const int64_t found = lseek64(fd, static_cast<int64_t>(offset), SEEK_HOLE);
    return found < 0 ? end : std::min(static_cast<uint64_t>(found), end);
}

uint64_t io_failed_writes() {
    return failed_writes;
}

void io_count_failed_write() {
    failed_writes++;
}

void io_forget_failed_writes() {
    failed_writes = 0;
}

void close_synced(int fd) {
    if (fd != 0) {
        (void)io_sync(fd);  // counted there
        io_close(fd);
    }
}
