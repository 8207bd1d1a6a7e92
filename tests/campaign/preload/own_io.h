// Input and output of the preload library itself, bypassing the calls that it replaces.
// Below: the system. Above: every other file of the library.
#pragma once

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

// The program's own descriptors stay as they would be without the library, which uses higher
// numbers. Returns -1 if the file cannot be created.
inline int own_open(const char* path) {
    const long low =
        syscall(SYS_openat, AT_FDCWD, path, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
    if (low < 0) {
        return -1;
    }
    const long high = syscall(SYS_fcntl, low, F_DUPFD_CLOEXEC, 200);
    syscall(SYS_close, low);
    return static_cast<int>(high);
}

inline void own_write(int fd, const void* bytes, size_t len) {
    const char* at = static_cast<const char*>(bytes);
    while (len > 0) {
        const long put = syscall(SYS_write, fd, at, len);
        if (put <= 0) {
            return;
        }
        at += put;
        len -= static_cast<size_t>(put);
    }
}

inline bool own_stat(int directory, const char* path, int flags, struct stat* status) {
    return syscall(SYS_newfstatat, directory, path, status, flags) == 0;
}

inline bool own_fstat(int fd, struct stat* status) {
    return own_stat(fd, "", AT_EMPTY_PATH, status);
}

// The path of an open descriptor, "" when it has none.
inline void own_path_of(int fd, char* path, size_t size) {
    char link[] = "/proc/self/fd/0123456789ab";
    char* at = link + sizeof "/proc/self/fd/" - 1;
    char digits[12];
    int count = 0;
    do {
        digits[count++] = static_cast<char>('0' + fd % 10);
        fd /= 10;
    } while (fd > 0);
    while (count > 0) {
        *at++ = digits[--count];
    }
    *at = '\0';
    const long got = syscall(SYS_readlinkat, AT_FDCWD, link, path, size - 1);
    path[got > 0 ? got : 0] = '\0';
}
