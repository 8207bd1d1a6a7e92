#include "system/support/mounts.h"

#include <cerrno>
#include <climits>
#include <cstring>
#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <unistd.h>

std::string failed(const std::string& what) {
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

// A user who may not mount, such as root of a container, becomes root of a user namespace.
static std::string leave_namespaces() {
    const uid_t uid = geteuid();
    const gid_t gid = getegid();
    if (unshare(CLONE_NEWNS) == 0) {
        return "";
    }
    if (unshare(CLONE_NEWUSER | CLONE_NEWNS) != 0) {
        return failed("a namespace (needs CAP_SYS_ADMIN, or user namespaces outside of a chroot)");
    }
    (void)write_text("/proc/self/setgroups", "deny");  // older kernels have no such file
    if (!write_text("/proc/self/uid_map", "0 " + std::to_string(uid) + " 1") ||
        !write_text("/proc/self/gid_map", "0 " + std::to_string(gid) + " 1")) {
        return failed("the ids of the user namespace");
    }
    return "";
}

static bool make_all_private() {
    return mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0;
}

// The working directory becomes the namespace's own root: it stays outside when the root goes below
// it, and no path is deeper than that many steps.
static bool climb_out(const std::string& below_root) {
    if (chdir("/") != 0 || chroot(below_root.c_str()) != 0) {
        return false;
    }
    for (int i = 0; i < PATH_MAX; i++) {
        if (chdir("..") != 0) {
            return false;
        }
    }
    return chroot(".") == 0;
}

// In a plain chroot the mount that the root lies in has no name. It may be shared with the host,
// which would then see and keep what is mounted below; so it is made private from above.
static std::string make_private_from_above(const std::string& below_root) {
    const int root = open("/", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (root < 0) {
        return failed("the root");
    }
    const bool made = climb_out(below_root) && make_all_private() && fchdir(root) == 0 &&
                      chroot(".") == 0 && chdir("/") == 0;
    std::string problem = made ? "" : failed("making the mounts above a chroot private");
    close(root);
    return problem;
}

std::string leave_mount_namespace(const std::string& below_root) {
    std::string problem = leave_namespaces();
    if (!problem.empty() || make_all_private()) {
        return problem;
    }
    return errno == EINVAL ? make_private_from_above(below_root)
                           : failed("making every mount private");
}
