#include "system/support/private_root.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <sched.h>
#include <sys/mount.h>
#include <sys/statvfs.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace fs = std::filesystem;

static std::string failed(const std::string& what) {
    return what + ": " + strerror(errno);
}

static bool write_text(const char* path, const std::string& text) {
    const int fd = open(path, O_WRONLY | O_CLOEXEC);
    if (fd < 0) {
        return false;
    }
    const bool written = write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size());
    close(fd);
    return written;
}

// Whoever may not mount, as root of a container may not, becomes root of a user namespace.
static std::string leave_namespaces() {
    const uid_t uid = geteuid();
    const gid_t gid = getegid();
    if (unshare(CLONE_NEWNS) == 0) {
        return "";
    }
    if (unshare(CLONE_NEWUSER | CLONE_NEWNS) != 0) {
        return failed("a namespace (the tests need CAP_SYS_ADMIN, or user namespaces)");
    }
    (void)write_text("/proc/self/setgroups", "deny");  // older kernels have no such file
    if (!write_text("/proc/self/uid_map", "0 " + std::to_string(uid) + " 1") ||
        !write_text("/proc/self/gid_map", "0 " + std::to_string(gid) + " 1")) {
        return failed("the ids of the user namespace");
    }
    return "";
}

// The mount flags of `path` that a remount has to repeat.
static unsigned long kept_flags(const std::string& path) {
    struct statvfs status = {};
    if (statvfs(path.c_str(), &status) != 0) {
        return 0;
    }
    unsigned long flags = 0;
    flags |= (status.f_flag & ST_NOSUID) != 0 ? MS_NOSUID : 0;
    flags |= (status.f_flag & ST_NODEV) != 0 ? MS_NODEV : 0;
    flags |= (status.f_flag & ST_NOEXEC) != 0 ? MS_NOEXEC : 0;
    flags |= (status.f_flag & ST_NOATIME) != 0 ? MS_NOATIME : 0;
    flags |= (status.f_flag & ST_RELATIME) != 0 ? MS_RELATIME : 0;
    return flags;
}

static std::string bind(const std::string& root, const bound_path& binding) {
    const std::string target = root + binding.inside;
    std::error_code error;
    if (fs::is_directory(binding.outside, error)) {
        fs::create_directories(target, error);
    } else {
        fs::create_directories(fs::path(target).parent_path(), error);
        std::ofstream file(target);
    }
    if (mount(binding.outside.c_str(), target.c_str(), nullptr, MS_BIND | MS_REC, nullptr) != 0) {
        return failed("binding " + binding.outside + " to " + target);
    }
    const unsigned long flags = MS_REMOUNT | MS_BIND | MS_RDONLY | kept_flags(target);
    if (binding.read_only && mount(nullptr, target.c_str(), nullptr, flags, nullptr) != 0) {
        return failed("making " + target + " read-only");
    }
    return "";
}

// /bin and the like are links where a system has one directory for both.
static std::string bind_system(const std::string& root, const std::string& path) {
    std::error_code error;
    if (fs::is_symlink(path, error)) {
        fs::copy_symlink(path, root + path, error);
        return error ? "the link " + path + ": " + error.message() : "";
    }
    return fs::exists(path, error) ? bind(root, {path, path, false}) : "";
}

static std::string fill(const std::string& root, const std::vector<bound_path>& bindings) {
    for (const char* path :
         {"/usr", "/bin", "/sbin", "/lib", "/lib64", "/etc", "/proc", "/sys", "/dev/null",
          "/dev/zero", "/dev/full", "/dev/urandom", "/dev/tty", "/dev/pts"}) {
        std::string problem = bind_system(root, path);
        if (!problem.empty()) {
            return problem;
        }
    }
    std::error_code error;
    fs::create_directories(root + "/tmp", error);
    fs::create_symlink("pts/ptmx", root + "/dev/ptmx", error);
    for (const bound_path& binding : bindings) {
        std::string problem = bind(root, binding);
        if (!problem.empty()) {
            return problem;
        }
    }
    return "";
}

// The old root goes away below the new one: pivot_root(".", ".") stacks the two.
static std::string change_root(const std::string& root) {
    if (chdir(root.c_str()) != 0 || syscall(SYS_pivot_root, ".", ".") != 0 ||
        umount2(".", MNT_DETACH) != 0 || chdir("/") != 0) {
        return failed("changing the root to " + root);
    }
    return "";
}

std::string enter_private_root(const std::string& mount_point,
                               const std::vector<bound_path>& bindings) {
    std::string problem = leave_namespaces();
    if (!problem.empty()) {
        return problem;
    }
    if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) {
        return failed("making every mount private");
    }
    if (mount("tmpfs", mount_point.c_str(), "tmpfs", 0, "mode=755") != 0) {
        return failed("a tmpfs at " + mount_point);
    }
    problem = fill(mount_point, bindings);
    return problem.empty() ? change_root(mount_point) : problem;
}
