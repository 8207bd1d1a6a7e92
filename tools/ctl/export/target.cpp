#include "ctl/export/target.h"

#include <cerrno>
#include <climits>
#include <cstring>
#include <fcntl.h>

#include "ctl/text/escape.h"
#include "ctl/whole_file.h"
#include "store/descriptor.h"

static bool is_same(const std::string& one, const std::string& other) {
    return io_same_file(one.c_str(), other.c_str()) == 1;
}

// The volume's root, or one of its directories of metadata, mounted or linked from anywhere.
static bool is_of_volume(const volume_files& volume, const std::string& directory) {
    for (const char* name : {EP_DIR, LUN_DIR, TRASH_DIR, SNAPSHOT_DIR}) {
        if (is_same(directory, volume.root + "/" + name)) {
            return true;
        }
    }
    return is_same(directory, volume.root);
}

// The volume that a directory lies in, or the directory of the journal; empty: neither. Every
// directory above it is compared, not its name.
static std::string forbidden_place(const server_files& server, std::string directory) {
    if (!server.journal.empty() && is_same(directory, directory_of(server.journal))) {
        return "the directory of the journal";
    }
    while (true) {
        for (const volume_files& volume : server.volumes) {
            if (volume.state != volume_state::plain && is_of_volume(volume, directory)) {
                return shown(volume.root) + ", a volume of this server";
            }
        }
        if (directory == "/") {
            return "";
        }
        directory = directory_of(directory);
    }
}

static std::string name_problem(const export_target& target, bool force) {
    for (const std::string& path : {target.file, target.map(), target.part()}) {
        struct stat64 status = {};
        if (io_lstat(path.c_str(), &status) != 0) {
            if (errno == ENOENT || errno == ENOTDIR) {
                continue;
            }
            return shown(path) + ": " + strerror(errno);
        }
        if (!S_ISREG(status.st_mode)) {
            return shown(path) + " is no regular file";
        }
        if (!force) {
            return shown(path) +
                   (path == target.part()
                        ? " is left over from another export, or one writes it now"
                        : " exists") +
                   "; --force replaces it";
        }
    }
    return "";
}

std::string target_problem(const server_files& server, const export_target& target, bool force) {
    char real[PATH_MAX];
    const std::string directory = directory_of(target.file);
    if (io_real_path(directory.c_str(), real) == nullptr) {
        return shown(directory) + ": " + strerror(errno);
    }
    const std::string place = forbidden_place(server, real);
    if (!place.empty()) {
        return shown(target.file) + " lies in " + place + ": an export writes nothing there";
    }
    return name_problem(target, force);
}

static bool remove_old(const std::string& path) {
    return io_unlink(path.c_str()) == 0 || errno == ENOENT;
}

static int make_file(const std::string& path) {
    constexpr unsigned OWNER_ONLY = 0600;  // the bytes of a LUN
    return io_open(path.c_str(), O_RDWR | O_CREAT | O_EXCL, OWNER_ONLY);
}

bool open_part(export_target* target, uint64_t length, bool force) {
    if (force && !(remove_old(target->part()) && remove_old(target->map()))) {
        return false;
    }
    const int made = make_file(target->part());
    if (made <= 0) {
        return false;
    }
    target->fd = made;
    if (io_truncate(made, length) != 0) {
        const int error = errno;
        drop_part(target);
        errno = error;
        return false;
    }
    return true;
}

static bool write_whole(int fd, const std::string& text) {
    for (size_t done = 0; done < text.size();) {
        const ssize_t part = io_write_at(fd, text.data() + done, text.size() - done, done);
        if (part <= 0) {
            errno = part == 0 ? ENOSPC : errno;
            return false;
        }
        done += static_cast<size_t>(part);
    }
    return true;
}

// Under another name first: it is never seen half written.
static bool write_mapfile(const export_target& target, const std::string& text) {
    const std::string part = target.map() + ".part";
    const int made = remove_old(part) ? make_file(part) : -1;
    if (made <= 0) {
        return false;
    }
    const scoped_fd fd(made);
    return write_whole(made, text) && io_sync(made) == 0 &&
           io_rename(part.c_str(), target.map().c_str()) == 0;
}

static bool sync_directory(const std::string& directory) {
    const int opened = io_open(directory.c_str(), O_RDONLY | O_DIRECTORY, 0);
    if (opened <= 0) {
        return false;
    }
    const scoped_fd fd(opened);
    return io_sync(opened) == 0 || errno == EINVAL;  // not every file system can
}

bool finish_part(export_target* target, const std::string& mapfile) {
    target->is_named = io_sync(target->fd) == 0 && write_mapfile(*target, mapfile) &&
                       io_rename(target->part().c_str(), target->file.c_str()) == 0;
    const bool finished = target->is_named && sync_directory(directory_of(target->file));
    const int error = errno;
    leave_part(target);
    errno = error;
    return finished;
}

void leave_part(export_target* target) {
    io_close(target->fd);
    target->fd = 0;
}

void drop_part(export_target* target) {
    leave_part(target);
    (void)io_unlink(target->part().c_str());
}
