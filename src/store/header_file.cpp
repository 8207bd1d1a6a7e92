#include "store/header_file.h"

#include <cstdio>

#include "store/descriptor.h"
#include "store/log.h"

static size_t header_size(const header_kind& kind) {
    return static_cast<size_t>(kind.const_nodes + kind.var_nodes) * META_NODE_SIZE;
}

int open_kind(const char* caller, const header_kind& kind, const char* path, file_access access) {
    const int fd = open_file(path, access);
    if (fd == 0) {
        log_err_as(caller, "%s file descriptor is invalid\n", kind.word);
    }
    return fd;
}

int open_with_header(const char* caller, const header_kind& kind, const char* path, void* header,
                     file_access access) {
    scoped_fd file(open_kind(caller, kind, path, access));
    if (file.get() == 0 ||
        tarn_load_meta_nodes(file.get(), header, kind.const_nodes, kind.var_nodes) != 0) {
        return 0;  // logged there
    }
    return file.release();
}

int read_file_uuid(const char* path, uint8_t* uuid) {
    // The nodes of an index serve for every kind: where an index has its variable node, a table is
    // empty; a map and a data file have their uuid in the same constant node.
    constexpr header_kind any = {"fri", 2, 1};
    constexpr const char* name = "extract_fri_uuid";
    if (log_missing_as(name, path == nullptr, "name") ||
        log_missing_as(name, uuid == nullptr, "uuid")) {
        return -1;
    }
    metadata_head nodes[3];
    const scoped_fd file(open_with_header(name, any, path, nodes));
    if (file.get() == 0) {
        return -1;  // logged there
    }
    (void)meta_hdr_d2m(nodes);  // deliberate: a wrong magic code is logged, the uuid is used
    memcpy(uuid, nodes[0].uuid, UUID_SIZE);
    return 0;
}

int load_header_file(const char* caller, const header_kind& kind, magic_rule rule, const char* path,
                     int* fd, void* header) {
    *fd = open_kind(caller, kind, path, file_access::read_write);
    uint8_t nodes[HEADER_SIZE_MAX];
    if (*fd == 0 || tarn_load_meta_nodes(*fd, nodes, kind.const_nodes, kind.var_nodes) != 0) {
        return -1;  // logged there
    }
    if (meta_hdr_d2m(nodes) != 0 && rule == magic_rule::required) {
        return -1;  // logged there
    }
    memcpy(header, nodes, header_size(kind));
    return 0;
}

int save_header_file(const char* caller, const header_kind& kind, int fd, void* header) {
    if (fd == 0) {
        log_err_as(caller, "%s file descriptor is invalid\n", kind.word);
        return -1;
    }
    meta_hdr_m2d(header);
    return tarn_save_meta_nodes(fd, header, kind.const_nodes, kind.var_nodes);
}

// Copies the nodes that were read from `path` into the handle and `header`.
static void keep_header(const header_kind& kind, handle_prefix* handle, void* header,
                        const uint8_t* nodes, const char* path) {
    (void)meta_hdr_d2m(nodes);  // deliberate: a wrong magic code is logged, the handle loads
    memcpy(header, nodes, header_size(kind));
    metadata_head head;
    memcpy(&head, nodes, sizeof head);
    memcpy(handle->uuid, head.uuid, UUID_SIZE);
    snprintf(handle->path, sizeof handle->path, "%s", path);
}

int load_handle(const char* caller, const header_kind& kind, pool_handle* handle, void* header,
                const char* name, file_access access) {
    if (log_missing_as(caller, name == nullptr, "name")) {
        return handle == nullptr ? -1 : drop_handle(&handle->fd, &handle->buffer);
    }
    if (log_missing_as(caller, handle == nullptr, "handle")) {
        return -1;
    }
    uint8_t nodes[HEADER_SIZE_MAX];
    handle->fd = open_with_header(caller, kind, name, nodes, access);
    if (handle->fd == 0) {
        return drop_handle(&handle->fd, &handle->buffer);  // logged there
    }
    keep_header(kind, handle, header, nodes, name);
    return 0;
}

int take_header(const header_kind& kind, handle_prefix* handle, void* header,
                const opened_file* file) {
    uint8_t nodes[HEADER_SIZE_MAX];
    if (meta_header_load(&file->header, nodes, kind.const_nodes, kind.var_nodes) != 0) {
        return -1;  // logged there
    }
    keep_header(kind, handle, header, nodes, file->path);
    return 0;
}

int take_handle(const header_kind& kind, pool_handle* handle, void* header,
                const opened_file* file) {
    if (take_header(kind, handle, header, file) != 0) {
        io_close(file->fd);
        return -1;  // logged there
    }
    handle->fd = file->fd;
    return 0;
}

int close_handle(const char* caller, pool_handle* handle) {
    if (log_missing_as(caller, handle == nullptr, "handle")) {
        return -1;
    }
    end_handle(&handle->fd, &handle->buffer);
    return 0;
}

static void free_buffer(uint8_t** buffer) {
    delete[] * buffer;
    *buffer = nullptr;
}

void end_handle(int* fd, uint8_t** buffer) {
    free_buffer(buffer);
    close_synced(*fd);
    *fd = 0;
}

int drop_handle(int* fd, uint8_t** buffer) {
    free_buffer(buffer);
    io_close(*fd);
    *fd = 0;
    return -1;
}
