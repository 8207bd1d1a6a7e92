// Calls on open files: open, read, write, seek, sync, truncate, allocate.
#include <algorithm>
#include <cstdarg>
#include <sys/types.h>

#include "campaign/preload/intercept.h"
#include "campaign/preload/own_io.h"

static_assert(sizeof(off_t) == 8);

static bool exists(int directory, const char* path) {
    struct stat status = {};
    return own_stat(directory, path, 0, &status);
}

// Records what a successful open() changed.
static void note_opened(int fd, const char* path, int flags, bool was_there) {
    struct stat status = {};
    if ((flags & (O_CREAT | O_TRUNC)) == 0 || !own_fstat(fd, &status)) {
        return;
    }
    op_head head = {op_kind::create, 0, 0, 0, status.st_dev, status.st_ino, status.st_mode & 07777};
    if ((flags & O_CREAT) != 0 && !was_there) {
        record(head, path, nullptr, nullptr, 0);
    } else if ((flags & O_TRUNC) != 0) {
        head.kind = op_kind::truncate;
        head.number = 0;
        record(head, nullptr, nullptr, nullptr, 0);
    }
}

static int guarded_open(int directory, const char* path, int flags, mode_t mode) {
    const call_subject subject = {path, -1};
    return guarded(call_kind::open, subject, -1, [&] {
        static const auto next = next_of<int(int, const char*, int, ...)>("openat");
        const bool noted = is_recording() && is_counted(subject);
        const bool was_there = noted && exists(directory, path);
        const bool changes = (flags & O_TRUNC) != 0 || ((flags & O_CREAT) != 0 && !was_there);
        if (noted && changes) {
            before_operation();
        }
        const int fd = next(directory, path, flags, mode);
        if (noted && fd >= 0) {
            note_opened(fd, path, flags, was_there);
        }
        return fd;
    });
}

static mode_t mode_of(int flags, va_list rest) {
    return (flags & (O_CREAT | O_TMPFILE)) != 0 ? va_arg(rest, mode_t) : 0;
}

// The bytes that a call moves at most.
static size_t allowed(const fault_verdict& verdict, size_t len) {
    return verdict.half_way ? std::max<size_t>(len / 2, std::min<size_t>(len, 1)) : len;
}

static off_t place_of(int fd) {
    return syscall(SYS_lseek, fd, 0, SEEK_CUR);
}

// Both kinds of write; `at` -1: at the descriptor's position.
template <class Call>
static ssize_t guarded_write(int fd, const void* bytes, size_t len, off_t at, Call call) {
    const fault_verdict verdict = next_fault(call_kind::write, {nullptr, fd});
    if (verdict.error != 0) {
        errno = verdict.error;
        return -1;
    }
    const bool noted = is_recording() && is_counted({nullptr, fd});
    if (noted) {
        before_operation();
    }
    const off_t offset = noted && at < 0 ? place_of(fd) : at;
    const ssize_t put = call(allowed(verdict, len));
    if (noted && put > 0) {
        record_on_descriptor(op_kind::write, fd, static_cast<uint64_t>(offset), bytes,
                             static_cast<size_t>(put));
    }
    return put;
}

extern "C" {

int on_open(const char* path, int flags, ...) REPLACES(open);
int on_open(const char* path, int flags, ...) {
    va_list rest;
    va_start(rest, flags);
    const mode_t mode = mode_of(flags, rest);
    va_end(rest);
    return guarded_open(AT_FDCWD, path, flags, mode);
}
int on_open64(const char* path, int flags, ...) ALSO_KNOWN_AS("open", open64);

int on_openat(int directory, const char* path, int flags, ...) REPLACES(openat);
int on_openat(int directory, const char* path, int flags, ...) {
    va_list rest;
    va_start(rest, flags);
    const mode_t mode = mode_of(flags, rest);
    va_end(rest);
    return guarded_open(directory, path, flags, mode);
}
int on_openat64(int directory, const char* path, int flags, ...) ALSO_KNOWN_AS("openat", openat64);

int on_open_2(const char* path, int flags) REPLACES(__open_2);
int on_open_2(const char* path, int flags) {
    return guarded_open(AT_FDCWD, path, flags, 0);
}
int on_open64_2(const char* path, int flags) ALSO_KNOWN_AS("__open_2", __open64_2);
int on_openat_2(int directory, const char* path, int flags) REPLACES(__openat_2);
int on_openat_2(int directory, const char* path, int flags) {
    return guarded_open(directory, path, flags, 0);
}
int on_openat64_2(int directory, const char* path, int flags)
    ALSO_KNOWN_AS("__openat_2", __openat64_2);

ssize_t on_read(int fd, void* bytes, size_t len) REPLACES(read);
ssize_t on_read(int fd, void* bytes, size_t len) {
    static const auto next = next_of<ssize_t(int, void*, size_t)>("read");
    const fault_verdict verdict = next_fault(call_kind::read, {nullptr, fd});
    if (verdict.error != 0) {
        errno = verdict.error;
        return -1;
    }
    return next(fd, bytes, allowed(verdict, len));
}
ssize_t on_read_chk(int fd, void* bytes, size_t len, size_t) REPLACES(__read_chk);
ssize_t on_read_chk(int fd, void* bytes, size_t len, size_t) {
    return on_read(fd, bytes, len);
}

ssize_t on_pread(int fd, void* bytes, size_t len, off_t offset) REPLACES(pread);
ssize_t on_pread(int fd, void* bytes, size_t len, off_t offset) {
    static const auto next = next_of<ssize_t(int, void*, size_t, off_t)>("pread");
    const fault_verdict verdict = next_fault(call_kind::read, {nullptr, fd});
    if (verdict.error != 0) {
        errno = verdict.error;
        return -1;
    }
    return next(fd, bytes, allowed(verdict, len), offset);
}
ssize_t on_pread64(int fd, void* bytes, size_t len, off_t offset) ALSO_KNOWN_AS("pread", pread64);
ssize_t on_pread_chk(int fd, void* bytes, size_t len, off_t offset, size_t) REPLACES(__pread_chk);
ssize_t on_pread_chk(int fd, void* bytes, size_t len, off_t offset, size_t) {
    return on_pread(fd, bytes, len, offset);
}
ssize_t on_pread64_chk(int fd, void* bytes, size_t len, off_t offset, size_t)
    ALSO_KNOWN_AS("__pread_chk", __pread64_chk);

ssize_t on_write(int fd, const void* bytes, size_t len) REPLACES(write);
ssize_t on_write(int fd, const void* bytes, size_t len) {
    static const auto next = next_of<ssize_t(int, const void*, size_t)>("write");
    return guarded_write(fd, bytes, len, -1, [&](size_t most) { return next(fd, bytes, most); });
}

ssize_t on_pwrite(int fd, const void* bytes, size_t len, off_t offset) REPLACES(pwrite);
ssize_t on_pwrite(int fd, const void* bytes, size_t len, off_t offset) {
    static const auto next = next_of<ssize_t(int, const void*, size_t, off_t)>("pwrite");
    return guarded_write(fd, bytes, len, offset,
                         [&](size_t most) { return next(fd, bytes, most, offset); });
}
ssize_t on_pwrite64(int fd, const void* bytes, size_t len, off_t offset)
    ALSO_KNOWN_AS("pwrite", pwrite64);

off_t on_lseek(int fd, off_t offset, int whence) REPLACES(lseek);
off_t on_lseek(int fd, off_t offset, int whence) {
    static const auto next = next_of<off_t(int, off_t, int)>("lseek");
    return guarded(call_kind::seek, {nullptr, fd}, off_t{-1},
                   [&] { return next(fd, offset, whence); });
}
off_t on_lseek64(int fd, off_t offset, int whence) ALSO_KNOWN_AS("lseek", lseek64);

int on_fsync(int fd) REPLACES(fsync);
int on_fsync(int fd) {
    static const auto next = next_of<int(int)>("fsync");
    return guarded_change(
        call_kind::sync, {nullptr, fd}, [&] { return next(fd); },
        [&] { record_on_descriptor(op_kind::sync_file, fd, 0, nullptr, 0); });
}
int on_fdatasync(int fd) ALSO_KNOWN_AS("fsync", fdatasync);

int on_syncfs(int fd) REPLACES(syncfs);
int on_syncfs(int fd) {
    static const auto next = next_of<int(int)>("syncfs");
    return guarded_change(
        call_kind::syncfs, {nullptr, fd}, [&] { return next(fd); },
        [&] { record_on_descriptor(op_kind::sync_all, fd, 0, nullptr, 0); });
}

int on_ftruncate(int fd, off_t size) REPLACES(ftruncate);
int on_ftruncate(int fd, off_t size) {
    static const auto next = next_of<int(int, off_t)>("ftruncate");
    return guarded_change(
        call_kind::truncate, {nullptr, fd}, [&] { return next(fd, size); },
        [&] {
            record_on_descriptor(op_kind::truncate, fd, static_cast<uint64_t>(size), nullptr, 0);
        });
}
int on_ftruncate64(int fd, off_t size) ALSO_KNOWN_AS("ftruncate", ftruncate64);

// Not recorded: no command that is cut punches holes.
int on_fallocate(int fd, int mode, off_t offset, off_t len) REPLACES(fallocate);
int on_fallocate(int fd, int mode, off_t offset, off_t len) {
    static const auto next = next_of<int(int, int, off_t, off_t)>("fallocate");
    return guarded(call_kind::allocate, {nullptr, fd}, -1,
                   [&] { return next(fd, mode, offset, len); });
}
int on_fallocate64(int fd, int mode, off_t offset, off_t len)
    ALSO_KNOWN_AS("fallocate", fallocate64);

int on_fchmod(int fd, mode_t mode) REPLACES(fchmod);
int on_fchmod(int fd, mode_t mode) {
    static const auto next = next_of<int(int, mode_t)>("fchmod");
    return guarded_change(
        call_kind::chmod, {nullptr, fd}, [&] { return next(fd, mode); },
        [&] { record_on_descriptor(op_kind::mode, fd, mode, nullptr, 0); });
}

// Not recorded: every file of a sample has one owner.
int on_fchown(int fd, uid_t owner, gid_t group) REPLACES(fchown);
int on_fchown(int fd, uid_t owner, gid_t group) {
    static const auto next = next_of<int(int, uid_t, gid_t)>("fchown");
    return guarded(call_kind::chown, {nullptr, fd}, -1, [&] { return next(fd, owner, group); });
}

int on_flock(int fd, int what) REPLACES(flock);
int on_flock(int fd, int what) {
    static const auto next = next_of<int(int, int)>("flock");
    return guarded(call_kind::flock, {nullptr, fd}, -1, [&] { return next(fd, what); });
}

}  // extern "C"
