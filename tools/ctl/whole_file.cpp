#include "ctl/whole_file.h"

#include <cerrno>
#include <fcntl.h>
#include <unistd.h>

#include "store/descriptor.h"

bool read_whole_file(const std::string& path, size_t most, std::string* text) {
    struct stat64 status = {};
    if (io_stat(path.c_str(), &status) != 0) {
        return false;
    }
    if (!S_ISREG(status.st_mode)) {
        errno = S_ISDIR(status.st_mode) ? EISDIR : EINVAL;
        return false;
    }
    const int opened = io_open(path.c_str(), O_RDONLY | O_NONBLOCK, 0);
    if (opened <= 0) {
        return false;
    }
    const scoped_fd fd(opened);
    char part[65536];
    while (text->size() <= most) {
        const ssize_t got = io_read(opened, part, sizeof part);
        if (got <= 0) {
            return got == 0;
        }
        text->append(part, static_cast<size_t>(got));
    }
    return true;
}

static bool write_all(int fd, const std::string& text) {
    size_t done = 0;
    while (done < text.size()) {
        const ssize_t part = io_write(fd, text.data() + done, text.size() - done);
        if (part <= 0) {
            errno = part == 0 ? ENOSPC : errno;
            return false;
        }
        done += static_cast<size_t>(part);
    }
    return true;
}

// Opens a new file. One of the same name is left over from a process that had this one's number.
static int open_new(const std::string& path) {
    constexpr int FLAGS = O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW;
    const int fd = io_open(path.c_str(), FLAGS, 0644);
    if (fd >= 0 || errno != EEXIST || io_unlink(path.c_str()) != 0) {
        return fd;
    }
    return io_open(path.c_str(), FLAGS, 0644);
}

static bool write_new(const std::string& path, const std::string& text) {
    const int opened = open_new(path);
    if (opened <= 0) {
        return false;
    }
    const scoped_fd fd(opened);
    return write_all(opened, text) && io_sync(opened) == 0;
}

std::string directory_of(const std::string& path) {
    const size_t slash = path.rfind('/');
    return slash == std::string::npos ? "." : slash == 0 ? "/" : path.substr(0, slash);
}

static bool sync_directory(const std::string& directory) {
    const int opened = io_open(directory.c_str(), O_RDONLY | O_DIRECTORY, 0);
    if (opened <= 0) {
        return false;
    }
    const scoped_fd fd(opened);
    return io_sync(opened) == 0;
}

static bool remove_after_failure(const std::string& fresh) {
    const int error = errno;
    (void)io_unlink(fresh.c_str());  // deliberate: it may not be there
    errno = error;
    return false;
}

bool write_beside(const std::string& path, const std::string& text, std::string* fresh) {
    *fresh = path + ".tmp." + std::to_string(getpid());
    return write_new(*fresh, text) || remove_after_failure(*fresh);
}

bool move_in_place(const std::string& fresh, const std::string& path) {
    if (io_rename(fresh.c_str(), path.c_str()) != 0) {
        return remove_after_failure(fresh);
    }
    return sync_directory(directory_of(path));
}

bool replace_file(const std::string& path, const std::string& text) {
    std::string fresh;
    return write_beside(path, text, &fresh) && move_in_place(fresh, path);
}
