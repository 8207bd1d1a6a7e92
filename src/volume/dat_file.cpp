#include "volume/dat_file.h"

#include <cstdio>

#include "store/descriptor.h"
#include "store/file.h"
#include "store/log.h"
#include "store/meta_node.h"
#include "volume/volume_paths.h"

// After a failure: nothing stays open.
static int give_up(dat_handle* handle) {
    delete[] handle->buffer;
    handle->buffer = nullptr;
    io_close(handle->fd);
    handle->fd = 0;
    return -1;
}

int load_dat_handle(dat_handle* handle, const char* path) {
    if (path == nullptr) {
        log_err("%s NULL pointer\n", "name");
        return -1;
    }
    if (handle == nullptr) {
        log_err("%s NULL pointer\n", "handle");
        return -1;
    }
    handle->fd = open_file(path);
    if (handle->fd == 0) {
        log_err("dat file descriptor is invalid\n");
        return give_up(handle);
    }
    dat_header header{};
    if (tarn_load_meta_nodes(handle->fd, &header, DAT_CONST_NODES, DAT_VAR_NODES) != 0 ||
        meta_hdr_d2m(&header) != 0) {
        return give_up(handle);
    }
    handle->header = header;
    snprintf(handle->name, sizeof handle->name, "%s", path);
    return 0;
}

int close_dat_handle(dat_handle* handle) {
    if (handle == nullptr) {
        log_err("%s NULL pointer\n", "handle");
        return -1;
    }
    delete[] handle->buffer;
    handle->buffer = nullptr;
    close_synced(handle->fd);
    handle->fd = 0;
    return 0;
}

int dat_file_path(char* out, const char* root, unsigned number) {
    return form_path(out, PATH_TEXT_SIZE, "%s/%s/EP_DAT_%05u", root, EP_DIR, number);
}
