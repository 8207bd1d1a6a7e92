#include "ctl/export/service.h"

#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <sstream>
#include <sys/sysmacros.h>

#include "ctl/text/escape.h"
#include "ctl/whole_file.h"
#include "platform.h"

static constexpr const char* SYSTEMCTL = "/usr/bin/systemctl";
static constexpr const char* SERVICE = "iscsitrg";

static std::string text_of(const char* path) {
    std::string text;
    const int opened = io_open(path, O_RDONLY, 0);
    if (opened <= 0) {
        return text;
    }
    const scoped_fd fd(opened);
    char bytes[4096];
    for (ssize_t got = io_read(opened, bytes, sizeof bytes); got > 0;
         got = io_read(opened, bytes, sizeof bytes)) {
        text.append(bytes, static_cast<size_t>(got));
    }
    return text;
}

// Whether a process holds an exclusive lock on the whole file. The lock is not tried: that could
// turn away a run that wants it at the same moment.
static bool is_locked(const std::string& locks, const std::string& path) {
    struct stat64 status = {};
    if (path.empty() || io_stat(path.c_str(), &status) != 0) {
        return false;
    }
    char file[64];
    snprintf(file, sizeof file, " %02x:%02x:%llu ", major(status.st_dev), minor(status.st_dev),
             static_cast<unsigned long long>(status.st_ino));
    std::istringstream lines(locks);
    for (std::string line; std::getline(lines, line);) {
        if (line.find(" FLOCK ") != std::string::npos &&
            line.find(" WRITE ") != std::string::npos && line.find(file) != std::string::npos) {
            return true;
        }
    }
    return false;
}

static std::string locked_place(const server_files& server) {
    const std::string locks = text_of("/proc/locks");
    for (const volume_files& volume : server.volumes) {
        if (is_locked(locks, volume.root)) {
            return volume.root;
        }
    }
    const bool has_journal = server.journal_state == view_state::file;
    return has_journal && is_locked(locks, directory_of(server.journal)) ? server.journal : "";
}

static bool service_is_active() {
    struct stat64 status = {};
    return io_stat("/run/systemd/system", &status) == 0 &&
           OLIBCExec(SYSTEMCTL, "is-active", "--quiet", SERVICE, nullptr) == 0;
}

std::string sign_of_a_writer(const server_files& server,
                             const std::optional<journal_moment>& journal) {
    const std::string locked = locked_place(server);
    if (!locked.empty()) {
        return "a run of tarn works on " + shown(locked);
    }
    const bool open = journal && !journal_was_closed(journal->header.jnl_shutdown_tag);
    return open && service_is_active() ? "the service is active" : "";
}
