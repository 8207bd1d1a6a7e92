#include "view/header_view.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>

// False, errno set: it is no file that can be read.
static bool is_file(const std::string& path) {
    struct stat64 status = {};
    if (io_stat(path.c_str(), &status) != 0) {
        return false;
    }
    errno = S_ISDIR(status.st_mode) ? EISDIR : EINVAL;
    return S_ISREG(status.st_mode);
}

static bool read_all(int fd, uint8_t* to, size_t size, size_t* got) {
    while (*got < size) {
        const ssize_t part = io_read_at(fd, to + *got, size - *got, *got);
        if (part < 0) {
            return false;
        }
        if (part == 0) {
            break;
        }
        *got += static_cast<size_t>(part);
    }
    return true;
}

static void take_nodes(const meta_header& bytes, int const_nodes, int var_nodes, void* header,
                       header_view* view) {
    auto* out = static_cast<uint8_t*>(header);
    view->node_count = static_cast<uint32_t>(const_nodes + var_nodes);
    for (uint32_t i = 0; i < view->node_count; i++) {
        const uint32_t k = i < static_cast<uint32_t>(const_nodes)
                               ? i
                               : static_cast<uint32_t>(META_VAR_NODE_BASE) + i -
                                     static_cast<uint32_t>(const_nodes);
        meta_node node;
        memcpy(&node, bytes.bytes + k * META_NODE_SIZE, sizeof node);
        const node_state state = meta_node_state(&node);
        if (state == node_state::wrong || state == node_state::unsummed) {
            view->bad_nodes |= 1u << i;
        }
        memcpy(out + i * META_NODE_SIZE, &node, sizeof node);
    }
}

scoped_fd open_header(const std::string& path, int const_nodes, int var_nodes, void* header,
                      header_view* view) {
    *view = {};
    const int opened = is_file(path) ? io_open(path.c_str(), O_RDONLY | O_NONBLOCK, 0) : -1;
    scoped_fd fd(opened > 0 ? opened : 0);
    const int64_t size = fd.get() > 0 ? io_size(fd.get()) : -1;
    meta_header bytes = {};
    if (size < 0 || !read_all(fd.get(), bytes.bytes, sizeof bytes.bytes, &view->got)) {
        view->error = errno != 0 ? errno : EIO;
        return scoped_fd(0);
    }
    view->file_size = static_cast<uint64_t>(size);
    if (view->got == 0) {
        view->error = ENODATA;
        return scoped_fd(0);
    }
    take_nodes(bytes, const_nodes, var_nodes, header, view);
    return fd;
}
