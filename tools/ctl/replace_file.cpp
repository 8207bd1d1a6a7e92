#include "ctl/replace_file.h"

#include <cerrno>
#include <fcntl.h>
#include <unistd.h>

#include "store/descriptor.h"

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

static bool sync_directory(const std::string& directory) {
    const int opened = io_open(directory.c_str(), O_RDONLY | O_DIRECTORY, 0);
    if (opened <= 0) {
        return false;
    }
    const scoped_fd fd(opened);
    return io_sync(opened) == 0;
}

bool replace_file(const std::string& directory, const std::string& path, const std::string& text) {
    const std::string fresh = path + ".tmp." + std::to_string(getpid());
    if (!write_new(fresh, text) || io_rename(fresh.c_str(), path.c_str()) != 0) {
        const int error = errno;
        (void)io_unlink(fresh.c_str());  // deliberate: it may not be there
        errno = error;
        return false;
    }
    return sync_directory(directory);
}
