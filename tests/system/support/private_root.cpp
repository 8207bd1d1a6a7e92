#include "system/support/private_root.h"

#include <algorithm>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <sys/mount.h>
#include <sys/statvfs.h>
#include <sys/wait.h>
#include <unistd.h>

#include "support/scratch_file.h"
#include "system/support/mounts.h"

namespace fs = std::filesystem;

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
    fs::create_directories(root + "/proc", error);
    if (!fs::exists("/proc/self", error) &&
        mount("proc", (root + "/proc").c_str(), "proc", 0, nullptr) != 0) {
        return failed("a private /proc");
    }
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

static std::string change_root(const std::string& root) {
    if (chroot(root.c_str()) != 0 || chdir("/") != 0) {
        return failed("changing the root to " + root);
    }
    return "";
}

std::string enter_private_root(const std::string& mount_point,
                               const std::vector<bound_path>& bindings) {
    std::string problem = leave_mount_namespace(mount_point);
    if (!problem.empty()) {
        return problem;
    }
    if (mount("tmpfs", mount_point.c_str(), "tmpfs", 0, "mode=755") != 0) {
        return failed("a tmpfs at " + mount_point);
    }
    problem = fill(mount_point, bindings);
    return problem.empty() ? change_root(mount_point) : problem;
}

std::string in_a_process_of_its_own(const std::function<std::string()>& what) {
    int ends[2] = {-1, -1};
    if (pipe2(ends, O_CLOEXEC) != 0) {
        return failed("a pipe");
    }
    const pid_t pid = fork();
    if (pid == 0) {
        const std::string problem = what();
        (void)!write(ends[1], problem.data(), problem.size());
        _exit(0);
    }
    close(ends[1]);
    std::string problem = pid < 0 ? failed("a process") : "";
    char buffer[1024];
    const ssize_t got = read(ends[0], buffer, sizeof buffer);
    problem.append(buffer, static_cast<size_t>(std::max<ssize_t>(got, 0)));
    close(ends[0]);
    int status = 0;
    if (pid > 0 && (waitpid(pid, &status, 0) != pid || status != 0)) {
        problem += "the process did not end by itself";
    }
    return problem;
}

std::string why_no_private_root() {
    const scratch_dir place;
    return in_a_process_of_its_own([&place] { return enter_private_root(place.path(), {}); });
}
