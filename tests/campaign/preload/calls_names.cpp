// Calls on names: stat, rename, link, unlink, directories, and the start of programs.
#include <cstdio>
#include <dirent.h>
#include <spawn.h>
#include <sys/statvfs.h>
#include <sys/types.h>

#include "campaign/preload/intercept.h"
#include "campaign/preload/own_io.h"

static_assert(sizeof(struct stat) == sizeof(struct stat64));
static_assert(sizeof(struct statvfs) == sizeof(struct statvfs64));
static_assert(sizeof(struct dirent) == sizeof(struct dirent64));

// The absolute form of a path below an open directory.
struct full_path {
    full_path(int directory, const char* path) : text() {
        char parent[4096] = "";
        const bool relative = path[0] != '/' && directory != AT_FDCWD;
        if (relative) {
            own_path_of(directory, parent, sizeof parent);
        }
        snprintf(text, sizeof text, "%s%s%s", parent, relative ? "/" : "", path);
    }
    char text[8192];
};

static void note(op_kind kind, const char* path, const char* other = nullptr) {
    record({kind, 0, 0, 0, 0, 0, 0}, path, other, nullptr, 0);
}

extern "C" {

int on_fstatat(int directory, const char* path, struct stat* out, int flags) REPLACES(fstatat);
int on_fstatat(int directory, const char* path, struct stat* out, int flags) {
    static const auto next = next_of<int(int, const char*, struct stat*, int)>("fstatat");
    return guarded(call_kind::stat, {path, -1}, -1,
                   [&] { return next(directory, path, out, flags); });
}
int on_fstatat64(int directory, const char* path, struct stat* out, int flags)
    ALSO_KNOWN_AS("fstatat", fstatat64);

int on_stat(const char* path, struct stat* out) REPLACES(stat);
int on_stat(const char* path, struct stat* out) {
    return on_fstatat(AT_FDCWD, path, out, 0);
}
int on_stat64(const char* path, struct stat* out) ALSO_KNOWN_AS("stat", stat64);

int on_lstat(const char* path, struct stat* out) REPLACES(lstat);
int on_lstat(const char* path, struct stat* out) {
    return on_fstatat(AT_FDCWD, path, out, AT_SYMLINK_NOFOLLOW);
}
int on_lstat64(const char* path, struct stat* out) ALSO_KNOWN_AS("lstat", lstat64);

int on_fstat(int fd, struct stat* out) REPLACES(fstat);
int on_fstat(int fd, struct stat* out) {
    static const auto next = next_of<int(int, struct stat*)>("fstat");
    return guarded(call_kind::fstat, {nullptr, fd}, -1, [&] { return next(fd, out); });
}
int on_fstat64(int fd, struct stat* out) ALSO_KNOWN_AS("fstat", fstat64);

int on_statvfs(const char* path, struct statvfs* out) REPLACES(statvfs);
int on_statvfs(const char* path, struct statvfs* out) {
    static const auto next = next_of<int(const char*, struct statvfs*)>("statvfs");
    return guarded(call_kind::statvfs, {path, -1}, -1, [&] { return next(path, out); });
}
int on_statvfs64(const char* path, struct statvfs* out) ALSO_KNOWN_AS("statvfs", statvfs64);

int on_fstatvfs(int fd, struct statvfs* out) REPLACES(fstatvfs);
int on_fstatvfs(int fd, struct statvfs* out) {
    static const auto next = next_of<int(int, struct statvfs*)>("fstatvfs");
    return guarded(call_kind::statvfs, {nullptr, fd}, -1, [&] { return next(fd, out); });
}
int on_fstatvfs64(int fd, struct statvfs* out) ALSO_KNOWN_AS("fstatvfs", fstatvfs64);

int on_renameat(int from_dir, const char* from, int to_dir, const char* to) REPLACES(renameat);
int on_renameat(int from_dir, const char* from, int to_dir, const char* to) {
    static const auto next = next_of<int(int, const char*, int, const char*)>("renameat");
    return guarded_change(
        call_kind::rename, {from, -1}, [&] { return next(from_dir, from, to_dir, to); },
        [&] { note(op_kind::rename, full_path(from_dir, from).text, full_path(to_dir, to).text); });
}
int on_rename(const char* from, const char* to) REPLACES(rename);
int on_rename(const char* from, const char* to) {
    return on_renameat(AT_FDCWD, from, AT_FDCWD, to);
}

int on_linkat(int from_dir, const char* from, int to_dir, const char* to, int flags)
    REPLACES(linkat);
int on_linkat(int from_dir, const char* from, int to_dir, const char* to, int flags) {
    static const auto next = next_of<int(int, const char*, int, const char*, int)>("linkat");
    return guarded_change(
        call_kind::link, {from, -1}, [&] { return next(from_dir, from, to_dir, to, flags); },
        [&] { note(op_kind::link, full_path(from_dir, from).text, full_path(to_dir, to).text); });
}
int on_link(const char* from, const char* to) REPLACES(link);
int on_link(const char* from, const char* to) {
    return on_linkat(AT_FDCWD, from, AT_FDCWD, to, 0);
}

int on_unlinkat(int directory, const char* path, int flags) REPLACES(unlinkat);
int on_unlinkat(int directory, const char* path, int flags) {
    static const auto next = next_of<int(int, const char*, int)>("unlinkat");
    const bool is_directory = (flags & AT_REMOVEDIR) != 0;
    return guarded_change(
        is_directory ? call_kind::rmdir : call_kind::unlink, {path, -1},
        [&] { return next(directory, path, flags); },
        [&] {
            note(is_directory ? op_kind::rmdir : op_kind::unlink, full_path(directory, path).text);
        });
}
int on_unlink(const char* path) REPLACES(unlink);
int on_unlink(const char* path) {
    return on_unlinkat(AT_FDCWD, path, 0);
}
int on_rmdir(const char* path) REPLACES(rmdir);
int on_rmdir(const char* path) {
    return on_unlinkat(AT_FDCWD, path, AT_REMOVEDIR);
}

int on_mkdirat(int directory, const char* path, mode_t mode) REPLACES(mkdirat);
int on_mkdirat(int directory, const char* path, mode_t mode) {
    static const auto next = next_of<int(int, const char*, mode_t)>("mkdirat");
    return guarded_change(
        call_kind::mkdir, {path, -1}, [&] { return next(directory, path, mode); },
        [&] { note(op_kind::mkdir, full_path(directory, path).text); });
}
int on_mkdir(const char* path, mode_t mode) REPLACES(mkdir);
int on_mkdir(const char* path, mode_t mode) {
    return on_mkdirat(AT_FDCWD, path, mode);
}

DIR* on_opendir(const char* path) REPLACES(opendir);
DIR* on_opendir(const char* path) {
    static const auto next = next_of<DIR*(const char*)>("opendir");
    return guarded(call_kind::opendir, {path, -1}, static_cast<DIR*>(nullptr),
                   [&] { return next(path); });
}
DIR* on_fdopendir(int fd) REPLACES(fdopendir);
DIR* on_fdopendir(int fd) {
    static const auto next = next_of<DIR*(int)>("fdopendir");
    return guarded(call_kind::opendir, {nullptr, fd}, static_cast<DIR*>(nullptr),
                   [&] { return next(fd); });
}
dirent* on_readdir(DIR* stream) REPLACES(readdir);
dirent* on_readdir(DIR* stream) {
    static const auto next = next_of<dirent*(DIR*)>("readdir");
    static const auto descriptor = next_of<int(DIR*)>("dirfd");
    return guarded(call_kind::readdir, {nullptr, descriptor(stream)}, static_cast<dirent*>(nullptr),
                   [&] { return next(stream); });
}
dirent* on_readdir64(DIR* stream) ALSO_KNOWN_AS("readdir", readdir64);

char* on_realpath(const char* path, char* out) REPLACES(realpath);
char* on_realpath(const char* path, char* out) {
    // The oldest version of this function does not accept null for `out`.
    static const auto next =
        reinterpret_cast<char* (*)(const char*, char*)>(dlvsym(RTLD_NEXT, "realpath", "GLIBC_2.3"));
    static const auto plain = next_of<char*(const char*, char*)>("realpath");
    return guarded(call_kind::realpath, {path, -1}, static_cast<char*>(nullptr),
                   [&] { return next != nullptr ? next(path, out) : plain(path, out); });
}
char* on_realpath_chk(const char* path, char* out, size_t) REPLACES(__realpath_chk);
char* on_realpath_chk(const char* path, char* out, size_t) {
    return on_realpath(path, out);
}

ssize_t on_readlink(const char* path, char* out, size_t size) REPLACES(readlink);
ssize_t on_readlink(const char* path, char* out, size_t size) {
    static const auto next = next_of<ssize_t(const char*, char*, size_t)>("readlink");
    return guarded(call_kind::readlink, {path, -1}, ssize_t{-1},
                   [&] { return next(path, out, size); });
}
ssize_t on_readlink_chk(const char* path, char* out, size_t size, size_t) REPLACES(__readlink_chk);
ssize_t on_readlink_chk(const char* path, char* out, size_t size, size_t) {
    return on_readlink(path, out, size);
}

// "/bin/rm -rf DIRECTORY": the one program that changes files.
static bool removes_tree(char* const argv[]) {
    return strcmp(argv[0], "/bin/rm") == 0 && argv[1] != nullptr && argv[2] != nullptr;
}

int on_posix_spawn(pid_t* pid, const char* path, const posix_spawn_file_actions_t* actions,
                   const posix_spawnattr_t* attributes, char* const argv[], char* const envp[])
    REPLACES(posix_spawn);
int on_posix_spawn(pid_t* pid, const char* path, const posix_spawn_file_actions_t* actions,
                   const posix_spawnattr_t* attributes, char* const argv[], char* const envp[]) {
    static const auto next =
        next_of<int(pid_t*, const char*, const posix_spawn_file_actions_t*,
                    const posix_spawnattr_t*, char* const*, char* const*)>("posix_spawn");
    const fault_verdict verdict = next_fault(call_kind::spawn, {path, -1});
    if (verdict.error != 0) {
        return verdict.error;
    }
    const bool noted = is_recording() && removes_tree(argv);
    if (noted) {
        before_operation();
    }
    const int result = next(pid, path, actions, attributes, argv, envp);
    if (noted && result == 0) {
        note(op_kind::remove_tree, argv[2]);
    }
    return result;
}

}  // extern "C"
