#include "store/file.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>

#include "print.h"
#include "store/descriptor.h"
#include "store/keep_journal.h"

static constexpr unsigned FILE_MODE = 0666;  // before the process umask

int open_fd(const char* path, int flags) {
    const int fd = io_open(path, flags, FILE_MODE);
    if (fd < 0) {
        log_err("open file %s fail\n", path);
    }
    return fd;
}

int create_file(const char* path, uint64_t size) {
    if (log_missing(path == nullptr, "name") || log_missing(size == 0, "size")) {
        return 0;
    }
    const int fd = open_fd(path, O_RDWR | O_CREAT | O_TRUNC | O_LARGEFILE);
    if (log_missing(fd <= 0, "fd")) {
        return 0;
    }
    if (io_truncate(fd, size) != 0) {
        log_err("fail to set %s to size %llu errno=%s\n", path, ull(size), strerror(errno));
        io_close(fd);
        return 0;
    }
    return fd;
}

bool would_empty(const char* caller, const char* path, const char* old) {
    const int same = io_same_file(path, old);
    if (same < 0) {
        log_err_as(caller, "Fail to get the status of %s or %s: %s\n", path, old, strerror(errno));
    }
    return same != 0;
}

int open_file(const char* path, file_access access) {
    if (log_missing(path == nullptr, "name")) {
        return 0;
    }
    const int flags = access == file_access::read_only ? O_RDONLY : O_RDWR;
    const int fd = open_fd(path, flags | O_LARGEFILE);
    return fd < 0 ? 0 : fd;
}

int write_fd(int fd, const void* buf, uint64_t offset, uint32_t len) {
    if (log_missing(fd == 0, "fd") || log_missing(buf == nullptr, "buf")) {
        return -1;
    }
    if (io_seek(fd, offset) < 0) {
        log_keep(keep_reason::failed_write, "fail seek to %llu\n", ull(offset));
        return -1;
    }
    const ssize_t put = io_write(fd, buf, len);
    if (put < 0) {  // the caller, who knows what the bytes mean, logs it
        const int error = errno;
        char name[IO_NAME_SIZE];
        keep_journal(keep_reason::failed_write, "write of %u bytes at byte %llu of %s: %s", len,
                     ull(offset), io_name(fd, name, sizeof name), strerror(error));
    } else if (static_cast<size_t>(put) != len) {
        char name[IO_NAME_SIZE];
        log_keep(keep_reason::failed_write, "only %zd of %u bytes written at byte %llu of %s\n",
                 put, len, ull(offset), io_name(fd, name, sizeof name));
    }
    return static_cast<int>(put);
}

int read_fd(int fd, void* buf, uint64_t offset, uint32_t len) {
    if (log_missing(fd == 0, "fd") || log_missing(buf == nullptr, "buf")) {
        return -1;
    }
    if (io_seek(fd, offset) < 0) {
        log_err("fail seek to %llu\n", ull(offset));
        return -1;
    }
    return static_cast<int>(io_read(fd, buf, len));
}

// 0 bytes are the end itself.
bool read_stopped_early(int fd, uint64_t offset, int got, size_t len) {
    uint8_t next = 0;
    return got > 0 && static_cast<size_t>(got) < len &&
           read_fd(fd, &next, offset + static_cast<uint64_t>(got), sizeof next) != 0;
}

static bool run_begins(int fd) {
    return fd != 0 && io_allow(io_call::bulk);
}

bool read_fd_run(int fd, void* buf, uint64_t offset, size_t len) {
    auto* bytes = static_cast<uint8_t*>(buf);
    if (!run_begins(fd)) {
        return false;
    }
    while (len > 0) {
        const ssize_t got = io_read_at(fd, bytes, len, offset);
        if (got < 0) {
            return false;
        }
        if (got == 0) {
            memset(bytes, 0, len);
            return true;
        }
        bytes += got;
        offset += static_cast<uint64_t>(got);
        len -= static_cast<size_t>(got);
    }
    return true;
}

bool write_fd_run(int fd, const void* buf, uint64_t offset, size_t len) {
    const auto* bytes = static_cast<const uint8_t*>(buf);
    if (!run_begins(fd)) {
        return false;
    }
    while (len > 0) {
        const ssize_t put = io_write_at(fd, bytes, len, offset);
        if (put <= 0) {
            return false;
        }
        bytes += put;
        offset += static_cast<uint64_t>(put);
        len -= static_cast<size_t>(put);
    }
    return true;
}
